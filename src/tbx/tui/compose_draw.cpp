#include "tbx/tui/compose_draw.h"

#include <algorithm>

static constexpr size_t TEXT_MAX_BYTES = 65'536; // what the send command accepts

static constexpr int LABEL_COLS = 10;
static constexpr int FRAME_COL = 12;        // where "[" and the text's frame stand
static constexpr int VALUE_COL = 14;        // where the values begin
static constexpr int VALUE_OTHER_COLS = 26; // the other columns of a line with a value
static constexpr int TEXT_OTHER_ROWS = 14;  // all rows of the screen that are no text lines

static constexpr struct {
    const char *label;
    const char *hint;
} FIELDS[COMPOSE_FIELDS] = {
    {"To", "user, @group, all or online, separated by commas"},
    {"Title", "optional, one line"},
    {"Expires", "optional: 30m, 2h, 3d or a date"},
};

// Returns the columns of every value and of the lines of the text: their frames end in one column.
static int value_cols() {
    return std::max(tui.screen_cols - VALUE_OTHER_COLS, 1);
}

static size_t text_rows() {
    return static_cast<size_t>(std::max(tui.screen_rows - TEXT_OTHER_ROWS, 1));
}

// ---- Keeping the cursor in view -----------------------------------------------------------

static int cursor_column(std::string_view value, size_t cursor) {
    return columns_of_text(value.substr(0, cursor));
}

// The first column to show of a value in its place. At a value's end the cursor is on the blank
// after the place. The column is the first of a character.
static int clamp_scroll(int scroll, std::string_view value, size_t cursor_byte) {
    const int width = value_cols();
    const int cursor = cursor_column(value, cursor_byte);
    scroll = std::min({scroll, cursor, std::max(columns_of_text(value) - width, 0)});
    return tui_whole_column(value, std::max(scroll, cursor - width));
}

static void show_field_cursor(compose_field *field) {
    field->scroll = clamp_scroll(field->scroll, field->value, field->cursor);
}

static void show_text_cursor(compose_text *text) {
    const std::string &line = text->lines[text->line];
    text->scroll = clamp_scroll(text->scroll, line, text->cursor);
    const size_t rows = text_rows();
    const size_t last_top = text->lines.size() - std::min(text->lines.size(), rows);
    text->top = std::min({text->top, text->line, last_top}); // no empty rows below hidden lines
    if (text->line >= text->top + rows)
        text->top = text->line - rows + 1;
}

void compose_scroll(compose_form *form) {
    for (compose_field &field : form->fields)
        show_field_cursor(&field);
    show_text_cursor(&form->text);
}

// ---- The fields ---------------------------------------------------------------------------

static void append_label(strbuf *line, const char *label, bool has_focus) {
    strbuf_printf(line, " %s", has_focus ? tui_style.bold : "");
    tui_pad(line, label, LABEL_COLS);
    strbuf_append_str(line, has_focus ? tui_style.reset : "");
}

static void append_field(strlist *lines, const compose_field &field, const char *label,
                         bool has_focus) {
    strbuf line;
    append_label(&line, label, has_focus);
    strbuf_append_str(&line, " [ ");
    tui_pad(&line, tui_blank_controls(tui_window(field.value, field.scroll, value_cols())),
            value_cols());
    strbuf_append_str(&line, " ]");
    strlist_push_view(lines, line.view());
}

// There is no room beside the field, so the text gets a line below it.
static void append_side_text(strlist *lines, const char *text) {
    tui_add_line(lines, "%*s%s%s%s", VALUE_COL, "", tui_style.grey, text, tui_style.reset);
}

// Returns the column of the page in which the cursor is.
static int cursor_place(std::string_view value, size_t cursor, int scroll) {
    return VALUE_COL + std::max(cursor_column(value, cursor) - scroll, 0);
}

static void append_fields(tui_screen *page, const compose_form &form) {
    for (size_t i = 0; i < COMPOSE_FIELDS; i++) {
        const compose_field &field = form.fields[i];
        const bool has_focus = form.focus == static_cast<int>(i);
        append_field(&page->lines, field, FIELDS[i].label, has_focus);
        if (has_focus) {
            page->cursor_row = static_cast<int>(page->lines.count);
            page->cursor_col = cursor_place(field.value, field.cursor, field.scroll);
        }
        const bool has_preview = i == COMPOSE_TO && !form.preview.empty();
        append_side_text(&page->lines, has_preview ? form.preview.c_str() : FIELDS[i].hint);
    }
}

// ---- The text -----------------------------------------------------------------------------

static constexpr int TEXT_SIDE_COLS = 2; // the blanks beside the text inside its frame

static void append_text_top(strlist *lines, bool has_focus) {
    strbuf line;
    append_label(&line, "Text", has_focus);
    strbuf_printf(&line, " %s┌", tui_style.dim);
    tui_repeat(&line, "─", value_cols() + TEXT_SIDE_COLS);
    strbuf_printf(&line, "┐%s", tui_style.reset);
    strlist_push_view(lines, line.view());
}

static void append_text_line(strlist *lines, std::string_view text) {
    strbuf line;
    strbuf_printf(&line, "%*s%s│%s ", FRAME_COL, "", tui_style.dim, tui_style.reset);
    tui_pad(&line, tui_blank_controls(text), value_cols());
    strbuf_printf(&line, " %s│%s", tui_style.dim, tui_style.reset);
    strlist_push_view(lines, line.view());
}

static void append_text_bottom(strlist *lines) {
    strbuf line;
    strbuf_printf(&line, "%*s%s└", FRAME_COL, "", tui_style.dim);
    tui_repeat(&line, "─", value_cols() + TEXT_SIDE_COLS);
    strbuf_printf(&line, "┘%s", tui_style.reset);
    strlist_push_view(lines, line.view());
}

static void append_size(strlist *lines, const compose_form &form) {
    const size_t bytes = compose_text_bytes(form.text);
    strbuf line;
    strbuf_printf(&line, "%*s%s%zu of %d bytes%s", VALUE_COL, "",
                  bytes > TEXT_MAX_BYTES ? tui_style.red : tui_style.grey, bytes,
                  static_cast<int>(TEXT_MAX_BYTES), tui_style.reset);
    if (!form.notice.empty())
        strbuf_printf(&line, " · %s%s%s", tui_style.red, form.notice.c_str(), tui_style.reset);
    strlist_push_view(lines, line.view());
}

// The line shown in row `row` of the text's frame. Only the cursor's line scrolls sideways.
static std::string_view visible_text(const compose_text &text, size_t row) {
    const size_t at = text.top + row;
    if (at >= text.lines.size())
        return "";
    return tui_window(text.lines[at], at == text.line ? text.scroll : 0, value_cols());
}

static void append_text(tui_screen *page, const compose_form &form) {
    const compose_text &text = form.text;
    const bool has_focus = form.focus == COMPOSE_TEXT;
    append_text_top(&page->lines, has_focus);
    const auto first_row = static_cast<int>(page->lines.count);
    for (size_t row = 0; row < text_rows(); row++)
        append_text_line(&page->lines, visible_text(text, row));
    append_text_bottom(&page->lines);
    append_size(&page->lines, form);
    if (has_focus) {
        page->cursor_row = first_row + static_cast<int>(text.line - text.top) + 1;
        page->cursor_col = cursor_place(text.lines[text.line], text.cursor, text.scroll);
    }
}

// ---- The page -----------------------------------------------------------------------------

// On a screen lower than the form, hides upper lines so that the one with the cursor is visible.
static void scroll_to_cursor(tui_screen *page) {
    const int hidden = page->cursor_row - std::max(tui_body_rows(), 1);
    if (hidden <= 0)
        return;
    const auto first = page->lines.begin() + hidden;
    std::rotate(page->lines.begin(), first, page->lines.end()); // the others follow, unseen
    page->cursor_row -= hidden;
}

void compose_build(const compose_form &form, tui_screen *page) {
    const char *const key = tui_style.key;
    const char *const off = tui_style.reset;
    page->title = "New message";
    page->footer =
        xasprintf("%sTab%s %s   %sCtrl+E%s %s   %sCtrl+S%s %s   %sEsc%s %s", key, off, "next field",
                  key, off, "open in the editor", key, off, "send", key, off, "cancel");
    strlist_free(&page->lines);
    tui_add_line(&page->lines, "%s", "");
    append_fields(page, form);
    append_text(page, form);
    scroll_to_cursor(page);
}
