// The form for a new message. The first two bytes of the input are the rows and columns of the
// terminal; each further one is a key: capital letters move, edit and change fields, the rest is
// typed. Where the number of columns is odd, a byte from 0x80 up is typed as it is, a broken
// character; where it is even, it stands for a whole one.
#include "frame.h"
#include "fuzz.h"
#include "tbx/tui/compose_draw.h"
#include "tbx/tui/compose_form.h"

#include <algorithm>

static tui_key key_of(char byte) {
    static constexpr std::pair<char, tui_key> KEYS[] = {
        {'U', KEY_UP},    {'D', KEY_DOWN},      {'L', KEY_LEFT},   {'R', KEY_RIGHT},
        {'H', KEY_HOME},  {'E', KEY_END},       {'T', KEY_TAB},    {'S', KEY_BACKTAB},
        {'N', KEY_ENTER}, {'B', KEY_BACKSPACE}, {'X', KEY_DELETE}, {'Q', KEY_ESC},
        {'P', KEY_PGUP},  {'G', KEY_PGDN},      {'W', KEY_TIMEOUT}};
    const auto *found = std::ranges::find(KEYS, byte, &std::pair<char, tui_key>::first);
    return found != std::end(KEYS) ? found->second : KEY_CHAR;
}

static std::string_view character_of(const char &byte, bool is_broken) {
    static constexpr std::string_view WHOLE[] = {
        "\xc3\xa9",         "\xe2\x82\xac", "\xf0\x9f\x98\x80", "\xcc\x81",
        "\xe6\x97\xa5",     "\xef\xb8\x8f", "\xe2\x80\x8d",     "\xf0\x9f\x87\xa9",
        "\xf0\x9f\x8f\xbd", "\xe1\x84\x80", "\xe1\x85\xa1"};
    if (is_broken || !byte_between(byte, 0x80, 0xff))
        return {&byte, 1};
    return WHOLE[static_cast<unsigned char>(byte) % std::size(WHOLE)];
}

// Of every kind in turn.
static std::string_view pasted_by(size_t number) {
    static constexpr std::string_view PASTES[] = {
        "two words", "one\r\ntwo\r\n", "a\tb\nc", "\xe6\x97\xa5\xe6\x9c\xac\n\xe8\xaa\x9e",
        "",          "\033[31mred",    "\n\n\n"};
    return PASTES[number % std::size(PASTES)];
}

// At the start of a character, or at an end. Broken characters may have become one.
static bool is_place(std::string_view text, size_t cursor, bool is_broken) {
    if (is_broken || cursor >= text.size())
        return cursor <= text.size();
    return !byte_between(text[cursor], 0x80, 0xbf);
}

static void check_form(const compose_form &form, bool is_broken) {
    CHECK(form.focus >= COMPOSE_TO && form.focus <= COMPOSE_TEXT);
    for (const compose_field &field : form.fields) {
        CHECK(is_place(field.value, field.cursor, is_broken));
        CHECK(field.value.size() < 1004);
        CHECK(is_broken || is_well_formed(field.value));
    }
    const compose_text &text = form.text;
    CHECK(text.line < text.lines.size());
    CHECK(is_place(text.lines[text.line], text.cursor, is_broken));
    const std::string joined = compose_text_joined(text);
    CHECK(is_broken || is_well_formed(joined));
    CHECK(compose_text_bytes(text) == joined.size());
    CHECK(static_cast<size_t>(std::ranges::count(joined, '\n')) == text.lines.size() - 1);
}

static void check_drawn(compose_form *form) {
    tui_screen page;
    compose_scroll(form);
    compose_build(*form, &page);
    check_frame(page);
    CHECK(page.cursor_row >= 1);
    if (tui_body_rows() > 0)
        CHECK(page.cursor_row <= tui_body_rows());
    for (const compose_field &field : form->fields)
        CHECK(field.scroll >= 0 && field.scroll <= columns_of_text(field.value));
    CHECK(form->text.top <= form->text.line);
}

// What an editor brings back.
static void check_set_text(compose_form *form) {
    std::string joined = compose_text_joined(form->text);
    compose_set_text(&form->text, joined + "\n\n");
    joined.erase(joined.find_last_not_of('\n') + 1);
    CHECK(compose_text_joined(form->text) == joined);
    CHECK(form->text.line == form->text.lines.size() - 1);
    CHECK(form->text.cursor == form->text.lines.back().size());
}

void fuzz_one(std::string_view input) {
    tui.screen_rows = static_cast<int>(take_byte(&input) % 32);
    tui.screen_cols = static_cast<int>(take_byte(&input) % 96);
    const bool is_broken = tui.screen_cols % 2 != 0;
    tui_styles_set(false);
    compose_form form;
    CHECK(compose_is_empty(form));
    size_t presses = 0;
    for (const char byte : input) {
        const tui_key key = key_of(byte);
        if (key == KEY_CHAR && (byte_between(byte, 0, 0x1f) || byte == 0x7f))
            continue; // no key gives a control
        const std::string before = compose_text_joined(form.text);
        if (byte == 'V')
            (void)compose_paste(&form, pasted_by(presses));
        else
            compose_press(&form, key, key == KEY_CHAR ? character_of(byte, is_broken) : "");
        check_form(form, is_broken);
        CHECK(form.focus == COMPOSE_TEXT || compose_text_joined(form.text) == before);
        if (presses++ % 8 == 0)
            check_drawn(&form);
    }
    check_drawn(&form);
    check_set_text(&form);
    check_form(form, is_broken);
    check_drawn(&form);
}
