#include "tbx/guide/keys.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>

static constexpr int KEY_TIMEOUT_MS = 300;
static constexpr int SEQUENCE_TIMEOUT_MS = 50;
static constexpr int ESCAPE = 27;

static constexpr int TIMED_OUT = -1;
static constexpr int FAILED = -2;

// One byte, 0 to 255, or TIMED_OUT or FAILED. A terminal that was hung up is readable and at
// its end, which counts as failed.
static int read_byte(int fd, int timeout_ms) {
    pollfd waiting = {.fd = fd, .events = POLLIN, .revents = 0};
    const int ready = poll(&waiting, 1, timeout_ms);
    if (ready == 0)
        return TIMED_OUT;
    if (ready < 0)
        return errno == EINTR ? TIMED_OUT : FAILED;
    unsigned char byte = 0;
    return read(fd, &byte, 1) == 1 ? byte : FAILED;
}

static guide_key plain_key(int byte) {
    if (byte >= '1' && byte <= '5')
        return static_cast<guide_key>(static_cast<int>(guide_key::tab_1) + byte - '1');
    switch (byte) {
    case '\t':
    case '\n':
    case '\r':
    case 'l':
        return guide_key::next_tab;
    case 'h':
        return guide_key::previous_tab;
    case 'j':
        return guide_key::line_down;
    case 'k':
        return guide_key::line_up;
    case ' ':
        return guide_key::page_down;
    case 'b':
        return guide_key::page_up;
    case 'g':
        return guide_key::first_line;
    case 'G':
        return guide_key::last_page;
    case 'q':
    case 'Q':
        return guide_key::quit;
    case FAILED:
        return guide_key::failed;
    case TIMED_OUT:
        return guide_key::timeout;
    default:
        return guide_key::none;
    }
}

// The byte after escape "O", or alone after escape "[".
static guide_key cursor_key(int byte) {
    switch (byte) {
    case 'A':
        return guide_key::line_up;
    case 'B':
        return guide_key::line_down;
    case 'C':
        return guide_key::next_tab;
    case 'D':
        return guide_key::previous_tab;
    case 'F':
        return guide_key::last_page;
    case 'H':
        return guide_key::first_line;
    case FAILED:
        return guide_key::failed;
    default:
        return guide_key::none;
    }
}

// The last digit of escape "[" DIGITS "~".
static guide_key numbered_key(int digit) {
    switch (digit) {
    case '1':
    case '7':
        return guide_key::first_line;
    case '4':
    case '8':
        return guide_key::last_page;
    case '5':
        return guide_key::page_up;
    case '6':
        return guide_key::page_down;
    default:
        return guide_key::none;
    }
}

// What follows escape "[". A sequence with more in it than digits is read to its end and
// dropped, so that Ctrl-Right, for one, is not taken for the tab number in it.
static guide_key read_control_sequence(int fd) {
    int digit = 0;
    bool only_digits = true;
    int byte = read_byte(fd, SEQUENCE_TIMEOUT_MS);
    for (; byte >= ' ' && byte <= '?'; byte = read_byte(fd, SEQUENCE_TIMEOUT_MS)) {
        digit = byte;
        only_digits = only_digits && byte >= '0' && byte <= '9';
    }
    if (byte == FAILED)
        return guide_key::failed;
    if (!only_digits)
        return guide_key::none;
    if (byte == '~')
        return numbered_key(digit);
    if (digit != 0)
        return guide_key::none;
    return byte == 'Z' ? guide_key::previous_tab : cursor_key(byte);
}

static guide_key read_escape_sequence(int fd) {
    const int byte = read_byte(fd, SEQUENCE_TIMEOUT_MS);
    switch (byte) {
    case TIMED_OUT:
        return guide_key::quit;
    case FAILED:
        return guide_key::failed;
    case '[':
        return read_control_sequence(fd);
    case 'O':
        return cursor_key(read_byte(fd, SEQUENCE_TIMEOUT_MS));
    default:
        return guide_key::none;
    }
}

guide_key guide_read_key(int fd) {
    const int byte = read_byte(fd, KEY_TIMEOUT_MS);
    return byte == ESCAPE ? read_escape_sequence(fd) : plain_key(byte);
}
