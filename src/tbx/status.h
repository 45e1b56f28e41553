// How far a message got: the summary that `list` and the interface show, and the state of
// each recipient.
#pragma once

#include "common/core.h"
#include "common/message.h"
#include "tbx/recipient_state.h"

#include <cstdint>
#include <string>
#include <vector>

struct message_summary {
    message_record message;
    bool revoked = false;
    bool expired = false;
    int64_t revoked_at = 0; // seconds since the epoch; 0 when not revoked or unknown
    int confirmed = 0;      // recipients in each state
    int delivered = 0;
    int sent = 0;
};

// Returns the marks before the text of a message in listings: "[revoked] ", "[expired] ", both or
// none, each between two style strings.
[[nodiscard]] std::string message_marks(const message_summary &summary, const char *style = "",
                                        const char *reset = "");

// Loads the summary of message `id`. Returns `absent` for a message that is marked failed, was not
// saved or has no recipients, `failed` with errno when something could not be read.
[[nodiscard]] lookup message_summary_load(int64_t id, confirmation_cache *cache,
                                          message_summary *summary);

// Appends the recipients column: "all confirmed (3)", or "1 confirmed · 2 delivered".
void summary_text(const message_summary &summary, strbuf *out);

struct recipient_line {
    std::string user;
    delivery_state state = delivery_state::sent;
    std::string text; // "confirmed on 04/10 12:00 (desktop)", ...
};

// Appends one line per recipient, in the order of the recipients file. Returns 0, or -1 with errno
// when they could not be read.
[[nodiscard]] int recipient_state_lines(int64_t id, const message_record &message,
                                        confirmation_cache *cache,
                                        std::vector<recipient_line> *lines);

// The same; ends the process when they could not be read.
[[nodiscard]] std::vector<recipient_line>
recipient_state_lines_or_die(int64_t id, const message_record &message);
