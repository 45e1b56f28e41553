#include "common/message.h"

#include "support.h"

namespace {

std::string repaired(std::string_view text) {
    strbuf buffer;
    repair_utf8(text, &buffer);
    return std::string(buffer.view());
}

const std::string MARK = "\xef\xbf\xbd"; // U+FFFD

TEST(RepairUtf8, LeavesCharactersOfEveryLengthAsTheyAre) {
    const std::string text = "a\n\xc2\xa0\xc3\xa9\xdf\xbf\xe0\xa0\x80\xed\x9f\xbf\xee\x80\x80"
                             "\xf0\x90\x80\x80\xf4\x8f\xbf\xbf";
    EXPECT_EQ(repaired(text), text);
    EXPECT_EQ(repaired(""), "");
}

TEST(RepairUtf8, MarksEveryByteThatBelongsToNoCharacter) {
    EXPECT_EQ(repaired("a\x80z"), "a" + MARK + "z");
    EXPECT_EQ(repaired("\xff\xfe"), MARK + MARK);
    EXPECT_EQ(repaired("a\xc3"), "a" + MARK);                // cut at the end
    EXPECT_EQ(repaired("\xe2\x82z"), MARK + MARK + "z");     // cut in the middle
    EXPECT_EQ(repaired("\xe2\xc3\xa9"), MARK + "\xc3\xa9");  // the next one is whole
    EXPECT_EQ(repaired("\xf0\x9f\x98"), MARK + MARK + MARK); // four bytes, cut
}

TEST(RepairUtf8, MarksFormsThatAreNotAllowed) {
    EXPECT_EQ(repaired("\xc0\x80"), MARK + MARK);            // longer than needed
    EXPECT_EQ(repaired("\xc1\xbf"), MARK + MARK);            // longer than needed
    EXPECT_EQ(repaired("\xe0\x9f\xbf"), MARK + MARK + MARK); // longer than needed
    EXPECT_EQ(repaired("\xf0\x8f\xbf\xbf"), MARK + MARK + MARK + MARK);
    EXPECT_EQ(repaired("\xed\xa0\x80"), MARK + MARK + MARK);            // a surrogate
    EXPECT_EQ(repaired("\xf4\x90\x80\x80"), MARK + MARK + MARK + MARK); // beyond Unicode
    EXPECT_EQ(repaired("\xf5\x80\x80\x80"), MARK + MARK + MARK + MARK);
}

TEST(CleanText, HasNeitherEscapesNorBrokenCharacters) {
    EXPECT_EQ(clean_text("a\x1b[31mb\x9b\x07\n\tc"), "ab" + MARK + "\n\tc");
}

TEST(CleanText, CannotBeMadeToJoinAControlCharacter) {
    EXPECT_EQ(clean_text("\xc2\x07\x9b"), ""); // a C1 control, once the bell is dropped
}

TEST(CleanLine, IsOneLine) {
    EXPECT_EQ(clean_line("a\nb\tc\r\x1b[1md"), "a b cd");
}

TEST(Banner, FramesTheTextWithoutTheLineEndsBehindIt) {
    const environment_variable zone("TZ", "UTC");
    strbuf banner;
    message_banner({7, "root", 1'790'000'000, "Maintenance", 0, "One\n\nTwo\n\n\n"}, &banner);
    std::string rule;
    for (int column = 0; column < 40; column++)
        rule += "─";
    EXPECT_EQ(banner.view(), "── Tellbox · Message from the administrator · Maintenance · "
                             "21/09 14:13 ──\nOne\n\nTwo\n" +
                                 rule + "\n");
}

} // namespace
