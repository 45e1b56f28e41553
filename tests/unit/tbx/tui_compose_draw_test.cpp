#include "tbx/tui/compose_draw.h"

#include "tui_support.h"

#include <gmock/gmock.h>

using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

tui_screen built(compose_form *form) {
    tui_screen page;
    compose_scroll(form);
    compose_build(*form, &page);
    return page;
}

std::vector<std::string> lines_of(compose_form *form) {
    return items(built(form).lines);
}

std::pair<int, int> cursor_of(compose_form *form) {
    const tui_screen page = built(form);
    return {page.cursor_row, page.cursor_col};
}

void fill_field(compose_form *form, compose_focus field, const std::string &value) {
    form->fields[field].value = value;
    form->fields[field].cursor = value.size();
}

std::string blanks(size_t count) {
    return std::string(count, ' ');
}

constexpr int TO_LINE = 1;
constexpr int EXPIRES_LINE = 5;
constexpr int TEXT_LINE = 8; // the first line of the text

} // namespace

TEST(ComposePage, FillsTheSmallestScreen) {
    const scratch_screen screen(80, 20);
    compose_form form;
    fill_field(&form, COMPOSE_TO, "root");
    form.text.lines = {"Hello"};
    strbuf frame;
    tui_render(built(&form), &frame);
    EXPECT_EQ(last_frame(std::string(frame.view())),
              "┌─ New message ────────────────────────────────────────────────────────────────┐\n"
              "│                                                                              │\n"
              "│  To         [ root                                                   ]       │\n"
              "│               user, @group, all or online, separated by commas               │\n"
              "│  Title      [                                                        ]       │\n"
              "│               optional, one line                                             │\n"
              "│  Expires    [                                                        ]       │\n"
              "│               optional: 30m, 2h, 3d or a date                                │\n"
              "│  Text       ┌────────────────────────────────────────────────────────┐       │\n"
              "│             │ Hello                                                  │       │\n"
              "│             │                                                        │       │\n"
              "│             │                                                        │       │\n"
              "│             │                                                        │       │\n"
              "│             │                                                        │       │\n"
              "│             │                                                        │       │\n"
              "│             └────────────────────────────────────────────────────────┘       │\n"
              "│               5 of 65536 bytes                                               │\n"
              "├──────────────────────────────────────────────────────────────────────────────┤\n"
              "│ Tab next field   Ctrl+E open in the editor   Ctrl+S send   Esc cancel        │\n"
              "└──────────────────────────────────────────────────────────────────────────────┘\n");
}

TEST(ComposePage, FillsEveryLargerScreen) {
    for (const int rows : {21, 24, 60}) {
        const scratch_screen screen(200, rows);
        compose_form form;
        EXPECT_EQ(built(&form).lines.count, static_cast<size_t>(rows - 4));
    }
}

// ---- Fields -------------------------------------------------------------------------------

TEST(ComposePage, ThePreviewTakesThePlaceOfTheHint) {
    const scratch_screen screen;
    compose_form form;
    form.preview = "3 recipients";
    EXPECT_EQ(lines_of(&form)[TO_LINE + 1], blanks(14) + "3 recipients");
}

TEST(ComposePage, OnlyTheLabelWithTheFocusIsBold) {
    const scratch_screen screen;
    screen.colour();
    compose_form form;
    EXPECT_THAT(lines_of(&form)[TO_LINE], StartsWith(" \033[1mTo        \033[0m [ "));
    EXPECT_THAT(lines_of(&form)[EXPIRES_LINE], StartsWith(" Expires    [ "));
    form.focus = COMPOSE_TEXT;
    EXPECT_THAT(lines_of(&form)[TEXT_LINE - 1], StartsWith(" \033[1mText      \033[0m "));
}

TEST(ComposePage, ShowsTheCursorInTheField) {
    const scratch_screen screen;
    compose_form form;
    EXPECT_EQ(cursor_of(&form), (std::pair{2, 14}));
    fill_field(&form, COMPOSE_EXPIRES, "aé");
    form.focus = COMPOSE_EXPIRES;
    EXPECT_EQ(cursor_of(&form), (std::pair{6, 16}));
}

TEST(ComposePage, AValueAsLongAsItsPlaceDoesNotScroll) {
    const scratch_screen screen;
    compose_form form;
    fill_field(&form, COMPOSE_TO, std::string(53, 'x') + "y");
    EXPECT_THAT(lines_of(&form)[TO_LINE], EndsWith("[ " + std::string(53, 'x') + "y ]"));
    EXPECT_EQ(cursor_of(&form), (std::pair{2, 14 + 54}));
}

TEST(ComposePage, ALongValueScrollsWithTheCursor) {
    const scratch_screen screen;
    compose_form form;
    fill_field(&form, COMPOSE_TO, "begin" + std::string(60, 'x') + "end");
    EXPECT_THAT(lines_of(&form)[TO_LINE], EndsWith("[ " + std::string(51, 'x') + "end ]"));
    EXPECT_EQ(cursor_of(&form), (std::pair{2, 14 + 54}));
    form.fields[COMPOSE_TO].cursor = 0;
    EXPECT_THAT(lines_of(&form)[TO_LINE], EndsWith("[ begin" + std::string(49, 'x') + " ]"));
    EXPECT_EQ(cursor_of(&form), (std::pair{2, 14}));
}

TEST(ComposePage, ScrollsOnlyWhenTheCursorLeavesTheView) {
    const scratch_screen screen;
    compose_form form;
    fill_field(&form, COMPOSE_TO, std::string(70, 'x'));
    lines_of(&form);
    for (const auto &[cursor, scroll] :
         {std::pair{60, 16}, {16, 16}, {15, 15}, {69, 15}, {70, 16}}) {
        form.fields[COMPOSE_TO].cursor = static_cast<size_t>(cursor);
        EXPECT_EQ(cursor_of(&form), (std::pair{2, 14 + cursor - scroll})) << cursor;
    }
}

TEST(ComposePage, AValueCannotDriveTheTerminal) {
    const scratch_screen screen;
    compose_form form;
    fill_field(&form, COMPOSE_TO, "a\033[2Jb");
    EXPECT_THAT(lines_of(&form)[TO_LINE], HasSubstr("[ a [2Jb  "));
}

// ---- Text ---------------------------------------------------------------------------------

TEST(ComposePage, ShowsTheCursorInTheText) {
    const scratch_screen screen;
    compose_form form;
    form.focus = COMPOSE_TEXT;
    form.text.lines = {"one", "ä€o"};
    form.text.line = 1;
    form.text.cursor = 5;
    EXPECT_EQ(cursor_of(&form), (std::pair{10, 16}));
}

TEST(ComposePage, TheTextScrollsSoThatTheCursorsLineShows) {
    const scratch_screen screen(80, 20); // six lines of text
    compose_form form;
    form.focus = COMPOSE_TEXT;
    form.text.lines = {"0", "1", "2", "3", "4", "5", "6", "7"};
    form.text.line = 7;
    EXPECT_THAT(lines_of(&form)[TEXT_LINE], HasSubstr("│ 2 "));
    EXPECT_EQ(cursor_of(&form), (std::pair{14, 14}));
    form.text.line = 2;
    EXPECT_THAT(lines_of(&form)[TEXT_LINE], HasSubstr("│ 2 "));
    form.text.line = 0;
    EXPECT_THAT(lines_of(&form)[TEXT_LINE], HasSubstr("│ 0 "));
}

TEST(ComposePage, OnlyTheCursorsLineScrollsSideways) {
    const scratch_screen screen;
    compose_form form;
    form.focus = COMPOSE_TEXT;
    form.text.lines = {"short", std::string(60, 'x') + "end"};
    form.text.line = 1;
    form.text.cursor = 63;
    const std::vector<std::string> lines = lines_of(&form);
    EXPECT_THAT(lines[TEXT_LINE], HasSubstr("│ short "));
    EXPECT_THAT(lines[TEXT_LINE + 1], HasSubstr("│ " + std::string(51, 'x') + "end │"));
    EXPECT_EQ(cursor_of(&form), (std::pair{TEXT_LINE + 2, 14 + 54}));
}

TEST(ComposePage, ATextLineCannotDriveTheTerminal) {
    const scratch_screen screen;
    compose_form form;
    form.text.lines = {"a\tb\033[2J\xc2\x9b" + std::string("c\0d", 3)};
    EXPECT_THAT(lines_of(&form)[TEXT_LINE], HasSubstr("│ a b [2J c d  "));
}

TEST(ComposePage, TheSizeTurnsRedAboveTheLimit) {
    const scratch_screen screen;
    screen.colour();
    compose_form form;
    form.text.lines = {std::string(65'536, 'x')};
    EXPECT_EQ(lines_of(&form).back(), blanks(14) + "\033[90m65536 of 65536 bytes\033[0m");
    form.text.lines = {std::string(65'000, 'x'), std::string(536, 'x')};
    EXPECT_EQ(lines_of(&form).back(), blanks(14) + "\033[31m65537 of 65536 bytes\033[0m");
}

// ---- Small screens ------------------------------------------------------------------------

TEST(ComposePage, OnALowScreenTheCursorsLineIsStillShown) {
    const scratch_screen screen(80, 10); // six lines of body
    compose_form form;
    form.focus = COMPOSE_TEXT;
    form.text.lines = {"written"};
    EXPECT_THAT(lines_of(&form)[5], HasSubstr("│ written "));
    EXPECT_EQ(cursor_of(&form), (std::pair{6, 14}));
}

TEST(ComposePage, OnANarrowScreenKeepsAColumnForEveryValue) {
    const scratch_screen screen(10, 20);
    compose_form form;
    fill_field(&form, COMPOSE_TO, "abc");
    EXPECT_THAT(lines_of(&form)[TO_LINE], EndsWith("[ c ]"));
}
