// A question on the terminal that one key answers: the terminal's mode, signals, and which key
// counts.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

enum class reply {
    read,
    later,
    quit,
    dropped, // the question is over: `is_over` returned true
    aborted, // interrupted, hung up, or the input ended
    unseen,  // the question could not be written; errno says why
};

// For so long after the question has appeared, keys are dropped: the user may have been typing
// something else.
constexpr int64_t QUESTION_GUARD_MS = 700;

struct question {
    std::string text;              // the line that asks, without its end
    std::string subject = {};      // a line about what: printed before it when it is asked again
    bool takes_lines = false;      // a key with Enter behind it answers too
    std::function<bool()> is_over; // called whenever `watched` is readable, and every second
    int watched = -1;              // a descriptor that the question reads empty; -1 for none
};

// Asks on standard input and output until one of the keys r, l, q is pressed alone: a key among
// others that arrive with it was pasted, or belongs to an escape sequence. Everything typed before
// the question appeared, and within QUESTION_GUARD_MS after, is dropped. SIGINT, SIGTERM, SIGHUP
// and SIGQUIT abort it; SIGTSTP stops the process with the terminal as it was before, and the
// question is asked again when it goes on. The terminal is restored in any case, and the cursor
// stands at the beginning of a line.
[[nodiscard]] reply ask_question(const question &asked);

// Whether a signal has asked the process to end while a question was asked, even if the question
// was answered or over by then.
[[nodiscard]] bool is_asked_to_end();
