// What the window shows, made safe to show: valid UTF-8, without control characters.
#pragma once

#include "common/message.h"

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

// The longest line, in characters, that the toolkit must lay out. Its time grows with the square of
// a line's length.
constexpr size_t DISPLAY_LINE_MAX_CHARACTERS = 1000;

// The line with the message's place and the header's own words, and the file text. Each byte of the
// file that is not UTF-8 has become a replacement character of three bytes.
constexpr size_t WINDOW_INPUT_MAX_BYTES = 512 + 3 * MESSAGE_FILE_MAX_BYTES;

struct window_content {
    size_t place = 1; // which one of `total` this message is
    size_t total = 1;
    std::string title;   // empty when there is none
    std::string from;    // author's account name
    std::string date;    // short local time
    std::string expires; // short local time; empty when the message does not expire
    std::string text;    // without newlines at its end
};

// Parses "N of M\n" and the message's file text after it. Returns false if either is not valid.
[[nodiscard]] bool content_parse(std::string_view input, window_content *content);

// Returns a copy of untrusted text without control characters. Bytes that are not UTF-8 become
// U+FFFD.
[[nodiscard]] std::string displayable_text(std::string_view untrusted);

// Returns the positions, in characters and ascending, at which `text` must be broken so that no
// line is longer than DISPLAY_LINE_MAX_CHARACTERS: after a blank if there is one, otherwise between
// graphemes, and inside a grapheme only if it is longer than a line. `text` is valid UTF-8.
[[nodiscard]] std::vector<size_t> display_breaks(const std::string &text);

// Returns `text` with newlines at its display_breaks().
[[nodiscard]] std::string broken_for_display(const std::string &text);
