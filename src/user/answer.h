// Answers and marks: the only writer of acks/, read/ and state/.
//
// The administrator's command works in the same mailbox without any lock, other programs of the
// user do so at the same moment, and a run may be killed between any two calls. So every step
// here is right by itself: an answer appears whole or not at all, is never replaced, and is held
// by a lock of its own until it has been recorded.
#pragma once

#include "user/inbox.h"

#include <cstdint>
#include <string>

// ---- The mailbox lock ---------------------------------------------------------------------

constexpr int MAILBOX_LOCK_PATIENCE_MS = 2000;

// Held by whoever answers, shows or tidies up, until the object goes. It keeps the user's programs
// out of each other's way and is not needed for anything to be right: whoever cannot get it in
// time goes on without it.
class mailbox_lock {
public:
    mailbox_lock() = default;
    [[nodiscard]] bool is_held() const { return static_cast<bool>(fd_); }

    // Waits at most `patience_ms` for the lock; with 0 it tries once and never blocks.
    [[nodiscard]] static mailbox_lock take(const own_mailbox &box,
                                           int patience_ms = MAILBOX_LOCK_PATIENCE_MS);

private:
    unique_fd fd_;
};

// ---- Confirming ---------------------------------------------------------------------------

enum class confirm_result {
    confirmed,  // by this call
    already,    // before: `answer` tells when and where; nothing was changed
    not_a_file, // something else stands at acks/ID, which nobody takes for an answer
    withdrawn,  // no such message, or not any more: no answer is left
    failed,     // for the reason `error`: not written, and the message stays waiting; or, if
                // `answer.state` is failed too, there is an answer that cannot be read
};

struct confirmation {
    confirm_result result = confirm_result::failed;
    answer_record answer; // confirmed and already: what stands in acks/ID
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

// Marks the message as shown at `moment` (seconds since the epoch, not later than now). Leaves a
// postponement that still holds, and a mark that is younger than `moment`: that is no error.
[[nodiscard]] int answer_shown(own_mailbox *box, int64_t id, channel where, int64_t moment,
                               int64_t remind_seconds);

// ---- Tidying up ---------------------------------------------------------------------------

// Finishes the answers of runs that were killed: what has an answer, and lies in the inbox still,
// is recorded and moved to read/. Cheap when there is nothing to do. One that a living process
// holds is left to it.
void answer_finish_interrupted(own_mailbox *box);

// Removes the hidden files that killed runs have left. Does nothing without the lock: they could
// be somebody's.
void answer_remove_leftovers(const own_mailbox &box, const mailbox_lock &lock);

// ---- The prompt's mark --------------------------------------------------------------------

// Sets the time of state/.prompt to now, creating it if necessary. Returns 0, or -1 with errno.
[[nodiscard]] int answer_touch_prompt(own_mailbox *box);
