// How many columns text takes on a terminal: some characters take two, some none.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

// A character together with the characters drawn over it or joined to it: "e" with an accent, a
// flag, a family.
struct text_cluster {
    size_t bytes = 0;
    size_t shown_bytes = 0; // without an excess of accents
    int columns = 0;        // 0, 1 or 2
    bool is_plain = true;   // one character of one column
};

// Returns the cluster at the start of `text`, which is not empty. Broken characters and controls
// take one column; continuation bytes that belong to no character take none.
[[nodiscard]] text_cluster next_cluster(std::string_view text);

// One character at the start of `text`, which is not empty.
struct decoded_character {
    size_t bytes = 0;
    uint32_t code = 0; // or INVALID_CHARACTER
};
constexpr uint32_t INVALID_CHARACTER = UINT32_MAX;
[[nodiscard]] decoded_character decode_character(std::string_view text);

// Returns the columns of a text without style sequences, newlines and tabs.
[[nodiscard]] int columns_of_text(std::string_view text);

// Returns the longest beginning of such a text that takes at most so many columns. A cluster is
// not cut.
[[nodiscard]] std::string_view first_columns(std::string_view text, int columns);
