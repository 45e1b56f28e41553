#include "tbx/tui/dialog.h"

#include "tbx/tui/list_dialogs.h"
#include "tui_support.h"

#include <gmock/gmock.h>

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

namespace {

// What a prompt with the value `initial` gives once `keys` are typed; "(none)" if nothing.
std::string prompted(std::string_view keys, const std::string &initial = "") {
    const child_result child = run_with_keys(keys, [&] {
        tui_screen page;
        const std::optional<std::string> value = tui_prompt(&page, "Title", "Prompt:", initial);
        fprintf(stderr, "%s", value ? value->c_str() : "(none)");
    });
    return child.err;
}

bool confirmed(std::string_view keys) {
    const child_result child = run_with_steps({"", std::string(keys)}, [] {
        tui_screen page;
        return tui_confirm(&page, "Really?", list_of({"Line."})) ? 1 : 0;
    });
    return child.exit_status == 1;
}

// The screen while a dialog is shown, which nothing but the end of input ends.
template <typename Body> std::string shown(Body &&body) {
    const child_result child = run_with_keys("", [&] {
        tui_screen page;
        page.title = "Page";
        body(&page);
    });
    return last_frame(child.out);
}

job_result result_of(std::string_view output, bool was_interrupted = false) {
    job_result result;
    result.was_interrupted = was_interrupted;
    strbuf_append_view(&result.output, output);
    return result;
}

std::string message_box(std::string_view output, bool was_interrupted = false) {
    return shown([&](tui_screen *page) {
        tui_message_box(page, "Result", result_of(output, was_interrupted));
    });
}

std::vector<std::string> overlaid(const std::vector<std::string> &page,
                                  const std::vector<std::string> &body,
                                  std::string_view title = "T") {
    strlist lines = list_of(page);
    tui_overlay_box(&lines, title, list_of(body), "ok");
    return items(lines);
}

std::string xs(size_t count) {
    return std::string(count, 'x');
}

// Margin and width of the box around `line`.
std::pair<int, int> box_of(const std::string &line) {
    const std::string bottom = overlaid({}, {line}).back();
    const auto margin = static_cast<int>(bottom.find_first_not_of(' '));
    return {margin, columns_of_text(bottom) - margin};
}

message_summary summary_of(const std::string &title, int confirmed, int delivered) {
    message_summary summary;
    summary.message.id = 7;
    summary.message.title = title;
    summary.confirmed = confirmed;
    summary.delivered = delivered;
    return summary;
}

} // namespace

// ---- The box ------------------------------------------------------------------------------

TEST(TuiBox, StandsInTheMiddleOfThePage) {
    const scratch_screen screen(70, 14);
    const std::vector<std::string> lines =
        overlaid({"0", "1", "2", "3", "4", "5", "6", "7", "8", "9"}, {"text"});
    const std::string dashes = "──────────────────────────────────────────────────────";
    EXPECT_THAT(lines, ElementsAre("0", "1", "   ┌─ T " + dashes + "┐",
                                   "   │  " + std::string(54, ' ') + "  │",
                                   "   │  text" + std::string(50, ' ') + "  │",
                                   "   │  " + std::string(54, ' ') + "  │",
                                   "   │  ok" + std::string(52, ' ') + "  │",
                                   "   └────" + dashes + "┘", "8", "9"));
}

TEST(TuiBox, IsSixtyWideForShortLines) {
    const scratch_screen screen(80, 24);
    EXPECT_EQ(box_of(xs(1)), (std::pair{8, 60}));
    EXPECT_EQ(box_of(xs(54)), (std::pair{8, 60}));
}

TEST(TuiBox, GrowsWithItsWidestLine) {
    const scratch_screen screen(80, 24);
    EXPECT_EQ(box_of(xs(55)), (std::pair{7, 61}));
    EXPECT_EQ(box_of(xs(66)), (std::pair{2, 72}));
}

TEST(TuiBox, EndsWithTheScreen) {
    const scratch_screen screen(80, 24);
    EXPECT_EQ(box_of(xs(67)), (std::pair{2, 72}));
    EXPECT_EQ(box_of(xs(75)), (std::pair{2, 72}));
}

TEST(TuiBox, DoesNotCountStylesInALine) {
    const scratch_screen screen(80, 24);
    EXPECT_EQ(box_of("\033[1;31m" + xs(54) + "\033[0m"), box_of(xs(54)));
}

TEST(TuiBox, CutsALineThatIsTooLong) {
    const scratch_screen screen(80, 24);
    const std::vector<std::string> lines = overlaid({}, {std::string(200, 'x')});
    EXPECT_THAT(lines, testing::Contains("  │  " + std::string(66, 'x') + "  │"));
}

TEST(TuiBox, CutsATitleThatIsTooLong) {
    const scratch_screen screen(80, 24);
    const std::vector<std::string> lines = overlaid({}, {"x"}, std::string(200, 't'));
    EXPECT_THAT(lines, testing::Contains("        ┌─ " + std::string(55, 't') + " ┐"));
}

TEST(TuiBox, HigherThanThePageBeginsAtItsSecondLine) {
    const scratch_screen screen(80, 8);
    const std::vector<std::string> lines = overlaid({"first"}, {"a", "b", "c"});
    EXPECT_EQ(lines[0], "first");
    EXPECT_THAT(lines[1], HasSubstr("┌─ T "));
    EXPECT_EQ(lines.size(), 9U);
}

TEST(TuiBox, FrameIsBold) {
    const scratch_screen screen(80, 24);
    screen.colour();
    const std::vector<std::string> lines = overlaid({}, {"x"});
    EXPECT_THAT(lines, testing::Contains("        \033[1m│\033[0m  x\033[0m" +
                                         std::string(53, ' ') + "  \033[1m│\033[0m"));
}

TEST(TuiBox, LeavesThePageItselfAsItWas) {
    const scratch_screen screen(80, 24);
    tui_screen page;
    page.lines = list_of({"a", "b"});
    const child_result child = run_with_keys("", [&] {
        tui_show_lines(&page, "T", list_of({"x"}));
        return items(page.lines) == std::vector<std::string>{"a", "b"} ? 0 : 1;
    });
    EXPECT_EQ(child.exit_status, 0);
    EXPECT_THAT(last_frame(child.out), HasSubstr("│  x "));
}

// ---- Prompt -------------------------------------------------------------------------------

TEST(TuiPrompt, GivesWhatIsTyped) {
    EXPECT_EQ(prompted("abc\r"), "abc");
    EXPECT_EQ(prompted("qnyr/? \n"), "qnyr/? ");
    EXPECT_EQ(prompted("\r"), "");
}

TEST(TuiPrompt, BeginsWithTheInitialValue) {
    EXPECT_EQ(prompted("d\r", "90"), "90d");
}

TEST(TuiPrompt, EscAndTheEndOfInputCancel) {
    EXPECT_EQ(prompted("abc\033"), "(none)");
    EXPECT_EQ(prompted("abc"), "(none)");
}

TEST(TuiPrompt, BackspaceRemovesAWholeCharacter) {
    EXPECT_EQ(prompted("aé€\x7f\r"), "aé");
    EXPECT_EQ(prompted("a\U00010348\x7f\r"), "a");
    EXPECT_EQ(prompted("ab\x08\r"), "a");
    EXPECT_EQ(prompted("aé\x7f\x7f\x7f\x7f\r"), "");
}

TEST(TuiPrompt, OtherKeysChangeNothing) {
    EXPECT_EQ(prompted("a\033[D\033[H\t\033[3~\033[15~b\r"), "ab");
}

TEST(TuiPrompt, TakesTwoHundredBytes) {
    EXPECT_EQ(prompted(std::string(300, 'x') + "\r"), std::string(200, 'x'));
}

TEST(TuiPrompt, TakesALastCharacterOfSeveralBytesWhole) {
    EXPECT_EQ(prompted(xs(199) + "€y\r"), xs(199) + "€");
    EXPECT_EQ(prompted(xs(198) + "éé\r"), xs(198) + "é");
    EXPECT_EQ(prompted(xs(205) + "\x7féz\r"), xs(199) + "é");
}

TEST(TuiPrompt, ShowsItsValueAndAMarkForTheCursor) {
    const std::string frame = shown(
        [](tui_screen *page) { static_cast<void>(tui_prompt(page, "Search", "Show:", "old")); });
    EXPECT_THAT(frame, HasSubstr("┌─ Search ─"));
    EXPECT_THAT(frame, HasSubstr("│  Show: "));
    EXPECT_THAT(frame, HasSubstr("│  [ old_ ] "));
    EXPECT_THAT(frame, HasSubstr("│ Enter confirm   Esc cancel "));
}

TEST(TuiPrompt, ShowsTheEndOfALongValue) {
    const auto frame = [](const std::string &value) {
        return shown([&](tui_screen *page) {
            static_cast<void>(tui_prompt(page, "Search", "Show:", value));
        });
    };
    EXPECT_THAT(frame(xs(100) + "end"), HasSubstr("│  [ " + xs(58) + "end_ ]  │"));
    EXPECT_THAT(frame("b" + xs(57) + "end"), HasSubstr("│  [ b" + xs(57) + "end_ ]  │"));
    EXPECT_THAT(frame("b" + xs(58) + "end"), HasSubstr("│  [ " + xs(58) + "end_ ]  │"));
    EXPECT_THAT(frame("bé" + xs(57) + "end"), HasSubstr("│  [ é" + xs(57) + "end_ ]  │"));
}

// ---- Confirmation -------------------------------------------------------------------------

TEST(TuiConfirm, OnlyYConfirms) {
    EXPECT_TRUE(confirmed("y"));
    EXPECT_TRUE(confirmed("Y"));
    EXPECT_FALSE(confirmed("n"));
    EXPECT_FALSE(confirmed("N"));
    EXPECT_FALSE(confirmed("\033"));
    EXPECT_FALSE(confirmed(""));
}

TEST(TuiConfirm, IgnoresEveryOtherKey) {
    EXPECT_TRUE(confirmed("\r \t\033[A\033[15~qxj\x7fy"));
    EXPECT_FALSE(confirmed("\r \t\033[A\033[15~qxj\x7fn"));
}

TEST(TuiConfirm, IsNotAnsweredByWhatWasTypedBefore) {
    const child_result child = run_with_keys("yY", [] {
        tui_screen page;
        return tui_confirm(&page, "Really?", list_of({"Line."})) ? 1 : 0;
    });
    EXPECT_EQ(child.exit_status, 0);
    EXPECT_THAT(last_frame(child.out), HasSubstr("┌─ Really? ─"));
}

TEST(TuiConfirm, IsNotAnsweredByAKeyThatOthersFollow) {
    EXPECT_FALSE(confirmed("yx"));
    EXPECT_TRUE(confirmed("nxy"));
    EXPECT_FALSE(confirmed("yxn"));
}

TEST(TuiConfirm, IsNotAnsweredByWhatIsPasted) {
    EXPECT_FALSE(confirmed("\033[200~y\033[201~n"));
    EXPECT_TRUE(confirmed("\033[200~n\033[201~y"));
}

TEST(TuiConfirm, ShowsItsButtons) {
    const std::string frame = shown([](tui_screen *page) {
        static_cast<void>(tui_confirm(page, "Really?", list_of({"Line."})));
    });
    EXPECT_THAT(frame, HasSubstr("┌─ Really? ─"));
    EXPECT_THAT(frame, HasSubstr("│  Line. "));
    EXPECT_THAT(frame, HasSubstr("│   y  Confirm       n  Cancel   "));
    EXPECT_THAT(frame, HasSubstr("│ y confirm   n or Esc cancel "));
}

TEST(TuiConfirm, OnAScreenOfAnotherSizeTheBoxAndThePageAreBuiltAnew) {
    const child_result child = run_in_child([] {
        const typed_bytes nothing("", /*stays_open=*/true);
        tui.input.fd = nothing.reader.get();
        tui_screen page;
        page.rebuild = [times = 0](tui_screen *below) mutable {
            below->lines = list_of({"built anew"});
            quit_requested = ++times > 1;
        };
        interrupt_calls([] {
            tui.screen_cols = 100;
            tui.screen_changes++;
        });
        return tui_confirm(&page, "Really?", list_of({"Line."})) ? 1 : 0;
    });
    EXPECT_EQ(child.exit_status, 0);
    EXPECT_THAT(last_frame(child.out), HasSubstr("│ built anew "));
    EXPECT_THAT(last_frame(child.out), HasSubstr("\n│" + std::string(19, ' ') + "┌─ Really? ─"));
}

// ---- Message box --------------------------------------------------------------------------

TEST(TuiMessageBox, ShowsTheLines) {
    const std::string frame = message_box("one\ntwo\n");
    EXPECT_THAT(frame, HasSubstr("┌─ Result ─"));
    EXPECT_THAT(frame, HasSubstr("│  one "));
    EXPECT_THAT(frame, HasSubstr("│  two "));
    EXPECT_THAT(frame, HasSubstr("│  any key to continue "));
    EXPECT_THAT(frame, HasSubstr("\n│ any key to continue "));
}

TEST(TuiMessageBox, HasNoEmptyLineForAFinalNewline) {
    EXPECT_EQ(message_box("one\n"), message_box("one"));
    EXPECT_NE(message_box("one\n\n"), message_box("one"));
}

TEST(TuiMessageBox, SaysDoneWhenNothingWasPrinted) {
    EXPECT_THAT(message_box(""), HasSubstr("│  Done. "));
}

TEST(TuiMessageBox, SaysInterruptedWhenASignalCameBeforeAnythingWasPrinted) {
    EXPECT_THAT(message_box("", /*was_interrupted=*/true), HasSubstr("│  Interrupted. "));
    EXPECT_THAT(message_box("half\n", /*was_interrupted=*/true), Not(HasSubstr("Interrupted")));
}

TEST(TuiMessageBox, RemovesWhatWouldDriveTheTerminal) {
    const std::string frame = message_box("a\033[2Jb\033]0;title\007c");
    EXPECT_THAT(frame, HasSubstr("│  abc "));
}

TEST(TuiMessageBox, AnyKeyClosesIt) {
    for (const char *key : {"x", "\r", "\033", "\033[A", "\033[15~"}) {
        const child_result child = run_with_steps({"", key, "end"}, [] {
            tui_screen page;
            tui_message_box(&page, "Result", result_of("text"));
            tui_message_box(&page, "Second", result_of("text"));
        });
        EXPECT_THAT(last_frame(child.out), HasSubstr("┌─ Second ─")) << key;
    }
}

TEST(TuiMessageBox, ATimeOutDoesNotCloseIt) {
    static int terminal;
    static volatile sig_atomic_t was_typed;
    const child_result child = run_in_child([] {
        const typed_bytes nothing("", /*stays_open=*/true);
        tui.input.fd = nothing.reader.get();
        terminal = nothing.writer.get();
        interrupt_calls([] { // the wait has timed out twice by now
            was_typed = write(terminal, "x", 1) == 1 ? 1 : 0;
        });
        tui_screen page;
        tui_message_box(&page, "Result", result_of("text"));
        return was_typed != 0 ? 0 : 1;
    });
    EXPECT_EQ(child.exit_status, 0);
}

// ---- Acting on one message ----------------------------------------------------------------

TEST(TuiRemindDialog, CountsWhoHasNotConfirmed) {
    const auto frame = [](int delivered) {
        return shown(
            [&](tui_screen *page) { tui_remind_dialog(page, summary_of("", 0, delivered)); });
    };
    EXPECT_THAT(frame(1), HasSubstr("│  1 recipient has not confirmed yet. "));
    EXPECT_THAT(frame(2), HasSubstr("│  2 recipients have not confirmed yet. "));
    EXPECT_THAT(frame(2), HasSubstr("┌─ Remind message 7? ─"));
    EXPECT_THAT(frame(2), HasSubstr("│  They are asked again now: at the next prompt "));
    EXPECT_THAT(frame(2), HasSubstr("│  and with the dialog on the desktop. "));
}

TEST(TuiRemindDialog, ShowsWhatTheCommandSays) {
    const scratch_state state;
    const child_result child = run_with_steps({"", "y"}, [] {
        tui_screen page;
        tui_remind_dialog(&page, summary_of("", 0, 1));
    });
    EXPECT_THAT(last_frame(child.out), HasSubstr("│  tbx: no such message: 7 "));
    EXPECT_THAT(last_frame(child.out), HasSubstr("┌─ Remind message 7? ─"));
}

TEST(TuiRevokeDialog, NamesTheMessageAndWhereItIs) {
    const auto frame = [](const std::string &title) {
        return shown([&](tui_screen *page) { tui_revoke_dialog(page, summary_of(title, 1, 2)); });
    };
    EXPECT_THAT(frame("Notice"), HasSubstr("│  «Notice» · 1 confirmed · 2 delivered "));
    EXPECT_THAT(frame(""), HasSubstr("│  «no title» · 1 confirmed · 2 delivered "));
    EXPECT_THAT(frame(""), HasSubstr("┌─ Revoke message 7? ─"));
    EXPECT_THAT(frame(""), HasSubstr("│  Whoever has not seen it yet will not see it; "));
    EXPECT_THAT(frame(""), HasSubstr("│  open dialogs and questions close by themselves. "));
}

TEST(TuiRevokeDialog, DoesNothingWithoutAYes) {
    const scratch_state state;
    const child_result child = run_with_steps({"", "n"}, [] {
        tui_screen page;
        tui_revoke_dialog(&page, summary_of("", 0, 1));
    });
    EXPECT_THAT(last_frame(child.out), Not(HasSubstr("no such message")));
}

// ---- The list's own dialogs ---------------------------------------------------------------

TEST(SearchDialog, ReplacesTheTextOnceConfirmed) {
    const auto searched = [](std::string_view keys) {
        const child_result child = run_with_keys(keys, [] {
            tui_screen page;
            std::string text = "old";
            const bool changed = search_dialog(&page, &text);
            fprintf(stderr, "%s %d", text.c_str(), changed ? 1 : 0);
        });
        return child.err;
    };
    EXPECT_EQ(searched("er\r"), "older 1");
    EXPECT_EQ(searched("\r"), "old 1");
    EXPECT_EQ(searched("er\033"), "old 0");
    EXPECT_EQ(searched("\x7f\x7f\x7f\r"), " 1");
}

TEST(PurgeDialog, AsksWithTheAgeAsItWasTyped) {
    const std::string output = run_with_keys("\r", [] {
                                   tui_screen page;
                                   purge_dialog(&page);
                               }).out;
    EXPECT_THAT(last_frame(output), HasSubstr("┌─ Delete old messages? ─"));
    EXPECT_THAT(last_frame(output),
                HasSubstr("│  Messages older than 90d, with copies and confirmations. "));
    EXPECT_THAT(last_frame(output), HasSubstr("│  The events stay in the system log. "));
}

TEST(PurgeDialog, ShowsWhatTheCommandSays) {
    const scratch_state state;
    const child_result child = run_with_steps({"x\r", "y"}, [] {
        tui_screen page;
        purge_dialog(&page);
    });
    EXPECT_THAT(last_frame(child.out), HasSubstr("┌─ Delete old messages ─"));
    EXPECT_THAT(last_frame(child.out), HasSubstr("│  tbx: invalid duration: 90dx"));
}

TEST(KeysDialog, TellsEightKeys) {
    const scratch_screen screen(80, 24);
    const std::string frame = shown([](tui_screen *page) { keys_dialog(page); });
    EXPECT_THAT(frame, HasSubstr("┌─ Keys ─"));
    for (const char *line :
         {"↑ ↓ PgUp PgDn   move through the list",
          "Enter           open the message: recipients and history",
          "n               write and send a new message",
          "r               revoke the selected message",
          "m               remind whoever has not confirmed", "p               delete old messages",
          "/               search the messages by text or title", "q               quit",
          "The list updates by itself every 3 seconds.", "The complete guide: tbx --help.",
          "any key to continue"})
        EXPECT_THAT(frame, HasSubstr(std::string("│  ") + line + " "));
}
