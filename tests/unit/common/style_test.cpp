#include "common/style.h"

#include "hostile.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

// Drawing in colour on a screen of 80 columns; plain again afterwards.
class Style : public testing::Test {
protected:
    Style() {
        styles_set(true);
        style_columns = 80;
    }
    ~Style() override {
        styles_set(false);
        style_columns = 80;
    }
};

std::string rule(const char *left, const char *right, const char *title) {
    strbuf out;
    rule_append(&out, left, right, title);
    return std::string(out.view());
}

std::string row(char kind, const char *text) {
    strbuf out;
    box_row_append(&out, kind, text);
    return std::string(out.view());
}

std::vector<std::string> wrapped(const char *text, int width, int indent) {
    strlist lines;
    wrap_words(text, width, indent, &lines);
    return {lines.begin(), lines.end()};
}

std::string dashes(int count) {
    std::string text;
    while (count-- > 0)
        text += "─";
    return text;
}

struct term_and_description {
    std::string term = "old";
    std::string description = "old";
};

term_and_description split(const char *item) {
    term_and_description parts;
    split_term(item, &parts.term, &parts.description);
    return parts;
}

} // namespace

// ---- Style strings ------------------------------------------------------------------------

TEST_F(Style, EachIsItsSequenceWhenEnabled) {
    EXPECT_STREQ(style.reset, "\033[0m");
    EXPECT_STREQ(style.bold, "\033[1m");
    EXPECT_STREQ(style.dim, "\033[2m");
    EXPECT_STREQ(style.green, "\033[1;32m");
    EXPECT_STREQ(style.yellow, "\033[1;33m");
    EXPECT_STREQ(style.cyan, "\033[1;36m");
    EXPECT_STREQ(style.reverse, "\033[7;1m");
}

TEST_F(Style, EachIsEmptyWhenDisabled) {
    styles_set(false);
    for (const char *sequence :
         {style.reset, style.bold, style.dim, style.green, style.yellow, style.cyan, style.reverse})
        EXPECT_STREQ(sequence, "");
}

// ---- Measuring ----------------------------------------------------------------------------

TEST(CharacterCount, CountsEscapeSequencesToo) {
    EXPECT_EQ(text_character_count(""), 0U);
    EXPECT_EQ(text_character_count("é\033[0m"), 5U);
}

// ---- Rules --------------------------------------------------------------------------------

TEST_F(Style, RuleWithoutATitleIsOneDimStretch) {
    EXPECT_EQ(rule("├", "┤", ""), "\033[2m├" + dashes(78) + "┤\033[0m");
}

TEST_F(Style, RuleWithATitleSetsItInCyan) {
    EXPECT_EQ(rule("┌", "┐", "Keys"),
              "\033[2m┌\033[0m\033[1;36m─ Keys \033[0m\033[2m" + dashes(71) + "┐\033[0m");
}

TEST_F(Style, RuleIsExactlyAsWideAsTheScreen) {
    for (const int columns : {16, 44, 80, 200}) {
        style_columns = columns;
        EXPECT_EQ(columns_of(without_styles(rule("└", "┘", ""))), static_cast<size_t>(columns));
        EXPECT_EQ(columns_of(without_styles(rule("┌", "┐", "tbx — guide"))),
                  static_cast<size_t>(columns));
    }
}

TEST_F(Style, RuleWithATitleAsLongAsTheScreenHasNoFill) {
    styles_set(false);
    style_columns = 6;
    EXPECT_EQ(rule("┌", "┐", "t"), "┌─ t ┐");
    EXPECT_EQ(rule("┌", "┐", "title"), "┌─ title ┐");
}

TEST_F(Style, RuleOnAScreenWithoutRoomIsItsEndPieces) {
    styles_set(false);
    style_columns = 1;
    EXPECT_EQ(rule("└", "┘", ""), "└┘");
}

// ---- Framed rows --------------------------------------------------------------------------

TEST_F(Style, RowOfATermIsGreen) {
    style_columns = 9;
    EXPECT_EQ(row('F', "tbx"), "\033[2m│\033[0m \033[1;32mtbx\033[0m   \033[2m│\033[0m");
}

TEST_F(Style, RowOfAHeadingIsYellow) {
    style_columns = 9;
    EXPECT_EQ(row('H', "NAME"), "\033[2m│\033[0m \033[1;33mNAME\033[0m  \033[2m│\033[0m");
}

TEST_F(Style, RowOfTextHasNoStyleToReset) {
    style_columns = 9;
    EXPECT_EQ(row('T', "text"), "\033[2m│\033[0m text  \033[2m│\033[0m");
}

TEST_F(Style, RowIsExactlyAsWideAsTheScreen) {
    for (const char *text : {"", "short", "äöü «quoted»"})
        EXPECT_EQ(columns_of(without_styles(row('F', text))), 80U) << text;
    EXPECT_EQ(columns_of(without_styles(row('T', std::string(300, 'x').c_str()))), 80U);
}

TEST_F(Style, RowTooLongIsCutBetweenCharacters) {
    styles_set(false);
    style_columns = 7;
    EXPECT_EQ(row('T', "abc"), "│ abc │");
    EXPECT_EQ(row('T', "abcd"), "│ abc │");
    EXPECT_EQ(row('T', "éèêë"), "│ éèê │");
}

TEST_F(Style, RowOnAScreenWithoutRoomIsEmpty) {
    styles_set(false);
    style_columns = 3;
    EXPECT_EQ(row('T', "abc"), "│  │");
}

TEST_F(Style, PlainRulesAndRowsHoldNoEscapeSequence) {
    styles_set(false);
    const std::string all = rule("┌", "┐", "title") + row('F', "a") + row('H', "b") + row('T', "c");
    EXPECT_EQ(all.find('\033'), std::string::npos);
}

// ---- Words --------------------------------------------------------------------------------

TEST(WrapWords, FillsEachLineUpToItsWidth) {
    EXPECT_THAT(wrapped("twenty-four columns here and more", 24, 0),
                ElementsAre("twenty-four columns here", "and more"));
}

TEST(WrapWords, TakesTheIndentOffTheWidth) {
    EXPECT_THAT(wrapped("twenty-four columns here and more", 28, 4),
                ElementsAre("    twenty-four columns here", "    and more"));
    EXPECT_THAT(wrapped("twenty-four columns here! and", 28, 4),
                ElementsAre("    twenty-four columns", "    here! and"));
}

TEST(WrapWords, NeverMakesLinesShorterThan24Columns) {
    EXPECT_THAT(wrapped("twenty-four columns here and more", 1, 2),
                ElementsAre("  twenty-four columns here", "  and more"));
}

TEST(WrapWords, TakesAnyWhiteSpaceAsOneSpace) {
    EXPECT_THAT(wrapped(" \n one\n\ntwo\t  three \n", 80, 1), ElementsAre(" one two three"));
}

TEST(WrapWords, LeavesAWordLongerThanTheLineAloneAndWhole) {
    const std::string word(30, 'x');
    EXPECT_THAT(wrapped(("before " + word + " after").c_str(), 24, 0),
                ElementsAre("before", word, "after"));
}

TEST(WrapWords, CountsCharactersAndNotBytes) {
    EXPECT_THAT(wrapped("«ééééééééé» «ééééééééé»! ü", 24, 0),
                ElementsAre("«ééééééééé» «ééééééééé»!", "ü"));
}

TEST(WrapWords, MakesNoLineOfNoWords) {
    EXPECT_THAT(wrapped("", 80, 7), IsEmpty());
    EXPECT_THAT(wrapped(" \t\n", 80, 7), IsEmpty());
}

TEST(WrapWords, AppendsToTheLinesThatAreThere) {
    strlist lines;
    strlist_push_dup(&lines, "first");
    wrap_words("second", 80, 0, &lines);
    EXPECT_THAT(std::vector<std::string>(lines.begin(), lines.end()),
                ElementsAre("first", "second"));
}

// ---- Items --------------------------------------------------------------------------------

TEST(SplitTerm, TakesWhatStandsBeforeAndAfterTheSeparator) {
    const term_and_description parts = split("list¦Lists the messages.");
    EXPECT_EQ(parts.term, "list");
    EXPECT_EQ(parts.description, "Lists the messages.");
}

TEST(SplitTerm, WithoutASeparatorIsAllTerm) {
    const term_and_description parts = split("tbx list");
    EXPECT_EQ(parts.term, "tbx list");
    EXPECT_EQ(parts.description, "");
}

TEST(SplitTerm, SplitsAtTheFirstSeparatorOnly) {
    const term_and_description parts = split("a¦b¦c");
    EXPECT_EQ(parts.term, "a");
    EXPECT_EQ(parts.description, "b¦c");
}

TEST(SplitTerm, EitherPartMayBeEmpty) {
    EXPECT_EQ(split("¦text").term, "");
    EXPECT_EQ(split("¦text").description, "text");
    EXPECT_EQ(split("term¦").description, "");
}
