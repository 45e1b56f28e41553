#include "common/style.h"

#include "common/characters.h"

#include <algorithm>
#include <string_view>

// Process-wide, because every drawing function uses them. Set before anything is drawn, valid until
// the process ends.
style_strings style;
int style_columns = 80;

static constexpr style_strings COLOURED = {
    .reset = "\033[0m",
    .bold = "\033[1m",
    .dim = "\033[2m",
    .green = "\033[1;32m",
    .yellow = "\033[1;33m",
    .cyan = "\033[1;36m",
    .reverse = "\033[7;1m",
};

static constexpr std::string_view TERM_SEPARATOR = "¦";
static constexpr int WRAP_MIN_COLUMNS = 24;
static constexpr int RULE_END_COLUMNS = 2; // the two end pieces
static constexpr int BOX_SIDE_COLUMNS = 4; // "│ " and " │"

void styles_set(bool enabled) {
    style = enabled ? COLOURED : style_strings();
}

// ---- Measuring ----------------------------------------------------------------------------

static bool begins_character(char byte) {
    return !is_continuation_byte(byte);
}

static size_t character_count(std::string_view text) {
    return static_cast<size_t>(std::count_if(text.begin(), text.end(), begins_character));
}

size_t text_character_count(const char *text) {
    return character_count(text);
}

// Returns the longest beginning of `text` with at most `count` characters, all of them whole.
static std::string_view first_characters(std::string_view text, size_t count) {
    size_t bytes = 0;
    for (size_t seen = 0; bytes < text.size(); bytes++)
        if (begins_character(text[bytes]) && seen++ == count)
            break;
    return text.substr(0, bytes);
}

// ---- Rules and rows -----------------------------------------------------------------------

static void append_dashes(strbuf *buffer, int count) {
    for (int i = 0; i < count; i++)
        strbuf_append_str(buffer, "─");
}

void rule_append(strbuf *buffer, const char *left, const char *right, const char *title) {
    int fill = style_columns - RULE_END_COLUMNS;
    strbuf_printf(buffer, "%s%s", style.dim, left);
    if (title[0]) {
        const std::string label = xasprintf("─ %s ", title);
        strbuf_printf(buffer, "%s%s%s%s%s", style.reset, style.cyan, label.c_str(), style.reset,
                      style.dim);
        fill -= static_cast<int>(character_count(label));
    }
    append_dashes(buffer, fill);
    strbuf_printf(buffer, "%s%s", right, style.reset);
}

static const char *kind_style(char kind) {
    if (kind == 'F')
        return style.green;
    return kind == 'H' ? style.yellow : "";
}

void box_row_append(strbuf *buffer, char kind, const char *text) {
    const int inner = std::max(style_columns - BOX_SIDE_COLUMNS, 0);
    const std::string_view shown = first_characters(text, static_cast<size_t>(inner));
    const int padding = inner - static_cast<int>(character_count(shown));
    const char *opening = kind_style(kind);
    const char *closing = opening[0] ? style.reset : "";
    strbuf_printf(buffer, "%s│%s %s%.*s%s%*s %s│%s", style.dim, style.reset, opening,
                  static_cast<int>(shown.size()), shown.data(), closing, padding, "", style.dim,
                  style.reset);
}

// ---- Words --------------------------------------------------------------------------------

// Removes the next word from the front of `text` and returns it; empty when only white space is
// left.
static std::string_view next_word(std::string_view *text) {
    constexpr std::string_view WHITE_SPACE = " \t\n";
    text->remove_prefix(std::min(text->find_first_not_of(WHITE_SPACE), text->size()));
    const std::string_view word = text->substr(0, text->find_first_of(WHITE_SPACE));
    text->remove_prefix(word.size());
    return word;
}

void wrap_words(const char *text, int width, int indent, strlist *lines) {
    const auto limit = static_cast<size_t>(std::max(width - indent, WRAP_MIN_COLUMNS));
    const auto margin = static_cast<size_t>(std::max(indent, 0));
    std::string line;
    size_t columns = 0; // of `line`, without its indent
    std::string_view rest = text;
    for (std::string_view word = next_word(&rest); !word.empty(); word = next_word(&rest)) {
        const size_t word_columns = character_count(word);
        if (!line.empty() && columns + 1 + word_columns <= limit) {
            line.append(" ").append(word);
            columns += 1 + word_columns;
            continue;
        }
        if (!line.empty())
            strlist_push_view(lines, line);
        line.assign(margin, ' ').append(word);
        columns = word_columns;
    }
    if (!line.empty())
        strlist_push_view(lines, line);
}

void split_term(const char *item, std::string *term, std::string *description) {
    const std::string_view whole = item;
    const size_t at = whole.find(TERM_SEPARATOR);
    term->assign(whole.substr(0, at));
    if (at == std::string_view::npos)
        description->clear();
    else
        description->assign(whole.substr(at + TERM_SEPARATOR.size()));
}
