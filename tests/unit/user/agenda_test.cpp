#include "user/agenda.h"

#include "user_support.h"

namespace {

constexpr uint64_t SOME_MS = 5000;

// An agenda on an empty mailbox.
struct Agenda : testing::Test {
    [[nodiscard]] agenda::choice choose(uint64_t now_ms = SOME_MS) {
        return plan.choose(mailbox.open(), HALF_AN_HOUR, now_ms);
    }
    // The identifier that is chosen; 0 for none.
    [[nodiscard]] int64_t next(uint64_t now_ms = SOME_MS) {
        const agenda::choice choice = choose(now_ms);
        return choice.next ? choice.next->id : 0;
    }
    // Marks the message as shown on the desktop, that many seconds from now.
    void put_mark(int64_t id, int64_t seconds) const {
        const std::string name = "state/" + mark_name(id, channel::desktop);
        mailbox.put(name, "shown\n");
        mailbox.age(name, seconds);
    }

    const tried_mailbox mailbox;
    agenda plan;
};

} // namespace

TEST_F(Agenda, ChoosesTheFirstThatIsDue) {
    EXPECT_EQ(next(), 0);
    for (const int64_t id : {3, 4, 11})
        mailbox.put_message(id);
    put_mark(3, -60);
    EXPECT_EQ(next(), 4);
    EXPECT_EQ(plan.total(), 2U);
    EXPECT_EQ(plan.place(), 1U);
}

TEST_F(Agenda, CountsThoseThatWereDealtWithUntilNoneIsDue) {
    mailbox.put_message(1);
    mailbox.put_message(2);
    EXPECT_EQ(next(), 1);
    put_mark(1, 0);
    plan.next_place();
    EXPECT_EQ(next(), 2);
    EXPECT_EQ(plan.place(), 2U);
    EXPECT_EQ(plan.total(), 2U);
    put_mark(2, 0);
    plan.next_place();
    EXPECT_EQ(next(), 0);
    mailbox.put_message(3);
    EXPECT_EQ(next(), 3);
    EXPECT_EQ(plan.place(), 1U);
    EXPECT_EQ(plan.total(), 1U);
}

TEST_F(Agenda, CountsAtLeastTheMessageThatTheUserAsksFor) {
    EXPECT_EQ(plan.place(), 1U);
    EXPECT_EQ(plan.total(), 1U);
    mailbox.put_message(1);
    put_mark(1, 0);
    EXPECT_EQ(next(), 0);
    EXPECT_EQ(plan.place(), 1U);
    EXPECT_EQ(plan.total(), 1U);
    plan.next_place();
    EXPECT_EQ(plan.place(), 1U);
}

TEST_F(Agenda, LooksAgainWhenTheNextOneIsDue) {
    mailbox.put_message(1);
    mailbox.put_message(2);
    put_mark(1, -100);
    put_mark(2, -50);
    const uint64_t wait = choose().look_again_ms;
    EXPECT_LE(wait, (HALF_AN_HOUR - 100) * 1000U);
    EXPECT_GT(wait, (HALF_AN_HOUR - 130) * 1000U);
}

TEST_F(Agenda, PassesOverAMessageThatWaitsForItsNextTry) {
    mailbox.put_message(1);
    mailbox.put_message(2);
    plan.retries().window_failed(1, SOME_MS);
    EXPECT_EQ(next(), 2);
    EXPECT_EQ(plan.total(), 2U);
    EXPECT_EQ(choose().look_again_ms, RETRY_FIRST_MS);
    EXPECT_EQ(next(SOME_MS + RETRY_FIRST_MS), 1);
}

TEST_F(Agenda, RemembersAMessageAsShownUntilItIsDue) {
    mailbox.put_message(1);
    plan.remember_shown(1, now() - 60);
    EXPECT_EQ(next(), 0);
    plan.remember_shown(1, now() - HALF_AN_HOUR - 1);
    EXPECT_EQ(next(), 1);
}

TEST_F(Agenda, AReminderEndsWhatIsOnlyRemembered) {
    mailbox.put_message(1);
    EXPECT_EQ(next(), 1);
    plan.remember_shown(1, now());
    EXPECT_EQ(next(), 0);
    plan.news();
    EXPECT_EQ(next(), 1);
}

TEST_F(Agenda, TheSignalOfADeliveryIsNoReminder) {
    mailbox.put_message(1);
    EXPECT_EQ(next(), 1);
    plan.remember_shown(1, now());
    mailbox.put_message(2); // seen together with its signal
    plan.news();
    EXPECT_EQ(next(), 2);
    plan.remember_shown(2, now());
    mailbox.put_message(3); // seen before its signal
    EXPECT_EQ(next(), 3);
    plan.remember_shown(3, now());
    plan.news();
    EXPECT_EQ(next(), 0);
    plan.news();
    EXPECT_EQ(next(), 1);
}

TEST_F(Agenda, TheSignalOfTheFirstDeliveryOfAllIsNoReminder) {
    plan.news(); // somebody has asked for a look before
    plan.found_no_mailbox();
    mailbox.put_message(1);
    EXPECT_EQ(next(), 1);
    plan.remember_shown(1, now());
    plan.news();
    EXPECT_EQ(next(), 0);
}

TEST_F(Agenda, ForgetsWhatIsGone) {
    mailbox.put_message(1);
    plan.remember_shown(1, now());
    plan.retries().window_failed(1, SOME_MS);
    std::filesystem::remove(mailbox.file("inbox/1"));
    EXPECT_EQ(next(), 0);
    mailbox.put_message(1);
    EXPECT_EQ(next(), 1);
}
