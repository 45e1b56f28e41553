// What holds of every frame of the interface.
#pragma once

#include "fuzz.h"
#include "hostile.h"
#include "tbx/tui/screen.h"

#include <regex>

// The rows between the sequences that begin and end a frame.
[[nodiscard]] inline std::string_view rows_of_frame(std::string_view frame) {
    static constexpr std::string_view BEGINS = "\033[H";
    static constexpr std::string_view ENDS = "\033[J";
    CHECK(frame.starts_with(BEGINS));
    const size_t end = frame.rfind(ENDS);
    CHECK(end != frame.npos);
    return frame.substr(BEGINS.size(), end - BEGINS.size());
}

// The sequence behind the rows that shows the cursor, inside the body, or hides it.
inline void check_cursor(std::string_view frame) {
    const std::string sequence(frame.substr(frame.rfind("\033[J") + 3));
    if (sequence == "\033[?25l")
        return;
    static const std::regex SHOWN("\033\\[([0-9]{1,5});([0-9]{1,5})H\033\\[\\?25h");
    std::smatch found;
    CHECK(std::regex_match(sequence, found, SHOWN));
    const int row = std::stoi(found[1]);
    const int column = std::stoi(found[2]);
    CHECK(row > 1 && row <= 1 + tui_body_rows());
    CHECK(column > 2 && column <= 2 + tui_body_cols());
}

// Draws the page: every row is exactly as wide as the screen, and nothing but styles, the frame's
// own sequences and well-formed text reaches the terminal.
inline void check_frame(const tui_screen &page) {
    strbuf frame;
    tui_render(page, &frame);
    check_cursor(frame.view());
    const std::string_view rows = rows_of_frame(frame.view());
    const std::string text = without_own_sequences(rows);
    CHECK(!holds_any_control(text, "\n"));
    CHECK(is_well_formed(text));
    const bool has_room = tui.screen_rows >= 4 && tui.screen_cols > 4;
    CHECK(rows.empty() == !has_room);
    CHECK(rows.empty() || rows.back() != '\n'); // or the terminal would scroll
    const auto lines = lines_of(rows);
    CHECK(lines.size() == (has_room ? static_cast<size_t>(tui.screen_rows) : 0));
    for (const std::string_view line : lines)
        CHECK(ending_column(line) == static_cast<size_t>(tui.screen_cols));
}
