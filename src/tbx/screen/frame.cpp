#include "tbx/screen/frame.h"

#include "tbx/screen/width.h"

#include <algorithm>

static constexpr std::string_view CURSOR_HOME = "\033[H";
static constexpr std::string_view CLEAR_BELOW = "\033[J";
static constexpr std::string_view WRAP_OFF = "\033[?7l";

// A terminal may count the columns of some rows differently. Such a row does not wrap; after the
// text the cursor is set to the right column, and what was there before is cleared.
static constexpr std::string_view CLEAR_TO_END = "\033[K";

static void append_anchored(strbuf *frame, std::string_view row) {
    strbuf_append_view(frame, WRAP_OFF);
    int columns = 0;
    for (size_t at = row.find(TUI_ANCHOR); at != row.npos; at = row.find(TUI_ANCHOR)) {
        const std::string_view before = row.substr(0, at);
        columns += tui_line_columns(before);
        strbuf_append_view(frame, before);
        strbuf_append_view(frame, CLEAR_TO_END);
        strbuf_printf(frame, "\033[%dG", columns + 1);
        row.remove_prefix(at + TUI_ANCHOR.size());
    }
    strbuf_append_view(frame, row);
    strbuf_append_view(frame, FRAME_WRAP_ON);
}

static void append_row(strbuf *frame, std::string_view row) {
    if (row.find(TUI_ANCHOR) == std::string_view::npos)
        strbuf_append_view(frame, row);
    else
        append_anchored(frame, row);
}

void frame_append(strbuf *frame, const strlist &rows, int screen_rows) {
    strbuf_append_view(frame, CURSOR_HOME);
    const size_t shown = std::min(rows.count, static_cast<size_t>(std::max(screen_rows, 0)));
    for (size_t i = 0; i < shown; i++) {
        if (i > 0)
            strbuf_append_char(frame, '\n');
        append_row(frame, rows.items[i]);
    }
    strbuf_append_view(frame, CLEAR_BELOW);
}
