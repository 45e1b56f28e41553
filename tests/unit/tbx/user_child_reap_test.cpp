// reap_child(): the end of a child is noticed, or brought about.
#include "tbx/user_child.h"

#include "support.h"

#include <unistd.h>

#include <cerrno>
#include <chrono>

namespace {

int64_t in_a_minute() {
    return monotonic_ms() + 60'000;
}

pid_t start_child(void (*body)()) {
    const pid_t child = fork();
    if (child == 0)
        body();
    return child;
}

} // namespace

TEST(MonotonicMs, NeverGoesBack) {
    const int64_t first = monotonic_ms();
    EXPECT_GT(first, 0);
    EXPECT_GE(monotonic_ms(), first);
}

TEST(MonotonicMs, IsTheClockOfTheSystem) {
    const auto clock_ms = [] {
        return std::chrono::duration_cast<std::chrono::milliseconds>(
                   std::chrono::steady_clock::now().time_since_epoch())
            .count();
    };
    const int64_t before = clock_ms();
    const int64_t between = monotonic_ms();
    EXPECT_LE(before, between);
    EXPECT_LE(between, clock_ms());
}

TEST(ReapChild, GivesTheStatusOfAChildThatEnds) {
    const pid_t child = start_child([] { _exit(7); });
    int status = 0;
    EXPECT_EQ(reap_child(child, in_a_minute(), &status), 0);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 7);
    EXPECT_TRUE(has_no_children());
}

TEST(ReapChild, TakesAChildThatEndedInTimeAlsoAfterTheDeadline) {
    const pid_t child = start_child([] { _exit(7); });
    siginfo_t ended = {};
    ASSERT_EQ(waitid(P_PID, static_cast<id_t>(child), &ended, WEXITED | WNOWAIT), 0);
    int status = 0;
    EXPECT_EQ(reap_child(child, monotonic_ms() - 1000, &status), 0);
    EXPECT_EQ(WEXITSTATUS(status), 7);
}

TEST(ReapChild, KillsAChildThatIsStillThereAtTheDeadline) {
    const pid_t child = start_child([] {
        while (true)
            pause();
    });
    int status = 0;
    EXPECT_EQ(reap_child(child, monotonic_ms() + 30, &status), -1);
    EXPECT_TRUE(has_no_children());
}

TEST(ReapChild, WorksWhereTheSystemHasNoPidfds) {
    const child_result outer = run_in_child([] {
        refuse_call(SYS_pidfd_open, ENOSYS);
        const pid_t child = start_child([] { _exit(7); });
        int status = 0;
        if (reap_child(child, in_a_minute(), &status) != 0)
            return 20;
        return WEXITSTATUS(status);
    });
    EXPECT_EQ(outer.exit_status, 7) << outer.err;
}

TEST(ReapChild, ReportsAChildThatIsNotOurs) {
    int status = 0;
    EXPECT_EQ(reap_child(getppid(), in_a_minute(), &status), -1);
}
