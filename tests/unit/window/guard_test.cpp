#include "window/guard.h"

#include <gtest/gtest.h>

TEST(AccidentGuard, AllowsNothingBeforeTheFirstFrame) {
    const accident_guard guard;
    EXPECT_FALSE(guard.allows(1'000'000));
    EXPECT_FALSE(guard.allows_keys(1'000'000));
}

TEST(AccidentGuard, AllowsAnswersAWhileAfterTheFirstFrame) {
    accident_guard guard;
    guard.first_frame(1000);
    EXPECT_FALSE(guard.allows(1699));
    EXPECT_TRUE(guard.allows(1700));
    EXPECT_TRUE(guard.allows_keys(1700));
}

TEST(AccidentGuard, HoldsKeysOffAgainAfterEachFocusAndLetter) {
    accident_guard guard;
    guard.first_frame(0);
    guard.focused(5000);
    EXPECT_TRUE(guard.allows(5000));
    EXPECT_FALSE(guard.allows_keys(5699));
    EXPECT_TRUE(guard.allows_keys(5700));
    guard.typed(6000);
    EXPECT_FALSE(guard.allows_keys(6699));
    EXPECT_TRUE(guard.allows_keys(6700));
}

TEST(AccidentGuard, HoldsKeysOffIfTheFocusCameBeforeTheFirstFrame) {
    accident_guard guard;
    guard.focused(0);
    guard.first_frame(600);
    EXPECT_FALSE(guard.allows_keys(1000));
    EXPECT_TRUE(guard.allows_keys(1300));
}
