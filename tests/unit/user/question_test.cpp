#include "user/question.h"

#include "user_support.h"

#include <pty.h>
#include <sys/ioctl.h>
#include <sys/uio.h>
#include <sys/wait.h>

namespace {

// A pipe that holds one byte.
struct filled_pipe {
    filled_pipe() {
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) != 0)
            throw_errno("pipe");
        reading.reset(ends[0]);
        writing.reset(ends[1]);
        if (write(ends[1], "r", 1) != 1)
            throw_errno("pipe");
    }
    unique_fd reading;
    unique_fd writing;
};

void become_input(int fd) {
    if (dup2(fd, STDIN_FILENO) < 0)
        throw_errno("dup2");
}

question question_with(const std::function<bool()> &is_over) {
    question asked;
    asked.text = "Now?";
    asked.is_over = is_over;
    return asked;
}

// Else it would never wait.
TEST(Question, ReadsWhatTellsOfAChangeBeforeItLooks) {
    const child_result child = run_in_child([] {
        const filled_pipe changes;
        int left = -1;
        question asked =
            question_with([&] { return ioctl(changes.reading.get(), FIONREAD, &left) == 0; });
        asked.watched = changes.reading.get();
        const filled_pipe input; // somebody who types too early
        become_input(input.reading.get());
        const reply answer = ask_question(asked);
        printf("%d %d", answer == reply::dropped, left);
    });
    EXPECT_EQ(child.out, "Now?\n1 0");
}

// Somebody at a terminal that Ctrl+S has stopped presses a key as soon as one counts, and much
// later lets the terminal go on.
[[noreturn]] void press_key_before_anything_appears(int keyboard, int terminal) {
    termios attributes = {};
    do
        usleep(1000); // nothing tells of it
    while (tcgetattr(terminal, &attributes) == 0 && (attributes.c_lflag & ICANON) != 0);
    const bool is_pressed = write(keyboard, "r", 1) == 1;
    usleep(static_cast<useconds_t>(QUESTION_GUARD_MS + 50) * 1000);
    _exit(is_pressed && tcflow(terminal, TCOON) == 0 ? 0 : 1);
}

TEST(Question, DropsWhatWasTypedWhileItsLineWasHeldUp) {
    const child_result child = run_in_child([] {
        int keyboard = -1;
        int terminal = -1;
        if (openpty(&keyboard, &terminal, nullptr, nullptr, nullptr) != 0 ||
            tcflow(terminal, TCOOFF) != 0)
            throw_errno("openpty");
        const pid_t person = fork();
        if (person == 0)
            press_key_before_anything_appears(keyboard, terminal);
        become_input(terminal);
        if (dup2(terminal, STDOUT_FILENO) < 0)
            throw_errno("dup2");
        int looks = 0;
        const reply answer = ask_question(question_with([&] { return ++looks == 2; }));
        int status = 0;
        return waitpid(person, &status, 0) == person && status == 0 && answer == reply::dropped ? 0
                                                                                                : 1;
    });
    EXPECT_EQ(child.exit_status, 0);
}

// What becomes of a question of which the first key cannot be read.
std::string told_if_reading_fails(int error) {
    static int read_error;
    read_error = error;
    return run_in_child([] {
               const filled_pipe input;
               become_input(input.reading.get());
               trap_call(SYS_read, [](long fd) -> long {
                   char taken = '\0';
                   const iovec place = {&taken, 1};
                   (void)!readv(static_cast<int>(fd), &place, 1);
                   return -read_error;
               });
               switch (ask_question(question_with([] { return true; }))) {
               case reply::dropped:
                   printf("goes on");
                   break;
               case reply::aborted:
                   printf("ends");
                   break;
               default:
                   printf("?");
               }
           })
        .out;
}

TEST(Question, EndsOnlyIfItsInputIsGone) {
    EXPECT_EQ(told_if_reading_fails(EIO), "Now?\nends");
    EXPECT_EQ(told_if_reading_fails(EINTR), "Now?\ngoes on");
    EXPECT_EQ(told_if_reading_fails(EAGAIN), "Now?\ngoes on");
}

} // namespace
