#include "tbx/tui/screen.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>

// Process-wide, for as long as the process lives: the terminal, and what signals asked for.
tui_session tui;
volatile sig_atomic_t quit_requested = 0;
static volatile sig_atomic_t suspend_requested = 0; // SIGTSTP
static volatile sig_atomic_t continued = 0;         // SIGCONT

// ---- Signals ------------------------------------------------------------------------------

extern "C" {
static void request_quit(int /*signal*/) {
    quit_requested = 1;
}
static void request_suspend(int /*signal*/) {
    suspend_requested = 1;
}
static void note_continued(int /*signal*/) {
    continued = 1;
}
}

static struct sigaction action_of(void (*handler)(int), int flags) {
    struct sigaction action = {};
    action.sa_handler = handler;
    action.sa_flags = flags;
    sigemptyset(&action.sa_mask);
    return action;
}

static void set_action(int signal, void (*handler)(int), int flags) {
    const struct sigaction action = action_of(handler, flags);
    sigaction(signal, &action, nullptr);
}

// A shell without job control starts its programs with SIGTSTP ignored: they are not to stop.
static bool is_ignored(int signal) {
    struct sigaction action = {};
    return sigaction(signal, nullptr, &action) == 0 && action.sa_handler == SIG_IGN;
}

// Asking to quit interrupts whatever waits; stopping and going on interrupt only the wait for
// a key, which poll() ends whatever the flags say.
static void install_handlers() {
    for (const int signal : {SIGINT, SIGQUIT, SIGTERM, SIGHUP})
        set_action(signal, request_quit, 0);
    if (!is_ignored(SIGTSTP))
        set_action(SIGTSTP, request_suspend, SA_RESTART);
    set_action(SIGCONT, note_continued, SA_RESTART);
    set_action(SIGPIPE, SIG_IGN, 0);
}

tui_signals_ignored::tui_signals_ignored() {
    const struct sigaction ignore = action_of(SIG_IGN, 0);
    for (size_t i = 0; i < SIGNALS.size(); i++)
        sigaction(SIGNALS[i], &ignore, &previous_[i]);
}

tui_signals_ignored::~tui_signals_ignored() {
    for (size_t i = 0; i < SIGNALS.size(); i++)
        sigaction(SIGNALS[i], &previous_[i], nullptr);
}

// ---- The terminal -------------------------------------------------------------------------

// The alternate screen without a cursor; then bracketed paste, which tells what is pasted from
// what is typed.
static constexpr std::string_view ENTER_SCREEN = "\033[?1049h\033[?25l"
                                                 "\033[?2004h";
static constexpr std::string_view LEAVE_SCREEN = "\033[?2004l"
                                                 "\033[?25h\033[?1049l";

// Around a row that must not wrap, whatever the terminal takes its width for.
static constexpr std::string_view WRAP_OFF = "\033[?7l";
static constexpr std::string_view WRAP_ON = "\033[?7h";

// Long enough for a slow line to take the last bytes.
static constexpr int LAST_WRITE_WAIT_MS = 1000;

bool tui_output_is_stuck(int fd) {
    pollfd watched = {.fd = fd, .events = POLLOUT, .revents = 0};
    return poll(&watched, 1, LAST_WRITE_WAIT_MS) == 0;
}

// Writes all of `text`. A terminal that takes nothing, or is gone, does not hold up a process
// that was asked to end; what cannot be shown to anybody is lost without harm.
// Returns false when some of it was not written.
static bool write_to_terminal(std::string_view text) {
    while (!text.empty()) {
        const ssize_t written = write(STDOUT_FILENO, text.data(), text.size());
        if (written < 0 && errno != EINTR)
            return false;
        if (written > 0)
            text.remove_prefix(static_cast<size_t>(written));
        if (quit_requested)
            return text.empty();
    }
    return true;
}

// A terminal that is gone has no attributes to set, which the next read of a key finds out.
static void set_attributes(const termios &attributes) {
    if (tcsetattr(tui.tty_fd.get(), TCSAFLUSH, &attributes) != 0 && errno == EINTR)
        tcsetattr(tui.tty_fd.get(), TCSANOW, &attributes); // the output does not drain
}

void tui_raw_mode() {
    termios raw = tui.saved_termios;
    raw.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
    raw.c_iflag &= ~static_cast<tcflag_t>(ICRNL | IXON);
    raw.c_cc[VMIN] = 1;
    raw.c_cc[VTIME] = 0;
    set_attributes(raw);
    tui_input_clear(&tui.input);
    (void)write_to_terminal(ENTER_SCREEN); // a terminal that is gone tells so with the next key
    tui.screen_changes++;
}

void tui_restore() {
    if (quit_requested && tui_output_is_stuck(STDOUT_FILENO))
        tcflush(tui.tty_fd.get(), TCOFLUSH); // or waiting for it to drain takes for ever
    set_attributes(tui.saved_termios);
    if (quit_requested && tui_output_is_stuck(STDOUT_FILENO))
        return;
    if (tui.is_torn) // perhaps in a row that does not wrap
        (void)write_to_terminal(WRAP_ON);
    (void)write_to_terminal(LEAVE_SCREEN); // nobody is there whom it could fail to reach
}

// False when there is no size, or one of 0.
static bool read_size(int *rows, int *cols) {
    winsize size = {};
    if (ioctl(tui.tty_fd.get(), TIOCGWINSZ, &size) != 0 || size.ws_row == 0 || size.ws_col == 0)
        return false;
    *rows = size.ws_row;
    *cols = size.ws_col;
    return true;
}

bool tui_update_size() {
    int rows = 0;
    int cols = 0;
    if (!read_size(&rows, &cols) || (rows == tui.screen_rows && cols == tui.screen_cols))
        return false;
    tui.screen_rows = rows;
    tui.screen_cols = cols;
    tui.screen_changes++;
    return true;
}

static bool open_terminal() {
    tui.tty_fd.reset(open("/dev/tty", O_RDWR | O_NOCTTY | O_CLOEXEC));
    return tui.tty_fd && read_size(&tui.screen_rows, &tui.screen_cols) &&
           tui.screen_cols >= TUI_MIN_COLS && tui.screen_rows >= TUI_MIN_ROWS &&
           tcgetattr(tui.tty_fd.get(), &tui.saved_termios) == 0;
}

bool tui_start() {
    if (!open_terminal()) {
        tui.tty_fd.reset();
        return false;
    }
    tui.input.fd = tui.tty_fd.get();
    tui_styles_set(getenv("NO_COLOR") == nullptr);
    install_handlers();
    tui_raw_mode();
    return true;
}

void tui_end() {
    tui_restore();
    tui.input.fd = -1;
    tui.tty_fd.reset();
}

// ---- Waiting for a key --------------------------------------------------------------------

static void take_screen_again() {
    continued = 0;
    tui_raw_mode();
    tui_update_size();
}

// Stops as the key asked, and goes on when the shell says so. In a process group that nobody
// could wake again the system does not stop, and the interface goes on at once.
static void suspend() {
    suspend_requested = 0;
    tui_restore();
    struct sigaction handler = {};
    const struct sigaction stop = action_of(SIG_DFL, 0);
    sigaction(SIGTSTP, &stop, &handler);
    raise(SIGTSTP);
    sigaction(SIGTSTP, &handler, nullptr);
    take_screen_again();
}

tui_key tui_next_key(tui_character &character) {
    const tui_key key = tui_read_key(&tui.input, TUI_KEY_WAIT_MS, character);
    if (suspend_requested)
        suspend();
    else if (continued)
        take_screen_again(); // stopped from outside: whoever had the terminal changed it
    else if (key == KEY_TIMEOUT)
        tui_update_size();
    return key;
}

bool tui_is_hung_up() {
    pollfd watched = {.fd = tui.tty_fd.get(), .events = 0, .revents = 0};
    return poll(&watched, 1, 0) > 0;
}

// Between the keys of a person passes more time, between those of a program that types for them
// less.
static constexpr int BURST_WAIT_MS = 10;

void tui_drop_input() {
    tui_character character = {};
    while (!quit_requested && tui_input_arrives(tui.input, BURST_WAIT_MS))
        if (tui_read_key(&tui.input, 0, character) == KEY_ERROR)
            return; // the next one who asks is told
}

// ---- Frames -------------------------------------------------------------------------------

static constexpr int FRAME_ROWS = 4; // two borders, the separator, the footer
static constexpr int SIDE_COLS = 4;  // "│ " and " │"
static constexpr int CORNER_COLS = 2;
static constexpr int TITLE_COLS = 3;  // "─ " and " " around the title
static constexpr int STATUS_COLS = 3; // " " and " ─" around the status

int tui_body_rows() {
    return std::max(tui.screen_rows - FRAME_ROWS, 0);
}

int tui_body_cols() {
    return std::max(tui.screen_cols - SIDE_COLS, 0);
}

static void append_styled(strbuf *row, const char *style, std::string_view text) {
    strbuf_append_str(row, style);
    strbuf_append_view(row, text);
    strbuf_append_str(row, tui_style.reset);
}

static void append_dashes(strbuf *row, const char *style, int count) {
    strbuf_append_str(row, style);
    tui_repeat(row, "─", count);
    strbuf_append_str(row, tui_style.reset);
}

// A title too long for the border is cut; a status that does not fit is left out.
static void append_top_border(strbuf *row, const tui_screen &page) {
    const int inner = tui.screen_cols - CORNER_COLS;
    const int wanted = page.status.empty() ? 0 : tui_columns(page.status) + STATUS_COLS;
    const int status_cols = wanted <= inner ? wanted : 0;
    strbuf title;
    const int title_room = std::max(inner - status_cols - TITLE_COLS, 0);
    const int title_cols = tui_cut(&title, page.title, title_room);
    const bool has_title = title_cols > 0;

    append_styled(row, tui_style.dim, "┌");
    if (has_title)
        append_styled(row, tui_style.title, xasprintf("─ %s ", title.data));
    append_dashes(row, tui_style.dim,
                  inner - status_cols - (has_title ? title_cols + TITLE_COLS : 0));
    const std::string status = status_cols > 0 ? xasprintf(" %s ─", page.status.c_str()) : "";
    append_styled(row, tui_style.grey, status + "┐");
}

static void append_body_line(strbuf *row, std::string_view line) {
    append_styled(row, tui_style.dim, "│");
    strbuf_append_char(row, ' ');
    tui_fit(row, line, tui_body_cols());
    strbuf_append_char(row, ' ');
    append_styled(row, tui_style.dim, "│");
}

static void append_rule(strbuf *row, std::string_view left, std::string_view right) {
    strbuf_append_str(row, tui_style.dim);
    strbuf_append_view(row, left);
    tui_repeat(row, "─", tui.screen_cols - CORNER_COLS);
    strbuf_append_view(row, right);
    strbuf_append_str(row, tui_style.reset);
}

// In a row whose columns a terminal may count otherwise, nothing wraps, and what follows such
// text stands where it belongs; nothing is left of what stood between.
static constexpr std::string_view CLEAR_TO_END = "\033[K";

static void append_anchored(strbuf *frame, std::string_view row) {
    strbuf_append_view(frame, WRAP_OFF);
    int columns = 0;
    for (size_t at = row.find(TUI_ANCHOR); at != row.npos; at = row.find(TUI_ANCHOR)) {
        const std::string_view before = row.substr(0, at);
        columns += tui_line_columns(before);
        strbuf_append_view(frame, before);
        strbuf_append_view(frame, CLEAR_TO_END);
        strbuf_printf(frame, "\033[%dG", columns + 1);
        row.remove_prefix(at + TUI_ANCHOR.size());
    }
    strbuf_append_view(frame, row);
    strbuf_append_view(frame, WRAP_ON);
}

// Appends the row that `append` makes of `parts`.
template <typename Append, typename... Parts>
static void append_row(strbuf *frame, const char *line_end, Append append, const Parts &...parts) {
    strbuf row;
    append(&row, parts...);
    if (row.view().find(TUI_ANCHOR) == std::string_view::npos)
        strbuf_append_view(frame, row.view());
    else
        append_anchored(frame, row.view());
    strbuf_append_str(frame, line_end);
}

static void append_body(strbuf *frame, const strlist &lines) {
    const auto rows = static_cast<size_t>(tui_body_rows());
    for (size_t row = 0; row < rows; row++) {
        const std::string_view line = row < lines.count ? lines.items[row] : "";
        append_row(frame, "\n", append_body_line, line);
    }
}

// The body's first line is the terminal's second, its first column the third.
static void append_cursor(strbuf *frame, const tui_screen &page) {
    if (page.cursor_row >= 1 && page.cursor_row <= tui_body_rows() && page.cursor_col >= 0 &&
        page.cursor_col < tui_body_cols())
        strbuf_printf(frame, "\033[%d;%dH\033[?25h", page.cursor_row + 1, page.cursor_col + 3);
    else
        strbuf_append_str(frame, "\033[?25l");
}

void tui_render(const tui_screen &page, strbuf *frame) {
    strbuf_append_str(frame, "\033[H");
    if (tui.screen_rows >= FRAME_ROWS && tui.screen_cols > SIDE_COLS) {
        append_row(frame, "\n", append_top_border, page);
        append_body(frame, page.lines);
        append_row(frame, "\n", append_rule, "├", "┤");
        append_row(frame, "\n", append_body_line, page.footer);
        append_row(frame, "", append_rule, "└", "┘");
    }
    strbuf_append_str(frame, "\033[J");
    append_cursor(frame, page);
}

void tui_draw(const tui_screen &page) {
    strbuf frame;
    tui_render(page, &frame);
    tui.is_torn = !write_to_terminal(frame.view());
}

bool tui_keys_wait() {
    return tui_input_waits(tui.input);
}
