#include "tbx/tui/screen.h"

#include "tbx/screen/frame.h"

#include <algorithm>
#include <cstdlib>

// ---- The session --------------------------------------------------------------------------

// The alternate screen without a cursor; then bracketed paste, which tells what is pasted from
// what is typed.
static constexpr std::string_view ENTER_SCREEN = "\033[?1049h\033[?25l"
                                                 "\033[?2004h";
static constexpr std::string_view LEAVE_SCREEN = "\033[?2004l"
                                                 "\033[?25h\033[?1049l";

const session_rules TUI_RULES = {
    .min_cols = TUI_MIN_COLS,
    .min_rows = TUI_MIN_ROWS,
    .input_flags_off = ICRNL | IXON, // Enter arrives as it is, Ctrl+S as a key
    .writes_to_tty = false,
    .enter = ENTER_SCREEN,
    .leave = LEAVE_SCREEN,
    .guard_ms = 400,
    .keys = {.wait_ms = 500,
             .sequence_wait_ms = 40,
             .last_digit_counts = false,
             .has_back_tab_after_o = true,
             .has_paste = true},
};

bool tui_start() {
    tui_styles_set(getenv("NO_COLOR") == nullptr);
    return session_start(TUI_RULES);
}

// ---- Frames -------------------------------------------------------------------------------

static constexpr int FRAME_ROWS = 4; // two borders, the separator, the footer
static constexpr int SIDE_COLS = 4;  // "│ " and " │"
static constexpr int CORNER_COLS = 2;
static constexpr int TITLE_COLS = 3;  // "─ " and " " around the title
static constexpr int STATUS_COLS = 3; // " " and " ─" around the status

int tui_body_rows() {
    return std::max(tui.screen_rows - FRAME_ROWS, 0);
}

int tui_body_cols() {
    return std::max(tui.screen_cols - SIDE_COLS, 0);
}

static void append_styled(strbuf *row, const char *style, std::string_view text) {
    strbuf_append_str(row, style);
    strbuf_append_view(row, text);
    strbuf_append_str(row, tui_style.reset);
}

static void append_dashes(strbuf *row, const char *style, int count) {
    strbuf_append_str(row, style);
    tui_repeat(row, "─", count);
    strbuf_append_str(row, tui_style.reset);
}

// A title too long for the border is cut; a status that does not fit is left out.
static void append_top_border(strbuf *row, const tui_screen &page) {
    const int inner = tui.screen_cols - CORNER_COLS;
    const int wanted = page.status.empty() ? 0 : columns_of_text(page.status) + STATUS_COLS;
    const int status_cols = wanted <= inner ? wanted : 0;
    strbuf title;
    const int title_room = std::max(inner - status_cols - TITLE_COLS, 0);
    const int title_cols = tui_cut(&title, page.title, title_room);
    const bool has_title = title_cols > 0;

    append_styled(row, tui_style.dim, "┌");
    if (has_title)
        append_styled(row, tui_style.title, xasprintf("─ %s ", title.data));
    append_dashes(row, tui_style.dim,
                  inner - status_cols - (has_title ? title_cols + TITLE_COLS : 0));
    const std::string status = status_cols > 0 ? xasprintf(" %s ─", page.status.c_str()) : "";
    append_styled(row, tui_style.grey, status + "┐");
}

static void append_body_line(strbuf *row, std::string_view line) {
    append_styled(row, tui_style.dim, "│");
    strbuf_append_char(row, ' ');
    tui_fit(row, line, tui_body_cols());
    strbuf_append_char(row, ' ');
    append_styled(row, tui_style.dim, "│");
}

static void append_rule(strbuf *row, std::string_view left, std::string_view right) {
    strbuf_append_str(row, tui_style.dim);
    strbuf_append_view(row, left);
    tui_repeat(row, "─", tui.screen_cols - CORNER_COLS);
    strbuf_append_view(row, right);
    strbuf_append_str(row, tui_style.reset);
}

// Appends the row that `append` makes of `parts`.
template <typename Append, typename... Parts>
static void add_row(strlist *rows, Append append, const Parts &...parts) {
    strbuf row;
    append(&row, parts...);
    strlist_push_view(rows, row.view());
}

static void add_body(strlist *rows, const strlist &lines) {
    const auto count = static_cast<size_t>(tui_body_rows());
    for (size_t row = 0; row < count; row++) {
        const std::string_view line = row < lines.count ? lines.items[row] : "";
        add_row(rows, append_body_line, line);
    }
}

// The body's first line is the terminal's second, its first column the third.
static void append_cursor(strbuf *frame, const tui_screen &page) {
    if (page.cursor_row >= 1 && page.cursor_row <= tui_body_rows() && page.cursor_col >= 0 &&
        page.cursor_col < tui_body_cols())
        strbuf_printf(frame, "\033[%d;%dH\033[?25h", page.cursor_row + 1, page.cursor_col + 3);
    else
        strbuf_append_str(frame, "\033[?25l");
}

void tui_render(const tui_screen &page, strbuf *frame) {
    strlist rows;
    if (tui.screen_rows >= FRAME_ROWS && tui.screen_cols > SIDE_COLS) {
        add_row(&rows, append_top_border, page);
        add_body(&rows, page.lines);
        add_row(&rows, append_rule, "├", "┤");
        add_row(&rows, append_body_line, page.footer);
        add_row(&rows, append_rule, "└", "┘");
    }
    frame_append(frame, rows, tui.screen_rows);
    append_cursor(frame, page);
}

void tui_draw(const tui_screen &page) {
    strbuf frame;
    tui_render(page, &frame);
    session_write(frame.view());
}
