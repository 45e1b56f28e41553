// Rows to one frame, for the guide and the interface.
#pragma once

#include "common/core.h"

#include <string_view>

// Appends the rows of a frame from the first of the screen on, at most `screen_rows` of them: one
// more would scroll. What stood below is cleared. In a row that holds a TUI_ANCHOR nothing wraps.
void frame_append(strbuf *frame, const strlist &rows, int screen_rows);

// Ends a row that must not wrap, for a frame that broke off in one.
constexpr std::string_view FRAME_WRAP_ON = "\033[?7h";
