// How many columns a row of a screen takes, with the sequences that style it.
#pragma once

#include <cstddef>
#include <string_view>

// Returns the length of the style sequence at the start of `text`, or 0. One without its final
// letter extends to the end.
[[nodiscard]] size_t tui_sequence_bytes(std::string_view text);

// Returns the columns of a line that may hold style sequences.
[[nodiscard]] int tui_line_columns(std::string_view line);

// Follows text in which some characters do not take one column. What comes next is drawn at the
// column counted here, even if the terminal has counted differently.
constexpr std::string_view TUI_ANCHOR = "\033[G";
