#include "tbx/screen/keys.h"

#include "common/characters.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string_view>

static constexpr int ESCAPE = 27;
static constexpr int DELETE_BYTE = 127;

// ---- Bytes --------------------------------------------------------------------------------

void tui_input_clear(tui_input *input) {
    input->next = input->end = 0;
    input->paste.clear();
    input->is_pasting = false;
    input->silent_waits = 0;
}

bool tui_input_waits(const tui_input &input) {
    return input.next < input.end;
}

bool tui_input_arrives(const tui_input &input, int timeout_ms) {
    pollfd watched = {.fd = input.fd, .events = POLLIN, .revents = 0};
    return tui_input_waits(input) || poll(&watched, 1, timeout_ms) > 0;
}

// Reads what the descriptor holds. Returns 0, or TUI_BYTE_TIMEOUT or TUI_BYTE_ERROR.
static int fill(tui_input *input, int timeout_ms) {
    pollfd watched = {.fd = input->fd, .events = POLLIN, .revents = 0};
    const int ready = poll(&watched, 1, timeout_ms);
    if (ready == 0)
        return TUI_BYTE_TIMEOUT;
    if (ready < 0)
        return errno == EINTR ? TUI_BYTE_TIMEOUT : TUI_BYTE_ERROR;
    const ssize_t got = read(input->fd, input->bytes.data(), input->bytes.size());
    if (got < 0 && errno == EINTR)
        return TUI_BYTE_TIMEOUT;
    if (got <= 0)
        return TUI_BYTE_ERROR; // a terminal that was hung up is readable and at EOF
    input->next = 0;
    input->end = static_cast<size_t>(got);
    return 0;
}

int tui_read_byte(tui_input *input, int timeout_ms) {
    if (!tui_input_waits(*input)) {
        const int code = fill(input, timeout_ms);
        if (code != 0)
            return code;
    }
    return input->bytes[input->next++];
}

static void put_back(tui_input *input) {
    input->next--;
}

// ---- Text ---------------------------------------------------------------------------------

// Reads the rest of the character that begins with `lead`. A byte that cannot belong to it is the
// next key: a broken character must neither swallow an escape nor contain one.
static void read_character(tui_input *input, const key_rules &rules, int lead,
                           tui_character &character) {
    character[0] = static_cast<char>(lead);
    const size_t announced = announced_bytes(character[0]);
    for (size_t i = 1; i < announced; i++) {
        const int byte = tui_read_byte(input, rules.sequence_wait_ms);
        if (byte < 0)
            return;
        if (!is_continuation_byte(static_cast<char>(byte))) {
            put_back(input);
            return;
        }
        character[i] = static_cast<char>(byte);
    }
}

// ---- Pastes -------------------------------------------------------------------------------

static constexpr std::string_view PASTE_BEGINS = "200"; // the number of its sequence
static constexpr std::string_view PASTE_ENDS = "\033[201~";
static constexpr size_t PASTE_MAX_BYTES = 1'048'576; // a longer one is several keys
// If the end of a paste was lost, it ends after so many waits: otherwise all keys would be part of
// it.
static constexpr int SILENT_WAITS_MAX = 10;
// A line may stall in the middle of a paste. After so many waits a key that is typed ends it, but
// not more bytes together than a key has.
static constexpr int SILENT_WAITS_BEFORE_KEY = 2;
static constexpr size_t KEY_MAX_BYTES = 8;

// Returns how many bytes at the end of `text` are an incomplete character.
static size_t unfinished_bytes(std::string_view text) {
    size_t bytes = 1;
    while (bytes < std::min<size_t>(text.size(), 4) &&
           is_continuation_byte(text[text.size() - bytes]))
        bytes++;
    if (bytes > text.size())
        return 0;
    return announced_bytes(text[text.size() - bytes]) > bytes ? bytes : 0;
}

// Returns how many bytes at the end of `paste` may belong to what follows: to the sequence that
// ends the paste, to a CR LF, or to a character.
static size_t bytes_to_hold_back(std::string_view paste) {
    for (size_t bytes = std::min(PASTE_ENDS.size() - 1, paste.size()); bytes > 0; bytes--)
        if (paste.ends_with(PASTE_ENDS.substr(0, bytes)))
            return bytes;
    return paste.ends_with('\r') ? 1 : unfinished_bytes(paste);
}

// Returns what has arrived as a key, except the last `held_back` bytes.
static tui_key hand_over(tui_input *input, size_t held_back) {
    const size_t bytes = input->paste.size() - held_back;
    input->pasted.assign(input->paste, 0, bytes);
    input->paste.erase(0, bytes);
    input->silent_waits = 0;
    return KEY_PASTE;
}

static tui_key end_paste(tui_input *input, size_t end_bytes) {
    input->is_pasting = false;
    const tui_key key = hand_over(input, end_bytes);
    input->paste.clear();
    return key;
}

static tui_key pause_paste(tui_input *input) {
    const size_t held_back = bytes_to_hold_back(input->paste);
    if (input->paste.size() > held_back)
        return hand_over(input, held_back);
    if (++input->silent_waits > SILENT_WAITS_MAX)
        return end_paste(input, 0);
    return KEY_TIMEOUT;
}

// Whether `text` ends in more of the ending sequence than a key that is typed has in common with
// it.
static bool ends_in_part_of_end(std::string_view text) {
    static constexpr size_t SHARED_BYTES = 2; // Esc [ begins many keys
    for (size_t bytes = SHARED_BYTES + 1; bytes < PASTE_ENDS.size(); bytes++)
        if (text.ends_with(PASTE_ENDS.substr(0, bytes)))
            return true;
    return false;
}

// Whether what has just arrived after a silence is a key that was typed: few bytes, and alone.
static bool is_typed_key(const tui_input &input, const key_rules &rules) {
    const std::string_view arrived(reinterpret_cast<const char *>(input.bytes.data()), input.end);
    const std::string text = input.paste + std::string(arrived);
    pollfd watched = {.fd = input.fd, .events = POLLIN, .revents = 0};
    return arrived.size() <= KEY_MAX_BYTES && text.find(PASTE_ENDS) == std::string::npos &&
           !ends_in_part_of_end(text) && poll(&watched, 1, rules.sequence_wait_ms) == 0;
}

static tui_key read_paste(tui_input *input, const key_rules &rules, int timeout_ms) {
    if (input->silent_waits >= SILENT_WAITS_BEFORE_KEY && !tui_input_waits(*input)) {
        const int code = fill(input, timeout_ms);
        if (code == TUI_BYTE_TIMEOUT)
            return pause_paste(input);
        if (code == 0 && is_typed_key(*input, rules))
            return end_paste(input, 0); // the key is the next one
    }
    while (input->paste.size() < PASTE_MAX_BYTES) {
        const int byte = tui_read_byte(input, timeout_ms);
        if (byte == TUI_BYTE_TIMEOUT)
            return pause_paste(input);
        if (byte == TUI_BYTE_ERROR)
            return end_paste(input, 0); // the next key reports the error
        input->paste.push_back(static_cast<char>(byte));
        if (byte == PASTE_ENDS.back() && input->paste.ends_with(PASTE_ENDS))
            return end_paste(input, PASTE_ENDS.size());
    }
    return hand_over(input, bytes_to_hold_back(input->paste));
}

// ---- Escape sequences ---------------------------------------------------------------------

static tui_key letter_key(int letter) {
    switch (letter) {
    case 'A':
        return KEY_UP;
    case 'B':
        return KEY_DOWN;
    case 'C':
        return KEY_RIGHT;
    case 'D':
        return KEY_LEFT;
    case 'F':
        return KEY_END;
    case 'H':
        return KEY_HOME;
    case 'Z':
        return KEY_BACKTAB;
    default:
        return KEY_NONE;
    }
}

static tui_key numbered_key(int digit) {
    switch (digit) {
    case '1':
    case '7':
        return KEY_HOME;
    case '3':
        return KEY_DELETE;
    case '4':
    case '8':
        return KEY_END;
    case '5':
        return KEY_PGUP;
    case '6':
        return KEY_PGDN;
    default:
        return KEY_NONE;
    }
}

static bool is_parameter(int byte) {
    return byte >= 0x20 && byte <= 0x3f;
}

static bool has_only_digits(std::string_view text) {
    return text.find_first_not_of("0123456789") == std::string_view::npos;
}

// Reads what follows Esc and `introducer`, [ or O. An unknown sequence is read to its final byte
// too, so that none of it is taken for text.
static tui_key read_sequence(tui_input *input, const key_rules &rules, int introducer) {
    const int first = tui_read_byte(input, rules.sequence_wait_ms);
    if (introducer == '[' && first == '[') { // the console's function keys: Esc [ [ A
        static_cast<void>(tui_read_byte(input, rules.sequence_wait_ms));
        return KEY_NONE;
    }
    int byte = first;
    std::string parameters;
    for (; is_parameter(byte); byte = tui_read_byte(input, rules.sequence_wait_ms))
        parameters.push_back(static_cast<char>(byte));
    if (byte == ESCAPE)
        put_back(input); // the sequence broke off: this begins the next key
    if (parameters.empty())
        return byte == 'Z' && introducer == 'O' && !rules.has_back_tab_after_o ? KEY_NONE
                                                                               : letter_key(byte);
    if (introducer != '[' || byte != '~' || !has_only_digits(parameters))
        return KEY_NONE;
    if (rules.has_paste && parameters == PASTE_BEGINS) {
        input->is_pasting = true;
        return read_paste(input, rules, rules.wait_ms);
    }
    return parameters.size() == 1 || rules.last_digit_counts ? numbered_key(parameters.back())
                                                             : KEY_NONE;
}

static tui_key read_escape(tui_input *input, const key_rules &rules) {
    int byte = tui_read_byte(input, rules.sequence_wait_ms);
    if (byte < 0)
        return KEY_ESC;
    if (byte == '[' || byte == 'O')
        return read_sequence(input, rules, byte);

    // Esc before a key means Alt: its sequence or character is read and ignored. A paste after an
    // Esc is still a paste.
    while (byte == ESCAPE)
        byte = tui_read_byte(input, rules.sequence_wait_ms);
    tui_character unused = {};
    if ((byte == '[' || byte == 'O') && read_sequence(input, rules, byte) == KEY_PASTE)
        return KEY_PASTE;
    if (byte >= 0 && byte != '[' && byte != 'O')
        read_character(input, rules, byte, unused);
    return KEY_NONE;
}

// ---- Keys ---------------------------------------------------------------------------------

static tui_key control_key(int byte) {
    switch (byte) {
    case 5:
        return KEY_CTRL_E;
    case 8:
    case DELETE_BYTE:
        return KEY_BACKSPACE;
    case '\t':
        return KEY_TAB;
    case '\n':
    case '\r':
        return KEY_ENTER;
    case 19:
        return KEY_CTRL_S;
    default:
        return KEY_NONE;
    }
}

tui_key tui_read_key(tui_input *input, const key_rules &rules, int timeout_ms,
                     tui_character &character) {
    memset(character, 0, sizeof character);
    if (input->is_pasting)
        return read_paste(input, rules, timeout_ms);
    const int byte = tui_read_byte(input, timeout_ms);
    if (byte == TUI_BYTE_TIMEOUT)
        return KEY_TIMEOUT;
    if (byte == TUI_BYTE_ERROR)
        return KEY_ERROR;
    if (byte == ESCAPE)
        return read_escape(input, rules);
    if (byte < ' ' || byte == DELETE_BYTE)
        return control_key(byte);
    read_character(input, rules, byte, character);
    return KEY_CHAR;
}
