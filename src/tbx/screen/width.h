// How many columns text takes on a terminal: some characters take two, some none.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

// A character together with the characters drawn over it or joined to it: "e" with an accent, a
// flag, a family.
struct tui_cluster {
    size_t bytes = 0;
    size_t shown_bytes = 0; // without an excess of accents
    int columns = 0;        // 0, 1 or 2
    bool is_plain = true;   // one character of one column
};

// Returns the cluster at the start of `text`, which is not empty. Broken characters and controls
// take one column; continuation bytes that belong to no character take none.
[[nodiscard]] tui_cluster tui_next_cluster(std::string_view text);

// One character at the start of `text`, which is not empty.
struct tui_decoded {
    size_t bytes = 0;
    uint32_t code = 0; // or TUI_INVALID
};
constexpr uint32_t TUI_INVALID = UINT32_MAX;
[[nodiscard]] tui_decoded tui_decode(std::string_view text);

// ---- Rows ---------------------------------------------------------------------------------

// Returns the length of the style sequence at the start of `text`, or 0. One without its final
// letter extends to the end.
[[nodiscard]] size_t tui_sequence_bytes(std::string_view text);

// Returns the columns of a line that may hold style sequences.
[[nodiscard]] int tui_line_columns(std::string_view line);

// Follows text in which some characters do not take one column. What comes next is drawn at the
// column counted here, even if the terminal has counted differently.
constexpr std::string_view TUI_ANCHOR = "\033[G";
