// Cutting and padding to columns. The first byte of the input is the width; a byte 0x01 to 0x0A in
// the text stands for one of the style sequences that the interface draws with.
#include "common/style.h"
#include "fuzz.h"
#include "hostile.h"
#include "tbx/tui/text.h"

#include <algorithm>

static constexpr const char *STYLES[] = {"\033[7;1m",  "\033[32m",   "\033[33m", "\033[31m",
                                         "\033[90m",   "\033[2m",    "\033[1m",  "\033[1;32m",
                                         "\033[1;33m", "\033[1;36m", "\033[0m"};

static std::string styled(std::string_view input) {
    std::string text;
    for (const char byte : input) {
        if (byte_between(byte, 1, std::size(STYLES)))
            text += STYLES[byte - 1];
        else if (byte != '\033')
            text += byte;
    }
    return text;
}

template <typename... Arguments>
static std::string appended(void (*append)(strbuf *, Arguments...), std::string_view text,
                            int width) {
    strbuf out;
    append(&out, text, width);
    return std::string(out.view());
}

static std::string cut(std::string_view text, int width) {
    strbuf out;
    const int columns = tui_cut(&out, text, width);
    CHECK(columns == tui_line_columns(out.view()));
    CHECK(columns <= std::max(width, 0));
    if (is_narrow(text)) {
        CHECK(columns == std::min(columns_of_text(without_styles(text)), std::max(width, 0)));
        CHECK(columns_of(without_styles(out.view())) == static_cast<size_t>(columns));
    }
    return std::string(out.view());
}

// What may be shown as it is.
static bool is_plain(std::string_view text) {
    return is_well_formed(text) && !holds_any_control(text, "");
}

// `is_kept`: nothing in the text has to be replaced.
static void check_fitting(std::string_view text, int width, bool is_kept) {
    const std::string shown = cut(text, width);
    const std::string padding(static_cast<size_t>(std::max(width, 0) - tui_line_columns(shown)),
                              ' ');
    CHECK(appended(tui_pad, text, width) == shown + padding);
    CHECK(appended(tui_fit, text, width) == shown + tui_style.reset + padding);
    CHECK(tui_line_columns(shown + padding) == std::max(width, 0));
    if (!is_narrow(text))
        is_kept = false; // behind it stands an anchor

    const std::string drawn = without_own_sequences(shown);
    CHECK(is_plain(drawn));
    CHECK(!is_kept || text.starts_with(shown));
    CHECK(without_own_sequences(cut(shown, width)) == drawn);
}

// The text with a letter in the place of each style, which ends a character that is not whole.
static std::string with_letters(std::string_view input) {
    std::string text(input);
    for (char &byte : text)
        if (byte_between(byte, 1, std::size(STYLES)))
            byte = 'x';
    return text;
}

void fuzz_one(std::string_view input) {
    const int width = static_cast<int>(take_byte(&input) % 128) - 2;
    const std::string text = styled(input);
    const std::string plain = without_styles(text);
    for (const bool colour_on : {false, true}) {
        tui_styles_set(colour_on);
        check_fitting(text, width, is_plain(with_letters(input)));
        check_fitting(plain, width, is_plain(plain));
    }
    // Whatever the text: an escape that begins no sequence is a blank.
    strbuf out;
    tui_pad(&out, input, width);
    CHECK(tui_line_columns(out.view()) == std::max(width, 0));
}
