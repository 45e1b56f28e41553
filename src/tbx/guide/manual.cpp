#include "tbx/guide/manual.h"

#include <algorithm>
#include <cstring>

static constexpr int MIN_COLUMNS = 60;
static constexpr int MAX_COLUMNS = 100;
static constexpr int MIN_HEADER_SPACES = 2;

static constexpr int TEXT_INDENT = 7;
static constexpr int DESCRIPTION_INDENT = 14;
static constexpr const char *MARGIN = "       "; // TEXT_INDENT spaces

static constexpr const char *PAGE_NAME = "TBX(1)";
static constexpr const char *PAGE_TITLE = "tbx manual";
static constexpr const char *VERSION_LINE = "tbx " TBX_VERSION;

static int columns_of(const char *text) {
    return static_cast<int>(text_character_count(text));
}

static void append_header(strbuf *page, int width) {
    const int spaces =
        std::max(width - 2 * columns_of(PAGE_NAME) - columns_of(PAGE_TITLE), MIN_HEADER_SPACES);
    const int left = spaces / 2;
    strbuf_printf(page, "%s%s%*s%s%*s%s%s\n", style.bold, PAGE_NAME, left, "", PAGE_TITLE,
                  spaces - left, "", PAGE_NAME, style.reset);
}

static void append_footer(strbuf *page, int width) {
    const int spaces =
        std::max(width - columns_of(VERSION_LINE) - columns_of(PAGE_NAME), MIN_HEADER_SPACES);
    strbuf_printf(page, "\n%s%s%*s%s%s\n", style.bold, VERSION_LINE, spaces, "", PAGE_NAME,
                  style.reset);
}

static void append_section(strbuf *page, const char *name) {
    strbuf_printf(page, "\n%s%s%s\n", style.bold, name, style.reset);
}

static void append_paragraph(strbuf *page, const char *text, int width, int indent) {
    strlist lines;
    wrap_words(text, width, indent, &lines);
    for (const char *line : lines)
        strbuf_printf(page, "%s\n", line);
}

static void append_synopsis(strbuf *page) {
    for (const char *line : GUIDE_SYNOPSIS) {
        const auto word = static_cast<int>(strcspn(line, " "));
        strbuf_printf(page, "%s%s%.*s%s%s\n", MARGIN, style.bold, word, line, style.reset,
                      line + word);
    }
}

void manual_append_table(strbuf *page, guide_table items, int width) {
    std::string term;
    std::string description;
    for (const char *item : items) {
        split_term(item, &term, &description);
        strbuf_printf(page, "%s%s%s%s\n", MARGIN, style.green, term.c_str(), style.reset);
        append_paragraph(page, description.c_str(), width, DESCRIPTION_INDENT);
    }
}

static void append_sections(strbuf *page, int width) {
    append_section(page, "NAME");
    append_paragraph(page, MANUAL_NAME_LINE, width, TEXT_INDENT);
    append_section(page, "SYNOPSIS");
    append_synopsis(page);
    append_section(page, "DESCRIPTION");
    append_paragraph(page, GUIDE_DESCRIPTION, width, TEXT_INDENT);
    append_section(page, "COMMANDS");
    manual_append_table(page, GUIDE_COMMANDS, width);
    append_section(page, "SEND OPTIONS");
    manual_append_table(page, GUIDE_SEND_OPTIONS, width);
    append_section(page, "EXAMPLES");
    manual_append_table(page, GUIDE_EXAMPLES, width);
    append_section(page, "FILES");
    manual_append_table(page, GUIDE_FILES, width);
    append_section(page, "ENVIRONMENT");
    manual_append_table(page, GUIDE_ENVIRONMENT, width);
    append_section(page, "EXIT STATUS");
    manual_append_table(page, GUIDE_EXIT_STATUS, width);
    append_section(page, "SEE ALSO");
    append_paragraph(page, GUIDE_SEE_ALSO, width, TEXT_INDENT);
}

void manual_print(FILE *stream, bool colour, int width) {
    styles_set(colour);
    width = std::clamp(width, MIN_COLUMNS, MAX_COLUMNS);
    strbuf page;
    append_header(&page, width);
    append_sections(&page, width);
    append_footer(&page, width);
    fwrite(page.data, 1, page.len, stream);
}
