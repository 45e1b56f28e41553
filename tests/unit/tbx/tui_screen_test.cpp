#include "tbx/tui/screen.h"

#include "tui_support.h"

#include <gmock/gmock.h>

#include <csignal>

using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

std::string rendered(const tui_screen &page) {
    strbuf frame;
    tui_render(page, &frame);
    return std::string(frame.view());
}

std::string drawn(const tui_screen &page) {
    return last_frame(rendered(page));
}

std::string first_row(const tui_screen &page) {
    const std::string frame = drawn(page);
    return frame.substr(0, frame.find('\n'));
}

} // namespace

// ---- Frames -------------------------------------------------------------------------------

TEST(Screen, ShortPageStillFillsTheTerminal) {
    const scratch_screen screen(20, 6);
    tui_screen page;
    page.title = "Keys";
    tui_add_line(&page.lines, "q quit");
    page.footer = "any key";
    EXPECT_EQ(drawn(page), "┌─ Keys ───────────┐\n"
                           "│ q quit           │\n"
                           "│                  │\n"
                           "├──────────────────┤\n"
                           "│ any key          │\n"
                           "└──────────────────┘\n");
}

TEST(Screen, LinesBelowTheFrameAreNotDrawn) {
    const scratch_screen screen(12, 5);
    tui_screen page;
    page.title = "T";
    page.lines = list_of({"one", "two"});
    EXPECT_EQ(drawn(page), "┌─ T ──────┐\n"
                           "│ one      │\n"
                           "├──────────┤\n"
                           "│          │\n"
                           "└──────────┘\n");
}

TEST(Screen, StatusStandsAtTheRight) {
    const scratch_screen screen(30, 5);
    tui_screen page;
    page.title = "List";
    page.status = "now";
    EXPECT_EQ(first_row(page), "┌─ List ─────────────── now ─┐");
    EXPECT_EQ(columns_of_text(first_row(page)), 30);
}

TEST(Screen, ATitleThatIsTooLongLeavesRoomForTheStatus) {
    const scratch_screen screen(20, 5);
    tui_screen page;
    page.title = "A title of many words";
    page.status = "now";
    EXPECT_EQ(first_row(page), "┌─ A title o  now ─┐");
    EXPECT_EQ(columns_of_text(first_row(page)), 20);
}

TEST(Screen, AStatusWiderThanTheScreenIsLeftOut) {
    const scratch_screen screen(12, 5);
    tui_screen page;
    page.title = "T";
    page.status = "updated at 12:00:00";
    EXPECT_EQ(first_row(page), "┌─ T ──────┐");
}

TEST(Screen, AFrameIsOneStringFromHomeToTheCursor) {
    const scratch_screen screen(20, 5);
    const tui_screen page;
    EXPECT_THAT(rendered(page), StartsWith("\033[H┌"));
    EXPECT_THAT(rendered(page), EndsWith("┘\033[J\033[?25l"));
}

TEST(Screen, ShowsTheCursorInTheBody) {
    const scratch_screen screen(20, 6);
    tui_screen page;
    page.cursor_row = 2;
    page.cursor_col = 0;
    EXPECT_THAT(rendered(page), EndsWith("\033[J\033[3;3H\033[?25h"));
}

TEST(Screen, ShowsTheCursorInEveryCornerOfTheBody) {
    const scratch_screen screen(20, 6);
    tui_screen page;
    page.cursor_row = 1;
    page.cursor_col = 0;
    EXPECT_THAT(rendered(page), EndsWith("\033[2;3H\033[?25h"));
    page.cursor_row = tui_body_rows();
    page.cursor_col = tui_body_cols() - 1;
    EXPECT_THAT(rendered(page), EndsWith("\033[3;18H\033[?25h"));
}

TEST(Screen, HidesACursorThatIsOutsideOfTheBody) {
    const scratch_screen screen(20, 6);
    tui_screen page;
    page.cursor_row = 3;
    EXPECT_THAT(rendered(page), EndsWith("\033[?25l"));
    page.cursor_row = 1;
    page.cursor_col = 16;
    EXPECT_THAT(rendered(page), EndsWith("\033[?25l"));
}

TEST(Screen, IsClearedWhereNoFrameFits) {
    const tui_screen page;
    const scratch_screen screen(80, 3);
    EXPECT_EQ(rendered(page), "\033[H\033[J\033[?25l");
    screen.resize(4, 24);
    EXPECT_EQ(rendered(page), "\033[H\033[J\033[?25l");
}

TEST(Screen, EveryPieceOfTheFrameIsReset) {
    const scratch_screen screen(14, 5);
    screen.colour();
    tui_screen page;
    page.title = "T";
    page.status = "s";
    page.lines = list_of({"x"});
    EXPECT_THAT(rendered(page),
                StartsWith("\033[H\033[2m┌\033[0m\033[1;36m─ T \033[0m\033[2m────\033[0m"
                           "\033[90m s ─┐\033[0m\n"
                           "\033[2m│\033[0m x\033[0m          \033[2m│\033[0m\n"
                           "\033[2m├────────────┤\033[0m\n"));
}

// ---- Drawing ------------------------------------------------------------------------------

TEST(Screen, AFrameIsDrawnWhenNothingWaits) {
    const child_result child = run_in_child([] { tui_draw({}); });
    EXPECT_THAT(child.out, HasSubstr("┌"));
}

TEST(Screen, KeysWaitThatWereTypedWithOneThatWasRead) {
    const child_result child = run_with_keys("ab", [] {
        tui_character character = {};
        if (tui_next_key(character) != KEY_CHAR || !tui_keys_wait())
            return 1;
        return tui_next_key(character) == KEY_CHAR && !tui_keys_wait() ? 0 : 1;
    });
    EXPECT_EQ(child.exit_status, 0);
}

// ---- Dropping what was typed --------------------------------------------------------------

TEST(TuiDropInput, DropsAllThatWasTypedAndNothingElse) {
    const child_result child = run_in_child([] {
        const typed_bytes typed("yes\033[A", /*stays_open=*/true);
        tui.input = {};
        tui.input.fd = typed.reader.get();
        tui_drop_input();
        typed.type("n");
        tui_character character = {};
        return tui_next_key(character) == KEY_CHAR ? character[0] : 0;
    });
    EXPECT_EQ(child.exit_status, 'n');
}

TEST(TuiDropInput, WhatFollowsOfAPasteStaysAPaste) {
    const child_result child = run_in_child([] {
        const typed_bytes typed("\033[200~half a pas", /*stays_open=*/true);
        tui.input = {};
        tui.input.fd = typed.reader.get();
        tui_drop_input();
        typed.type("te, y\033[201~");
        tui_character character = {};
        const bool is_paste = tui_next_key(character) == KEY_PASTE;
        printf("%d '%s'", is_paste ? 1 : 0, tui.input.pasted.c_str());
    });
    EXPECT_EQ(child.out, "1 'te, y'");
}

TEST(TuiDropInput, OfATerminalThatIsGoneEnds) {
    EXPECT_EQ(run_with_keys("typed", tui_drop_input).exit_status, 0);
}

// ---- Signals ------------------------------------------------------------------------------

TEST(TuiSignals, AreIgnoredForAsLongAsTheObjectLives) {
    const child_result child = run_in_child([] {
        {
            const tui_signals_ignored ignored(tui_signals_ignored::keys);
            raise(SIGINT);
            raise(SIGTSTP);
            puts("ignored");
            fflush(stdout);
        }
        raise(SIGINT);
    });
    EXPECT_EQ(child.out, "ignored\n");
    EXPECT_EQ(child.signal, SIGINT);
}

// ---- The session --------------------------------------------------------------------------

TEST(TuiSession, DoesNotStartWithoutATerminal) {
    const child_result child = run_in_child([] {
        if (setsid() < 0)
            return 2;
        return tui_start() ? 1 : 0;
    });
    EXPECT_EQ(child.exit_status, 0);
    EXPECT_EQ(child.out, "");
}
