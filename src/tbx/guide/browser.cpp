#include "tbx/guide/browser.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <iterator>
#include <string_view>

static constexpr int MIN_COLUMNS = 44; // the tab bar needs them
static constexpr int MIN_ROWS = 10;

// Set by SIGINT, SIGTERM and SIGHUP, for as long as the process lives.
static volatile sig_atomic_t quit_requested = 0;

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
static constexpr int PAGE_OVERHEAD_ROWS = FRAME_ROWS + 1; // a page keeps one line of the last
static constexpr int FAR_BELOW = 999'999;                 // drawing stops at the last page

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

static constexpr const char *CURSOR_HOME = "\033[H";
static constexpr const char *CLEAR_BELOW = "\033[J";

static constexpr const char *TITLE = "tbx — guide";
static constexpr int TITLE_RULE_COLUMNS = 16; // the title's label and the end pieces
static constexpr int BORDER_COLUMNS = 2;      // "│" and "│"
static constexpr int ROW_SIDE_COLUMNS = 4;    // "│ " and " │"
static constexpr int POSITION_GAP_COLUMNS = 2;

// The first one that leaves room for the position is shown: how to leave is said to the last.
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

// Columns of a tab in the tab bar: its name between two spaces or marks.
static int tab_columns(size_t tab) {
    return columns_of(TABS[tab].name) + 2;
}

// The tab that the bar begins with: not the first one only on a terminal that was made too
// narrow for all of them while the guide was open.
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

// A terminal made lower than the frame gets the top of it: one row more would scroll.
static void append_frame(strbuf *frame, const strlist &rows, int screen_rows) {
    strbuf_append_str(frame, CURSOR_HOME);
    const size_t shown = std::min(rows.count, static_cast<size_t>(screen_rows));
    for (size_t i = 0; i < shown; i++)
        strbuf_printf(frame, "%s%s", i > 0 ? "\n" : "", rows.items[i]);
    strbuf_append_str(frame, CLEAR_BELOW);
}

void guide_render(guide_view *view, strbuf *frame) {
    style_columns = view->columns;
    const int width = view->columns - ROW_SIDE_COLUMNS;
    const guide_lines lines = guide_tab_lines(view->tab, width);
    const int total = static_cast<int>(lines.size());
    const int body = std::max(view->rows - FRAME_ROWS, 0);
    int &scroll = view->scroll[view->tab];
    scroll = std::clamp(scroll, 0, std::max(total - body, 0));
    const std::string position =
        xasprintf("lines %d-%d/%zu", scroll + 1, std::min(scroll + body, total), lines.size());
    strlist rows;
    append_head(&rows, *view);
    append_body(&rows, lines, static_cast<size_t>(scroll), static_cast<size_t>(body));
    append_foot(&rows, position, width);
    append_frame(frame, rows, view->rows);
}

// ---- The terminal -------------------------------------------------------------------------

static constexpr const char *ENTER_SCREEN = "\033[?1049h\033[?25l";
static constexpr const char *LEAVE_SCREEN = "\033[?25h\033[?1049l";
static constexpr int OUTPUT_TIMEOUT_MS = 300;

static constexpr std::array<int, 4> QUIT_SIGNALS = {SIGINT, SIGQUIT, SIGTERM, SIGHUP};
using saved_handlers = std::array<struct sigaction, QUIT_SIGNALS.size()>;

extern "C" {
static void request_quit(int /*signal*/) {
    quit_requested = 1;
}
}

static void install_quit_handler(saved_handlers *saved) {
    struct sigaction action = {};
    action.sa_handler = request_quit; // without SA_RESTART: a signal ends what waits
    sigemptyset(&action.sa_mask);
    for (size_t i = 0; i < QUIT_SIGNALS.size(); i++)
        sigaction(QUIT_SIGNALS[i], &action, &(*saved)[i]);
}

static void restore_handlers(const saved_handlers &saved) {
    for (size_t i = 0; i < QUIT_SIGNALS.size(); i++)
        sigaction(QUIT_SIGNALS[i], &saved[i], nullptr);
}

// False when there is no size, or one of 0; the view keeps its own then.
static bool read_size(int tty, guide_view *view) {
    winsize size = {};
    if (ioctl(tty, TIOCGWINSZ, &size) != 0 || size.ws_row == 0 || size.ws_col == 0)
        return false;
    view->rows = size.ws_row;
    view->columns = size.ws_col;
    return true;
}

static bool is_resized(int tty, guide_view *view) {
    const int rows = view->rows;
    const int columns = view->columns;
    return read_size(tty, view) && (view->rows != rows || view->columns != columns);
}

[[nodiscard]] static bool set_attributes(int tty, const termios &attributes) {
    if (tcsetattr(tty, TCSAFLUSH, &attributes) == 0)
        return true;
    // A signal came while the output drained: waiting once more could take for ever.
    return errno == EINTR && tcsetattr(tty, TCSANOW, &attributes) == 0;
}

// Waits until the terminal takes output. One that is stopped, as by Ctrl-S, holds the guide up,
// but not for longer than it is wanted.
[[nodiscard]] static bool await_output(int tty) {
    pollfd waiting = {.fd = tty, .events = POLLOUT, .revents = 0};
    int ready = 0;
    do
        ready = poll(&waiting, 1, OUTPUT_TIMEOUT_MS);
    while ((ready == 0 || (ready < 0 && errno == EINTR)) && !quit_requested);
    return ready > 0;
}

[[nodiscard]] static bool write_to_terminal(int tty, std::string_view text) {
    while (!text.empty()) {
        if (!await_output(tty))
            return false;
        const ssize_t written = write(tty, text.data(), text.size());
        if (written >= 0)
            text.remove_prefix(static_cast<size_t>(written));
        else if (errno != EINTR)
            return false;
    }
    return true;
}

// False, with everything as it was, when the terminal cannot be set up.
static bool enter_screen(int tty, const termios &saved) {
    saved_handlers handlers;
    install_quit_handler(&handlers);
    termios raw = saved;
    raw.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
    raw.c_cc[VMIN] = 1;
    raw.c_cc[VTIME] = 0;
    if (set_attributes(tty, raw) && write_to_terminal(tty, ENTER_SCREEN))
        return true;
    static_cast<void>(set_attributes(tty, saved)); // a terminal that is gone has nothing to restore
    restore_handlers(handlers);
    return false;
}

// The guide is over whether or not the terminal is still there to be restored.
static void leave_screen(int tty, const termios &saved) {
    static_cast<void>(set_attributes(tty, saved));
    static_cast<void>(write_to_terminal(tty, LEAVE_SCREEN));
}

static bool draw(int tty, guide_view *view) {
    strbuf frame;
    guide_render(view, &frame);
    return write_to_terminal(tty, frame.view());
}

static void browse(int tty, guide_view *view) {
    bool drawn = draw(tty, view);
    while (drawn && !quit_requested) {
        const guide_key key = guide_read_key(tty);
        if (key == guide_key::quit || key == guide_key::failed)
            return;
        const bool resized = is_resized(tty, view);
        if (!resized && (key == guide_key::timeout || key == guide_key::none))
            continue;
        guide_press(view, key);
        drawn = draw(tty, view);
    }
}

bool guide_interactive() {
    const unique_fd tty(open("/dev/tty", O_RDWR | O_NOCTTY | O_CLOEXEC));
    guide_view view;
    termios saved = {};
    if (!tty || !read_size(tty.get(), &view) || view.columns < MIN_COLUMNS ||
        view.rows < MIN_ROWS || tcgetattr(tty.get(), &saved) != 0 ||
        !enter_screen(tty.get(), saved))
        return false;
    styles_set(getenv("NO_COLOR") == nullptr);
    browse(tty.get(), &view);
    leave_screen(tty.get(), saved);
    return true;
}
