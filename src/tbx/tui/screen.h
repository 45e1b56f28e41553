// One page as a frame on the terminal.
#pragma once

#include "common/core.h"
#include "tbx/screen/session.h"
#include "tbx/tui/text.h"

#include <functional>
#include <string>

constexpr int TUI_MIN_COLS = 80;
constexpr int TUI_MIN_ROWS = 20;

// How the interface uses the terminal.
extern const session_rules TUI_RULES;

// Starts the full screen for the interface. Returns false as session_start() does.
[[nodiscard]] bool tui_start();

// ---- Pages --------------------------------------------------------------------------------

struct tui_screen {
    strlist lines;      // the body, top to bottom; may hold style sequences
    std::string title;  // left label of the top border
    std::string status; // right label; empty for none
    std::string footer; // the line of key hints
    int cursor_row = 0; // body line of the cursor, from 1; below 1 it stays hidden
    int cursor_col = 0; // column in that line, from 0

    // Builds the page again after the terminal's size has changed; empty if nothing depends on it.
    // Called by the dialogs above the page.
    std::function<void(tui_screen *page)> rebuild;
};

// Body lines and columns of a page on this terminal; 0 when there is no room.
[[nodiscard]] int tui_body_rows();
[[nodiscard]] int tui_body_cols();

// Appends one frame: exactly screen_rows lines of screen_cols columns. A terminal too small
// for any frame is cleared.
void tui_render(const tui_screen &page, strbuf *frame);

// Writes one frame.
void tui_draw(const tui_screen &page);
