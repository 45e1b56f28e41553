#include "window/content.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using testing::ElementsAre;
using testing::IsEmpty;

static std::string input(const std::string &place, const std::string &text) {
    return place + "\nformat: 1\nid: 7\nfrom: root\ndate: 5\ntitle: T\nexpires: \n\n" + text;
}

static std::string repeated(const std::string &piece, size_t times) {
    std::string text;
    for (size_t i = 0; i < times; i++)
        text += piece;
    return text;
}

TEST(Content, HoldsThePlaceAndTheMessage) {
    window_content content;
    ASSERT_TRUE(content_parse(input("2 of 3", "a\nb\n\n"), &content));
    EXPECT_EQ(content.place, 2U);
    EXPECT_EQ(content.total, 3U);
    EXPECT_EQ(content.from, "root");
    EXPECT_EQ(content.title, "T");
    EXPECT_EQ(content.expires, "");
    EXPECT_EQ(content.text, "a\nb");
}

TEST(Content, IsRefusedWithoutAPlaceThatCanBe) {
    window_content content;
    for (const char *place : {"", "1", "1 of", "0 of 1", "2 of 1", "-1 of 1", "1 of x", "1  of 1"})
        EXPECT_FALSE(content_parse(input(place, "x"), &content)) << place;
}

TEST(Content, IsRefusedWithoutAMessage) {
    window_content content;
    EXPECT_FALSE(content_parse("1 of 1\nhello", &content));
    EXPECT_FALSE(content_parse("1 of 1", &content));
}

TEST(DisplayableText, IsUtf8WithoutControls) {
    EXPECT_EQ(displayable_text("a\x1b[1mb\x07\xff"
                               "c"),
              "ab\xef\xbf\xbd"
              "c");
}

TEST(DisplayBreaks, LeaveShortLinesAlone) {
    EXPECT_THAT(display_breaks(""), IsEmpty());
    EXPECT_THAT(display_breaks(repeated("x", 1000)), IsEmpty());
    EXPECT_THAT(display_breaks(repeated(repeated("x", 1000) + "\n", 3)), IsEmpty());
}

TEST(DisplayBreaks, CountFromTheBeginningOfTheText) {
    EXPECT_THAT(display_breaks("ab\n" + repeated("x", 2500)), ElementsAre(1003, 2003));
}

TEST(DisplayBreaks, PreferTheLastBlankOfALine) {
    EXPECT_THAT(display_breaks(repeated("x", 990) + " " + repeated("y", 500)), ElementsAre(991));
    EXPECT_THAT(display_breaks("a " + repeated("x", 1500)), ElementsAre(1000));
}

TEST(DisplayBreaks, StandBetweenGraphemes) {
    const std::string accented = "e\xcc\x81"; // two characters, seen as one
    EXPECT_THAT(display_breaks("x" + repeated(accented, 600)), ElementsAre(999));
    const std::string family = "\xf0\x9f\x91\xa9\xe2\x80\x8d\xf0\x9f\x91\xa7"; // three characters
    EXPECT_THAT(display_breaks(repeated(family, 400)), ElementsAre(999));
}

TEST(DisplayBreaks, DivideAGraphemeOnlyIfItIsLongerThanALine) {
    EXPECT_THAT(display_breaks("x" + repeated("\xcc\x81", 1500)), ElementsAre(1000));
}

TEST(BrokenForDisplay, HoldsEverythingInLinesThatAreShortEnough) {
    const std::string accents = repeated("\xc3\xa9", 2500);
    const std::string letters = repeated("z", 1001);
    std::string broken = broken_for_display(accents + "\n" + letters);
    EXPECT_THAT(display_breaks(broken), IsEmpty());
    std::erase(broken, '\n');
    EXPECT_TRUE(broken == accents + letters);
}
