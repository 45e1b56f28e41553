#include "tbx/tui/text.h"

#include "common/characters.h"
#include "common/message.h"
#include "tbx/screen/width.h"

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

static constexpr const char *REPLACEMENT = "\xef\xbf\xbd"; // U+FFFD

static bool is_control(char byte) {
    return static_cast<unsigned char>(byte) < ' ' || byte == 0x7f;
}

static bool is_c1_control(uint32_t code) {
    return code >= 0x80 && code <= 0x9f;
}

// Appends one character as it may be shown.
static void append_character(strbuf *out, std::string_view character, uint32_t code) {
    if (is_control(character.front()) || is_c1_control(code))
        strbuf_append_char(out, ' ');
    else if (code == INVALID_CHARACTER)
        strbuf_append_str(out, REPLACEMENT);
    else
        strbuf_append_view(out, character);
}

static void append_characters(strbuf *out, std::string_view characters) {
    while (!characters.empty()) {
        const decoded_character character = decode_character(characters);
        append_character(out, characters.substr(0, character.bytes), character.code);
        characters.remove_prefix(character.bytes);
    }
}

// ---- Columns ------------------------------------------------------------------------------

size_t tui_next_character(std::string_view text, size_t at) {
    if (at < text.size())
        at++;
    while (at < text.size() && is_continuation_byte(text[at]))
        at++;
    return at;
}

size_t tui_previous_character(std::string_view text, size_t at) {
    if (at > 0)
        at--;
    while (at > 0 && is_continuation_byte(text[at]))
        at--;
    return at;
}

struct text_place {
    size_t byte = 0;
    int column = 0;
};

// Returns the place of the first cluster that begins at `column` or after it.
static text_place place_of_column(std::string_view text, int column) {
    text_place place;
    while (place.column < column && place.byte < text.size()) {
        const text_cluster cluster = next_cluster(text.substr(place.byte));
        place.byte += cluster.bytes;
        place.column += cluster.columns;
    }
    return place;
}

int tui_whole_column(std::string_view text, int column) {
    return place_of_column(text, column).column;
}

std::string_view tui_window(std::string_view text, int first, int columns) {
    const text_place start = place_of_column(text, first);
    text.remove_prefix(start.byte);
    const int room = columns - std::max(start.column - first, 0);
    return first_columns(text, room);
}

std::string_view tui_beginning(std::string_view text, size_t limit) {
    size_t end = std::min(limit, text.size());
    while (end > 0 && end < text.size() && is_continuation_byte(text[end]))
        end++;
    return text.substr(0, end);
}

// ---- Appending ----------------------------------------------------------------------------

int tui_cut(strbuf *out, std::string_view text, int width) {
    int columns = 0;
    bool is_plain = true;
    while (!text.empty()) {
        size_t bytes = tui_sequence_bytes(text);
        if (bytes > 0) {
            if (is_ascii_letter(text[bytes - 1]))
                strbuf_append(out, text.data(), bytes);
        } else if (is_continuation_byte(text.front())) {
            bytes = 1; // belongs to no character and takes no column
        } else if (columns >= width) {
            break;
        } else {
            const text_cluster cluster = next_cluster(text);
            if (columns + cluster.columns > width)
                break;
            append_characters(out, text.substr(0, cluster.shown_bytes));
            bytes = cluster.bytes;
            columns += cluster.columns;
            is_plain = is_plain && cluster.is_plain;
        }
        text.remove_prefix(bytes);
    }
    if (!is_plain)
        strbuf_append_view(out, TUI_ANCHOR);
    return columns;
}

std::string tui_without_styles(std::string_view line) {
    std::string plain;
    while (!line.empty()) {
        const size_t bytes = std::max<size_t>(tui_sequence_bytes(line), 1);
        const bool is_style = bytes > 1 && line[bytes - 1] == 'm';
        if (!is_style)
            plain.append(line.substr(0, bytes));
        line.remove_prefix(bytes);
    }
    return plain;
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

// Finds where to break a paragraph that is wider than `width`. Returns false when it is not wider.
static bool find_break(std::string_view paragraph, int width, line_break *out) {
    size_t last_blank = 0;
    int columns = 0;
    for (size_t at = 0; at < paragraph.size();) {
        if (paragraph[at] == ' ')
            last_blank = at;
        const text_cluster cluster = next_cluster(paragraph.substr(at));
        columns += cluster.columns;
        if (columns <= width) {
            at += cluster.bytes;
            continue;
        }
        const size_t hard = std::max(at, at == 0 ? cluster.bytes : 0); // one at least
        if (hard == paragraph.size())
            return false;
        *out = last_blank > 0 ? line_break{last_blank, last_blank + 1} : line_break{hard, hard};
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

static std::string with_newlines(std::string_view text) {
    std::string lines;
    lines.reserve(text.size());
    for (size_t at = 0; at < text.size(); at++) {
        if (text[at] == '\r' && at + 1 < text.size() && text[at + 1] == '\n')
            continue; // both are one line end
        lines.push_back(text[at] == '\r' ? '\n' : text[at]);
    }
    return lines;
}

std::string tui_clean_paste(std::string_view pasted) {
    return tui_clean(with_newlines(pasted));
}

std::string tui_on_one_line(std::string_view pasted) {
    std::string line = tui_clean_paste(pasted);
    std::replace(line.begin(), line.end(), '\n', ' ');
    return line;
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
        green--; // one cell stays for those who have not confirmed
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
