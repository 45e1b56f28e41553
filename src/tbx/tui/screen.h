// The terminal session, and one page as a frame on it. tui_show() alone writes frames.
#pragma once

#include "common/core.h"
#include "tbx/tui/keys.h"
#include "tbx/tui/text.h"

#include <termios.h>

#include <array>
#include <csignal>
#include <functional>
#include <string>

constexpr int TUI_MIN_COLS = 80;
constexpr int TUI_MIN_ROWS = 20;

// ---- The session --------------------------------------------------------------------------

// The terminal that the interface runs on; there is one.
struct tui_session {
    unique_fd tty_fd; // all keys come from here; frames go to standard output
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

// Opens the terminal, installs the signal handlers and takes the screen. False, with nothing
// touched, when there is no terminal or it is smaller than the interface needs.
[[nodiscard]] bool tui_start();
void tui_end(); // gives the terminal back as tui_start() found it

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

// ---- Pages --------------------------------------------------------------------------------

struct tui_screen {
    strlist lines;      // the body, top to bottom; may hold style sequences
    std::string title;  // left label of the top border
    std::string status; // right label; empty for none
    std::string footer; // the line of key hints
    int cursor_row = 0; // body line of the cursor, from 1; below 1 it stays hidden
    int cursor_col = 0; // column in that line, from 0

    // Builds the page anew for a terminal whose size is another one; empty where nothing
    // depends on it. Called by the dialogs above the page.
    std::function<void(tui_screen *page)> rebuild;
};

// Body lines and columns of a page on this terminal; 0 when there is no room.
[[nodiscard]] int tui_body_rows();
[[nodiscard]] int tui_body_cols();

// Appends one frame: exactly screen_rows lines of screen_cols columns. A terminal too small
// for any frame is cleared.
void tui_render(const tui_screen &page, strbuf *frame);

// Writes one frame.
void tui_draw(const tui_screen &page);

// Whether keys have been typed that wait to be read. What they do is drawn at once then, and
// not key by key.
[[nodiscard]] bool tui_keys_wait();
