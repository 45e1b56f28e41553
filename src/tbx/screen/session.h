// The terminal as a full screen, for the guide and the interface: taking it and giving it back,
// signals, Ctrl+Z, its size, waiting for keys.
#pragma once

#include "common/core.h"
#include "tbx/screen/keys.h"

#include <termios.h>

#include <array>
#include <csignal>
#include <string_view>

// In what the guide and the interface use the terminal differently.
struct session_rules {
    int min_cols;
    int min_rows;
    tcflag_t input_flags_off; // beside the line editing and the echo, which both switch off
    bool writes_to_tty;       // frames go to /dev/tty; else to standard output
    std::string_view enter;   // sequences
    std::string_view leave;
    key_rules keys;
};

// The terminal that the program has taken for itself; there is one.
struct tui_session {
    const session_rules *rules = nullptr; // of whoever has started it
    unique_fd tty_fd;                     // all keys come from here
    termios saved_termios = {};
    int screen_rows = 24;
    int screen_cols = 80;
    unsigned screen_changes = 0; // raised when the size is another one or the screen was lost
    bool is_torn = false;        // the last frame was not written whole: the interface is to end
    tui_input input;
};
extern tui_session tui;

// Set to 1 by SIGINT, SIGTERM and SIGHUP. Every loop that waits for keys ends on it.
extern volatile sig_atomic_t quit_requested;

// Opens the terminal, installs the signal handlers and takes the screen. False, with everything
// as it was, when there is no terminal, or it is smaller than is needed, or it cannot be set up.
// `rules` must live until the end.
[[nodiscard]] bool session_start(const session_rules &rules);
void tui_end(); // gives the terminal back as it was found

// Enters raw mode and the alternate screen; what had been typed is dropped.
void tui_raw_mode();
// Leaves both, before another program gets the terminal.
void tui_restore();

// Whether the descriptor takes nothing for a second, as a terminal whose output was stopped.
[[nodiscard]] bool tui_output_is_stuck(int fd);

// Reads the terminal's size. True when it is another one; unknown sizes count for nothing.
bool tui_update_size();

// Waits for a key as every page and dialog does. An idle tick, KEY_TIMEOUT, takes a new size
// of the terminal; Ctrl+Z is carried out here and seen as a tick.
[[nodiscard]] tui_key tui_next_key(tui_character &character);

// Whether the terminal has been taken away, of which a signal does not always tell.
[[nodiscard]] bool tui_is_hung_up();

// Drops what has been typed and pasted so far, whole keys of it: none of them was meant for what
// is shown next.
void tui_drop_input();

// Keeps Ctrl+C, Ctrl+\ and Ctrl+Z, which reach every process on the terminal, from this one while
// another runs on its behalf; and a pipe that the other does not read from ending this one.
class tui_signals_ignored {
public:
    tui_signals_ignored();
    ~tui_signals_ignored();
    tui_signals_ignored(const tui_signals_ignored &) = delete;
    tui_signals_ignored &operator=(const tui_signals_ignored &) = delete;

private:
    static constexpr std::array<int, 4> SIGNALS = {SIGINT, SIGQUIT, SIGTSTP, SIGPIPE};
    std::array<struct sigaction, SIGNALS.size()> previous_ = {};
};

// Whether keys have been typed that wait to be read. What they do is drawn at once then, and
// not key by key.
[[nodiscard]] bool tui_keys_wait();

// Writes a frame. One that was not written whole is over with: the program is to end.
void session_write(std::string_view frame);
