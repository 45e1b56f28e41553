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

static constexpr std::string_view ENTER_SCREEN = "\033[?1049h\033[?25l";
static constexpr std::string_view LEAVE_SCREEN = "\033[?25h\033[?1049l";

// Long enough for a slow line to take the last bytes.
static constexpr int LAST_WRITE_WAIT_MS = 1000;

static bool output_is_stuck() {
    pollfd watched = {.fd = STDOUT_FILENO, .events = POLLOUT, .revents = 0};
    return poll(&watched, 1, LAST_WRITE_WAIT_MS) == 0;
}

// Writes all of `text`. A terminal that takes nothing, or is gone, does not hold up a process
// that was asked to end; what cannot be shown to anybody is lost without harm.
static void write_to_terminal(std::string_view text) {
    while (!text.empty()) {
        const ssize_t written = write(STDOUT_FILENO, text.data(), text.size());
        if (written < 0 && errno != EINTR)
            return;
        if (written > 0)
            text.remove_prefix(static_cast<size_t>(written));
        if (quit_requested)
            return;
    }
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
    tui.input.next = tui.input.end = 0;
    write_to_terminal(ENTER_SCREEN);
    tui.screen_changes++;
}

void tui_restore() {
    if (quit_requested && output_is_stuck())
        tcflush(tui.tty_fd.get(), TCOFLUSH); // or waiting for it to drain takes for ever
    set_attributes(tui.saved_termios);
    if (!quit_requested || !output_is_stuck())
        write_to_terminal(LEAVE_SCREEN);
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

static void append_styled(strbuf *frame, const char *style, std::string_view text) {
    strbuf_append_str(frame, style);
    strbuf_append_view(frame, text);
    strbuf_append_str(frame, tui_style.reset);
}

static void append_dashes(strbuf *frame, const char *style, int count) {
    strbuf_append_str(frame, style);
    tui_repeat(frame, "─", count);
    strbuf_append_str(frame, tui_style.reset);
}

// A title too long for the border is cut; a status that does not fit is left out.
static void append_top_border(strbuf *frame, const tui_screen &page) {
    const int inner = tui.screen_cols - CORNER_COLS;
    const int wanted = page.status.empty() ? 0 : tui_columns(page.status) + STATUS_COLS;
    const int status_cols = wanted <= inner ? wanted : 0;
    strbuf title;
    const int title_room = std::max(inner - status_cols - TITLE_COLS, 0);
    const int title_cols = tui_cut(&title, page.title, title_room);
    const bool has_title = title_cols > 0;

    append_styled(frame, tui_style.dim, "┌");
    if (has_title)
        append_styled(frame, tui_style.title, xasprintf("─ %s ", title.data));
    append_dashes(frame, tui_style.dim,
                  inner - status_cols - (has_title ? title_cols + TITLE_COLS : 0));
    const std::string status = status_cols > 0 ? xasprintf(" %s ─", page.status.c_str()) : "";
    append_styled(frame, tui_style.grey, status + "┐");
    strbuf_append_char(frame, '\n');
}

static void append_body_line(strbuf *frame, std::string_view line) {
    append_styled(frame, tui_style.dim, "│");
    strbuf_append_char(frame, ' ');
    tui_fit(frame, line, tui_body_cols());
    strbuf_append_char(frame, ' ');
    append_styled(frame, tui_style.dim, "│");
    strbuf_append_char(frame, '\n');
}

static void append_rule(strbuf *frame, const char *left, const char *right) {
    strbuf_append_str(frame, tui_style.dim);
    strbuf_append_str(frame, left);
    tui_repeat(frame, "─", tui.screen_cols - CORNER_COLS);
    strbuf_append_str(frame, right);
    strbuf_append_str(frame, tui_style.reset);
}

static void append_body(strbuf *frame, const strlist &lines) {
    const auto rows = static_cast<size_t>(tui_body_rows());
    for (size_t row = 0; row < rows; row++)
        append_body_line(frame, row < lines.count ? lines.items[row] : "");
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
        append_top_border(frame, page);
        append_body(frame, page.lines);
        append_rule(frame, "├", "┤");
        strbuf_append_char(frame, '\n');
        append_body_line(frame, page.footer);
        append_rule(frame, "└", "┘");
    }
    strbuf_append_str(frame, "\033[J");
    append_cursor(frame, page);
}

void tui_show(const tui_screen &page) {
    strbuf frame;
    tui_render(page, &frame);
    write_to_terminal(frame.view());
}

bool tui_draw(const tui_screen &page) {
    if (tui_input_waits(tui.input))
        return false;
    tui_show(page);
    return true;
}
