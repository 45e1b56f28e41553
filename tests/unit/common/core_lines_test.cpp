// Lines of a text, and a list as lines.
#include "common/core.h"

#include "support.h"

#include <vector>

namespace {

std::vector<std::string> lines_of(std::string_view text) {
    std::vector<std::string> lines;
    std::string_view line;
    while (next_line(&text, &line))
        lines.emplace_back(line);
    return lines;
}

using lines = std::vector<std::string>;

} // namespace

TEST(NextLine, TakesLineAfterLine) {
    EXPECT_EQ(lines_of("one\ntwo\n"), (lines{"one", "two"}));
}

TEST(NextLine, LastLineNeedsNoNewline) {
    EXPECT_EQ(lines_of("one\ntwo"), (lines{"one", "two"}));
    EXPECT_EQ(lines_of("one"), lines{"one"});
}

TEST(NextLine, EmptyLinesCountUnlessNothingIsLeft) {
    EXPECT_EQ(lines_of(""), lines{});
    EXPECT_EQ(lines_of("\n"), lines{""});
    EXPECT_EQ(lines_of("\n\none\n\n"), (lines{"", "", "one", ""}));
}

TEST(NextLine, OtherBytesBelongToTheLine) {
    EXPECT_EQ(lines_of(std::string_view("a\r\0b\n\tc", 7)),
              (lines{std::string("a\r\0b", 4), "\tc"}));
}

TEST(NextLine, LeavesTheLineAloneAtTheEnd) {
    std::string_view rest;
    std::string_view line = "old";
    EXPECT_FALSE(next_line(&rest, &line));
    EXPECT_EQ(line, "old");
}

TEST(NextLine, GivesPartsOfTheTextItself) {
    const std::string text = "one\ntwo";
    std::string_view rest = text;
    std::string_view line;
    ASSERT_TRUE(next_line(&rest, &line));
    EXPECT_EQ(line.data(), text.data());
    EXPECT_EQ(rest.data(), text.data() + 4);
}

TEST(StrlistLines, EndEachItemWithANewline) {
    strlist list;
    EXPECT_EQ(strlist_lines(list), "");
    for (const char *item : {"pat", "", "sam o'hara"})
        strlist_push_dup(&list, item);
    EXPECT_EQ(strlist_lines(list), "pat\n\nsam o'hara\n");
}
