// What the window reads on standard input. The first byte says how often the last line is repeated,
// to make lines that must be broken.
#include "fuzz.h"
#include "hostile.h"
#include "window/content.h"

#include <algorithm>

static void check_shown(const std::string &text) {
    CHECK(is_well_formed(text));
    CHECK(std::ranges::none_of(text, [](char c) {
        return (byte_between(c, 0, 31) && c != '\n' && c != '\t') || c == 127;
    }));
    CHECK(displayable_text(text) == text);
}

static size_t characters_of(std::string_view text) {
    return static_cast<size_t>(
        std::ranges::count_if(text, [](char byte) { return !byte_between(byte, 0x80, 0xbf); }));
}

static void check_broken(const std::string &text) {
    const std::vector<size_t> breaks = display_breaks(text);
    CHECK(std::ranges::is_sorted(breaks) && std::ranges::adjacent_find(breaks) == breaks.end());
    const std::string broken = broken_for_display(text);
    std::string joined;
    size_t place = 0; // in characters of the original
    auto next = breaks.begin();
    for (size_t at = 0; at < broken.size(); at++) {
        const bool begins = !byte_between(broken[at], 0x80, 0xbf);
        if (begins && next != breaks.end() && *next == place) {
            CHECK(broken[at] == '\n');
            ++next;
            continue;
        }
        joined += broken[at];
        place += begins ? 1 : 0;
    }
    CHECK(joined == text && next == breaks.end());
    for (const std::string_view line : lines_of(broken))
        CHECK(characters_of(line) <= DISPLAY_LINE_MAX_CHARACTERS);
    const auto lines = lines_of(text);
    CHECK(!breaks.empty() == std::ranges::any_of(lines, [](std::string_view line) {
        return characters_of(line) > DISPLAY_LINE_MAX_CHARACTERS;
    }));
}

// Whether the line is "N of M", N not more than M, both from 1.
static bool is_place(std::string_view line, const window_content &content) {
    const size_t middle = line.find(" of ");
    if (middle == line.npos)
        return false;
    const auto place = decimal(line.substr(0, middle));
    const auto total = decimal(line.substr(middle + 4));
    return place && total && *place >= 1 && *place <= *total &&
           content.place == static_cast<size_t>(*place) &&
           content.total == static_cast<size_t>(*total);
}

void fuzz_one(std::string_view input) {
    const unsigned repeated = take_byte(&input) % 64;
    std::string text(input);
    const std::string last(input.substr(input.rfind('\n') + 1));
    for (unsigned time = 0; time < repeated; time++)
        text += last;
    window_content content;
    if (!content_parse(text, &content))
        return;
    CHECK(is_place(std::string_view(text).substr(0, text.find('\n')), content));
    for (const std::string *shown : {&content.title, &content.from, &content.text})
        check_shown(*shown);
    CHECK(content.title.find('\n') == std::string::npos);
    CHECK(!content.text.ends_with('\n'));
    for (const std::string *shown : {&content.title, &content.text})
        check_broken(*shown);
}
