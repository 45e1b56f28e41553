#include "tbx/tui/compose.h"

#include "tui_support.h"

#include <gmock/gmock.h>

using testing::HasSubstr;
using testing::Not;

namespace {

constexpr const char *CTRL_S = "\x13";

// The screen once `keys` are typed into a new form, in an empty store.
std::string screen_after(const std::string &keys) {
    const scratch_state state;
    return last_frame(run_with_keys(keys, compose_page).out);
}

// The last dialog over it; empty for none.
std::string dialog_after(const std::string &keys) {
    const scratch_state state;
    return last_dialog(run_with_keys(keys, compose_page).out);
}

constexpr const char *NO_SUCH_USER = "no-such-user-here";

} // namespace

// ---- Recipients ---------------------------------------------------------------------------

TEST(ComposePreview, CountsTheRecipientsOnceToIsLeft) {
    EXPECT_THAT(screen_after("root"), HasSubstr("user, @group, all or online"));
    for (const char *key : {"\t", "\r", "\033[B", "\033[Z"})
        EXPECT_THAT(screen_after(std::string("root") + key),
                    HasSubstr("│               1 recipient "));
    EXPECT_THAT(screen_after("root,nobody\t"), HasSubstr("│               2 recipients "));
}

TEST(ComposePreview, TellsWhyNobodyIsReached) {
    EXPECT_THAT(screen_after(std::string(NO_SUCH_USER) + "\t"),
                HasSubstr("│               tbx: no such user: no-such-user-here "));
}

TEST(ComposePreview, IsGoneWhenToIsEmpty) {
    EXPECT_THAT(screen_after("root\t\033[A\x7f\x7f\x7f\x7f\t"),
                HasSubstr("user, @group, all or online"));
}

// ---- Abandoning ---------------------------------------------------------------------------

TEST(ComposePage, IsLeftWithoutAQuestionWhileEmpty) {
    const typed_bytes typed("\033", /*stays_open=*/true);
    const child_result child = run_in_child([&] {
        tui.input.fd = typed.reader.get();
        compose_page(); // or this waits for ever
    });
    EXPECT_EQ(child.exit_status, 0);
    EXPECT_THAT(child.out, Not(HasSubstr("Discard")));
}

TEST(ComposePage, AsksBeforeWhatIsWrittenIsLost) {
    const std::string frame = dialog_after("x\033");
    EXPECT_THAT(frame, HasSubstr("┌─ Discard the message? ─"));
    EXPECT_THAT(frame, HasSubstr("│  The message you are writing will be lost. "));
}

TEST(ComposePage, EndsWhenTheTerminalIsGone) {
    EXPECT_EQ(run_with_keys("written", compose_page).exit_status, 0);
}

// ---- Sending ------------------------------------------------------------------------------

TEST(ComposeSend, ShowsWhatWillBeSent) {
    const std::string frame = dialog_after(std::string("root\tNotice\t2h\tHello\rthere") + CTRL_S);
    EXPECT_THAT(frame, HasSubstr("┌─ Send the message? ─"));
    EXPECT_THAT(frame, HasSubstr("│  To: root (1 recipient) "));
    EXPECT_THAT(frame, HasSubstr("│  Title: Notice "));
    EXPECT_THAT(frame, HasSubstr("│  Expires: 2h "));
    EXPECT_THAT(frame, HasSubstr("│  Text: 11 bytes "));
}

TEST(ComposeSend, LeavesOutWhatIsNotSet) {
    const std::string frame = dialog_after(std::string("root\t\t\tHello") + CTRL_S);
    EXPECT_THAT(frame, HasSubstr("┌─ Send the message? ─"));
    EXPECT_THAT(frame, Not(HasSubstr("│  Title: ")));
    EXPECT_THAT(frame, Not(HasSubstr("│  Expires: ")));
}

TEST(ComposeSend, AFailureKeepsTheForm) {
    const std::string typed = std::string(NO_SUCH_USER) + "\tNotice\t\tHello" + CTRL_S + "y";
    const std::string frame = dialog_after(typed);
    EXPECT_THAT(frame, HasSubstr("┌─ Sending result ─"));
    EXPECT_THAT(frame, HasSubstr("│  tbx: no such user: no-such-user-here "));
    const std::string after = screen_after(typed + "x");
    EXPECT_THAT(after, HasSubstr("[ no-such-user-here "));
    EXPECT_THAT(after, HasSubstr("[ Notice "));
    EXPECT_THAT(after, HasSubstr("│ Hello "));
}

TEST(ComposeSend, ANoKeepsTheForm) {
    EXPECT_THAT(screen_after(std::string("root\t\t\tHello") + CTRL_S + "n"), HasSubstr("│ Hello "));
}

TEST(ComposeSend, SendsTheFieldsAndTheText) {
    const scratch_state state;
    const std::string keys = std::string("root\tNotice\t2h\tHello\r\"there\"") + CTRL_S + "y";
    const child_result child = run_with_keys(keys, compose_page);
    EXPECT_THAT(last_frame(child.out), HasSubstr("┌─ Message sent ─"));
    EXPECT_THAT(last_frame(child.out), HasSubstr("│  Message 1 sent to 1 user. "));
    EXPECT_EQ(state.read("sent/1/recipients"), "root\n");
    EXPECT_THAT(state.read("sent/1/msg"), HasSubstr("\ntitle: Notice\nexpires: 1"));
    EXPECT_THAT(state.read("sent/1/msg"), HasSubstr("\n\nHello\n\"there\"\n"));
}
