#include "common/message.h"

#include "support.h"

namespace {

std::string cleaned(std::string_view text) {
    strbuf out;
    sanitize_text(text.data(), text.size(), &out);
    return std::string(out.view());
}

} // namespace

TEST(SanitizeText, PlainTextStays) {
    EXPECT_EQ(cleaned("Hello, world!\n\tYes~ \n"), "Hello, world!\n\tYes~ \n");
    EXPECT_EQ(cleaned(""), "");
}

TEST(SanitizeText, Appends) {
    strbuf out;
    strbuf_append_str(&out, "before ");
    sanitize_text("a\x1b[mb", 5, &out);
    EXPECT_EQ(out.view(), "before ab");
}

// ---- Control sequences --------------------------------------------------------------------

TEST(SanitizeText, ControlSequencesAreRemoved) {
    EXPECT_EQ(cleaned("a\x1b[1;31mb\x1b[0m"), "ab");
    EXPECT_EQ(cleaned("\x1b[?25lx\x1b[2Jy\x1b[Hz"), "xyz");
    EXPECT_EQ(cleaned("\x1b[m"), "");
}

TEST(SanitizeText, FinalByteIsBetweenAtSignAndTilde) {
    EXPECT_EQ(cleaned("\x1b[1@x"), "x");
    EXPECT_EQ(cleaned("\x1b[1~x"), "x");
    EXPECT_EQ(cleaned("\x1b[1\x7fx"), "[1x");
}

TEST(SanitizeText, SequenceWithAnotherByteLosesOnlyItsEscape) {
    EXPECT_EQ(cleaned("\x1b[1 mx"), "[1 mx");
    EXPECT_EQ(cleaned("\x1b[>1mx"), "[>1mx");
    EXPECT_EQ(cleaned("\x1b[1:2mx"), "[1:2mx");
    EXPECT_EQ(cleaned("\x1b[1\xc3\xa9"), "[1\xc3\xa9");
}

TEST(SanitizeText, SequenceThatTheLineEndsLosesOnlyItsEscape) {
    EXPECT_EQ(cleaned("a\x1b[1;\nmb"), "a[1;\nmb");
    EXPECT_EQ(cleaned("a\x1b["), "a[");
    EXPECT_EQ(cleaned("a\x1b"), "a");
}

TEST(SanitizeText, SequenceInsideAnotherLeavesNoEscape) {
    EXPECT_EQ(cleaned("\x1b\x1b[31m[32mx"), "[32mx");
    EXPECT_EQ(cleaned("\x1b[3\x1b[31m1mx"), "[31mx");
}

TEST(SanitizeText, OtherEscapesLoseTheirEscapeByte) {
    EXPECT_EQ(cleaned("\x1b"
                      "cx\x1b(By"),
              "cx(By");
}

// ---- Operating-system commands ------------------------------------------------------------

TEST(SanitizeText, OperatingSystemCommandsAreRemovedUpToTheBell) {
    EXPECT_EQ(cleaned("x\x1b]0;t\x07y"), "xy");
    EXPECT_EQ(cleaned("\x1b]0;a\x07\x1b]0;b\x07z"), "z");
    EXPECT_EQ(cleaned("\x1b]\x07z"), "z");
}

TEST(SanitizeText, CommandWithoutABellInItsLineLosesOnlyItsEscape) {
    EXPECT_EQ(cleaned("x\x1b]0;t"), "x]0;t");
    EXPECT_EQ(cleaned("x\x1b]0;t\n\x07y"), "x]0;t\ny");
    EXPECT_EQ(cleaned("x\x1b]0;t\x1b\\y"), "x]0;t\\y");
}

TEST(SanitizeText, CommandsAreLookedForAfterControlSequencesAreGone) {
    EXPECT_EQ(cleaned("\x1b\x1b[0m]0;t\x07y"), "y");
}

// ---- Control bytes ------------------------------------------------------------------------

TEST(SanitizeText, ControlBytesAreDropped) {
    std::string all;
    for (int byte = 0; byte < 0x20; byte++)
        all += static_cast<char>(byte);
    EXPECT_EQ(cleaned(all + "\x7f"), "\t\n");
}

TEST(SanitizeText, CarriageReturnsAreDropped) {
    EXPECT_EQ(cleaned("a\rb"), "ab");
    EXPECT_EQ(cleaned("a\r\nb\r\n"), "a\nb\n");
}

TEST(SanitizeText, NulByteDoesNotEndTheText) {
    EXPECT_EQ(cleaned(std::string_view("a\0b", 3)), "ab");
}

TEST(SanitizeText, PrintableBytesStay) {
    std::string all;
    for (int byte = 0x20; byte < 0x7f; byte++)
        all += static_cast<char>(byte);
    EXPECT_EQ(cleaned(all), all);
}

TEST(SanitizeText, BytesFromEightyUpStay) {
    std::string all;
    for (int byte = 0x80; byte <= 0xff; byte++)
        all += static_cast<char>(byte);
    EXPECT_EQ(cleaned(all), all); // 0xC2 is followed by 0xC3 here
}

// ---- C1 controls --------------------------------------------------------------------------

TEST(SanitizeText, C1ControlsAreDropped) {
    EXPECT_EQ(cleaned("a\xc2\x80"
                      "b\xc2\x85"
                      "c\xc2\x9f"
                      "d"),
              "abcd");
}

TEST(SanitizeText, OtherCharactersWithTheSameLeadStay) {
    EXPECT_EQ(cleaned("\xc2\xa0\xc2\xbf"), "\xc2\xa0\xc2\xbf");
    EXPECT_EQ(cleaned("\xc3\xa9"), "\xc3\xa9");
    EXPECT_EQ(cleaned("\xc3\x85"), "\xc3\x85");
}

TEST(SanitizeText, DroppingAPairNeverJoinsAnother) {
    EXPECT_EQ(cleaned("a\xc2\xc2\x85\x85z"), "az");
    EXPECT_EQ(cleaned("\xc2\xc2\xc2\x85\x85\x85"), "");
    EXPECT_EQ(cleaned("\xc2\xc2\x85"), "\xc2");
}

TEST(SanitizeText, DroppingAControlByteNeverJoinsAPair) {
    EXPECT_EQ(cleaned("a\xc2\x01\x85z"), "az");
    EXPECT_EQ(cleaned("a\xc2\x1b[m\x85z"), "az");
}

TEST(SanitizeText, PairDoesNotReachIntoWhatWasThereBefore) {
    strbuf out;
    strbuf_append_str(&out, "\xc2");
    sanitize_text("\x85", 1, &out);
    EXPECT_EQ(out.view(), "\xc2\x85");
}

TEST(SanitizeText, BehindTheLastBellThereIsNoCommand) {
    EXPECT_EQ(cleaned("a\x1b]0;t\x07"
                      "b\x1b]c\x1b]d"),
              "ab]c]d");
    EXPECT_EQ(cleaned("\x1b]0;x\x1b]y\x07z\x1b]"), "z]");
}

// An unfinished command at every second byte must not search the rest of the text each time.
TEST(SanitizeText, LongHostileTextIsCleanedInOnePass) {
    std::string hostile;
    for (int i = 0; i < 4'000'000; i++)
        hostile += "\x1b]";
    EXPECT_EQ(cleaned(hostile), std::string(4'000'000, ']'));
}

TEST(SanitizeText, BellBehindAnotherSequenceTakesNothingWithIt) {
    EXPECT_EQ(cleaned("a\x1bxb\x07"
                      "c"),
              "axbc");
    EXPECT_EQ(cleaned("a\x1b\x07"
                      "c"),
              "ac");
}
