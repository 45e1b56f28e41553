// A page with a box over it, drawn as one frame. The first two bytes of the input are the rows and
// columns of the terminal; its parts are the title, the status, the footer, the body, the title of
// the box, its body and its button line. All are cleaned, as what a page is made of; the status is
// the program's own words.
#include "frame.h"
#include "fuzz.h"
#include "tbx/tui/dialog.h"

static std::string own_words(std::string_view text) {
    std::string words(text);
    std::erase_if(words, [](char c) { return !byte_between(c, ' ', '~'); });
    return words;
}

static void check_page(const std::vector<std::string_view> &parts, bool has_box) {
    tui_screen page;
    page.title = tui_clean(parts[0].substr(0, parts[0].find('\n')));
    page.status = own_words(parts[1]);
    page.footer = tui_clean(parts[2]);
    page.cursor_row = static_cast<int>(parts[3].size()) - 5;
    page.cursor_col = static_cast<int>(parts[4].size()) - 5;
    tui_split_lines(tui_clean(parts[3]), &page.lines);
    if (has_box) {
        strlist body;
        tui_split_lines(tui_clean(parts[5]), &body);
        tui_overlay_box(&page.lines, tui_clean(parts[4]), body, tui_clean(parts[6]));
    }
    check_frame(page);
}

void fuzz_one(std::string_view input) {
    tui.screen_rows = static_cast<int>(take_byte(&input) % 48);
    tui.screen_cols = static_cast<int>(take_byte(&input) % 160);
    const auto parts = parts_of(input, 7);
    for (const bool colour_on : {false, true}) {
        tui_styles_set(colour_on);
        check_page(parts, /*has_box=*/false);
        check_page(parts, /*has_box=*/true);
    }
}
