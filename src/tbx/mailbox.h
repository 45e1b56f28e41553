// The users' mailboxes. Every operation inside one is carried out by a short-lived child that
// has become the user; root only creates the mailbox directory and hands it over.
#pragma once

#include "common/core.h"
#include "tbx/recipients.h"

#include <cstdint>
#include <string>
#include <string_view>

constexpr int MAILBOX_TIMEOUT_SECONDS = 20;

// Runs in the child; its result (modulo 256) is the child's exit status. Must not return 126.
using user_callback = int (*)(void *argument);

// Runs `callback(argument)` in a child that has become `user` (outside test mode, when root).
//   input            bytes for the child's standard input, or null for /dev/null
//   output           receives the child's standard output, at most `output_limit` bytes, or null
//   timeout_seconds  after which the child is killed
// Returns the callback's exit status (0 to 255, never 126), or -1 when the child could not be
// started, could not become the user, ran out of time or was ended by a signal. With -1, errno
// says what kept it from being started, and is 0 when it was started.
[[nodiscard]] int run_as_user(const resolved_user &user, user_callback callback, void *argument,
                              const std::string_view *input, strbuf *output, size_t output_limit,
                              int timeout_seconds);

// The monotonic clock, in milliseconds.
[[nodiscard]] int64_t monotonic_ms();

// Waits for `child` until `deadline_ms` on the monotonic clock, noticing its end at once; a
// child still running then is killed and waited for. Returns 0 with the wait status in
// `status`, or -1 when it had to be killed or could not be waited for.
[[nodiscard]] int reap_child(pid_t child, int64_t deadline_ms, int *status);

// What the callbacks inside a mailbox work on.
struct mailbox_target {
    std::string mailbox; // directory
    int64_t id;          // message
};

// "VAR/users/NAME"
[[nodiscard]] std::string mailbox_dir(const resolved_user &user);
// "MAILBOX/FOLDER/IDSUFFIX", for example mailbox_file(target, "state", ".term").
[[nodiscard]] std::string mailbox_file(const mailbox_target &target, const char *folder,
                                       const char *suffix);

// Writes `text` (the message file) to inbox/ID, creating the mailbox when needed. True when the
// copy stands there, or when the user has already read or confirmed the message.
[[nodiscard]] bool mailbox_deliver(const resolved_user &user, int64_t id, std::string_view text);

// Removes the copy and the shown-marks. True when no copy is left, also without a mailbox.
[[nodiscard]] bool mailbox_withdraw(const resolved_user &user, int64_t id);

// Removes the shown-marks, so that the message is shown again. True when both are gone; false
// without a mailbox.
[[nodiscard]] bool mailbox_reset_shown(const resolved_user &user, int64_t id);

// Removes every file of the message, as far as possible. False, with errno, when nobody could
// try for want of resources.
[[nodiscard]] bool mailbox_purge_message(const resolved_user &user, int64_t id);

// The callbacks, each run as the user; the argument is a mailbox_target. They report through
// their exit status only: 0 done, 1 not.
int mailbox_write_copy(void *argument);   // reads the copy from standard input
int mailbox_remove_copy(void *argument);  // inbox/ID and the shown-marks
int mailbox_remove_shown(void *argument); // the shown-marks
int mailbox_remove_all(void *argument);   // every file of the message
