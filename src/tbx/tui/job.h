// Administrator commands, run in a child: one that ends its process ends only the child, and
// what it prints is kept to be shown.
#pragma once

#include "common/core.h"

#include <string>
#include <string_view>
#include <vector>

constexpr size_t JOB_OUTPUT_MAX_BYTES = 1'048'576;

struct tui_job {
    void (*command)(const char *argument) = nullptr; // null: cmd_send
    std::string argument;                            // of `command`
    std::vector<std::string> send_arguments;         // of cmd_send, after the word "send"
};

// Runs `job` with `input` on its standard input, and appends what it prints, on standard
// output and standard error, to `output`; what exceeds JOB_OUTPUT_MAX_BYTES is dropped.
// Returns its exit status, or -1 when it could not be run or a signal ended it.
[[nodiscard]] int tui_run_command(const tui_job &job, std::string_view input, strbuf *output);
