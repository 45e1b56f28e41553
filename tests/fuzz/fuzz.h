// What the fuzz targets share. A target defines fuzz_one(), which checks properties of one input;
// a check that does not hold ends the process, and libFuzzer keeps the input.
#pragma once

#include "common/core.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

void fuzz_one(std::string_view input);

[[noreturn]] void check_failed(const char *file, int line, const char *condition);

#define CHECK(condition)                                                                           \
    do {                                                                                           \
        if (!(condition))                                                                          \
            check_failed(__FILE__, __LINE__, #condition);                                          \
    } while (false)

// ---- Inputs -------------------------------------------------------------------------------
// Made of text, so that the seeds can be read.

// The lines of a text, without their newlines; nothing behind a final newline.
[[nodiscard]] std::vector<std::string_view> lines_of(std::string_view text);

// The parts of an input, which lines of "%" separate; at least `count`, the missing ones empty.
[[nodiscard]] std::vector<std::string_view> parts_of(std::string_view input, size_t count);

// Takes the first byte off the input, 0 from an empty one.
[[nodiscard]] unsigned take_byte(std::string_view *input);

// ---- Models -------------------------------------------------------------------------------

// The number that 1 to 18 decimal digits write, which is every number in the program's files.
[[nodiscard]] std::optional<int64_t> decimal(std::string_view text);

[[nodiscard]] std::string_view up_to_nul(std::string_view text);

[[nodiscard]] std::vector<std::string> items_of(const strlist &list);

// ---- Files --------------------------------------------------------------------------------

// Path of `name` in this process's own state directory. The first call makes the directory, in
// memory where it can be, and enters test mode on it; it goes when the process ends well.
[[nodiscard]] std::string state_path(const std::string &name);

// These end the process where they fail.
void make_folder(const std::string &path); // one that exists is fine
void put_file(const std::string &path, std::string_view text);
void remove_all(const std::string &path);
[[nodiscard]] std::string contents_of(const std::string &path);

// ---- Functions that end the process -------------------------------------------------------

// Runs `body`. What it wrote to standard error where it ended the process with status 1, which
// it survives; nothing where it returned.
[[nodiscard]] std::optional<std::string> message_at_end(const std::function<void()> &body);

// What `body` prints on standard output.
[[nodiscard]] std::string output_of(const std::function<void()> &body);

// What `body` prints on standard error, whether it returns or ends the process.
[[nodiscard]] std::string errors_of(const std::function<void()> &body);
