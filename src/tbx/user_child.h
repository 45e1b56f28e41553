// The only place that forks to act as a recipient. A short-lived child becomes the user for good
// and runs one small function. Its time, the size of its report and what it inherits are limited.
#pragma once

#include "common/core.h"
#include "tbx/accounts.h"

#include <sys/types.h>

#include <cstdint>
#include <string_view>

// Runs in the child; its result (modulo 256) is the child's exit status. Must not return 126.
using user_callback = int (*)(void *argument);

enum class child_outcome {
    done,    // the callback ran to its end
    refused, // the user may have prevented that: killed, or out of time
    failed,  // it could not be started, or could not become the user; errno says why
};

struct child_end {
    child_outcome outcome = child_outcome::failed;
    int status = -1; // the callback's, 0 to 255, never 126; -1 unless it is done

    // Whether the callback ran to its end and returned 0.
    [[nodiscard]] bool succeeded() const { return outcome == child_outcome::done && status == 0; }
};

// Runs `callback(argument)` in a child that has become `user` (outside test mode, when root). The
// child has no descriptors but its standard ones.
//   input            bytes for the child's standard input, or null for /dev/null
//   output           receives the child's standard output, at most `output_limit` bytes, or null
//   timeout_seconds  after which the child is killed; at most what is left of the user's time
// Returns `refused` at once if the user's time is over.
[[nodiscard]] child_end run_as_user(const resolved_user &user, user_callback callback,
                                    void *argument, const std::string_view *input, strbuf *output,
                                    size_t output_limit, int timeout_seconds);

// The same without becoming the user, without input, and without keeping output: for a call on a
// user's file system, which may never return. Its time counts as time of `user`.
[[nodiscard]] child_end run_bounded(const resolved_user &user, user_callback callback,
                                    void *argument, int timeout_seconds);

// ---- A user's time ------------------------------------------------------------------------
// One run spends at most USER_TIME_MS on children of one user, whatever the number of messages. So
// a user whose file system or service manager does not answer delays the others by no more than
// that.

constexpr int64_t USER_TIME_MS = 20'000;

// Subtracts the time from its construction to its destruction from the user's time.
class user_timer {
public:
    explicit user_timer(const resolved_user &user);
    ~user_timer();
    user_timer(const user_timer &) = delete;
    user_timer &operator=(const user_timer &) = delete;

    // Returns the deadline on the monotonic clock: `limit_ms` after the start, or earlier, when the
    // user's time is over.
    [[nodiscard]] int64_t deadline_ms(int64_t limit_ms) const;
    [[nodiscard]] bool is_over() const { return left_ms_ <= 0; }

private:
    const resolved_user &user_;
    int64_t start_ms_;
    int64_t left_ms_;
};

// Begins another run in the same process; each reload of the interface is one. Users get their full
// time again, except those whose time was over: a minute later they get one second.
void user_times_renew();

// Begins a run that ignores all earlier ones: a command of the interface, in its own child.
void user_times_forget();

// ---- Waiting ------------------------------------------------------------------------------

// Waits for `child` until `deadline_ms` on the monotonic clock, and notices its end at once. A
// child that is still running then is killed and waited for. Returns 0 with the wait status in
// `status`, or -1 when it had to be killed or could not be waited for.
[[nodiscard]] int reap_child(pid_t child, int64_t deadline_ms, int *status);

// ---- In a child ---------------------------------------------------------------------------

// Makes /dev/null the standard input, output and error and closes every other descriptor, or ends
// the child with `failure_status`.
void drop_descriptors_or_exit(int failure_status);
