#include "user/question.h"

#include "common/core.h"

#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <ctime>
#include <string_view>

// Bytes that arrive within this time after a key belong to it: those of an escape sequence or a
// paste.
constexpr int BURST_MS = 40;
constexpr int LOOK_INTERVAL_MS = 1000;

// Set by signals while a question is asked. The first one is for the whole process.
static volatile sig_atomic_t abort_requested = 0;
static volatile sig_atomic_t stop_requested = 0;
static volatile sig_atomic_t continued = 0;

extern "C" {
static void request_abort(int /*signal*/) {
    abort_requested = 1;
}
static void request_stop(int /*signal*/) {
    stop_requested = 1;
}
static void note_continued(int /*signal*/) {
    continued = 1;
}
}

// ---- Signals ------------------------------------------------------------------------------

namespace {

// Installs the question's handlers while it exists. An ignored signal stays ignored.
class question_signals {
public:
    // A request to end that came too late for one question holds for the next.
    question_signals() {
        stop_requested = 0;
        continued = 0;
        for (size_t i = 0; i < SIGNALS.size(); i++)
            install(SIGNALS[i], &previous_[i]);
    }
    ~question_signals() {
        for (size_t i = 0; i < SIGNALS.size(); i++)
            (void)sigaction(SIGNALS[i], &previous_[i], nullptr); // cannot fail: the signal exists
    }
    question_signals(const question_signals &) = delete;
    question_signals &operator=(const question_signals &) = delete;

private:
    static constexpr std::array<int, 6> SIGNALS = {SIGINT,  SIGTERM, SIGHUP,
                                                   SIGQUIT, SIGTSTP, SIGCONT};

    static void install(int number, struct sigaction *previous) {
        struct sigaction action = {};
        action.sa_handler = number == SIGTSTP   ? request_stop
                            : number == SIGCONT ? note_continued
                                                : request_abort;
        (void)sigemptyset(&action.sa_mask);         // cannot fail
        (void)sigaction(number, nullptr, previous); // cannot fail: the signal exists
        if (previous->sa_handler != SIG_IGN)
            (void)sigaction(number, &action, nullptr); // as above
    }

    std::array<struct sigaction, SIGNALS.size()> previous_ = {};
};

// ---- The terminal -------------------------------------------------------------------------

// Switches the terminal to single keys without echo while it exists.
class single_keys {
public:
    single_keys() : works_(tcgetattr(STDIN_FILENO, &saved_) == 0) { enter(); }
    ~single_keys() { leave(); }
    single_keys(const single_keys &) = delete;
    single_keys &operator=(const single_keys &) = delete;

    // Drops what was typed so far.
    void enter() const {
        termios keys = saved_;
        keys.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
        keys.c_cc[VMIN] = 1;
        keys.c_cc[VTIME] = 0;
        set(keys);
    }
    void leave() const { set(saved_); }

private:
    // A signal may come while the output drains: waiting again could block for ever.
    void set(const termios &attributes) const {
        if (works_ && tcsetattr(STDIN_FILENO, TCSAFLUSH, &attributes) != 0)
            (void)tcsetattr(STDIN_FILENO, TCSANOW, &attributes); // a terminal that is gone
    }

    termios saved_ = {};
    bool works_;
};

} // namespace

static bool has_signal() {
    return abort_requested != 0 || stop_requested != 0 || continued != 0;
}

// Waits until the terminal takes output, at most so long.
static bool takes_output(int timeout_ms) {
    pollfd output = {.fd = STDOUT_FILENO, .events = POLLOUT, .revents = 0};
    return poll(&output, 1, timeout_ms) > 0;
}

// Writes the text to the terminal. A signal ends that: it ends the question too, or has it drawn
// again. Returns false, with errno, if the text could not be written.
static bool print_now(std::string_view text) {
    while (!text.empty()) {
        const ssize_t written = write(STDOUT_FILENO, text.data(), text.size());
        if (written >= 0)
            text.remove_prefix(static_cast<size_t>(written));
        else if (errno == EAGAIN) // another program has made the terminal non-blocking
            (void)takes_output(LOOK_INTERVAL_MS);
        else if (errno != EINTR)
            return false;
        if (has_signal())
            break;
    }
    return true;
}

// Ends the line of the question. A process that was asked to end does not wait for a terminal that
// Ctrl+S has stopped, or that nobody reads. Only output that a call has stopped is resumed by a
// call.
static void end_line(bool is_aborted) {
    if (is_aborted && !takes_output(/*timeout_ms=*/0))
        (void)(tcflow(STDOUT_FILENO, TCOOFF) == 0 && tcflow(STDOUT_FILENO, TCOON) == 0);
    if (!is_aborted || takes_output(/*timeout_ms=*/0))
        (void)print_now("\n"); // only the line stays open
}

// Stops the process, with the terminal as it was before the question.
static void stop_until_continued(const single_keys &terminal) {
    stop_requested = 0;
    terminal.leave();
    struct sigaction handler = {};
    struct sigaction stop = {};
    stop.sa_handler = SIG_DFL;
    (void)sigemptyset(&stop.sa_mask); // none of these can fail: the signal exists
    (void)sigaction(SIGTSTP, &stop, &handler);
    (void)raise(SIGTSTP);
    (void)sigaction(SIGTSTP, &handler, nullptr);
}

// ---- Keys ---------------------------------------------------------------------------------

enum class key { none, answer, ended };

// Whether more follows at once.
static bool more_follows() {
    pollfd input = {.fd = STDIN_FILENO, .events = POLLIN, .revents = 0};
    return poll(&input, 1, BURST_MS) > 0 && (input.revents & POLLIN) != 0;
}

// Reads what has arrived, until nothing arrives for a moment. If that was a single key, `letter`
// receives it.
//   takes_lines  a key with Enter behind it is a single key too
static key read_key(bool takes_lines, char *letter) {
    std::array<char, 256> bytes = {};
    size_t count = 0;
    do {
        const ssize_t got = read(STDIN_FILENO, bytes.data(), bytes.size());
        if (got == 0 || (got < 0 && errno != EINTR && errno != EAGAIN))
            return key::ended;
        count += got > 0 ? static_cast<size_t>(got) : 0;
    } while (more_follows() && abort_requested == 0);
    *letter = bytes[0];
    const bool is_line = takes_lines && count == 2 && (bytes[1] == '\n' || bytes[1] == '\r');
    return count == 1 || is_line ? key::answer : key::none;
}

static bool is_reply(char letter, reply *answer) {
    switch (letter) {
    case 'r':
    case 'R':
        *answer = reply::read;
        return true;
    case 'l':
    case 'L':
        *answer = reply::later;
        return true;
    case 'q':
    case 'Q':
        *answer = reply::quit;
        return true;
    default:
        return false;
    }
}

// ---- The question -------------------------------------------------------------------------

// Waits for a key, a change or the next look. Returns false when the terminal is gone.
static bool await_something(const question &asked, bool *has_key) {
    std::array<pollfd, 2> watched = {{{.fd = STDIN_FILENO, .events = POLLIN, .revents = 0},
                                      {.fd = asked.watched, .events = POLLIN, .revents = 0}}};
    *has_key = false;
    if (poll(watched.data(), watched.size(), LOOK_INTERVAL_MS) <= 0)
        return true; // time to look, or a signal
    if ((watched[1].revents & POLLIN) != 0) {
        std::array<char, 4096> changes = {};
        (void)!read(asked.watched, changes.data(), changes.size()); // the caller looks itself
    }
    *has_key = (watched[0].revents & POLLIN) != 0;
    return *has_key || (watched[0].revents & (POLLHUP | POLLERR | POLLNVAL)) == 0;
}

static reply ask_until_answered(const question &asked, const single_keys &terminal) {
    if (!print_now(asked.text))
        return reply::unseen;
    int64_t guarded_until = monotonic_ms() + QUESTION_GUARD_MS; // the line may have been held up
    while (abort_requested == 0) {
        bool has_key = false;
        if (!await_something(asked, &has_key))
            return reply::aborted;
        if (stop_requested != 0) {
            stop_until_continued(terminal);
            continued = 1;
        }
        if (continued != 0) {
            continued = 0;
            terminal.enter();
            if (!print_now("\r" + asked.subject + "\n" + asked.text))
                return reply::unseen;
            guarded_until = monotonic_ms() + QUESTION_GUARD_MS;
            continue;
        }
        char letter = '\0';
        reply answer = reply::aborted;
        // The time of a key's first byte counts, not that of its last.
        const bool is_guarded = monotonic_ms() < guarded_until;
        const key pressed = has_key ? read_key(asked.takes_lines, &letter) : key::none;
        if (pressed == key::ended)
            return reply::aborted;
        if (asked.is_over())
            return reply::dropped;
        if (pressed == key::answer && !is_guarded && is_reply(letter, &answer))
            return answer;
    }
    return reply::aborted;
}

bool is_asked_to_end() {
    return abort_requested != 0;
}

reply ask_question(const question &asked) {
    reply answer = reply::aborted;
    int error = 0;
    {
        const question_signals signals;
        const single_keys terminal;
        answer = ask_until_answered(asked, terminal);
        error = errno;
        end_line(abort_requested != 0);
    }
    errno = error;
    return answer;
}
