#include "common/width.h"

#include <gtest/gtest.h>

#include <clocale>
#include <string>

// ---- Measuring ----------------------------------------------------------------------------

TEST(Width, OfOrdinaryCharactersIsOne) {
    for (const char *text : {"a", "é", "Ж", "€", "│", "█", "…", "·", "\xef\xbf\xbd", "\U00010330"})
        EXPECT_EQ(columns_of_text(text), 1) << text;
}

TEST(Width, OfEastAsianCharactersAndEmojiIsTwo) {
    for (const char *text : {"日", "한", "👍", "！"})
        EXPECT_EQ(columns_of_text(text), 2) << text;
    EXPECT_EQ(columns_of_text("ｱ"), 1); // of half the width
}

TEST(Width, OfWhatIsDrawnOverACharacterIsNone) {
    EXPECT_EQ(columns_of_text("e\u0301"), 1);
    EXPECT_EQ(columns_of_text("e\u0301\u0302\u0303x"), 2);
    EXPECT_EQ(columns_of_text("日\u3099"), 2);
    EXPECT_EQ(columns_of_text("a\u200bb"), 2);
    EXPECT_EQ(columns_of_text("\u0301"), 0);
}

TEST(Width, OfEmojiOfSeveralCharactersIsTwo) {
    for (const char *text :
         {"👍🏽", "👩‍💻", "👨‍👩‍👧‍👦", "❤️", "🇩🇪", "1️⃣"})
        EXPECT_EQ(columns_of_text(text), 2) << text;
    EXPECT_EQ(columns_of_text("🇩🇪🇫🇷"), 4);
    EXPECT_EQ(columns_of_text("🇩"), 1);
    EXPECT_EQ(columns_of_text("❤"), 1);
}

TEST(Width, OfAnEmojiThatTheSystemDoesNotKnowYetIsTwo) {
    EXPECT_EQ(columns_of_text("\U0001fadf"), 2);
}

TEST(Width, AJoinerBetweenLettersJoinsNothing) {
    EXPECT_EQ(columns_of_text("م‍م"), 2);
}

TEST(Width, OfBrokenCharactersIsOne) {
    EXPECT_EQ(columns_of_text("\xff"), 1);
    EXPECT_EQ(columns_of_text("\xe6\x97"), 1);
    EXPECT_EQ(columns_of_text("a\x80"), 1);
}

TEST(Width, DoesNotDependOnTheLocale) {
    const std::string before = setlocale(LC_ALL, nullptr);
    ASSERT_NE(setlocale(LC_ALL, "C"), nullptr);
    EXPECT_EQ(columns_of_text("日"), 2);
    setlocale(LC_ALL, before.c_str());
}

// ---- Cutting ------------------------------------------------------------------------------

TEST(Width, OfTheFirstColumnsIsNeverTooMuch) {
    EXPECT_EQ(first_columns("a日本", 3), "a日");
    EXPECT_EQ(first_columns("a日本", 4), "a日");
    EXPECT_EQ(first_columns("日", 1), "");
    EXPECT_EQ(first_columns("abc", 9), "abc");
    EXPECT_EQ(first_columns("abc", 0), "");
    EXPECT_EQ(first_columns("abc", -1), "");
}

TEST(Width, NoClusterIsCut) {
    EXPECT_EQ(first_columns("ae\u0301x", 2), "ae\u0301");
    EXPECT_EQ(first_columns("🇩🇪🇫🇷", 3), "🇩🇪");
}
