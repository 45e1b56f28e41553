#include "roff.h"

#include "common/style.h"

#include <algorithm>
#include <cstdio>

static constexpr std::string_view NAME_SEPARATOR = " — ";
static constexpr int LINE_BYTES = 78;

// ---- Text for roff ------------------------------------------------------------------------

// Takes the first character of UTF-8 `text` off and returns its code point.
static char32_t take_character(std::string_view *text) {
    const auto first = static_cast<unsigned char>(text->front());
    const size_t length = first < 0x80 ? 1 : first < 0xE0 ? 2 : first < 0xF0 ? 3 : 4;
    char32_t code = length == 1 ? first : first & (0x7FU >> length);
    for (const char next : text->substr(1, length - 1))
        code = code << 6 | (static_cast<unsigned char>(next) & 0x3FU);
    text->remove_prefix(length);
    return code;
}

// What stands for a character that roff would read or draw as something else.
static std::string escaped(char32_t character) {
    switch (character) {
    case U'\\':
        return "\\(rs";
    case U'"':
        return "\\(dq";
    case U'\'':
        return "\\(aq";
    case U'`':
        return "\\(ga";
    case U'^':
        return "\\(ha";
    case U'~':
        return "\\(ti";
    default:
        break;
    }
    if (character < 0x80)
        return {static_cast<char>(character)};
    char code[sizeof "\\[u]" + 8]; // eight hexadecimal digits at most
    snprintf(code, sizeof code, "\\[u%04X]", static_cast<unsigned>(character));
    return code;
}

static std::string escaped_word(std::string_view word) {
    // To be typed as it stands: a plain "-" would be drawn as a hyphen, and broken at.
    const bool is_typed = word.find_first_of("-/") <= 1;
    std::string text;
    while (!word.empty()) {
        const char32_t character = take_character(&word);
        text += character == U'-' && is_typed ? "\\-" : escaped(character);
    }
    return text;
}

std::string roff_text(std::string_view text) {
    std::string line;
    for (size_t start = 0; start <= text.size();) {
        const size_t end = std::min(text.find(' ', start), text.size());
        line += escaped_word(text.substr(start, end - start));
        if (end < text.size())
            line += ' ';
        start = end + 1;
    }
    return line;
}

// ---- Sections -----------------------------------------------------------------------------

// In short lines, none of which roff takes for a request.
void roff_print_text(std::string_view text) {
    strlist lines;
    wrap_words(roff_text(text).c_str(), LINE_BYTES, 0, &lines);
    for (const char *line : lines)
        printf("%s%s\n", line[0] == '.' ? "\\&" : "", line);
}

void roff_print_section(const char *name) {
    printf(".SH %s\n", roff_text(name).c_str());
}

void roff_print_table(const char *section, std::span<const char *const> items) {
    roff_print_section(section);
    std::string term;
    std::string description;
    for (const char *item : items) {
        split_term(item, &term, &description);
        printf(".TP\n\\fB%s\\fP\n", roff_text(term).c_str());
        roff_print_text(description);
    }
}

// man(1) and whatis(1) find the page by this form of the line.
void roff_print_name(const char *heading, std::string_view line) {
    const size_t separator = line.find(NAME_SEPARATOR);
    const std::string_view purpose = line.substr(separator + NAME_SEPARATOR.size());
    roff_print_section(heading);
    printf("%s \\-\n", roff_text(line.substr(0, separator)).c_str());
    roff_print_text(purpose);
}

void roff_print_synopsis(const char *heading, std::span<const char *const> lines) {
    roff_print_section(heading);
    const char *line_break = "";
    for (const std::string_view line : lines) {
        const size_t word = std::min(line.find(' '), line.size());
        printf("%s\\fB%s\\fP%s\n", line_break, roff_text(line.substr(0, word)).c_str(),
               roff_text(line.substr(word)).c_str());
        line_break = ".br\n";
    }
}
