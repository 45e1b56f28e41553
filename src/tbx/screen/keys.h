// Keys from the bytes of the terminal, for the guide and the interface.
#pragma once

#include <array>
#include <cstddef>
#include <string>

enum tui_key {
    KEY_NONE = 0,    // unknown bytes
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

// How the guide and the interface read keys differently.
struct key_rules {
    int wait_ms;               // for a key
    int sequence_wait_ms;      // for each further byte of one
    bool last_digit_counts;    // Esc [ 15 ~ is Esc [ 5 ~; else it is no key
    bool has_back_tab_after_o; // Esc O Z is Esc [ Z; else it is no key
    bool has_paste;            // Esc [ 200 ~ begins one; else it is no key
};

// A buffer for the bytes of a descriptor. One read takes everything that the terminal holds; the
// bytes not used yet wait here. So no system call is needed to know whether more has been typed.
struct tui_input {
    int fd = -1;
    std::array<unsigned char, 4096> bytes = {};
    size_t next = 0; // bytes[next] to bytes[end - 1] wait
    size_t end = 0;

    std::string pasted;      // the text of the last KEY_PASTE
    std::string paste;       // what has arrived of a paste that has not ended
    bool is_pasting = false; // whether a paste has not ended
    int silent_waits = 0;    // how often none of it arrived in time
};

// Drops the waiting bytes, and a paste that has not ended.
void tui_input_clear(tui_input *input);

// Whether bytes wait that tui_read_byte returns at once.
[[nodiscard]] bool tui_input_waits(const tui_input &input);

// The same, but also looks at the descriptor, and waits up to `timeout_ms` for bytes to arrive.
[[nodiscard]] bool tui_input_arrives(const tui_input &input, int timeout_ms);

constexpr int TUI_BYTE_TIMEOUT = -1; // also when a signal interrupted the wait
constexpr int TUI_BYTE_ERROR = -2;

// Returns the next byte, 0 to 255, or TUI_BYTE_TIMEOUT or TUI_BYTE_ERROR.
[[nodiscard]] int tui_read_byte(tui_input *input, int timeout_ms);

// Returns the next key. Waits `timeout_ms` for its first byte, and `rules.sequence_wait_ms` for
// each further one. KEY_ERROR may come one key late. A terminal with bracketed paste marks the
// beginning and the end of a paste. A paste is one key; a slow or very long one is several.
[[nodiscard]] tui_key tui_read_key(tui_input *input, const key_rules &rules, int timeout_ms,
                                   tui_character &character);
