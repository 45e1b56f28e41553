#include "user/question.h"

#include "user_support.h"

#include <sys/ioctl.h>

namespace {

struct pipe_ends {
    pipe_ends() {
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) != 0)
            throw_errno("pipe");
        reading.reset(ends[0]);
        writing.reset(ends[1]);
    }
    unique_fd reading;
    unique_fd writing;
};

// Else it would never wait.
TEST(Question, ReadsWhatTellsOfAChangeBeforeItLooks) {
    const child_result child = run_in_child([] {
        const pipe_ends keys; // nobody types
        const pipe_ends changes;
        int left = -1;
        if (dup2(keys.reading.get(), STDIN_FILENO) < 0 || write(changes.writing.get(), "x", 1) != 1)
            throw_errno("pipe");
        const auto is_over = [&] { return ioctl(changes.reading.get(), FIONREAD, &left) == 0; };
        const reply answer =
            ask_question({.text = "Now?", .is_over = is_over, .watched = changes.reading.get()});
        printf("%d %d", answer == reply::dropped, left);
    });
    EXPECT_EQ(child.out, "Now?\n1 0");
}

} // namespace
