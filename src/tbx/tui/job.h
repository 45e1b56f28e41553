// Runs administrator commands in a child. A command that ends its process ends only the child; its
// output is kept, to be shown.
#pragma once

#include "common/core.h"

#include <functional>
#include <string>
#include <string_view>

constexpr size_t JOB_OUTPUT_MAX_BYTES = 1'048'576;

using tui_job = std::function<void()>; // called in the child

struct job_result {
    int status = -1;              // exit status; -1: it could not be run, or a signal ended it
    bool was_interrupted = false; // a signal ended it
    strbuf output;                // what it printed, on standard output and standard error
};

// Runs `job` with `input` on its standard input. Output beyond JOB_OUTPUT_MAX_BYTES is dropped.
//   waiting  called after half a second without a result, and repeatedly from then on. Empty for a
//            command that the user has not asked for: then Ctrl+C means the interface too
// If the interface is asked to end, the child gets a moment to end by itself, then SIGTERM, then
// SIGKILL.
[[nodiscard]] job_result tui_run_command(const tui_job &job, std::string_view input,
                                         const std::function<void()> &waiting);
