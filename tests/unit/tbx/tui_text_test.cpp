#include "tbx/tui/text.h"

#include "common/style.h"
#include "tui_support.h"

#include <gmock/gmock.h>

using testing::ElementsAre;

namespace {

std::string fitted(std::string_view text, int width) {
    strbuf out;
    tui_fit(&out, text, width);
    return std::string(out.view());
}

std::vector<std::string> wrapped(std::string_view text, int width) {
    strlist lines;
    tui_wrap(text, width, &lines);
    return items(lines);
}

std::string bar(int confirmed, int delivered, int sent) {
    strbuf out;
    tui_confirm_bar(&out, confirmed, delivered, sent);
    return std::string(out.view());
}

std::string counts(int confirmed, int delivered, int sent) {
    strbuf out;
    tui_counts(&out, confirmed, delivered, sent);
    return std::string(out.view());
}

std::string times(const char *cell, int count) {
    strbuf out;
    tui_repeat(&out, cell, count);
    return std::string(out.view());
}

} // namespace

// ---- Styles -------------------------------------------------------------------------------

TEST(TuiStyles, AreEmptyWithoutColour) {
    tui_styles_set(false);
    EXPECT_FALSE(tui_style.colour_on);
    EXPECT_STREQ(tui_style.selection, "");
    EXPECT_STREQ(tui_style.reset, "");
}

TEST(TuiStyles, AreTheirSequencesWithColour) {
    const scratch_screen screen;
    screen.colour();
    EXPECT_TRUE(tui_style.colour_on);
    EXPECT_STREQ(tui_style.selection, "\033[7;1m");
    EXPECT_STREQ(tui_style.green, "\033[32m");
    EXPECT_STREQ(tui_style.yellow, "\033[33m");
    EXPECT_STREQ(tui_style.red, "\033[31m");
    EXPECT_STREQ(tui_style.grey, "\033[90m");
    EXPECT_STREQ(tui_style.dim, "\033[2m");
    EXPECT_STREQ(tui_style.bold, "\033[1m");
    EXPECT_STREQ(tui_style.key, "\033[1;32m");
    EXPECT_STREQ(tui_style.heading, "\033[1;33m");
    EXPECT_STREQ(tui_style.title, "\033[1;36m");
    EXPECT_STREQ(tui_style.reset, "\033[0m");
}

// ---- Fitting ------------------------------------------------------------------------------

TEST(TuiFit, PadsAShortText) {
    EXPECT_EQ(fitted("ab", 5), "ab   ");
}

TEST(TuiFit, CutsALongTextWithoutAMark) {
    EXPECT_EQ(fitted("abcdef", 4), "abcd");
}

TEST(TuiFit, KeepsATextOfExactlyTheWidth) {
    EXPECT_EQ(fitted("abcd", 4), "abcd");
}

TEST(TuiFit, CountsCharactersAndNotBytes) {
    EXPECT_EQ(fitted("äöü€😀", 4), "äöü€");
    EXPECT_EQ(fitted("äö", 4), "äö  ");
}

TEST(TuiFit, DoesNotCountStyleSequences) {
    EXPECT_EQ(fitted("\033[1;33mab\033[0m", 3), "\033[1;33mab\033[0m ");
}

TEST(TuiFit, PutsTheResetBeforeThePadding) {
    const scratch_screen screen;
    screen.colour();
    EXPECT_EQ(fitted("\033[31mab", 4), "\033[31mab\033[0m  ");
}

TEST(TuiFit, ResetsTheStyleOfACutText) {
    const scratch_screen screen;
    screen.colour();
    EXPECT_EQ(fitted("\033[31mabcd", 2), "\033[31mab\033[0m");
}

TEST(TuiFit, KeepsASequenceBehindTheLastColumn) {
    EXPECT_EQ(fitted("ab\033[0mcd", 2), "ab\033[0m");
}

TEST(TuiFit, OfNoWidthIsEmpty) {
    EXPECT_EQ(fitted("ab", 0), "");
    EXPECT_EQ(fitted("ab", -3), "");
}

TEST(TuiFit, DrawsEveryControlByteAsOneBlank) {
    EXPECT_EQ(fitted("a\tb\rc\x7f"
                     "d",
                     9),
              "a b c d  ");
    EXPECT_EQ(fitted(std::string_view("a\0b", 3), 4), "a b ");
}

TEST(TuiFit, DrawsAnEscapeThatBeginsNoSequenceAsOneBlank) {
    EXPECT_EQ(fitted("a\033]0;x", 7), "a ]0;x ");
}

TEST(TuiFit, DropsASequenceThatIsNeverFinished) {
    EXPECT_EQ(fitted("ab\033[1;3", 4), "ab  ");
}

TEST(TuiFit, DrawsAControlCharacterOfTwoBytesAsOneBlank) {
    EXPECT_EQ(fitted("a\xc2\x9b"
                     "31mb",
                     6),
              "a 31mb");
}

TEST(TuiFit, DrawsEveryControlCharacterOfTwoBytesAsOneBlank) {
    for (int last = 0x80; last < 0xa0; last++)
        EXPECT_EQ(fitted(std::string("a\xc2") + static_cast<char>(last) + "b", 4), "a b ") << last;
    EXPECT_EQ(fitted("a\xc2\xa0"
                     "b",
                     4),
              "a\xc2\xa0"
              "b ");
}

TEST(TuiFit, DrawsABrokenCharacterAsOneColumn) {
    for (const char *broken : {"\xc3", "\xe2\x82", "\xff", "\xc0\x80", "\xc0\xaf", "\xed\xa0\x80",
                               "\xf4\x90\x80\x80", "\xf5\x80\x80\x80", "\xf8\x88\x80\x80\x80"})
        EXPECT_EQ(fitted(std::string("a") + broken + "b", 4), "a\xef\xbf\xbd"
                                                              "b ");
}

TEST(TuiFit, DropsAContinuationByteThatBelongsToNothing) {
    EXPECT_EQ(fitted("a\x80\x9b"
                     "b",
                     3),
              "ab ");
}

TEST(TuiPad, PadsInTheStyleOfTheText) {
    const scratch_screen screen;
    screen.colour();
    strbuf out;
    tui_pad(&out, "\033[7mab", 4);
    EXPECT_EQ(out.view(), "\033[7mab  ");
}

// ---- Columns ------------------------------------------------------------------------------

TEST(TuiWindow, ShowsTheCharactersFromAColumnOn) {
    EXPECT_EQ(tui_window("aäbc", 1, 2), "äb");
    EXPECT_EQ(tui_window("aäbc", 3, 9), "c");
    EXPECT_EQ(tui_window("aäbc", 9, 2), "");
}

TEST(TuiCharacters, AreSteppedOverWhole) {
    EXPECT_EQ(tui_next_character("ä€", 0), 2U);
    EXPECT_EQ(tui_next_character("ä€", 2), 5U);
    EXPECT_EQ(tui_next_character("ä€", 5), 5U);
    EXPECT_EQ(tui_previous_character("ä€", 5), 2U);
    EXPECT_EQ(tui_previous_character("ä€", 2), 0U);
    EXPECT_EQ(tui_previous_character("ä€", 0), 0U);
}

TEST(TuiCharacters, NeverComeFromBeforeTheText) {
    EXPECT_EQ(tui_previous_character("\x80\x80x", 2), 0U);
}

// ---- Wrapping -----------------------------------------------------------------------------

TEST(TuiWrap, KeepsAShortParagraph) {
    EXPECT_THAT(wrapped("one two", 7), ElementsAre("one two"));
}

TEST(TuiWrap, BreaksAtTheLastBlankThatFits) {
    EXPECT_THAT(wrapped("one two three", 9), ElementsAre("one two", "three"));
}

TEST(TuiWrap, FillsALineToTheLastColumn) {
    EXPECT_THAT(wrapped("one two three", 7), ElementsAre("one two", "three"));
}

TEST(TuiWrap, DropsOneBlankOnly) {
    EXPECT_THAT(wrapped("one  two", 5), ElementsAre("one ", "two"));
}

TEST(TuiWrap, BreaksAWordThatIsTooLong) {
    EXPECT_THAT(wrapped("abcdefgh", 3), ElementsAre("abc", "def", "gh"));
}

TEST(TuiWrap, DoesNotBreakAtABlankInFrontOfEverything) {
    EXPECT_THAT(wrapped(" abcdef", 4), ElementsAre(" abc", "def"));
}

TEST(TuiWrap, CountsCharactersAndNotBytes) {
    EXPECT_THAT(wrapped("äöü äöü", 4), ElementsAre("äöü", "äöü"));
    EXPECT_THAT(wrapped("äöüß", 3), ElementsAre("äöü", "ß"));
}

TEST(TuiWrap, KeepsEmptyLinesButForTheLastNewline) {
    EXPECT_THAT(wrapped("one\n\ntwo\n", 9), ElementsAre("one", "", "two"));
    EXPECT_THAT(wrapped("one\n\n", 9), ElementsAre("one", ""));
    EXPECT_THAT(wrapped("", 9), ElementsAre());
}

TEST(TuiWrap, EndsOnAScreenWithoutColumns) {
    EXPECT_THAT(wrapped("abc", -2), ElementsAre("a", "b", "c"));
}

// ---- Text from outside --------------------------------------------------------------------

TEST(TuiClean, RemovesSequencesAndControls) {
    EXPECT_EQ(tui_clean("a\033[31mb\033]0;title\007c\rd\te\n"), "abcd\te\n");
}

TEST(TuiBlankControls, KeepsTheLength) {
    EXPECT_EQ(tui_blank_controls("a\033[2Jé\x7f"), "a [2Jé ");
}

// ---- How far a message got ----------------------------------------------------------------

TEST(TuiBar, HasTwelveCellsInThreeShapes) {
    EXPECT_EQ(bar(1, 1, 1), times("█", 4) + times("▒", 4) + times("░", 4));
    EXPECT_EQ(bar(5, 0, 0), times("█", 12));
    EXPECT_EQ(bar(0, 5, 0), times("▒", 12));
    EXPECT_EQ(bar(0, 0, 5), times("░", 12));
}

TEST(TuiBar, OfNobodyIsAllUnconfirmed) {
    EXPECT_EQ(bar(0, 0, 0), times("▒", 12));
}

TEST(TuiBar, ShowsOneUndeliveredAmongMany) {
    EXPECT_EQ(bar(0, 999, 1), times("▒", 11) + times("░", 1));
    EXPECT_EQ(bar(999, 0, 1), times("█", 11) + times("░", 1));
}

TEST(TuiBar, ShowsOneUnconfirmedAmongMany) {
    EXPECT_EQ(bar(999, 1, 0), times("█", 11) + times("▒", 1));
    EXPECT_EQ(bar(999, 1, 1), times("█", 10) + times("▒", 1) + times("░", 1));
}

TEST(TuiBar, RoundsGreenAndRedDown) {
    EXPECT_EQ(bar(1, 3, 3), times("█", 1) + times("▒", 6) + times("░", 5));
}

TEST(TuiBar, ColoursEachPart) {
    const scratch_screen screen;
    screen.colour();
    EXPECT_EQ(bar(1, 1, 1), "\033[32m" + times("█", 4) + "\033[33m" + times("▒", 4) + "\033[31m" +
                                times("░", 4) + "\033[0m");
}

TEST(TuiCounts, NamesOnlyThePartsThatThereAre) {
    EXPECT_EQ(counts(1, 2, 3), "1 confirmed · 2 delivered · 3 sent");
    EXPECT_EQ(counts(0, 2, 0), "2 delivered");
    EXPECT_EQ(counts(1, 0, 3), "1 confirmed · 3 sent");
}

TEST(TuiCounts, SaysWhenNobodyIsLeft) {
    EXPECT_EQ(counts(3, 0, 0), "all confirmed (3)");
    EXPECT_EQ(counts(0, 0, 0), "all confirmed (0)");
}

TEST(TuiCounts, ColoursEachPart) {
    const scratch_screen screen;
    screen.colour();
    EXPECT_EQ(counts(1, 1, 0), "\033[32m1 confirmed\033[0m · \033[33m1 delivered\033[0m");
    EXPECT_EQ(counts(2, 0, 0), "\033[32mall confirmed (2)\033[0m");
}
