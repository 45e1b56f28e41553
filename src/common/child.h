// A child process that is fed and whose output is kept: its pipes, and the wait for its end.
#pragma once

#include "common/core.h"

#include <sys/types.h>

#include <string_view>

// Milliseconds of a clock that nobody sets.
[[nodiscard]] int64_t child_clock_ms();

struct child_pipe {
    unique_fd read_end;
    unique_fd write_end;
};

// Opens both ends, close-on-exec. False, with errno, when there are no descriptors left.
[[nodiscard]] bool child_pipe_open(child_pipe *pipe);

// What goes to a child and comes back from it. SIGPIPE is to be ignored meanwhile.
struct child_exchange {
    unique_fd to_child; // non-blocking; empty when there is nothing to write
    unique_fd from_child;
    std::string_view input;  // what is still to be written
    strbuf *output;          // null: what the child prints is read and dropped
    size_t output_max_bytes; // of `output`; anything after that is read and dropped
};

enum class exchange_state {
    open,      // something went through, or a signal interrupted the wait
    timed_out, // nothing did
    ended,     // the child printed its last, or cannot be waited for
};

// Waits up to `timeout_ms` (negative: as long as it takes), then feeds and drains the child once.
//   pidfd  a descriptor that becomes readable when the child ends; what it printed is then read,
//          and whoever else has its output is not waited for. -1 for none
[[nodiscard]] exchange_state child_exchange_step(child_exchange *traffic, int timeout_ms,
                                                 int pidfd);

// A descriptor that becomes readable when `child` ends; empty where the system has none.
[[nodiscard]] unique_fd child_pidfd(pid_t child);

// Waits up to `timeout_ms` for the child's end. Returns false only if it is still running then.
// If there is no such child, returns true and leaves `status` unchanged.
[[nodiscard]] bool child_await(pid_t child, const unique_fd &pidfd, int timeout_ms, int *status);
