// Makes one frame from rows, for the guide and the interface.
#pragma once

#include "common/core.h"

#include <string_view>

// Appends the rows of a frame from the screen's first row on, at most `screen_rows`: one more would
// scroll. Clears the rest of the screen. A row that holds a TUI_ANCHOR does not wrap.
void frame_append(strbuf *frame, const strlist &rows, int screen_rows);

// Turns wrapping on again, after a frame that ended inside a row that does not wrap.
constexpr std::string_view FRAME_WRAP_ON = "\033[?7h";
