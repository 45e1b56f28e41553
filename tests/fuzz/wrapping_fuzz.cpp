// Breaking text into lines. The first two bytes of the input are the width and the indent, the
// rest is the text, cleaned as every text that is wrapped.
#include "common/message.h"
#include "common/style.h"
#include "fuzz.h"
#include "hostile.h"
#include "tbx/tui/text.h"

#include <algorithm>
#include <sstream>

static std::vector<std::string> words_of(std::string_view text) {
    std::istringstream stream{std::string(text)};
    std::vector<std::string> words;
    for (std::string word; stream >> word;)
        words.push_back(word);
    return words;
}

// ---- tui_wrap -----------------------------------------------------------------------------

// Bytes of the first `columns` characters.
static size_t bytes_of_columns(std::string_view text, size_t columns) {
    size_t bytes = 0;
    while (bytes < text.size() && columns_of(text.substr(0, bytes + 1)) <= columns)
        bytes++;
    return bytes;
}

static void wrap_by_the_rules(std::string_view paragraph, size_t width,
                              std::vector<std::string> *lines) {
    while (columns_of(paragraph) > width) {
        const size_t hard = bytes_of_columns(paragraph, width);
        const size_t blank = paragraph.substr(0, hard + 1).rfind(' ');
        const bool is_soft = blank != paragraph.npos && blank > 0;
        lines->emplace_back(paragraph.substr(0, is_soft ? blank : hard));
        paragraph.remove_prefix(is_soft ? blank + 1 : hard);
    }
    lines->emplace_back(paragraph);
}

static void check_wrap(std::string_view text, int width) {
    strlist list;
    tui_wrap(text, width, &list);
    const std::vector<std::string> lines = items_of(list);
    std::string kept;
    for (const std::string &line : lines) {
        CHECK(columns_of_text(line) <= std::max(width, 2)); // one character at least
        kept += line;
    }
    std::vector<std::string> expected;
    for (const std::string_view paragraph : lines_of(text))
        wrap_by_the_rules(paragraph, static_cast<size_t>(width), &expected);
    CHECK(!is_narrow(text) || lines == expected);

    std::string sought(text);
    std::erase_if(sought, [](char c) { return c == ' ' || c == '\n'; });
    std::erase(kept, ' ');
    CHECK(kept == sought);
}

// ---- wrap_words ---------------------------------------------------------------------------

static void check_words(std::string_view text, int width, int indent) {
    static constexpr int MIN_COLUMNS = 24;
    strlist list;
    wrap_words(std::string(text).c_str(), width, indent, &list);
    const auto limit = static_cast<size_t>(std::max(width - indent, MIN_COLUMNS));
    const std::string margin(static_cast<size_t>(indent), ' ');
    std::vector<std::string> words;
    size_t columns_before = limit; // of the line before; at first, one that has no room
    for (const std::string &line : items_of(list)) {
        CHECK(line.starts_with(margin));
        const std::string content = line.substr(margin.size());
        const std::vector<std::string> found = words_of(content);
        CHECK(columns_of(content) <= limit || found.size() == 1);
        CHECK(!found.empty() && columns_before + 1 + columns_of(found.front()) > limit);
        columns_before = columns_of(content);
        words.insert(words.end(), found.begin(), found.end());
    }
    CHECK(words == words_of(text));
}

void fuzz_one(std::string_view input) {
    const int width = static_cast<int>(take_byte(&input) % 64) + 1;
    const int indent = static_cast<int>(take_byte(&input) % 16);
    strbuf cleaned;
    sanitize_text(input.data(), input.size(), &cleaned);
    check_wrap(cleaned.view(), width);
    check_words(cleaned.view(), width, indent);

    strlist lines;
    tui_split_lines(cleaned.view(), &lines);
    const auto expected = lines_of(cleaned.view());
    CHECK(std::ranges::equal(items_of(lines), expected));
}
