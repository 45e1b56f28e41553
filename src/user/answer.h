// Answers and marks: the only writer of acks/, read/ and state/.
//
// The administrator's command and other programs of the user work in the same mailbox at the same
// time, without a common lock, and a run may be killed between any two calls. So every step leaves
// a valid state: an answer appears whole or not at all, is never replaced, and has a lock of its
// own until it has been recorded.
#pragma once

#include "user/inbox.h"

#include <cstdint>
#include <string>

// ---- The mailbox lock ---------------------------------------------------------------------

constexpr int MAILBOX_LOCK_PATIENCE_MS = 2000;

// Held while a program answers, shows or tidies up; released by the destructor. It keeps the user's
// programs apart, but nothing depends on it: a program that cannot get it in time goes on without
// it.
class mailbox_lock {
public:
    mailbox_lock() = default;
    [[nodiscard]] bool is_held() const { return static_cast<bool>(fd_); }
    void release() { fd_.reset(); }

    // Waits at most `patience_ms` for the lock; with 0 it tries once and never blocks.
    [[nodiscard]] static mailbox_lock take(const own_mailbox &box,
                                           int patience_ms = MAILBOX_LOCK_PATIENCE_MS);

private:
    unique_fd fd_;
};

// ---- Confirming ---------------------------------------------------------------------------

enum class confirm_result {
    confirmed,  // by this call
    already,    // earlier: `answer` says when and where; nothing was changed
    not_a_file, // acks/ID exists but is not a file, so it is no answer
    withdrawn,  // there is no such message (any more): no answer is left
    failed,     // because of `error`: not written, and the message still waits; or, if
                // `answer.state` is failed too, an answer exists that cannot be read
};

struct confirmation {
    confirm_result result = confirm_result::failed;
    answer_record answer; // confirmed and already: the contents of acks/ID
    int error = 0;        // failed: an errno
};

// Writes the answer "NOW CHANNEL", records CONFIRMED and moves the copy to read/. If the answer
// cannot be written, CONFIRMATION_FAILED is recorded. An expired message can be confirmed.
[[nodiscard]] confirmation answer_confirm(own_mailbox *box, int64_t id, channel where);

// ---- Marks --------------------------------------------------------------------------------
// Both return 0; or -1 with errno: ENOENT when the message is not in the inbox (any more),
// EALREADY when it was answered, otherwise why the mark could not be written.

// Marks the message as postponed from now on and records POSTPONED.
[[nodiscard]] int answer_postpone(own_mailbox *box, int64_t id, channel where);

// Marks the message as shown at `moment` (seconds since the epoch, not later than now). A
// postponement that still holds, and a mark newer than `moment`, stay unchanged; that is no error.
[[nodiscard]] int answer_shown(own_mailbox *box, int64_t id, channel where, int64_t moment,
                               int64_t remind_seconds);

// ---- Tidying up ---------------------------------------------------------------------------

// Finishes the answers of killed runs: a message that has an answer and is still in the inbox is
// recorded and moved to read/. Cheap when there is nothing to do. Skips answers that a running
// process holds.
void answer_finish_interrupted(own_mailbox *box);

// Removes the hidden files that killed runs have left. Does nothing without the lock, and leaves
// those that a running process writes.
void answer_remove_leftovers(const own_mailbox &box, const mailbox_lock &lock);

// ---- The prompt's mark --------------------------------------------------------------------

// Sets the time of state/.prompt to now, creating it if necessary. Returns 0, or -1 with errno.
[[nodiscard]] int answer_touch_prompt(own_mailbox *box);
