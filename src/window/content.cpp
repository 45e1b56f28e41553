#include "window/content.h"

#include "common/core.h"
#include "common/message.h"

#include <pango/pango.h>

// ---- Input --------------------------------------------------------------------------------

constexpr std::string_view PLACE_SEPARATOR = " of ";

static bool parse_count(std::string_view digits, size_t *count) {
    int64_t value = 0;
    if (!parse_id(digits, &value) || value == 0)
        return false;
    *count = static_cast<size_t>(value);
    return true;
}

static bool parse_place(std::string_view line, window_content *content) {
    const size_t separator = line.find(PLACE_SEPARATOR);
    return separator != std::string_view::npos &&
           parse_count(line.substr(0, separator), &content->place) &&
           parse_count(line.substr(separator + PLACE_SEPARATOR.size()), &content->total) &&
           content->place <= content->total;
}

static std::string short_time(int64_t moment) {
    char text[SHORT_TIME_BYTES];
    format_time_short(moment, text);
    return text;
}

bool content_parse(std::string_view input, window_content *content) {
    *content = {};
    const size_t line_end = input.find('\n');
    if (line_end == std::string_view::npos || !parse_place(input.substr(0, line_end), content))
        return false;
    input.remove_prefix(line_end + 1);
    message_record message;
    if (message_parse(input.data(), input.size(), &message) != 0)
        return false;
    content->title = displayable_text(message.title);
    content->from = displayable_text(message.from);
    content->date = short_time(message.date);
    if (message.expires != 0)
        content->expires = short_time(message.expires);
    content->text = displayable_text(message.text);
    content->text.erase(content->text.find_last_not_of('\n') + 1);
    return true;
}

std::string displayable_text(std::string_view untrusted) {
    strbuf clean;
    sanitize_text(untrusted.data(), untrusted.size(), &clean);
    const std::unique_ptr<char, decltype(&g_free)> valid(
        g_utf8_make_valid(clean.view().data(), static_cast<gssize>(clean.len)), g_free);
    return valid.get();
}

// ---- Lines --------------------------------------------------------------------------------

// A line is not broken at a blank before this character.
constexpr size_t WORD_BREAK_MIN_CHARACTERS = DISPLAY_LINE_MAX_CHARACTERS * 3 / 4;

// Returns the end of the display line that begins at character `start` of a line of `length`
// characters.
static size_t display_line_end(const std::vector<PangoLogAttr> &attributes, size_t start,
                               size_t length) {
    if (length - start <= DISPLAY_LINE_MAX_CHARACTERS)
        return length;
    const size_t limit = start + DISPLAY_LINE_MAX_CHARACTERS;
    size_t grapheme = 0;
    for (size_t at = limit; at > start; at--) {
        if (at - start >= WORD_BREAK_MIN_CHARACTERS && attributes[at].is_line_break &&
            attributes[at - 1].is_white)
            return at;
        if (grapheme == 0 && attributes[at].is_cursor_position)
            grapheme = at;
    }
    return grapheme != 0 ? grapheme : limit;
}

// Appends the breaks of one line, which begins at character `first` of the text.
static void append_breaks(std::string_view line, size_t length, size_t first,
                          std::vector<size_t> *breaks) {
    std::vector<PangoLogAttr> attributes(length + 1);
    pango_get_log_attrs(line.data(), static_cast<int>(line.size()), /*level=*/-1,
                        pango_language_get_default(), attributes.data(),
                        static_cast<int>(attributes.size()));
    for (size_t at = display_line_end(attributes, 0, length); at < length;
         at = display_line_end(attributes, at, length))
        breaks->push_back(first + at);
}

std::vector<size_t> display_breaks(const std::string &text) {
    std::vector<size_t> breaks;
    size_t first = 0;
    for (std::string_view rest = text; !rest.empty();) {
        const std::string_view line = rest.substr(0, rest.find('\n'));
        const auto length =
            static_cast<size_t>(g_utf8_strlen(line.data(), static_cast<gssize>(line.size())));
        if (length > DISPLAY_LINE_MAX_CHARACTERS)
            append_breaks(line, length, first, &breaks);
        first += length + 1;
        rest.remove_prefix(std::min(line.size() + 1, rest.size()));
    }
    return breaks;
}

std::string broken_for_display(const std::string &text) {
    std::string broken;
    const char *from = text.data();
    size_t at = 0;
    for (const size_t position : display_breaks(text)) {
        const char *to = g_utf8_offset_to_pointer(from, static_cast<glong>(position - at));
        broken.append(from, to).push_back('\n');
        from = to;
        at = position;
    }
    return broken.append(from, text.data() + text.size());
}
