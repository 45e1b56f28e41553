// Talking to a child process: its pipes, writing its input, keeping its output, waiting for its
// end.
#pragma once

#include "common/core.h"

#include <sys/types.h>

#include <string_view>

struct child_pipe {
    unique_fd read_end;
    unique_fd write_end;
};

// Opens both ends, close-on-exec. Returns false with errno when that fails, for example because no
// descriptors are left.
[[nodiscard]] bool child_pipe_open(child_pipe *pipe);

// The input and output of a child. The caller must ignore SIGPIPE while it uses this.
struct child_exchange {
    unique_fd to_child; // non-blocking; empty when there is nothing to write
    unique_fd from_child;
    std::string_view input;  // what is still to be written
    strbuf *output;          // null: what the child prints is read and dropped
    size_t output_max_bytes; // of `output`; anything after that is read and dropped
    int error = 0;           // errno, when the output could not be read to EOF
};

enum class exchange_state {
    open,      // some bytes were exchanged, or a signal interrupted the wait
    timed_out, // nothing happened in time
    ended,     // EOF, an error, or the child has ended
};

// Waits up to `timeout_ms` (negative: no limit), then writes to the child and reads from it once.
//   pidfd  a descriptor that becomes readable when the child ends, or -1. When it ends, the rest of
//          its output is read; other processes that hold its output open are not waited for
[[nodiscard]] exchange_state child_exchange_step(child_exchange *traffic, int timeout_ms,
                                                 int pidfd);

// Returns a descriptor that becomes readable when `child` ends; empty if the system has no pidfds.
[[nodiscard]] unique_fd child_pidfd(pid_t child);

// Waits up to `timeout_ms` for the child to end. Returns false only if it is still running then. If
// there is no such child, returns true and leaves `status` unchanged.
[[nodiscard]] bool child_await(pid_t child, const unique_fd &pidfd, int timeout_ms, int *status);
