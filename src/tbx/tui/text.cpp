#include "tbx/tui/text.h"

#include "common/message.h"

#include <algorithm>
#include <cstdint>

// Process-wide: chosen once when the interface starts, before anything is drawn.
tui_styles tui_style;

static constexpr tui_styles COLOURED = {
    .colour_on = true,
    .selection = "\033[7;1m",
    .green = "\033[32m",
    .yellow = "\033[33m",
    .red = "\033[31m",
    .grey = "\033[90m",
    .dim = "\033[2m",
    .bold = "\033[1m",
    .key = "\033[1;32m",
    .heading = "\033[1;33m",
    .title = "\033[1;36m",
    .reset = "\033[0m",
};

void tui_styles_set(bool colour_on) {
    tui_style = colour_on ? COLOURED : tui_styles();
}

// ---- Characters ---------------------------------------------------------------------------

static constexpr char ESCAPE = '\033';
static constexpr const char *REPLACEMENT = "\xef\xbf\xbd"; // U+FFFD

static bool is_continuation(char byte) {
    return (static_cast<unsigned char>(byte) & 0xc0) == 0x80;
}

static bool is_control(char byte) {
    return static_cast<unsigned char>(byte) < ' ' || byte == 0x7f;
}

static bool is_ascii_letter(char byte) {
    return (byte >= 'A' && byte <= 'Z') || (byte >= 'a' && byte <= 'z');
}

// Bytes that the character with this first byte should have; what the byte itself makes
// invalid is found by decode().
static size_t announced_bytes(char first) {
    const auto lead = static_cast<unsigned char>(first);
    if (lead >= 0xf0)
        return 4;
    if (lead >= 0xe0)
        return 3;
    return lead >= 0xc0 ? 2 : 1;
}

// Bytes of the character at the start of `text`: its first byte and the continuation bytes
// that belong to it. A continuation byte alone is one, too.
static size_t character_bytes(std::string_view text) {
    const size_t limit = std::min(announced_bytes(text.front()), text.size());
    size_t bytes = 1;
    while (bytes < limit && is_continuation(text[bytes]))
        bytes++;
    return bytes;
}

constexpr uint32_t INVALID = UINT32_MAX;

// The code point of one character, or INVALID when it is cut short, longer than need be, a
// surrogate or beyond Unicode.
static uint32_t decode(std::string_view character) {
    static constexpr uint32_t smallest[] = {0, 0, 0x80, 0x800, 0x10000};
    const auto lead = static_cast<unsigned char>(character.front());
    const size_t bytes = character.size();
    if (bytes != announced_bytes(character.front()) || lead > 0xf4)
        return INVALID;
    if (bytes == 1)
        return lead;
    uint32_t code = lead & (0xffU >> (bytes + 1));
    for (const char byte : character.substr(1))
        code = code << 6 | (static_cast<unsigned char>(byte) & 0x3fU);
    const bool is_surrogate = code >= 0xd800 && code <= 0xdfff;
    return code < smallest[bytes] || code > 0x10ffff || is_surrogate ? INVALID : code;
}

static bool is_c1_control(uint32_t code) {
    return code >= 0x80 && code <= 0x9f;
}

// Appends one character as it may be shown.
static void append_character(strbuf *out, std::string_view character) {
    if (is_control(character.front())) {
        strbuf_append_char(out, ' ');
        return;
    }
    const uint32_t code = decode(character);
    if (code == INVALID)
        strbuf_append_str(out, REPLACEMENT);
    else if (is_c1_control(code))
        strbuf_append_char(out, ' ');
    else
        strbuf_append_view(out, character);
}

// ---- Columns ------------------------------------------------------------------------------

int tui_columns(std::string_view text) {
    return static_cast<int>(
        std::count_if(text.begin(), text.end(), [](char byte) { return !is_continuation(byte); }));
}

size_t tui_next_character(std::string_view text, size_t at) {
    if (at < text.size())
        at++;
    while (at < text.size() && is_continuation(text[at]))
        at++;
    return at;
}

size_t tui_previous_character(std::string_view text, size_t at) {
    if (at > 0)
        at--;
    while (at > 0 && is_continuation(text[at]))
        at--;
    return at;
}

static size_t byte_of_column(std::string_view text, int column) {
    size_t at = 0;
    for (int passed = 0; passed < column && at < text.size(); passed++)
        at = tui_next_character(text, at);
    return at;
}

std::string_view tui_window(std::string_view text, int first, int columns) {
    text.remove_prefix(byte_of_column(text, first));
    return text.substr(0, byte_of_column(text, columns));
}

// ---- Appending ----------------------------------------------------------------------------

// Bytes of the style sequence at the start of `text`, 0 for none. One without its final letter
// reaches to the end.
static size_t sequence_bytes(std::string_view text) {
    if (text.size() < 2 || text[0] != ESCAPE || text[1] != '[')
        return 0;
    const auto letter = std::find_if(text.begin() + 2, text.end(), is_ascii_letter);
    return static_cast<size_t>(letter - text.begin()) + (letter != text.end() ? 1 : 0);
}

int tui_cut(strbuf *out, std::string_view text, int width) {
    int columns = 0;
    while (!text.empty()) {
        size_t bytes = sequence_bytes(text);
        if (bytes > 0) {
            if (is_ascii_letter(text[bytes - 1]))
                strbuf_append(out, text.data(), bytes);
        } else if (is_continuation(text.front())) {
            bytes = 1; // belongs to no character and takes no column
        } else if (columns >= width) {
            break;
        } else {
            bytes = character_bytes(text);
            append_character(out, text.substr(0, bytes));
            columns++;
        }
        text.remove_prefix(bytes);
    }
    return columns;
}

void tui_fit(strbuf *out, std::string_view text, int width) {
    const int columns = tui_cut(out, text, width);
    strbuf_append_str(out, tui_style.reset);
    tui_repeat(out, " ", width - columns);
}

void tui_pad(strbuf *out, std::string_view text, int width) {
    const int columns = tui_cut(out, text, width);
    tui_repeat(out, " ", width - columns);
}

void tui_repeat(strbuf *out, const char *piece, int count) {
    for (int i = 0; i < count; i++)
        strbuf_append_str(out, piece);
}

// ---- Lines --------------------------------------------------------------------------------

void tui_add_line(strlist *lines, const char *format, ...) {
    strbuf line;
    va_list arguments;
    va_start(arguments, format);
    strbuf_vprintf(&line, format, arguments);
    va_end(arguments);
    strlist_push_view(lines, line.view());
}

// Calls `add` with each line of `text`.
template <typename Add> static void for_each_line(std::string_view text, Add &&add) {
    while (!text.empty()) {
        const size_t end = text.find('\n');
        add(text.substr(0, end));
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    }
}

struct line_break {
    size_t end;  // where the line ends
    size_t next; // where the rest begins
};

// Where to break a paragraph that is wider than `width`. False when it is not.
static bool find_break(std::string_view paragraph, int width, line_break *out) {
    size_t last_blank = 0;
    int columns = 0;
    for (size_t at = 0; at < paragraph.size(); at = tui_next_character(paragraph, at)) {
        if (paragraph[at] == ' ')
            last_blank = at;
        if (is_continuation(paragraph[at]) || columns++ < width)
            continue; // what continues no character takes no column
        *out = last_blank > 0 ? line_break{last_blank, last_blank + 1} : line_break{at, at};
        return true;
    }
    return false;
}

static void wrap_paragraph(std::string_view paragraph, int width, strlist *lines) {
    line_break found = {};
    while (find_break(paragraph, width, &found)) {
        strlist_push_view(lines, paragraph.substr(0, found.end));
        paragraph.remove_prefix(found.next);
    }
    strlist_push_view(lines, paragraph);
}

void tui_wrap(std::string_view text, int width, strlist *lines) {
    for_each_line(text, [&](std::string_view paragraph) {
        wrap_paragraph(paragraph, std::max(width, 1), lines);
    });
}

void tui_split_lines(std::string_view text, strlist *lines) {
    for_each_line(text, [&](std::string_view line) { strlist_push_view(lines, line); });
}

// ---- Text from outside --------------------------------------------------------------------

std::string tui_clean(std::string_view text) {
    strbuf cleaned;
    sanitize_text(text.data(), text.size(), &cleaned);
    return std::string(cleaned.view());
}

std::string tui_blank_controls(std::string_view text) {
    std::string blanked(text);
    std::replace_if(blanked.begin(), blanked.end(), is_control, ' ');
    return blanked;
}

// ---- How far a message got ----------------------------------------------------------------

static constexpr int64_t BAR_CELLS = 12;

void tui_confirm_bar(strbuf *out, int confirmed, int delivered, int sent) {
    const int64_t total = std::max<int64_t>(int64_t{confirmed} + delivered + sent, 1);
    auto green = static_cast<int>(confirmed * BAR_CELLS / total);
    auto red = static_cast<int>(sent * BAR_CELLS / total);
    if (sent != 0)
        red = std::max(red, 1);
    if (delivered != 0 && green + red == BAR_CELLS && green > 0)
        green--; // whoever is still to confirm shows
    strbuf_append_str(out, tui_style.green);
    tui_repeat(out, "█", green);
    strbuf_append_str(out, tui_style.yellow);
    tui_repeat(out, "▒", static_cast<int>(BAR_CELLS) - green - red);
    strbuf_append_str(out, tui_style.red);
    tui_repeat(out, "░", red);
    strbuf_append_str(out, tui_style.reset);
}

static void append_count(strbuf *out, const char *colour, int count, const char *word,
                         bool *is_first) {
    if (count <= 0)
        return;
    strbuf_printf(out, "%s%s%d %s%s", *is_first ? "" : " · ", colour, count, word, tui_style.reset);
    *is_first = false;
}

void tui_counts(strbuf *out, int confirmed, int delivered, int sent) {
    if (delivered == 0 && sent == 0) {
        strbuf_printf(out, "%sall confirmed (%d)%s", tui_style.green, confirmed, tui_style.reset);
        return;
    }
    bool is_first = true;
    append_count(out, tui_style.green, confirmed, "confirmed", &is_first);
    append_count(out, tui_style.yellow, delivered, "delivered", &is_first);
    append_count(out, tui_style.red, sent, "sent", &is_first);
}
