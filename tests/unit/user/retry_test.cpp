#include "user/retry.h"

#include <gtest/gtest.h>

TEST(Retry, NothingWaitsBeforeItHasFailed) {
    const retry_plan plan;
    EXPECT_EQ(plan.wait_ms(1, 0), 0U);
    EXPECT_FALSE(plan.is_retry(1));
}

TEST(Retry, AMessageThatEndsItsWindowHoldsUpNoOther) {
    retry_plan plan;
    plan.window_failed(1, 1000);
    EXPECT_EQ(plan.wait_ms(1, 1000), RETRY_FIRST_MS);
    EXPECT_EQ(plan.wait_ms(1, 1000 + RETRY_FIRST_MS), 0U);
    EXPECT_EQ(plan.wait_ms(2, 1000), 0U);
    EXPECT_TRUE(plan.is_retry(1));
    EXPECT_FALSE(plan.is_retry(2));
}

TEST(Retry, ThePauseDoublesUpToTheLongest) {
    retry_plan plan;
    plan.window_failed(1, 0);
    plan.window_failed(1, 0);
    EXPECT_EQ(plan.wait_ms(1, 0), 2 * RETRY_FIRST_MS);
    for (int i = 0; i < 70; i++)
        plan.window_failed(1, 0);
    EXPECT_EQ(plan.wait_ms(1, 0), RETRY_LONGEST_MS);
    EXPECT_EQ(plan.wait_ms(2, 0), 0U);
}

TEST(Retry, IfAnotherMessageFailsTooAllOfThemWait) {
    retry_plan plan;
    plan.window_failed(1, 0);
    plan.window_failed(2, 0);
    EXPECT_EQ(plan.wait_ms(3, 0), RETRY_FIRST_MS);
}

TEST(Retry, ASuccessBetweenThemMakesThemTwoFailuresOfMessages) {
    retry_plan plan;
    plan.window_failed(1, 0);
    plan.succeeded(2);
    plan.window_failed(3, 0);
    EXPECT_EQ(plan.wait_ms(4, 0), 0U);
    EXPECT_EQ(plan.wait_ms(1, 0), RETRY_FIRST_MS);
}

TEST(Retry, WithoutADisplayAllOfThemWait) {
    retry_plan plan;
    plan.display_failed(0);
    EXPECT_EQ(plan.wait_ms(1, 0), RETRY_FIRST_MS);
    EXPECT_TRUE(plan.is_retry(1));
    plan.succeeded(2);
    EXPECT_EQ(plan.wait_ms(1, 0), 0U);
}

TEST(Retry, NewsEndAPauseButNotItsGrowth) {
    retry_plan plan;
    plan.window_failed(1, 0);
    plan.display_failed(0);
    plan.try_at_once();
    EXPECT_EQ(plan.wait_ms(1, 0), 0U);
    plan.window_failed(1, 0);
    EXPECT_EQ(plan.wait_ms(1, 0), 2 * RETRY_FIRST_MS);
}

TEST(Retry, ForgetsMessagesThatAreGone) {
    retry_plan plan;
    plan.window_failed(1, 0);
    plan.forget([](int64_t id) { return id == 1; });
    EXPECT_EQ(plan.wait_ms(1, 0), 0U);
}
