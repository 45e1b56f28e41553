// The only fork into a recipient: a short-lived child that becomes the user for good, runs one
// small function and is bounded in time, in what it reports and in what it inherits.
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
    refused, // the user's side kept it from that: killed, or out of time
    failed,  // it could not be started, or could not become the user; errno says why
};

struct child_end {
    child_outcome outcome = child_outcome::failed;
    int status = -1; // the callback's, 0 to 255, never 126; -1 unless it is done

    // Whether the callback ran to its end and said 0.
    [[nodiscard]] bool succeeded() const { return outcome == child_outcome::done && status == 0; }
};

// Runs `callback(argument)` in a child that has become `user` (outside test mode, when root). The
// child has no descriptors but its standard ones.
//   input            bytes for the child's standard input, or null for /dev/null
//   output           receives the child's standard output, at most `output_limit` bytes, or null
//   timeout_seconds  after which the child is killed; at most what is left of the user's time
// A user whose time is over is refused at once.
[[nodiscard]] child_end run_as_user(const resolved_user &user, user_callback callback,
                                    void *argument, const std::string_view *input, strbuf *output,
                                    size_t output_limit, int timeout_seconds);

// The same without becoming the user, with nothing to read and nothing taken of what it prints: for
// a call that may never return. It is charged to `user`, whose file system it asks.
[[nodiscard]] child_end run_bounded(const resolved_user &user, user_callback callback,
                                    void *argument, int timeout_seconds);

// ---- A user's time ------------------------------------------------------------------------
// One run spends at most USER_TIME_MS on children of one user, whatever the number of messages:
// nobody is held up by somebody whose file system or service manager does not answer.

constexpr int64_t USER_TIME_MS = 20'000;

// Counts what passes until its end against the user's time.
class user_timer {
public:
    explicit user_timer(const resolved_user &user);
    ~user_timer();
    user_timer(const user_timer &) = delete;
    user_timer &operator=(const user_timer &) = delete;

    // Monotonic milliseconds: after `limit_ms` from the start, or when the user's time is over.
    [[nodiscard]] int64_t deadline_ms(int64_t limit_ms) const;
    [[nodiscard]] bool is_over() const { return left_ms_ <= 0; }

private:
    const resolved_user &user_;
    int64_t start_ms_;
    int64_t left_ms_;
};

// Begins another run in the same process, as each reload of the interface is one: users have
// their time again. One whose time was over is asked again after a minute, for a second.
void user_times_renew();

// Begins a run that owes nothing to what was before: a command of the interface, in its own child.
void user_times_forget();

// ---- Waiting ------------------------------------------------------------------------------

// The monotonic clock, in milliseconds.
[[nodiscard]] int64_t monotonic_ms();

// Waits for `child` until `deadline_ms` on the monotonic clock, noticing its end at once; a child
// still running then is killed and waited for. Returns 0 with the wait status in `status`, or -1
// when it had to be killed or could not be waited for.
[[nodiscard]] int reap_child(pid_t child, int64_t deadline_ms, int *status);

// ---- In a child ---------------------------------------------------------------------------

// Makes /dev/null the standard input, output and error and closes every other descriptor, or ends
// the child with `failure_status`.
void drop_descriptors_or_exit(int failure_status);
