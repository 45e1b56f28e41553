#include "user/prompt.h"

#include "user/command.h"
#include "user_support.h"

namespace {

waiting_message message_of(int64_t id, const std::string &text) {
    waiting_message waiting;
    waiting.id = id;
    waiting.message = {id, "root", 1'790'000'000, "", 0, text};
    return waiting;
}

std::string lines_of(const std::string &word, int count) {
    std::string text;
    for (int line = 1; line <= count; line++)
        text += word + std::to_string(line) + "\n";
    return text;
}

// What a screen of 24 rows and 80 columns shows, and of which messages.
std::string shown_text(const std::vector<waiting_message> &due, std::vector<int64_t> *shown,
                       size_t others = 0, int columns = 80) {
    return prompt_text(due, others, 24, columns, shown);
}

// ---- The status ---------------------------------------------------------------------------

TEST(PromptStatus, TellsSecondsOrMinutesAndNeverTooEarly) {
    EXPECT_EQ(prompt_status(0, true), 61);
    EXPECT_EQ(prompt_status(1, true), 61);
    EXPECT_EQ(prompt_status(60, true), 120);
    EXPECT_EQ(prompt_status(61, true), 2);
    EXPECT_EQ(prompt_status(1800, true), 30);
    EXPECT_EQ(prompt_status(1801, true), 31);
    EXPECT_EQ(prompt_status(59'999'940, true), 60);
}

TEST(PromptStatus, TellsApartWhatCouldNotBeMarked) {
    EXPECT_EQ(prompt_status(60, false), 193);
    EXPECT_EQ(prompt_status(1800, false), 222);
    EXPECT_EQ(prompt_status(1'000'000, false), 252);
}

// ---- The text -----------------------------------------------------------------------------

TEST(PromptText, ShowsAMessageInItsFrameAndHowToAnswer) {
    const environment_variable zone("TZ", "UTC");
    std::vector<int64_t> shown;
    const std::string text = shown_text({message_of(12, "Hello\n")}, &shown);
    EXPECT_TRUE(text.starts_with("── Tellbox · Message from the administrator · 21/09 14:13 ──\n"
                                 "Hello\n────"));
    EXPECT_TRUE(text.ends_with("─\nAnswer with: tellbox   or: tellbox read 12 · tellbox later "
                               "12\n"));
    EXPECT_THAT(shown, testing::ElementsAre(12));
}

TEST(PromptText, ShowsTextUpToTwoThirdsOfTheScreenWhole) {
    std::vector<int64_t> shown;
    EXPECT_THAT(shown_text({message_of(12, lines_of("line ", 13))}, &shown),
                testing::HasSubstr("line 13\n─"));
}

TEST(PromptText, CutsALongerOneToTwoThirdsOfTheScreen) {
    std::vector<int64_t> shown;
    const std::string text = shown_text({message_of(12, lines_of("line ", 14))}, &shown);
    EXPECT_THAT(text, testing::HasSubstr("line 12\n… all of it with: tellbox show 12\n─"));
    EXPECT_EQ(rows_of(text, 80), 16U);
    EXPECT_THAT(shown, testing::ElementsAre(12));
}

TEST(PromptText, CutsOneEndlessLineToo) {
    std::vector<int64_t> shown;
    const std::string text = shown_text({message_of(12, std::string(65'536, 'x'))}, &shown);
    EXPECT_LE(rows_of(text, 80), 16U);
    EXPECT_GE(rows_of(text, 80), 15U);
    EXPECT_THAT(text, testing::HasSubstr("x\n… all of it"));
}

TEST(PromptText, CutsBetweenCharacters) {
    std::string text;
    for (int i = 0; i < 20'000; i++)
        text += "é";
    std::vector<int64_t> shown;
    const std::string cut = shown_text({message_of(12, text)}, &shown, 0, 79);
    strbuf repaired;
    repair_utf8(cut, &repaired);
    EXPECT_EQ(cut, repaired.view());
}

TEST(PromptText, ShowsAsManyAsFitAndCountsTheOthers) {
    std::vector<int64_t> shown;
    const std::string text = shown_text({message_of(1, "One\n"), message_of(2, "Two\n"),
                                         message_of(3, lines_of("long ", 9)), message_of(4, "x\n")},
                                        &shown, 5);
    EXPECT_THAT(shown, testing::ElementsAre(1, 2));
    EXPECT_THAT(text, testing::EndsWith("7 more messages are waiting: tellbox\n"));
    shown.clear();
    EXPECT_THAT(shown_text({message_of(1, "One\n")}, &shown, 1),
                testing::EndsWith("\n1 more message is waiting: tellbox\n"));
}

TEST(PromptText, ShowsOneMessageOnTheSmallestScreen) {
    std::vector<int64_t> shown;
    EXPECT_NE(prompt_text({message_of(1, "One\nTwo\n")}, 0, 1, 1, &shown), "");
    EXPECT_THAT(shown, testing::ElementsAre(1));
}

// ---- Rows ---------------------------------------------------------------------------------

TEST(Rows, AreThoseThatATerminalNeeds) {
    EXPECT_EQ(rows_of("", 10), 0U);
    EXPECT_EQ(rows_of("a", 10), 1U);
    EXPECT_EQ(rows_of("a\n\nb\n", 10), 3U);
    EXPECT_EQ(rows_of("0123456789", 10), 1U);
    EXPECT_EQ(rows_of("0123456789x", 10), 2U);
    EXPECT_EQ(rows_of("0123456789\n", 10), 1U);
    EXPECT_EQ(rows_of("a\tb", 8), 2U);
    EXPECT_EQ(rows_of("漢漢漢", 4), 2U);
}

} // namespace
