#include "user/agenda.h"

#include "user_support.h"

namespace {

constexpr uint64_t SOME_MS = 5000;

// The identifier that is chosen; 0 for none.
int64_t next_of(agenda *plan, const tried_mailbox &mailbox, uint64_t now_ms = SOME_MS) {
    const agenda::choice choice = plan->choose(mailbox.open(), HALF_AN_HOUR, now_ms);
    return choice.next ? choice.next->id : 0;
}

void put_mark(const tried_mailbox &mailbox, const std::string &name, int64_t seconds) {
    mailbox.put("state/" + name, "shown\n");
    mailbox.age("state/" + name, seconds);
}

} // namespace

TEST(Agenda, ChoosesTheFirstThatIsDue) {
    const tried_mailbox mailbox;
    agenda plan;
    EXPECT_EQ(next_of(&plan, mailbox), 0);
    for (const int64_t id : {3, 4, 11})
        mailbox.put_message(id);
    put_mark(mailbox, "3.gui", -60);
    EXPECT_EQ(next_of(&plan, mailbox), 4);
    EXPECT_EQ(plan.total(), 2U);
    EXPECT_EQ(plan.place(), 1U);
}

TEST(Agenda, CountsThoseThatWereDealtWithUntilNoneIsDue) {
    const tried_mailbox mailbox;
    agenda plan;
    mailbox.put_message(1);
    mailbox.put_message(2);
    EXPECT_EQ(next_of(&plan, mailbox), 1);
    put_mark(mailbox, "1.gui", 0);
    plan.next_place();
    EXPECT_EQ(next_of(&plan, mailbox), 2);
    EXPECT_EQ(plan.place(), 2U);
    EXPECT_EQ(plan.total(), 2U);
    put_mark(mailbox, "2.gui", 0);
    plan.next_place();
    EXPECT_EQ(next_of(&plan, mailbox), 0);
    mailbox.put_message(3);
    EXPECT_EQ(next_of(&plan, mailbox), 3);
    EXPECT_EQ(plan.place(), 1U);
    EXPECT_EQ(plan.total(), 1U);
}

TEST(Agenda, LooksAgainWhenTheNextOneIsDue) {
    const tried_mailbox mailbox;
    agenda plan;
    mailbox.put_message(1);
    mailbox.put_message(2);
    put_mark(mailbox, "1.gui", -100);
    put_mark(mailbox, "2.gui", -50);
    const uint64_t wait = plan.choose(mailbox.open(), HALF_AN_HOUR, SOME_MS).look_again_ms;
    EXPECT_LE(wait, (HALF_AN_HOUR - 100) * 1000U);
    EXPECT_GT(wait, (HALF_AN_HOUR - 130) * 1000U);
}

TEST(Agenda, PassesOverAMessageThatWaitsForItsNextTry) {
    const tried_mailbox mailbox;
    agenda plan;
    mailbox.put_message(1);
    mailbox.put_message(2);
    plan.retries().window_failed(1, SOME_MS);
    EXPECT_EQ(next_of(&plan, mailbox), 2);
    EXPECT_EQ(plan.total(), 2U);
    EXPECT_EQ(plan.choose(mailbox.open(), HALF_AN_HOUR, SOME_MS).look_again_ms, RETRY_FIRST_MS);
    EXPECT_EQ(next_of(&plan, mailbox, SOME_MS + RETRY_FIRST_MS), 1);
}

TEST(Agenda, RemembersAMessageAsShownUntilItIsDue) {
    const tried_mailbox mailbox;
    agenda plan;
    mailbox.put_message(1);
    plan.remember_shown(1, now() - 60);
    EXPECT_EQ(next_of(&plan, mailbox), 0);
    plan.remember_shown(1, now() - HALF_AN_HOUR - 1);
    EXPECT_EQ(next_of(&plan, mailbox), 1);
}

TEST(Agenda, AReminderEndsWhatIsOnlyRemembered) {
    const tried_mailbox mailbox;
    agenda plan;
    mailbox.put_message(1);
    EXPECT_EQ(next_of(&plan, mailbox), 1);
    plan.remember_shown(1, now());
    EXPECT_EQ(next_of(&plan, mailbox), 0);
    plan.news();
    EXPECT_EQ(next_of(&plan, mailbox), 1);
}

TEST(Agenda, TheSignalOfADeliveryIsNoReminder) {
    const tried_mailbox mailbox;
    agenda plan;
    mailbox.put_message(1);
    EXPECT_EQ(next_of(&plan, mailbox), 1);
    plan.remember_shown(1, now());
    mailbox.put_message(2); // seen together with its signal
    plan.news();
    EXPECT_EQ(next_of(&plan, mailbox), 2);
    plan.remember_shown(2, now());
    mailbox.put_message(3); // seen before its signal
    EXPECT_EQ(next_of(&plan, mailbox), 3);
    plan.remember_shown(3, now());
    plan.news();
    EXPECT_EQ(next_of(&plan, mailbox), 0);
    plan.news();
    EXPECT_EQ(next_of(&plan, mailbox), 1);
}

TEST(Agenda, ForgetsWhatIsGone) {
    const tried_mailbox mailbox;
    agenda plan;
    mailbox.put_message(1);
    plan.remember_shown(1, now());
    plan.retries().window_failed(1, SOME_MS);
    std::filesystem::remove(mailbox.file("inbox/1"));
    EXPECT_EQ(next_of(&plan, mailbox), 0);
    mailbox.put_message(1);
    EXPECT_EQ(next_of(&plan, mailbox), 1);
}
