#include "user/command.h"

#include "user_support.h"

namespace {

// ---- Rows ---------------------------------------------------------------------------------

TEST(Rows, AreThoseThatATerminalNeeds) {
    EXPECT_EQ(rows_of("", 10), 0U);
    EXPECT_EQ(rows_of("a", 10), 1U);
    EXPECT_EQ(rows_of("a\n\nb\n", 10), 3U);
    EXPECT_EQ(rows_of("0123456789", 10), 1U);
    EXPECT_EQ(rows_of("0123456789x", 10), 2U);
    EXPECT_EQ(rows_of("──────────", 10), 1U);
    EXPECT_EQ(rows_of("…────────", 10), 1U);
    EXPECT_EQ(rows_of("…─────────", 10), 2U);
    EXPECT_EQ(rows_of("0123456789\n", 10), 1U);
    EXPECT_EQ(rows_of("a\tb", 8), 2U);
    EXPECT_EQ(rows_of("漢漢漢", 4), 2U);
    EXPECT_EQ(rows_of("漢漢漢", 5), 2U);
    EXPECT_EQ(rows_of("é\u07ff", 2), 1U);
    EXPECT_EQ(rows_of("\u0800\u0800", 2), 2U);
}

TEST(Rows, OfATerminalWithoutAWidthAreThoseOfTheNarrowest) {
    EXPECT_EQ(rows_of("abc", 0), 2U);
    EXPECT_EQ(rows_of("abc", -1), 2U);
}

TEST(Identifier, IsANumberFromOneOn) {
    const child_result child = run_in_child([] {
        for (const char *text : {"1", "999999999999999999", "0", "-1", "x", "", "1x"}) {
            int64_t id = 0;
            printf("%d ", parse_identifier(text, &id) ? 1 : 0);
        }
    });
    EXPECT_EQ(child.out, "1 1 0 0 0 0 0 ");
}

TEST(Sentence, NamesAllThatIsKnownOfAnAnswer) {
    const environment_variable zone("TZ", "UTC");
    EXPECT_EQ(answer_moment({answer_state::answered, 1'790'000'000, "desktop"}),
              "on 21/09 14:13 (desktop)");
    EXPECT_EQ(answer_moment({answer_state::answered, 0, ""}), "on ? (?)");
}

} // namespace
