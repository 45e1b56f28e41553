#include "user/shell.h"

#include "user_support.h"

namespace {

std::string on(std::string_view text) {
    std::string out;
    EXPECT_TRUE(with_block(text, &out));
    return out;
}

std::string off(std::string_view text) {
    std::string out;
    EXPECT_TRUE(without_block(text, &out));
    return out;
}

constexpr std::string_view BLOCK =
    "# >>> tellbox >>>\n"
    "# Written by \"tellbox-user shells on\", taken out by \"tellbox-user shells off\".\n"
    "if [ -r /etc/profile.d/tellbox.sh ]; then . /etc/profile.d/tellbox.sh; fi\n"
    "# <<< tellbox <<<\n";

TEST(Block, GoesToTheEndAndComesOutAgain) {
    EXPECT_EQ(on("alias l=ls\n"), "alias l=ls\n" + std::string(BLOCK));
    for (const std::string_view text : {"", "\n", "a\n", "a", "a\n\n", "# >>> tellbox >>> not\n"})
        EXPECT_EQ(off(on(text)), text) << text;
}

TEST(Block, IsThereOnlyOnce) {
    for (const std::string_view text : {"", "a\n", "a"})
        EXPECT_EQ(on(on(text)), on(text)) << text;
    EXPECT_EQ(off("a\n"), "a\n");
}

TEST(Block, LeavesWhatSomebodyWroteBehindIt) {
    EXPECT_EQ(off("a\n" + std::string(BLOCK) + "b\n"), "a\nb\n");
    EXPECT_EQ(off(on("a") + "b\n"), "a\nb\n");
}

TEST(Block, ThatIsCurrentStaysWhereItIs) {
    const std::string moved = std::string(BLOCK) + "last=1\n";
    EXPECT_EQ(on(moved), moved);
    const std::string after_unended = on("a") + "b\n";
    EXPECT_EQ(on(after_unended), after_unended);
}

TEST(Block, ComesOutWithoutItsLastNewlineToo) {
    std::string text = on("a\n");
    text.pop_back();
    EXPECT_EQ(off(text), "a\n");
    EXPECT_EQ(on(text), on("a\n"));
}

TEST(Block, ComesOutAsOftenAsItIsThere) {
    EXPECT_EQ(off("a\n" + std::string(BLOCK) + "b\n" + std::string(BLOCK)), "a\nb\n");
    EXPECT_EQ(on(std::string(BLOCK) + "a\n" + std::string(BLOCK)), "a\n" + std::string(BLOCK));
}

TEST(Block, ComesOutOfAFileWithTheLineEndsOfAnotherSystem) {
    EXPECT_EQ(off("a\r\n# >>> tellbox >>>\r\nold\r\n# <<< tellbox <<<\r\nb\r\n"), "a\r\nb\r\n");
}

TEST(Block, IsRenewedIfItSaysSomethingElse) {
    EXPECT_EQ(on("a\n# >>> tellbox >>>\nold\n# <<< tellbox <<<\n"), "a\n" + std::string(BLOCK));
}

TEST(Block, IsLeftAloneIfHalfOfItIsMissing) {
    std::string out;
    for (const std::string_view text :
         {"# >>> tellbox >>>\nx\n", "x\n# <<< tellbox <<<\n",
          "# <<< tellbox <<<\n# >>> tellbox >>>\n",
          "# >>> tellbox >>>\n# >>> tellbox >>>\n# <<< tellbox <<<\n"}) {
        EXPECT_FALSE(without_block(text, &out)) << text;
        EXPECT_FALSE(with_block(text, &out)) << text;
    }
}

TEST(ShellWord, IsReadAsItsTextWhateverItHolds) {
    EXPECT_EQ(shell_word("plain"), "'plain'");
    EXPECT_EQ(shell_word("it's $HOME\n"), "'it'\\''s $HOME\n'");
    EXPECT_EQ(shell_word(""), "''");
}

TEST(Hook, NamesItsPlacesAndNoShellThatIsUnknown) {
    const hook_place place = {.program = "/p q", .mailbox = "/m", .environment = "A=1 "};
    for (const char *shell : {"bash", "zsh", "fish"}) {
        const std::string text = hook_text(shell, place);
        EXPECT_THAT(text, testing::HasSubstr("'/p q'"));
        EXPECT_THAT(text, testing::HasSubstr("'/m'"));
        EXPECT_THAT(text, testing::HasSubstr("A=1 "));
        EXPECT_THAT(text, testing::Not(testing::HasSubstr("@PROGRAM@")));
        EXPECT_THAT(text, testing::Not(testing::HasSubstr("@ENVIRONMENT@")));
    }
    EXPECT_EQ(hook_text("tcsh", place), "");
}

TEST(Profile, HoldsBothHooksAndNeverTestMode) {
    const std::string text = profile_text("/lib/tellbox-user");
    EXPECT_THAT(text, testing::HasSubstr("TBX_TEST= "));
    EXPECT_THAT(text, testing::HasSubstr("precmd_functions"));
    EXPECT_THAT(text, testing::HasSubstr("PROMPT_COMMAND"));
    EXPECT_THAT(text, testing::Not(testing::ContainsRegex("@[A-Z]+@")));
}

} // namespace
