#include "tbx/screen/session.h"

#include "tbx/screen/frame.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>

// Process-wide, until the process ends: the terminal, and the requests of signals.
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

static void change_action(int signal, const struct sigaction *action, struct sigaction *before) {
    (void)sigaction(signal, action, before); // cannot fail: the signals exist
}

static void set_action(int signal, void (*handler)(int), int flags) {
    const struct sigaction action = action_of(handler, flags);
    change_action(signal, &action, nullptr);
}

// A shell without job control starts its programs with SIGTSTP ignored: then they must not stop.
static bool is_ignored(int signal) {
    struct sigaction action = {};
    return sigaction(signal, nullptr, &action) == 0 && action.sa_handler == SIG_IGN;
}

static constexpr std::array<int, 7> HANDLED = {SIGINT,  SIGQUIT, SIGTERM, SIGHUP,
                                               SIGTSTP, SIGCONT, SIGPIPE};
using saved_actions = std::array<struct sigaction, HANDLED.size()>;

// The signals that ask to quit interrupt every wait. SIGTSTP and SIGCONT interrupt only the wait
// for a key: poll() is interrupted even with SA_RESTART.
static saved_actions install_handlers() {
    saved_actions before;
    for (size_t i = 0; i < HANDLED.size(); i++)
        change_action(HANDLED[i], nullptr, &before[i]);
    for (const int signal : {SIGINT, SIGQUIT, SIGTERM, SIGHUP})
        set_action(signal, request_quit, 0);
    if (!is_ignored(SIGTSTP))
        set_action(SIGTSTP, request_suspend, SA_RESTART);
    set_action(SIGCONT, note_continued, SA_RESTART);
    set_action(SIGPIPE, SIG_IGN, 0);
    return before;
}

static void put_back(const saved_actions &before) {
    for (size_t i = 0; i < HANDLED.size(); i++)
        change_action(HANDLED[i], &before[i], nullptr);
}

tui_signals_ignored::tui_signals_ignored(signals which) : count_(which) {
    const struct sigaction ignore = action_of(SIG_IGN, 0);
    for (size_t i = 0; i < count_; i++)
        change_action(SIGNALS[i], &ignore, &previous_[i]);
}

tui_signals_ignored::~tui_signals_ignored() {
    for (size_t i = 0; i < count_; i++)
        change_action(SIGNALS[i], &previous_[i], nullptr);
}

// ---- The terminal -------------------------------------------------------------------------

// Long enough for a slow line to take the last bytes.
static constexpr int LAST_WRITE_WAIT_MS = 1000;

static int output_fd() {
    return tui.rules->writes_to_tty ? tui.tty_fd.get() : STDOUT_FILENO;
}

bool tui_output_is_stuck(int fd) {
    pollfd watched = {.fd = fd, .events = POLLOUT, .revents = 0};
    return poll(&watched, 1, LAST_WRITE_WAIT_MS) == 0;
}

// Waits until the terminal takes output or the program is asked to end. The wait is divided into
// short ones, because the signal may come just before one.
static bool await_output() {
    static constexpr int LOOK_AGAIN_MS = 300;
    pollfd watched = {.fd = output_fd(), .events = POLLOUT, .revents = 0};
    while (true) {
        const int ready = poll(&watched, 1, LOOK_AGAIN_MS);
        if (ready > 0)
            return true;
        if (quit_requested || (ready < 0 && errno != EINTR))
            return false;
    }
}

// Writes all of `text`. If the process was asked to end, a terminal that takes nothing does not
// block it. Returns false when some of it was not written, which harms nobody.
static bool write_to_terminal(std::string_view text) {
    while (!text.empty()) {
        if (!await_output())
            return false;
        const ssize_t written = write(output_fd(), text.data(), text.size());
        if (written < 0 && errno != EINTR && errno != EAGAIN)
            return false; // EAGAIN: another program on the terminal has made it non-blocking
        if (written > 0)
            text.remove_prefix(static_cast<size_t>(written));
        if (quit_requested)
            return text.empty();
    }
    return true;
}

// `when` is that of tcsetattr(): with TCSAFLUSH what was typed is dropped.
static bool set_attributes(const termios &attributes, int when) {
    if (tcsetattr(tui.tty_fd.get(), when, &attributes) == 0)
        return true;
    // A signal came while the output drained: waiting again could block for ever.
    return errno == EINTR && tcsetattr(tui.tty_fd.get(), TCSANOW, &attributes) == 0;
}

static bool set_raw_attributes(int when = TCSAFLUSH) {
    termios raw = tui.saved_termios;
    raw.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
    raw.c_iflag &= ~tui.rules->input_flags_off;
    raw.c_cc[VMIN] = 1;
    raw.c_cc[VTIME] = 0;
    return set_attributes(raw, when);
}

static void enter_screen() {
    (void)write_to_terminal(tui.rules->enter); // the next key reports a terminal that is gone
    tui.screen_changes++;
}

void tui_raw_mode() {
    (void)set_raw_attributes(); // the next key reports it
    tui_input_clear(&tui.input);
    enter_screen();
}

// Makes the terminal take output again that Ctrl+S has stopped: pressed just behind the key that
// leaves the screen, it is no key of the interface any more. Only what was stopped by a call can be
// started by one.
static void resume_output() {
    const int fd = tui.tty_fd.get();
    (void)(tcflow(fd, TCOOFF) == 0 && tcflow(fd, TCOON) == 0); // fails if the terminal is gone
}

void tui_restore() {
    if (quit_requested && tui_output_is_stuck(output_fd()))
        // Or waiting for it to drain blocks for ever. Fails if the terminal is gone.
        (void)tcflush(tui.tty_fd.get(), TCOFLUSH);
    (void)set_attributes(tui.saved_termios, TCSAFLUSH); // fails if the terminal is gone
    if (tui_output_is_stuck(output_fd())) {
        resume_output();
        if (quit_requested && tui_output_is_stuck(output_fd()))
            return;
    }
    if (tui.is_torn) // the frame may have ended in a row that does not wrap
        (void)write_to_terminal(FRAME_WRAP_ON);
    (void)write_to_terminal(tui.rules->leave); // fails if the terminal is gone
}

// Returns false when there is no size, or it is 0.
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
           tui.screen_cols >= tui.rules->min_cols && tui.screen_rows >= tui.rules->min_rows &&
           tcgetattr(tui.tty_fd.get(), &tui.saved_termios) == 0;
}

bool session_start(const session_rules &rules) {
    tui.rules = &rules;
    if (!open_terminal()) {
        tui.tty_fd.reset();
        return false;
    }
    tui.input.fd = tui.tty_fd.get();
    const saved_actions before = install_handlers();
    if (!set_raw_attributes()) {
        put_back(before);
        tui.tty_fd.reset();
        return false;
    }
    tui_input_clear(&tui.input);
    enter_screen();
    return true;
}

void tui_end() {
    tui_restore();
    tui.input.fd = -1;
    tui.tty_fd.reset();
}

// ---- Waiting for a key --------------------------------------------------------------------

// After a stop from outside, if there was one: others may have changed the terminal. What was typed
// or pasted is for this program all the same.
static void take_screen_again() {
    continued = 0;
    (void)set_raw_attributes(TCSADRAIN); // the next key reports it
    enter_screen();
    tui_update_size();
}

// Stops until the shell continues the process. The system does not stop a process group that nobody
// could continue; the interface goes on at once then.
static void suspend() {
    suspend_requested = 0;
    tui_restore();
    struct sigaction handler = {};
    const struct sigaction stop = action_of(SIG_DFL, 0);
    change_action(SIGTSTP, &stop, &handler);
    (void)kill(getpid(), SIGTSTP); // cannot fail: this process may signal itself
    change_action(SIGTSTP, &handler, nullptr);
    continued = 0;
    tui_raw_mode();
    tui_update_size();
}

tui_key tui_next_key(tui_character &character) {
    const tui_key key =
        tui_read_key(&tui.input, tui.rules->keys, tui.rules->keys.wait_ms, character);
    if (suspend_requested)
        suspend();
    else if (continued)
        take_screen_again();
    else if (key == KEY_TIMEOUT)
        tui_update_size();
    return key;
}

bool tui_is_hung_up() {
    pollfd watched = {.fd = tui.tty_fd.get(), .events = 0, .revents = 0};
    return poll(&watched, 1, 0) > 0;
}

// Longer than the time between keys that a program types, shorter than between those of a person.
static constexpr int BURST_WAIT_MS = 10;

void tui_drop_input() {
    tui_character character = {};
    while (!quit_requested && tui_input_arrives(tui.input, BURST_WAIT_MS))
        if (tui_read_key(&tui.input, tui.rules->keys, 0, character) == KEY_ERROR)
            return; // the next call reports it
}

bool tui_more_follows() {
    pollfd watched = {.fd = tui.input.fd, .events = POLLIN, .revents = 0};
    return tui_keys_wait() ||
           (poll(&watched, 1, BURST_WAIT_MS) > 0 && (watched.revents & POLLHUP) == 0);
}

bool tui_keys_wait() {
    return tui_input_waits(tui.input);
}

// ---- Frames -------------------------------------------------------------------------------

// A frame of the largest usual screen at 9,600 baud.
static constexpr int SHOWN_WAIT_MS = 5000;
static constexpr int SHOWN_LOOK_MS = 20;

void tui_await_shown() {
    int waiting_bytes = 0;
    for (int waited_ms = 0; waited_ms < SHOWN_WAIT_MS && !quit_requested;
         waited_ms += SHOWN_LOOK_MS) {
        if (ioctl(output_fd(), TIOCOUTQ, &waiting_bytes) != 0 || waiting_bytes == 0)
            return;
        (void)poll(nullptr, 0, SHOWN_LOOK_MS); // only sleeps; a signal may shorten it
    }
}

void session_write(std::string_view frame) {
    tui.is_torn = !write_to_terminal(frame);
}
