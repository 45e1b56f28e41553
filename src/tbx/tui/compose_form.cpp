#include "tbx/tui/compose_form.h"

#include "tbx/tui/text.h"

#include <algorithm>
#include <iterator>

static constexpr size_t FIELD_MAX_BYTES = COMPOSE_FIELD_MAX_BYTES;
static constexpr int FOCUS_COUNT = 4;

// ---- Moving between the fields ------------------------------------------------------------

// Moves the focus. The text keeps its cursor; in a field the cursor goes to the end.
static void set_focus(compose_form *form, int focus) {
    form->focus = focus;
    if (focus == COMPOSE_TEXT)
        return;
    compose_field &field = form->fields[static_cast<size_t>(focus)];
    field.cursor = field.value.size();
}

static void cycle_focus(compose_form *form, int step) {
    set_focus(form, (form->focus + step + FOCUS_COUNT) % FOCUS_COUNT);
}

// ---- One line -----------------------------------------------------------------------------

static void insert_at(std::string *value, size_t *cursor, std::string_view character) {
    value->insert(*cursor, character);
    *cursor += character.size();
}

static void erase_before(std::string *value, size_t *cursor) {
    const size_t start = tui_previous_character(*value, *cursor);
    value->erase(start, *cursor - start);
    *cursor = start;
}

static void erase_at(std::string *value, size_t cursor) {
    value->erase(cursor, tui_next_character(*value, cursor) - cursor);
}

static void press_in_field(compose_form *form, tui_key key, std::string_view character) {
    compose_field &field = form->fields[static_cast<size_t>(form->focus)];
    switch (key) {
    case KEY_CHAR:
        if (field.value.size() < FIELD_MAX_BYTES)
            insert_at(&field.value, &field.cursor, character);
        break;
    case KEY_BACKSPACE:
        erase_before(&field.value, &field.cursor);
        break;
    case KEY_DELETE:
        erase_at(&field.value, field.cursor);
        break;
    case KEY_LEFT:
        field.cursor = tui_previous_character(field.value, field.cursor);
        break;
    case KEY_RIGHT:
        field.cursor = tui_next_character(field.value, field.cursor);
        break;
    case KEY_HOME:
        field.cursor = 0;
        break;
    case KEY_END:
        field.cursor = field.value.size();
        break;
    case KEY_UP:
        if (form->focus != COMPOSE_TO)
            set_focus(form, form->focus - 1);
        break;
    case KEY_DOWN:
    case KEY_ENTER:
        set_focus(form, form->focus + 1);
        break;
    case KEY_NONE:
    case KEY_TIMEOUT:
    case KEY_ERROR:
    case KEY_PGUP:
    case KEY_PGDN:
    case KEY_ESC:
    case KEY_TAB:
    case KEY_BACKTAB:
    case KEY_CTRL_E:
    case KEY_CTRL_S:
    case KEY_PASTE:
        break;
    }
}

// ---- The text -----------------------------------------------------------------------------

static std::string &current_line(compose_text *text) {
    return text->lines[text->line];
}

static bool is_last_line(const compose_text &text) {
    return text.line + 1 == text.lines.size();
}

static void split_line(compose_text *text) {
    std::string rest = current_line(text).substr(text->cursor);
    current_line(text).resize(text->cursor);
    text->line++;
    text->lines.insert(text->lines.begin() + static_cast<ptrdiff_t>(text->line), std::move(rest));
    text->cursor = 0;
}

// Joins the next line to the current one; the cursor stays.
static void join_next_line(compose_text *text) {
    const auto next = text->lines.begin() + static_cast<ptrdiff_t>(text->line) + 1;
    current_line(text) += *next;
    text->lines.erase(next);
}

static void go_to_end_of_line_above(compose_text *text) {
    text->line--;
    text->cursor = current_line(text).size();
}

static void backspace_in_text(compose_text *text) {
    if (text->cursor > 0) {
        erase_before(&current_line(text), &text->cursor);
    } else if (text->line > 0) {
        go_to_end_of_line_above(text);
        join_next_line(text);
    }
}

static void delete_in_text(compose_text *text) {
    if (text->cursor < current_line(text).size())
        erase_at(&current_line(text), text->cursor);
    else if (!is_last_line(*text))
        join_next_line(text);
}

static void move_left(compose_text *text) {
    if (text->cursor > 0)
        text->cursor = tui_previous_character(current_line(text), text->cursor);
    else if (text->line > 0)
        go_to_end_of_line_above(text);
}

static void move_right(compose_text *text) {
    if (text->cursor < current_line(text).size()) {
        text->cursor = tui_next_character(current_line(text), text->cursor);
    } else if (!is_last_line(*text)) {
        text->line++;
        text->cursor = 0;
    }
}

// Moves the cursor to another line and keeps its column as far as possible.
static void go_to_line(compose_text *text, size_t line) {
    const std::string_view before = std::string_view(current_line(text)).substr(0, text->cursor);
    const int column = columns_of_text(before);
    text->line = line;
    text->cursor = tui_window(current_line(text), 0, column).size();
}

static void press_in_text(compose_form *form, tui_key key, std::string_view character) {
    compose_text *text = &form->text;
    switch (key) {
    case KEY_CHAR:
        insert_at(&current_line(text), &text->cursor, character);
        break;
    case KEY_ENTER:
        split_line(text);
        break;
    case KEY_BACKSPACE:
        backspace_in_text(text);
        break;
    case KEY_DELETE:
        delete_in_text(text);
        break;
    case KEY_LEFT:
        move_left(text);
        break;
    case KEY_RIGHT:
        move_right(text);
        break;
    case KEY_HOME:
        text->cursor = 0;
        break;
    case KEY_END:
        text->cursor = current_line(text).size();
        break;
    case KEY_UP:
        if (text->line > 0)
            go_to_line(text, text->line - 1);
        else
            set_focus(form, COMPOSE_EXPIRES);
        break;
    case KEY_DOWN:
        if (!is_last_line(*text))
            go_to_line(text, text->line + 1);
        break;
    case KEY_NONE:
    case KEY_TIMEOUT:
    case KEY_ERROR:
    case KEY_PGUP:
    case KEY_PGDN:
    case KEY_ESC:
    case KEY_TAB:
    case KEY_BACKTAB:
    case KEY_CTRL_E:
    case KEY_CTRL_S:
    case KEY_PASTE:
        break;
    }
}

// ---- Pasting ------------------------------------------------------------------------------

static bool paste_into_field(compose_field *field, std::string_view line) {
    const size_t room = FIELD_MAX_BYTES - std::min(FIELD_MAX_BYTES, field->value.size());
    const std::string_view taken = tui_beginning(line, room);
    insert_at(&field->value, &field->cursor, taken);
    return taken.size() == line.size();
}

// Inserts the lines between the first and the last pasted one together: inserting them one by one
// would move all lines below each time.
static void paste_into_text(compose_text *text, std::string_view pasted) {
    const size_t first_end = pasted.find('\n');
    if (first_end == std::string_view::npos) {
        insert_at(&current_line(text), &text->cursor, pasted);
        return;
    }
    std::string rest = current_line(text).substr(text->cursor);
    current_line(text).replace(text->cursor, std::string::npos, pasted.substr(0, first_end));
    pasted.remove_prefix(first_end + 1);

    std::vector<std::string> lines;
    for (size_t end = pasted.find('\n'); end != std::string_view::npos; end = pasted.find('\n')) {
        lines.emplace_back(pasted.substr(0, end));
        pasted.remove_prefix(end + 1);
    }
    lines.emplace_back(pasted);
    text->cursor = lines.back().size();
    lines.back() += rest;
    const auto behind = text->lines.begin() + static_cast<ptrdiff_t>(text->line) + 1;
    text->line += lines.size();
    text->lines.insert(behind, std::make_move_iterator(lines.begin()),
                       std::make_move_iterator(lines.end()));
}

bool compose_paste(compose_form *form, std::string_view pasted) {
    if (form->focus != COMPOSE_TEXT)
        return paste_into_field(&form->fields[static_cast<size_t>(form->focus)],
                                tui_on_one_line(pasted));
    paste_into_text(&form->text, tui_clean_paste(pasted));
    return true;
}

// ---- The form -----------------------------------------------------------------------------

void compose_press(compose_form *form, tui_key key, std::string_view character) {
    if (key == KEY_TAB)
        cycle_focus(form, 1);
    else if (key == KEY_BACKTAB)
        cycle_focus(form, -1);
    else if (form->focus == COMPOSE_TEXT)
        press_in_text(form, key, character);
    else
        press_in_field(form, key, character);
}

bool compose_is_empty(const compose_form &form) {
    const bool has_fields = std::any_of(form.fields.begin(), form.fields.end(),
                                        [](const auto &field) { return !field.value.empty(); });
    return !has_fields && !compose_has_text(form.text);
}

bool compose_has_text(const compose_text &text) {
    return text.lines.size() > 1 || !text.lines.front().empty();
}

std::string compose_text_joined(const compose_text &text) {
    std::string joined = text.lines.front();
    for (size_t i = 1; i < text.lines.size(); i++)
        joined.append("\n").append(text.lines[i]);
    return joined;
}

size_t compose_text_bytes(const compose_text &text) {
    size_t bytes = text.lines.size() - 1; // the newlines between the lines
    for (const std::string &line : text.lines)
        bytes += line.size();
    return bytes;
}

void compose_set_text(compose_text *text, std::string_view joined) {
    joined = joined.substr(0, joined.find_last_not_of('\n') + 1);
    *text = {};
    for (size_t end = joined.find('\n'); end != std::string_view::npos; end = joined.find('\n')) {
        text->lines.back() = joined.substr(0, end);
        text->lines.emplace_back();
        joined.remove_prefix(end + 1);
    }
    text->lines.back() = joined;
    text->line = text->lines.size() - 1;
    text->cursor = text->lines.back().size();
}
