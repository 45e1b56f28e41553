// Reads what the recipient's programs have recorded in a mailbox: confirmations, and the times a
// message was shown. A child reads it as the user and reports it in lines.
#pragma once

#include "common/core.h"
#include "tbx/accounts.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

struct confirmation_entry {
    int64_t id = 0;
    std::optional<std::string> ack; // first line of the confirmation; none: not confirmed
    int64_t shown = 0;              // seconds since the epoch; 0: never shown
};

// In the order in which the identifiers first appear in the report, each once.
struct confirmation_list {
    std::vector<confirmation_entry> entries;
    place_index by_id; // position in `entries`
};

// Fills `list` with what the user's mailbox records of the messages `ids` (decimal strings). One
// child reads it as the user. If the mailbox is damaged, or the user stops the child, the list is
// shorter or empty. Returns 0, or -1 with errno when the mailbox could not be looked at.
[[nodiscard]] int mailbox_read_confirmations(const resolved_user &user, const strlist &ids,
                                             confirmation_list *list);

// The same, with one identifier on each line. For many users the lines are made only once.
[[nodiscard]] int mailbox_read_confirmations(const resolved_user &user, std::string_view id_lines,
                                             confirmation_list *list);

// Returns the entry of a message, or null. It stays valid until the list changes.
[[nodiscard]] const confirmation_entry *confirmation_find(const confirmation_list &list,
                                                          int64_t id);
void confirmation_list_free(confirmation_list *list);

// Adds the report's lines to `list`: "A ID TEXT" for a confirmation (the first counts),
// "S ID SECONDS" for the time shown (the latest counts). Other lines are skipped.
void confirmation_parse(std::string_view output, confirmation_list *list);

// Runs in the child, as the user: reads identifiers from standard input, writes the report to
// standard output. The argument is a const char *, the mailbox directory. Exit status always 0.
int mailbox_report_confirmations(void *argument);
