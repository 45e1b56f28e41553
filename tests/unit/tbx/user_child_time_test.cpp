// A user's time: what one run spends on the children of one user.
#include "tbx/user_child.h"

#include "user_child_support.h"

#include <pthread.h>

#include <cerrno>
#include <ctime>

// ---- The clock ----------------------------------------------------------------------------
// Stands still and is set forward by the tests, or goes on as the system's does.

namespace {

bool is_standing = true;
int64_t standing_ms = 1'000'000;
int forks = 0;

} // namespace

extern "C" int clock_gettime(clockid_t clock, timespec *time) {
    if (clock != CLOCK_MONOTONIC || !is_standing)
        return static_cast<int>(syscall(SYS_clock_gettime, clock, time));
    *time = {.tv_sec = standing_ms / 1000, .tv_nsec = standing_ms % 1000 * 1'000'000};
    return 0;
}

namespace {

const resolved_user SAM = {"sam", SAM_UID, SAM_UID};
constexpr int64_t LONG_MS = 3'600'000;

void spend(const resolved_user &user, int64_t milliseconds) {
    const user_timer timer(user);
    standing_ms += milliseconds;
}

// What is left to the user now.
int64_t left_ms(const resolved_user &user) {
    const user_timer timer(user);
    return timer.deadline_ms(LONG_MS) - standing_ms;
}

class UserTime : public testing::Test {
protected:
    // Nobody has spent anything. Whose time was over would have a second only: renewed twice.
    UserTime() {
        standing_ms += LONG_MS;
        user_times_renew();
        user_times_renew();
    }
    ~UserTime() override { is_standing = true; }

private:
    const scratch_state state_;
};

} // namespace

TEST_F(UserTime, IsTwentySecondsForARun) {
    EXPECT_EQ(left_ms(PAT), 20'000);
    const user_timer timer(PAT);
    EXPECT_FALSE(timer.is_over());
}

TEST_F(UserTime, EndsNoLaterThanTheLimitOfTheCall) {
    const user_timer timer(PAT);
    EXPECT_EQ(timer.deadline_ms(5000), standing_ms + 5000);
    EXPECT_EQ(timer.deadline_ms(20'000), standing_ms + 20'000);
    EXPECT_EQ(timer.deadline_ms(20'001), standing_ms + 20'000);
}

TEST_F(UserTime, IsSpentByEverythingThatIsDoneForTheUser) {
    spend(PAT, 7000);
    EXPECT_EQ(left_ms(PAT), 13'000);
    spend(PAT, 12'999);
    EXPECT_EQ(left_ms(PAT), 1);
}

TEST_F(UserTime, IsOverOnceItIsSpent) {
    spend(PAT, 20'000);
    EXPECT_TRUE(user_timer(PAT).is_over());
    spend(PAT, 5000);
    EXPECT_EQ(left_ms(PAT), 0); // never less than nothing
}

TEST_F(UserTime, IsEachUsersOwn) {
    spend(PAT, 20'000);
    EXPECT_EQ(left_ms(SAM), 20'000);
}

TEST_F(UserTime, CountingItLeavesTheErrorOfWhatWasCounted) {
    errno = EUCLEAN;
    spend(PAT, 1);
    EXPECT_EQ(errno, EUCLEAN);
}

// ---- Another run --------------------------------------------------------------------------

TEST_F(UserTime, IsWholeAgainInTheNextRun) {
    spend(PAT, 19'999);
    user_times_renew();
    EXPECT_EQ(left_ms(PAT), 20'000);
}

TEST_F(UserTime, ThatWasOverComesBackAfterAMinuteForASecond) {
    spend(PAT, 20'000);
    standing_ms += 59'999;
    user_times_renew();
    EXPECT_EQ(left_ms(PAT), 0);
    standing_ms += 1;
    EXPECT_EQ(left_ms(PAT), 0); // not without another run
    user_times_renew();
    EXPECT_EQ(left_ms(PAT), 1000);
}

TEST_F(UserTime, ThatIsOverASecondTimeTakesAnotherMinute) {
    spend(PAT, 20'000);
    standing_ms += 60'000;
    user_times_renew();
    spend(PAT, 1000);
    standing_ms += 59'999;
    user_times_renew();
    EXPECT_EQ(left_ms(PAT), 0);
    standing_ms += 1;
    user_times_renew();
    EXPECT_EQ(left_ms(PAT), 1000);
}

TEST_F(UserTime, ThatLastedForTheSecondIsWholeInTheRunAfter) {
    spend(PAT, 20'000);
    standing_ms += 60'000;
    user_times_renew();
    spend(PAT, 5);
    user_times_renew();
    EXPECT_EQ(left_ms(PAT), 20'000);
}

// ---- Children -----------------------------------------------------------------------------

TEST_F(UserTime, ThatIsOverStartsNoChild) {
    const child_result outer = run_in_child([] {
        pthread_atfork([] { forks++; }, nullptr, nullptr);
        spend(PAT, 20'000);
        int nothing = 0;
        const bool is_refused =
            run(set_flag, &nothing).end == child_outcome::refused &&
            run_bounded(PAT, set_flag, &nothing, LONG_SECONDS).outcome == child_outcome::refused;
        return is_refused && forks == 0 ? 10 : 20;
    });
    EXPECT_EQ(outer.exit_status, 10) << outer.err;
}

TEST_F(UserTime, OfOthersIsNotTouchedByAUserWhoHangs) {
    const shared_flag ran;
    spend(PAT, 20'000);
    const outcome child = run(set_flag, ran.get(), {}, SIZE_MAX, LONG_SECONDS, SAM);
    EXPECT_EQ(child.end, child_outcome::done);
    EXPECT_TRUE(ran.is_set());
}

TEST_F(UserTime, ChildThatHangsEndsWithItAndTheNextIsNotStarted) {
    for (const bool is_bounded : {false, true}) {
        const shared_flag ran;
        spend(is_bounded ? SAM : PAT, 19'900);
        is_standing = false;
        standing_ms = monotonic_ms();
        const resolved_user &user = is_bounded ? SAM : PAT;
        const child_outcome first =
            is_bounded ? run_bounded(user, print_and_hang, nullptr, LONG_SECONDS).outcome
                       : run(print_and_hang, nullptr, {}, SIZE_MAX, LONG_SECONDS, user).end;
        EXPECT_EQ(first, child_outcome::refused);
        EXPECT_TRUE(has_no_children());
        EXPECT_EQ(run(set_flag, ran.get(), {}, SIZE_MAX, LONG_SECONDS, user).end,
                  child_outcome::refused);
        EXPECT_FALSE(ran.is_set());
        is_standing = true;
    }
}

TEST_F(UserTime, IsSpentByAChildOnlyAsLongAsItRuns) {
    const shared_flag ran;
    for (int i = 0; i < 3; i++)
        EXPECT_EQ(run(set_flag, ran.get()).end, child_outcome::done);
    EXPECT_EQ(left_ms(PAT), 20'000);
}

// ---- run_bounded() ------------------------------------------------------------------------

TEST_F(UserTime, BoundedChildGivesItsStatus) {
    int status = 7;
    const child_end end = run_bounded(
        PAT, [](void *argument) { return *static_cast<int *>(argument); }, &status, LONG_SECONDS);
    EXPECT_EQ(end.outcome, child_outcome::done);
    EXPECT_EQ(end.status, 7);
    EXPECT_FALSE(end.succeeded());
}

TEST_F(UserTime, BoundedChildStaysRoot) {
    SKIP_UNLESS_ROOT();
    const real_state state;
    const child_result child = run_for_real(state, machine_of_pat_and_sam(), [] {
        const auto is_root = [](void *) { return getuid() == 0 && geteuid() == 0 ? 0 : 1; };
        return run_bounded(PAT, is_root, nullptr, LONG_SECONDS).succeeded() ? 10 : 20;
    });
    EXPECT_EQ(child.exit_status, 10) << child.err;
}
