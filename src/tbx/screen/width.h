// How many columns a terminal draws text in: characters that take two, or none.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

// A character with what is drawn over it or joined to it: "e" with an accent, a flag, a family.
struct tui_cluster {
    size_t bytes = 0;
    size_t shown_bytes = 0; // without accents beyond what anybody reads
    int columns = 0;        // 0, 1 or 2
    bool is_plain = true;   // one character of one column
};

// The cluster at the start of `text`, which is not empty. Broken characters and controls take one
// column, continuation bytes that belong to no character none.
[[nodiscard]] tui_cluster tui_next_cluster(std::string_view text);

// One character at the start of `text`, which is not empty.
struct tui_decoded {
    size_t bytes = 0;
    uint32_t code = 0; // or TUI_INVALID
};
constexpr uint32_t TUI_INVALID = UINT32_MAX;
[[nodiscard]] tui_decoded tui_decode(std::string_view text);

[[nodiscard]] bool tui_is_continuation(char byte);

// ---- Rows ---------------------------------------------------------------------------------

// Bytes of the style sequence at the start of `text`, 0 for none. One without its final letter
// reaches to the end.
[[nodiscard]] size_t tui_sequence_bytes(std::string_view text);

// Columns of a line that may hold style sequences.
[[nodiscard]] int tui_line_columns(std::string_view line);

// Stands behind text in which not every character takes one column. What follows is put at the
// column that has been counted, even where the terminal has counted otherwise.
constexpr std::string_view TUI_ANCHOR = "\033[G";
