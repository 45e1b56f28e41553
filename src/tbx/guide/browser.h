// The guide as tabs on a full screen. A tab becomes lines, the lines one frame, the frame one
// write.
#pragma once

#include "common/style.h"
#include "tbx/guide/keys.h"
#include "tbx/guide/texts.h"

#include <array>
#include <string>
#include <vector>

// Shows the tabbed guide on /dev/tty until the user quits. Returns false and leaves the terminal
// unchanged when it cannot show the guide.
[[nodiscard]] bool guide_interactive();

// ---- What is shown ------------------------------------------------------------------------

struct guide_line {
    char kind; // as in box_row_append()
    std::string text;
};
using guide_lines = std::vector<guide_line>;

constexpr size_t GUIDE_TABS = 5;

struct guide_view {
    int rows = 0; // of the terminal
    int columns = 0;
    size_t tab = 0;
    std::array<int, GUIDE_TABS> scroll = {}; // first line shown, per tab
};

// Appends the items of a table, descriptions wrapped to `width`, an empty line between items.
void guide_append_table(guide_lines *lines, guide_table items, int width);

// The lines of a tab, laid out for a row of `width` columns.
[[nodiscard]] guide_lines guide_tab_lines(size_t tab, int width);

// Applies a key to the view. The scroll position may be outside the content afterwards.
void guide_press(guide_view *view, guide_key key);

// Brings the scroll position back into the content.
void guide_clamp(guide_view *view);

// Appends one frame that fills the terminal.
void guide_render(const guide_view &view, strbuf *frame);
