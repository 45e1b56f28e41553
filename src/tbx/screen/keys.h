// Keys from the bytes of the terminal, for the guide and the interface.
#pragma once

#include <array>
#include <cstddef>
#include <string>

enum tui_key {
    KEY_NONE = 0,    // bytes without a meaning here
    KEY_TIMEOUT = 1, // nothing arrived in time, or a signal interrupted the wait
    KEY_ERROR = 2,   // the terminal cannot be read any more
    KEY_UP = 3,
    KEY_DOWN = 4,
    KEY_RIGHT = 5,
    KEY_LEFT = 6,
    KEY_PGUP = 7,
    KEY_PGDN = 8,
    KEY_HOME = 9,
    KEY_END = 10,
    KEY_ENTER = 11,
    KEY_ESC = 12,
    KEY_TAB = 13,
    KEY_BACKTAB = 14,
    KEY_BACKSPACE = 15,
    KEY_DELETE = 16,
    KEY_CTRL_E = 17,
    KEY_CTRL_S = 18,
    KEY_CHAR = 19,  // one character of text
    KEY_PASTE = 20, // text that was pasted, in tui_input::pasted
};

// One character in UTF-8, NUL-terminated; empty for every key but KEY_CHAR.
constexpr size_t TUI_CHARACTER_BYTES = 5;
using tui_character = char[TUI_CHARACTER_BYTES];

// In what the pages read keys differently.
struct key_rules {
    int wait_ms;               // for a key
    int sequence_wait_ms;      // for each further byte of one
    bool last_digit_counts;    // Esc [ 15 ~ is Esc [ 5 ~; else it is no key
    bool has_back_tab_after_o; // Esc O Z is Esc [ Z; else it is no key
    bool has_paste;            // Esc [ 200 ~ begins one; else it is no key
};

// The bytes that a descriptor delivers. What one read brings beyond the byte asked for waits
// here, so that it is known without a system call whether more has been typed: all that a
// terminal holds.
struct tui_input {
    int fd = -1;
    std::array<unsigned char, 4096> bytes = {};
    size_t next = 0; // bytes[next] to bytes[end - 1] wait
    size_t end = 0;

    std::string pasted;      // the text of the last KEY_PASTE
    std::string paste;       // what has arrived since then of a paste that has not ended
    bool is_pasting = false; // whether there is one
    int silent_waits = 0;    // how often nothing of it came in time
};

// Forgets what waits, and a paste that has not ended.
void tui_input_clear(tui_input *input);

// Whether bytes wait that tui_read_byte returns at once.
[[nodiscard]] bool tui_input_waits(const tui_input &input);

// The same of what the descriptor holds, too; waits up to `timeout_ms` for something to come.
[[nodiscard]] bool tui_input_arrives(const tui_input &input, int timeout_ms);

constexpr int TUI_BYTE_TIMEOUT = -1; // also when a signal interrupted the wait
constexpr int TUI_BYTE_ERROR = -2;

// The next byte, 0 to 255, or TUI_BYTE_TIMEOUT or TUI_BYTE_ERROR.
[[nodiscard]] int tui_read_byte(tui_input *input, int timeout_ms);

// The next key. The first byte is waited for `timeout_ms`, those that belong to it only as
// long as a terminal takes to send them. KEY_ERROR may come one key late.
// A terminal with bracketed paste says where a paste begins and ends. It is one key, whatever it
// holds; one that comes slowly or is very long is several.
[[nodiscard]] tui_key tui_read_key(tui_input *input, const key_rules &rules, int timeout_ms,
                                   tui_character &character);
