// Keys from bytes. What is typed comes in bursts, between which time passes. The first byte of the
// input tells how it is read:
//   'p'  each further byte chooses a piece whose key is known: what is decoded is that list of
//        keys, and nothing of a sequence that means nothing
//   else bursts of any bytes, which lines of "%" separate
#include "fuzz.h"
#include "hostile.h"
#include "tbx/screen/keys.h"

#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <deque>

// ---- The terminal -------------------------------------------------------------------------

// A descriptor that no file has: poll() and read() below serve it from the bursts, every other
// one as ever.
static constexpr int TERMINAL = 1'000'000;

static std::deque<std::string> bursts; // what has been typed; behind each, time passes
static size_t read_bytes_max = 1;      // what one read brings at most
static bool is_interrupted = false;    // how the wait behind a burst ends

extern "C" {
int poll(pollfd *watched, nfds_t count, int timeout_ms) {
    if (count != 1 || watched->fd != TERMINAL)
        return static_cast<int>(syscall(SYS_poll, watched, count, timeout_ms));
    if (bursts.empty() || !bursts.front().empty())
        return 1;
    bursts.pop_front();
    errno = EINTR;
    return is_interrupted ? -1 : 0;
}
ssize_t read(int fd, void *buffer, size_t size) {
    if (fd != TERMINAL)
        return syscall(SYS_read, fd, buffer, size);
    if (bursts.empty())
        return 0;
    std::string &burst = bursts.front();
    const size_t bytes = std::min({size, burst.size(), read_bytes_max});
    memcpy(buffer, burst.data(), bytes);
    burst.erase(0, bytes);
    return static_cast<ssize_t>(bytes);
}
}

static constexpr key_rules RULES = {.wait_ms = 500,
                                    .sequence_wait_ms = 40,
                                    .last_digit_counts = false,
                                    .has_back_tab_after_o = true,
                                    .has_paste = true};

struct decoded_key {
    tui_key key;
    std::string character;
    bool operator==(const decoded_key &) const = default;
};

// Everything up to the end of the input, without the ticks between.
static std::vector<decoded_key> decoded() {
    std::vector<decoded_key> keys;
    tui_input input;
    input.fd = TERMINAL;
    while (true) {
        tui_character character = {'?', '?', '?', '?', '?'};
        const tui_key key = tui_read_key(&input, RULES, RULES.wait_ms, character);
        CHECK(memchr(character, 0, sizeof character) != nullptr);
        CHECK((key == KEY_CHAR) == (character[0] != 0));
        if (key == KEY_ERROR)
            return keys;
        if (key != KEY_TIMEOUT)
            keys.push_back({key, character});
    }
}

// ---- Any bytes ----------------------------------------------------------------------------

// A character as typed: a first byte that is no control, and no more bytes than it announces.
static bool has_form_of_character(std::string_view text) {
    const bool is_lead = byte_between(text[0], 0xc0, 0xff);
    size_t announced = is_lead ? 2 : 1;
    announced += byte_between(text[0], 0xe0, 0xff) ? 1 : 0;
    announced += byte_between(text[0], 0xf0, 0xff) ? 1 : 0;
    const bool is_control = byte_between(text[0], 0, 0x1f) || text[0] == 0x7f;
    return !is_control && text.size() <= announced && columns_of(text.substr(1)) == 0;
}

static void check_any_bytes(std::string_view input) {
    size_t typed_bytes = 0;
    bool has_escape = false;
    std::string typed;
    for (const std::string_view burst : parts_of(input, 1)) {
        bursts.emplace_back(burst);
        typed.append(burst);
        typed_bytes += burst.size();
        has_escape |= burst.find('\033') != burst.npos;
    }
    const std::vector<decoded_key> keys = decoded();
    CHECK(keys.size() <= typed_bytes);
    std::string text;
    for (const decoded_key &one : keys) {
        CHECK(one.key != KEY_CHAR || has_form_of_character(one.character));
        text += one.character;
    }
    if (!has_escape) {
        std::erase_if(typed, [](char c) { return byte_between(c, 0, 0x1f) || c == 0x7f; });
        CHECK(text == typed); // whatever is broken in it
    }
}

// ---- Pieces whose keys are known ----------------------------------------------------------

struct piece {
    const char *bytes;
    tui_key key;
    bool is_a_burst = false; // its key counts only where time passes behind it
};

static constexpr piece PIECES[] = {
    {"a", KEY_CHAR},
    {"[", KEY_CHAR},
    {"~", KEY_CHAR},
    {" ", KEY_CHAR},
    {"\xc3\xa9", KEY_CHAR},
    {"\xe2\x82\xac", KEY_CHAR},
    {"\xf0\x9f\x98\x80", KEY_CHAR},
    {"\xff", KEY_CHAR, true}, // announces more than there is
    {"\xc3", KEY_CHAR, true},
    {"\t", KEY_TAB},
    {"\r", KEY_ENTER},
    {"\n", KEY_ENTER},
    {"\b", KEY_BACKSPACE},
    {"\177", KEY_BACKSPACE},
    {"\005", KEY_CTRL_E},
    {"\023", KEY_CTRL_S},
    {"\001", KEY_NONE},
    {"\034", KEY_NONE},
    {"\033", KEY_ESC, true},
    {"\033[A", KEY_UP},
    {"\033OA", KEY_UP},
    {"\033[B", KEY_DOWN},
    {"\033OB", KEY_DOWN},
    {"\033[C", KEY_RIGHT},
    {"\033OC", KEY_RIGHT},
    {"\033[D", KEY_LEFT},
    {"\033OD", KEY_LEFT},
    {"\033[H", KEY_HOME},
    {"\033OH", KEY_HOME},
    {"\033[1~", KEY_HOME},
    {"\033[7~", KEY_HOME},
    {"\033[F", KEY_END},
    {"\033OF", KEY_END},
    {"\033[4~", KEY_END},
    {"\033[8~", KEY_END},
    {"\033[5~", KEY_PGUP},
    {"\033[6~", KEY_PGDN},
    {"\033[3~", KEY_DELETE},
    {"\033[Z", KEY_BACKTAB},
    {"\033[2~", KEY_NONE},
    {"\033[0~", KEY_NONE},
    {"\033[9~", KEY_NONE},
    {"\033[15~", KEY_NONE},
    {"\033[1;5A", KEY_NONE},   // with Ctrl held
    {"\033[?62;4c", KEY_NONE}, // a terminal's report of what it is
    {"\033[201~", KEY_NONE},   // pasting ends that has not begun
    {"\033[200~y\r\033[A\xe6\x97\xa5\033[201~", KEY_PASTE},
    {"\033[200~\033[201~", KEY_PASTE},
    {"\033[<0;33;7M", KEY_NONE}, // the mouse
    {"\033[E", KEY_NONE},
    {"\033OP", KEY_NONE},
    {"\033O5A", KEY_NONE},
    {"\033[[A", KEY_NONE}, // F1 on the console
    {"\033a", KEY_NONE},   // with Alt held, from here on
    {"\033\xc3\xa9", KEY_NONE},
    {"\033\033[A", KEY_NONE},
    {"\033\r", KEY_NONE},
    {"\033[", KEY_NONE, true}, // broken off
    {"\033[1;", KEY_NONE, true},
    {"\033O", KEY_NONE, true},
};

static void check_pieces(std::string_view choices) {
    std::vector<decoded_key> expected;
    bursts.emplace_back();
    for (const char choice : choices) {
        const piece &one = PIECES[static_cast<unsigned char>(choice) % std::size(PIECES)];
        bursts.back() += one.bytes;
        if (one.is_a_burst || (choice & '\x80') != 0)
            bursts.emplace_back();
        expected.push_back({one.key, one.key == KEY_CHAR ? one.bytes : ""});
    }
    CHECK(decoded() == expected);
}

void fuzz_one(std::string_view input) {
    const bool is_pieces = take_byte(&input) == 'p';
    const unsigned manner = take_byte(&input);
    read_bytes_max = 1 + manner % 16;
    is_interrupted = (manner & 0x80U) != 0;
    bursts.clear();
    if (is_pieces)
        check_pieces(input);
    else
        check_any_bytes(input);
}
