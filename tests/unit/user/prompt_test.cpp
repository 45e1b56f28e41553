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
                       bool has_more = false, int columns = 80) {
    return prompt_text(due, has_more, 24, columns, shown);
}

// ---- The status ---------------------------------------------------------------------------

TEST(PromptStatus, TellsSecondsOrMinutesAndNeverTooEarly) {
    const auto status = [](int64_t seconds) { return prompt_status(seconds, prompt_memory::none); };
    EXPECT_EQ(status(0), 61);
    EXPECT_EQ(status(1), 61);
    EXPECT_EQ(status(60), 120);
    EXPECT_EQ(status(61), 2);
    EXPECT_EQ(status(1800), 30);
    EXPECT_EQ(status(1801), 31);
    EXPECT_EQ(status(59'999'940), 60);
}

TEST(PromptStatus, TellsWhatTheShellMustRemember) {
    EXPECT_EQ(prompt_status(60, prompt_memory::shown), 193);
    EXPECT_EQ(prompt_status(1200, prompt_memory::shown), 212);
    EXPECT_EQ(prompt_status(1'000'000, prompt_memory::shown), 212);
    for (const int64_t seconds : {1, 60, 1'000'000}) {
        EXPECT_EQ(prompt_status(seconds, prompt_memory::shown_blind), 213);
        EXPECT_EQ(prompt_status(seconds, prompt_memory::blind), 214);
    }
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
    const std::string cut = shown_text({message_of(12, text)}, &shown, false, 79);
    strbuf repaired;
    repair_utf8(cut, &repaired);
    EXPECT_EQ(cut, repaired.view());
}

TEST(PromptText, ShowsAsManyAsFitAndCountsTheOthers) {
    std::vector<int64_t> shown;
    const std::vector<waiting_message> due = {message_of(1, "One\n"), message_of(2, "Two\n"),
                                              message_of(3, lines_of("long ", 9)),
                                              message_of(4, "x\n")};
    EXPECT_THAT(shown_text(due, &shown),
                testing::EndsWith(" · tellbox later 2\n2 more messages are waiting: tellbox\n"));
    EXPECT_THAT(shown, testing::ElementsAre(1, 2));
    shown.clear();
    EXPECT_THAT(shown_text({due[0], due[1], due[2]}, &shown),
                testing::EndsWith("\n1 more message is waiting: tellbox\n"));
}

TEST(PromptText, GivesNoNumberThatItDoesNotKnow) {
    std::vector<int64_t> shown;
    EXPECT_THAT(shown_text({message_of(1, "One\n")}, &shown, true),
                testing::EndsWith("\nMore messages are waiting: tellbox\n"));
}

TEST(PromptText, CutsATitleThatTakesMoreThanThreeRows) {
    std::vector<int64_t> shown;
    waiting_message message = message_of(1, "One\n");
    message.message.title = std::string(170, 't');
    EXPECT_THAT(shown_text({message}, &shown), testing::HasSubstr(message.message.title + " · "));
    shown.clear();
    message.message.title = std::string(60'000, 't');
    const std::string text = shown_text({message}, &shown);
    EXPECT_THAT(text, testing::HasSubstr("t… · "));
    EXPECT_EQ(rows_of(text, 80), 3U + 3U);
    EXPECT_THAT(text, testing::HasSubstr("\nOne\n"));
}

TEST(PromptText, CutsATitleBetweenCharactersOnTheSmallestScreenToo) {
    waiting_message message = message_of(1, lines_of("line ", 50));
    for (int i = 0; i < 500; i++)
        message.message.title += "é";
    for (const int columns : {1, 2, 5, 20, 79}) {
        std::vector<int64_t> shown;
        const std::string text = prompt_text({message}, false, 5, columns, &shown);
        strbuf repaired;
        repair_utf8(text, &repaired);
        EXPECT_EQ(text, repaired.view()) << columns;
    }
}

TEST(PromptText, ShowsOneMessageOnTheSmallestScreen) {
    std::vector<int64_t> shown;
    EXPECT_NE(prompt_text({message_of(1, "One\nTwo\n")}, false, 1, 1, &shown), "");
    EXPECT_THAT(shown, testing::ElementsAre(1));
}

} // namespace
