#include "tbx/guide/browser.h"

#include "tbx/screen/frame.h"
#include "tbx/screen/session.h"

#include <algorithm>
#include <cstdlib>
#include <iterator>
#include <string_view>

static constexpr int MIN_COLUMNS = 44; // the tab bar needs them
static constexpr int MIN_ROWS = 10;

// ---- Tab to lines -------------------------------------------------------------------------

struct guide_tab {
    const char *name;
    const char *heading;
    const guide_table *items;
};

// The first tab, "Info", is made of free texts.
static constexpr std::array<guide_tab, GUIDE_TABS> TABS = {{
    {"Info", nullptr, nullptr},
    {"Commands", "Commands", &GUIDE_COMMANDS},
    {"Options", "Send options", &GUIDE_SEND_OPTIONS},
    {"Examples", "Examples", &GUIDE_EXAMPLES},
    {"Files", "Files and log", &GUIDE_FILES},
}};

static constexpr char HEADING = 'H';
static constexpr char TERM = 'F';
static constexpr char TEXT = 'T';

static constexpr int INFO_INDENT = 3;
static constexpr int DESCRIPTION_INDENT = 4;

static void append_line(guide_lines *lines, char kind, std::string_view text) {
    lines->push_back({kind, std::string(text)});
}

static void append_wrapped(guide_lines *lines, const char *text, int width, int indent) {
    strlist wrapped;
    wrap_words(text, width, indent, &wrapped);
    for (const char *line : wrapped)
        append_line(lines, TEXT, line);
}

static void append_info(guide_lines *lines, int width) {
    append_line(lines, HEADING, "NAME");
    append_line(lines, TEXT, xasprintf("   %s", GUIDE_NAME_LINE));
    append_line(lines, TEXT, "");
    append_line(lines, HEADING, "SYNOPSIS");
    for (const char *synopsis : GUIDE_SYNOPSIS)
        append_line(lines, TEXT, xasprintf("   %s", synopsis));
    append_line(lines, TEXT, "");
    append_line(lines, HEADING, "DESCRIPTION");
    append_wrapped(lines, GUIDE_DESCRIPTION, width, INFO_INDENT);
    append_line(lines, TEXT, "");
    append_line(lines, TEXT, xasprintf("   %s", GUIDE_INFO_FOOTER));
}

void guide_append_table(guide_lines *lines, guide_table items, int width) {
    std::string term;
    std::string description;
    for (size_t i = 0; i < items.size(); i++) {
        if (i > 0)
            append_line(lines, TEXT, "");
        split_term(items[i], &term, &description);
        append_line(lines, TERM, xasprintf(" %s", term.c_str()));
        append_wrapped(lines, description.c_str(), width, DESCRIPTION_INDENT);
    }
}

guide_lines guide_tab_lines(size_t tab, int width) {
    guide_lines lines;
    if (TABS[tab].items) {
        append_line(&lines, HEADING, TABS[tab].heading);
        append_line(&lines, TEXT, "");
        guide_append_table(&lines, *TABS[tab].items, width);
    } else {
        append_info(&lines, width);
    }
    return lines;
}

// ---- Keys to view -------------------------------------------------------------------------

static constexpr int FRAME_ROWS = 6; // three rules and the closing one, tab bar, footer
static constexpr int PAGE_OVERHEAD_ROWS = FRAME_ROWS + 1; // pages overlap by one line
static constexpr int FAR_BELOW = 999'999;                 // guide_clamp() corrects it

void guide_press(guide_view *view, guide_key key) {
    int &scroll = view->scroll[view->tab];
    const int page = std::max(view->rows - PAGE_OVERHEAD_ROWS, 1);
    switch (key) {
    case guide_key::none:
    case guide_key::timeout:
    case guide_key::failed:
    case guide_key::quit:
        break;
    case guide_key::next_tab:
        view->tab = (view->tab + 1) % GUIDE_TABS;
        break;
    case guide_key::previous_tab:
        view->tab = (view->tab + GUIDE_TABS - 1) % GUIDE_TABS;
        break;
    case guide_key::tab_1:
    case guide_key::tab_2:
    case guide_key::tab_3:
    case guide_key::tab_4:
    case guide_key::tab_5:
        view->tab = static_cast<size_t>(key) - static_cast<size_t>(guide_key::tab_1);
        break;
    case guide_key::line_down:
        scroll++;
        break;
    case guide_key::line_up:
        scroll--;
        break;
    case guide_key::page_down:
        scroll += page;
        break;
    case guide_key::page_up:
        scroll -= page;
        break;
    case guide_key::first_line:
        scroll = 0;
        break;
    case guide_key::last_page:
        scroll = FAR_BELOW;
        break;
    }
}

// ---- Lines to frame -----------------------------------------------------------------------

static constexpr const char *TITLE = "tbx — guide";
static constexpr int TITLE_RULE_COLUMNS = 16; // the title's label and the end pieces
static constexpr int BORDER_COLUMNS = 2;      // "│" and "│"
static constexpr int ROW_SIDE_COLUMNS = 4;    // "│ " and " │"
static constexpr int POSITION_GAP_COLUMNS = 2;

// Footers from longest to shortest; the first that leaves room for the position is used. Even the
// shortest says how to quit.
static constexpr const char *HINTS[] = {
    "←/→ tabs · ↑/↓ scroll · PgUp/PgDn · g/G · q quit",
    "←/→ tabs · ↑/↓ scroll · PgUp/PgDn · q quit",
    "←/→ tabs · ↑/↓ scroll · q quit",
    "←/→ tabs · q quit",
    "q quit",
    "",
};

static int columns_of(const char *text) {
    return static_cast<int>(text_character_count(text));
}

// Returns the columns of a tab in the tab bar: its name between two spaces or marks.
static int tab_columns(size_t tab) {
    return columns_of(TABS[tab].name) + 2;
}

// Returns the first tab of the bar. It is not tab 0 only if the terminal was made too narrow for
// all tabs while the guide was open.
static size_t first_tab_shown(size_t current, int width) {
    size_t first = current;
    int used = tab_columns(current);
    while (first > 0 && used + tab_columns(first - 1) <= width)
        used += tab_columns(--first);
    return first;
}

static void append_tab(strbuf *row, size_t tab, bool current) {
    if (!current)
        strbuf_printf(row, "%s %s %s", style.dim, TABS[tab].name, style.reset);
    else if (style.reverse[0])
        strbuf_printf(row, "%s %s %s", style.reverse, TABS[tab].name, style.reset);
    else
        strbuf_printf(row, ">%s<", TABS[tab].name);
}

static void append_tab_bar(strbuf *row, size_t current, int width) {
    int free_columns = std::max(width, 0);
    strbuf_printf(row, "%s│%s", style.dim, style.reset);
    for (size_t tab = first_tab_shown(current, width);
         tab < GUIDE_TABS && tab_columns(tab) <= free_columns; tab++) {
        append_tab(row, tab, tab == current);
        free_columns -= tab_columns(tab);
    }
    strbuf_printf(row, "%*s%s│%s", free_columns, "", style.dim, style.reset);
}

// The key hints on the left, `position` on the right.
static std::string footer_text(const std::string &position, int width) {
    const int room = width - columns_of(position.c_str()) - POSITION_GAP_COLUMNS;
    const char *hint = *std::find_if(std::begin(HINTS), std::end(HINTS) - 1,
                                     [&](const char *text) { return columns_of(text) <= room; });
    const int gap = std::max(width - columns_of(hint) - columns_of(position.c_str()), 0);
    return xasprintf("%s%*s%s", hint, gap, "", position.c_str());
}

static void append_rule(strlist *rows, const char *left, const char *right, const char *title) {
    strbuf row;
    rule_append(&row, left, right, title);
    strlist_push_view(rows, row.view());
}

static void append_row(strlist *rows, char kind, const std::string &text) {
    strbuf row;
    box_row_append(&row, kind, text.c_str());
    strlist_push_view(rows, row.view());
}

static void append_head(strlist *rows, const guide_view &view) {
    strbuf tab_bar;
    append_tab_bar(&tab_bar, view.tab, view.columns - BORDER_COLUMNS);
    append_rule(rows, "┌", "┐", view.columns >= TITLE_RULE_COLUMNS ? TITLE : "");
    strlist_push_view(rows, tab_bar.view());
    append_rule(rows, "├", "┤", "");
}

static void append_foot(strlist *rows, const std::string &position, int width) {
    append_rule(rows, "├", "┤", "");
    append_row(rows, TEXT, footer_text(position, width));
    append_rule(rows, "└", "┘", "");
}

// Appends `body` rows, with the lines from `first` on.
static void append_body(strlist *rows, const guide_lines &lines, size_t first, size_t body) {
    for (size_t at = first; at < first + body; at++) {
        if (at < lines.size())
            append_row(rows, lines[at].kind, lines[at].text);
        else
            append_row(rows, TEXT, "");
    }
}

// Rows of the tab's content on the screen.
static int body_rows(const guide_view &view) {
    return std::max(view.rows - FRAME_ROWS, 0);
}

static guide_lines current_lines(const guide_view &view) {
    return guide_tab_lines(view.tab, view.columns - ROW_SIDE_COLUMNS);
}

void guide_clamp(guide_view *view) {
    const int total = static_cast<int>(current_lines(*view).size());
    int &scroll = view->scroll[view->tab];
    scroll = std::clamp(scroll, 0, std::max(total - body_rows(*view), 0));
}

void guide_render(const guide_view &view, strbuf *frame) {
    style_columns = view.columns;
    const guide_lines lines = current_lines(view);
    const int total = static_cast<int>(lines.size());
    const int body = body_rows(view);
    const int scroll = view.scroll[view.tab];
    const std::string position =
        xasprintf("lines %d-%d/%zu", scroll + 1, std::min(scroll + body, total), lines.size());
    strlist rows;
    append_head(&rows, view);
    append_body(&rows, lines, static_cast<size_t>(scroll), static_cast<size_t>(body));
    append_foot(&rows, position, view.columns - ROW_SIDE_COLUMNS);
    frame_append(frame, rows, view.rows);
}

// ---- On the terminal ----------------------------------------------------------------------

static constexpr session_rules RULES = {
    .min_cols = MIN_COLUMNS,
    .min_rows = MIN_ROWS,
    .input_flags_off = 0,
    .writes_to_tty = true,
    .enter = "\033[?1049h\033[?25l",
    .leave = "\033[?25h\033[?1049l",
    .guard_ms = 0, // it asks nothing
    .keys = GUIDE_KEY_RULES,
};

static void draw(guide_view *view) {
    view->rows = tui.screen_rows;
    view->columns = tui.screen_cols;
    guide_clamp(view);
    strbuf frame;
    guide_render(*view, &frame);
    session_write(frame.view());
}

static void browse() {
    guide_view view;
    unsigned changes_drawn = tui.screen_changes;
    draw(&view);
    while (!quit_requested) {
        tui_character character = {};
        const tui_key pressed = tui_next_key(character);
        const guide_key key = guide_key_of(pressed, character);
        if (key == guide_key::quit || key == guide_key::failed)
            return;
        const bool is_changed = changes_drawn != tui.screen_changes;
        if (!is_changed && (key == guide_key::timeout || key == guide_key::none))
            continue;
        guide_press(&view, key);
        changes_drawn = tui.screen_changes;
        draw(&view);
    }
}

bool guide_interactive() {
    if (!session_start(RULES))
        return false;
    styles_set(getenv("NO_COLOR") == nullptr);
    browse();
    tui_end();
    return true;
}
