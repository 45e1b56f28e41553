// The window's process: starting it, reading what it writes, ending it. The window is not trusted:
// only "shown" and one answer word, nothing else, followed by exit status 0 are an answer.
#pragma once

#include "common/core.h"
#include "user/events.h"

#include <functional>
#include <string>
#include <string_view>
#include <vector>

constexpr uint64_t FIRST_WORD_LIMIT_MS = 10'000;
constexpr uint64_t TERMINATE_LIMIT_MS = 500;
constexpr uint64_t ANSWERED_LIMIT_MS = 10'000; // from the answer to the end of the process

enum class dialog_end {
    read,        // "I have read it"
    later,       // "Later"
    unanswered,  // it was shown, and ended without an answer
    never_shown, // it ended, or was killed, before its first frame
    mute,        // it wrote nothing in time, and was killed
};

class dialog {
public:
    using shown_handler = std::function<void()>;
    using end_handler = std::function<void(dialog_end)>;

    dialog(sd_event *loop, shown_handler shown, end_handler ended);
    dialog(const dialog &) = delete;
    dialog &operator=(const dialog &) = delete;
    ~dialog(); // kills a window that is still there

    // Starts `program` with this standard input and environment ("NAME=VALUE"). Returns 0, or -1
    // with errno; otherwise `ended` is called once, when the process is gone.
    [[nodiscard]] int open(const std::string &program, std::string_view input,
                           const std::vector<std::string> &environment);
    [[nodiscard]] bool is_open() const { return pid_ > 0; }
    [[nodiscard]] bool is_shown() const { return is_open() && shown_; }

    // Asks the process to end, and kills it half a second later. An answer that it gave before
    // counts.
    void close();

private:
    static int on_output(sd_event_source *, int fd, uint32_t events, void *self);
    static int on_exit(sd_event_source *, const siginfo_t *how, void *self);
    static int on_timer(sd_event_source *, uint64_t, void *self);

    [[nodiscard]] int watch(pid_t pid, unique_fd output);
    enum class heard { some, nothing_yet, ended };
    [[nodiscard]] heard read_output();
    void take_said();
    void output_ended();
    [[nodiscard]] bool has_answered() const;
    void give_up_on_it();
    void signal_it(int number) const;
    [[nodiscard]] dialog_end outcome(const siginfo_t &how) const;

    sd_event *loop_;
    shown_handler tell_shown_;
    end_handler tell_ended_;

    pid_t pid_ = 0; // 0: there is no window
    unique_fd output_;
    unique_source output_source_;
    unique_source exit_source_;
    unique_source timer_; // until the first word, then until it is killed
    std::string said_;    // everything so far
    bool shown_ = false;
    bool closing_ = false;
    bool was_mute_ = false;
    bool is_nonsense_ = false; // what it said
};
