// The terminal as a full screen, for the guide and the interface: setting it up and restoring it,
// signals, Ctrl+Z, its size, waiting for keys.
#pragma once

#include "common/core.h"
#include "tbx/screen/keys.h"

#include <termios.h>

#include <array>
#include <csignal>
#include <string_view>

// How the guide and the interface use the terminal differently.
struct session_rules {
    int min_cols;
    int min_rows;
    tcflag_t input_flags_off; // besides line editing and echo, which are always off
    bool writes_to_tty;       // frames go to /dev/tty; else to standard output
    std::string_view enter;   // sequences
    std::string_view leave;
    int guard_ms; // how long a question takes no answer after it has appeared
    key_rules keys;
};

// The terminal that the program uses; there is one.
struct tui_session {
    const session_rules *rules = nullptr; // of the guide or the interface
    unique_fd tty_fd;                     // all keys come from here
    termios saved_termios = {};
    int screen_rows = 24;
    int screen_cols = 80;
    unsigned screen_changes = 0; // counts changes of the size and losses of the screen
    bool is_torn = false;        // the last frame was not written whole
    tui_input input;
};
extern tui_session tui;

// Set to 1 by SIGINT, SIGTERM and SIGHUP. Every loop that waits for keys ends on it.
extern volatile sig_atomic_t quit_requested;

// Opens the terminal, installs the signal handlers and enters the full screen. Returns false and
// changes nothing when there is no terminal, it is too small, or it cannot be set up. `rules` must
// live until the end.
[[nodiscard]] bool session_start(const session_rules &rules);
void tui_end(); // restores the terminal as it was before

// Enters raw mode and the alternate screen; drops what had been typed.
void tui_raw_mode();
// Leaves both, before another program gets the terminal.
void tui_restore();

// Whether the descriptor takes nothing for a second, like a terminal whose output was stopped.
[[nodiscard]] bool tui_output_is_stuck(int fd);

// Reads the terminal's size. Returns true when it has changed. An unknown size is ignored.
bool tui_update_size();

// Waits for a key as every page and dialog does. When nothing arrives, it reads the terminal's size
// and returns KEY_TIMEOUT, an idle tick. It handles Ctrl+Z, which also returns a tick.
[[nodiscard]] tui_key tui_next_key(tui_character &character);

// Whether the terminal was hung up. A signal does not always report this.
[[nodiscard]] bool tui_is_hung_up();

// Drops what has been typed and pasted so far, in whole keys: none of it was meant for what is
// shown next.
void tui_drop_input();

// Whether the last key was one of several that a program typed, such as a paste from a terminal
// that does not mark pastes: another one follows at once.
[[nodiscard]] bool tui_more_follows();

// Waits until the terminal has taken what was written, at most a few seconds. A serial line still
// sends a frame long after it was written. A pseudo-terminal does not tell what its reader has
// shown; there this returns at once.
void tui_await_shown();

// Ignores signals while another program runs for this process.
class tui_signals_ignored {
public:
    enum signals {
        pipe_only = 1,         // SIGPIPE: the program may not read its pipe
        keys = 4,              // those of Ctrl+C, Ctrl+\ and Ctrl+Z too: they were meant for it
        keys_and_continue = 5, // SIGCONT too: the program is continued with its process group
    };
    explicit tui_signals_ignored(signals which);
    ~tui_signals_ignored();
    tui_signals_ignored(const tui_signals_ignored &) = delete;
    tui_signals_ignored &operator=(const tui_signals_ignored &) = delete;

private:
    static constexpr std::array<int, 5> SIGNALS = {SIGPIPE, SIGINT, SIGQUIT, SIGTSTP, SIGCONT};
    std::array<struct sigaction, SIGNALS.size()> previous_ = {};
    size_t count_; // of those that are ignored, the first ones
};

// Whether typed keys wait to be read. Then they are all handled before the next frame is drawn.
[[nodiscard]] bool tui_keys_wait();

// Writes a frame, and sets `is_torn`. It is not written whole if the terminal is gone, or if it
// takes nothing when the program is asked to end.
void session_write(std::string_view frame);
