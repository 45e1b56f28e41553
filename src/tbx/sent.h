// The administrator's store: one directory per message, with the reference copy, the
// recipients, the delivery log and markers that say which operation is under way.
#pragma once

#include "common/core.h"
#include "common/message.h"
#include "tbx/confirmation.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

constexpr size_t RECIPIENTS_MAX_BYTES = 4'194'304;
constexpr size_t DELIVERY_MAX_BYTES = 16'777'216;

// ---- Paths --------------------------------------------------------------------------------

[[nodiscard]] std::string sent_dir();                              // "VAR/sent"
[[nodiscard]] std::string users_dir();                             // "VAR/users"
[[nodiscard]] std::string sent_message_dir(int64_t id);            // "VAR/sent/ID"
[[nodiscard]] std::string sent_path(int64_t id, const char *name); // "VAR/sent/ID/NAME"

// ---- Identifiers, locks, markers ----------------------------------------------------------

// Appends the identifiers of all messages, ascending. -1 with errno when the store cannot be
// read.
[[nodiscard]] int sent_list_ids(strlist *list);

// Creates the state directories where missing, takes the next free identifier under the
// sequence lock and creates its directory. Ends the process with "%s: %s" on failure; an
// identifier past ID_MAX is EOVERFLOW.
[[nodiscard]] int64_t sent_allocate_id();

// Holds the message's lock until the result is closed. Empty, with errno set, when the lock
// file cannot be opened or, with `nonblocking`, when another run holds the lock.
[[nodiscard]] unique_fd sent_lock(int64_t id, bool nonblocking);

enum class marker_state {
    absent,
    present,
    unknown, // could not be looked up: says nothing about the message
};

void sent_marker_create(int64_t id, const char *name); // best effort, by design
// Looks the marker up; for `unknown`, errno says why.
[[nodiscard]] marker_state sent_marker_look_up(int64_t id, const char *name);
// Whether the marker is known to exist: 1 or 0.
[[nodiscard]] int sent_marker_exists(int64_t id, const char *name);

// Writes a marker that holds the current time, atomically. One that stands keeps its time:
// EEXIST. 0, or -1 with errno.
[[nodiscard]] int sent_marker_write_time(int64_t id, const char *name);

// The time in the "revoked" marker; 0 when it is missing or malformed, -1 with errno when it could
// not be read for want of resources.
[[nodiscard]] int64_t sent_revocation_time(int64_t id);

// ---- Recipients and delivery log ----------------------------------------------------------

// Appends the names of the message's recipients. A missing or unreadable file yields nothing:
// -1 with errno, so that a caller about to act on "no recipients" can tell.
int sent_read_recipients(int64_t id, strlist *list);

// Whom the log names, each once in the order of first appearance, with the number of
// terminals written to as text. The two lists are parallel; they look into `log`.
struct delivery_table {
    std::vector<std::string_view> users;
    std::vector<std::string_view> terminals;
    strbuf log; // as it was read
    place_index by_user;
};

// Fills `table` from the message's delivery log; the first line of each user counts. A missing
// or unreadable log leaves it empty: -1 with errno.
int sent_read_delivery(int64_t id, delivery_table *table);

// Position of `user` in the table, or -1.
[[nodiscard]] ptrdiff_t delivery_find(const delivery_table &table, std::string_view user);

// Appends "USER NOW TERMINALS" to the delivery log. Best effort, by design.
void sent_append_delivery(int64_t id, const char *user, int terminals);

// Cuts a last line without its newline off the delivery log: what an interrupted or failing
// append left must not run into the next line.
// False when that is needed, or may be, and did not work.
[[nodiscard]] bool sent_mend_delivery(int64_t id);

// ---- Removing -----------------------------------------------------------------------------

// Removes the message directory `dir` and every file of message `id` in the mailboxes of the
// recipients that it names. Failures leave what cannot be removed; where for want of resources it
// cannot be told who the recipients are, or no mailbox can be entered, the directory is left for
// a later run.
void sent_remove_message_dir(const char *dir, int64_t id);

// Removes every recipient's copy, then the "revoking" marker. False, with the marker kept,
// when some copy could not be removed.
[[nodiscard]] bool sent_finish_revoking(int64_t id);

// ---- State of a recipient -----------------------------------------------------------------

enum class delivery_state { sent = 0, delivered = 1, confirmed = 2 };

struct recipient_status {
    delivery_state state = delivery_state::sent; // sent: not delivered
    bool late = false;                           // confirmed, but after the expiry
    int64_t time = 0;                            // of the confirmation
    std::string detail;                          // how it was confirmed, uncleaned
};

// Derives the state of `user` for `message`.
//   cutoff  the revocation time, 0 for none; a later confirmation does not count
// The confirmations of each user are read once and kept until the cache is dropped. False, with
// errno, when they could not be read for want of resources.
[[nodiscard]] bool recipient_state(const char *user, int64_t id, const delivery_table &delivery,
                                   const message_record &message, int64_t cutoff,
                                   recipient_status *out);

// What the user's mailbox records of the message, through the same cache; null for nothing. Stays
// valid until another message is asked for or the cache is dropped.
[[nodiscard]] const confirmation_entry *recipient_confirmation(const char *user, int64_t id);

// Forgets every cached confirmation, so that the next recipient_state reads afresh, of every
// message again.
void recipient_state_cache_drop();

// Says that up to the next drop only this message will be asked for: of the mailboxes that are
// read until then, only what concerns it is. The time to read everything grows with what users have
// ever confirmed. Asking for another message all the same drops the cache.
void recipient_state_ask_only(int64_t id);
