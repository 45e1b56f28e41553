// How long terminals that take nothing hold a send up. The clock and the waits are the tests' own:
// a wait for room sets the clock forward and takes no time.
#include "tbx/terminal.h"

#include "support.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <string>

namespace {

int64_t clock_ms = 1'000'000;
int waits = 0;

} // namespace

extern "C" {
int clock_gettime(clockid_t clock, timespec *time) {
    if (clock != CLOCK_MONOTONIC)
        return static_cast<int>(syscall(SYS_clock_gettime, clock, time));
    *time = {.tv_sec = clock_ms / 1000, .tv_nsec = clock_ms % 1000 * 1'000'000};
    return 0;
}
int poll(pollfd *watched, nfds_t count, int timeout_ms) {
    for (nfds_t i = 0; i < count; i++)
        watched[i].revents = 0;
    clock_ms += timeout_ms;
    waits++;
    return 0;
}
}

namespace {

// A terminal that takes nothing: a pipe that is full. In test mode any file is a terminal.
class stopped_terminal : public scratch_state {
public:
    stopped_terminal() {
        make_fifo(pipe());
        reader_.reset(open(pipe().c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
        const unique_fd writer(open(pipe().c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC));
        const std::string much(65'536, 'x');
        while (::write(writer.get(), much.data(), much.size()) > 0) {
        }
        if (errno != EAGAIN)
            throw_errno(pipe());
    }
    [[nodiscard]] std::string pipe() const { return path("stopped"); }

private:
    unique_fd reader_;
};

struct patience {
    int whole; // terminals that took everything
    int waits;
    int64_t milliseconds;
};

patience write_to(const strlist &paths) {
    const int64_t start_ms = clock_ms;
    waits = 0;
    const int whole = terminals_write(paths, geteuid(), "text\n");
    return {whole, waits, clock_ms - start_ms};
}

strlist stopped_times(const stopped_terminal &terminal, int count) {
    strlist paths;
    for (int i = 0; i < count; i++)
        strlist_push_dup(&paths, terminal.pipe().c_str());
    return paths;
}

} // namespace

TEST(TerminalPatience, IsAtMostThreeSecondsForATerminalThatTakesNothing) {
    const stopped_terminal stopped;
    const patience one = write_to(stopped_times(stopped, 1));
    EXPECT_EQ(one.whole, 0);
    EXPECT_GT(one.milliseconds, 2000);
    EXPECT_LE(one.milliseconds, 3100); // with the wait during which it ended
}

TEST(TerminalPatience, IsTheSameForAThousandTerminals) {
    const stopped_terminal stopped;
    clock_ms = 2'000'000;
    const patience one = write_to(stopped_times(stopped, 1));
    clock_ms = 2'000'000;
    const patience thousand = write_to(stopped_times(stopped, 1000));
    EXPECT_EQ(thousand.whole, 0);
    EXPECT_EQ(thousand.waits, one.waits);
    EXPECT_EQ(thousand.milliseconds, one.milliseconds);
}

TEST(TerminalPatience, IsTheSameWithFewDescriptors) {
    const stopped_terminal stopped;
    const child_result child = run_in_child([&stopped] {
        clock_ms = 2'000'000;
        const patience one = write_to(stopped_times(stopped, 1));
        leave_descriptors(5);
        clock_ms = 2'000'000;
        const patience hundred = write_to(stopped_times(stopped, 100));
        return hundred.waits == one.waits && hundred.milliseconds == one.milliseconds ? 10 : 20;
    });
    EXPECT_EQ(child.exit_status, 10) << child.err;
}

TEST(TerminalPatience, TerminalBehindThoseThatTakeNothingIsWrittenTo) {
    const stopped_terminal stopped;
    stopped.write("works", "");
    strlist paths = stopped_times(stopped, 1000);
    strlist_push_dup(&paths, stopped.path("works").c_str());
    EXPECT_EQ(write_to(paths).whole, 1);
    EXPECT_EQ(stopped.read("works"), "text\n");
}
