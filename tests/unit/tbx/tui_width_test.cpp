#include "tbx/screen/width.h"

#include "tui_support.h"

namespace {

std::string cut(std::string_view text, int width) {
    strbuf out;
    (void)tui_cut(&out, text, width);
    return std::string(out.view());
}

const std::string ANCHOR(TUI_ANCHOR);

std::string shown(const std::string &text) { // in a row of a frame
    const scratch_screen screen(20, 5);
    tui_screen page;
    page.lines = list_of({text});
    strbuf frame;
    tui_render(page, &frame);
    const std::string all(frame.view());
    const size_t start = all.find('\n') + 1;
    return all.substr(start, all.find('\n', start) - start);
}

} // namespace

// ---- Cutting ------------------------------------------------------------------------------

TEST(TuiWidth, ACharacterThatWouldStandHalfIsLeftOut) {
    EXPECT_EQ(cut("a日本", 3), "a日" + ANCHOR);
    EXPECT_EQ(cut("a日本", 4), "a日" + ANCHOR);
    EXPECT_EQ(cut("日", 1), "");
}

TEST(TuiWidth, AnAccentStaysWithTheLastCharacterThatFits) {
    EXPECT_EQ(cut("ae\u0301x", 2), "ae\u0301" + ANCHOR);
}

TEST(TuiWidth, OfManyAccentsOnlySomeAreDrawn) {
    std::string text = "e";
    for (int i = 0; i < 1000; i++)
        text += "\u0301";
    EXPECT_LT(cut(text + "x", 5).size(), 50U);
    EXPECT_EQ(columns_of_text(text + "x"), 2);
}

TEST(TuiWidth, AWindowBeginsAndEndsWithWholeCharacters) {
    EXPECT_EQ(tui_window("a日b本c", 1, 3), "日b");
    EXPECT_EQ(tui_window("a日b本c", 2, 3), "b");
    EXPECT_EQ(tui_window("a日b本c", 0, 2), "a");
    EXPECT_EQ(tui_whole_column("a日b", 2), 3);
    EXPECT_EQ(tui_whole_column("a日b", 1), 1);
}

TEST(TuiWidth, LinesAreWrappedByColumns) {
    strlist lines;
    tui_wrap("日本 語日本", 5, &lines);
    EXPECT_EQ(joined(lines), "日本 語日 本");
    strlist narrow;
    tui_wrap("日本", 1, &narrow);
    EXPECT_EQ(joined(narrow), "日 本");
}

// ---- Rows ---------------------------------------------------------------------------------

TEST(TuiWidth, WhatFollowsWideTextInARowIsPutAtItsColumn) {
    EXPECT_EQ(shown("日本"), "\033[?7l│ 日本\033[K\033[7G             │\033[?7h");
}

TEST(TuiWidth, ARowOfNarrowTextIsDrawnAsItIs) {
    EXPECT_EQ(shown("äЖ"), "│ äЖ               │");
}
