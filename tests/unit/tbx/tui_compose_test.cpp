#include "tbx/tui/compose.h"

#include "tui_support.h"

#include <gmock/gmock.h>

using testing::HasSubstr;
using testing::Not;

namespace {

constexpr const char *CTRL_S = "\x13";

using steps = std::vector<std::string>;

// Runs a new form, in an empty store.
child_result form_after(const steps &keys) {
    const scratch_state state;
    return run_with_steps(keys, [] { fprintf(stderr, "%s", compose_page().text.c_str()); });
}

// The screen once these keys are typed, each step but the first at one more dialog.
std::string screen_after(const steps &keys) {
    return last_frame(form_after(keys).out);
}

// The last dialog over it; empty for none.
std::string dialog_after(const steps &keys) {
    return last_dialog(form_after(keys).out);
}

constexpr const char *NO_SUCH_USER = "no-such-user-here";

} // namespace

// ---- Recipients ---------------------------------------------------------------------------

TEST(ComposePreview, CountsTheRecipientsOnceToIsLeft) {
    EXPECT_THAT(screen_after({"root"}), HasSubstr("user, @group, all or online"));
    for (const char *key : {"\t", "\r", "\033[B", "\033[Z"})
        EXPECT_THAT(screen_after({std::string("root") + key}),
                    HasSubstr("│               1 recipient "));
    EXPECT_THAT(screen_after({"root,nobody\t"}), HasSubstr("│               2 recipients "));
}

TEST(ComposePreview, TellsWhyNobodyIsReached) {
    EXPECT_THAT(screen_after({std::string(NO_SUCH_USER) + "\t"}),
                HasSubstr("│               tbx: no such user: no-such-user-here "));
}

TEST(ComposePreview, IsGoneWhenToIsEmpty) {
    EXPECT_THAT(screen_after({"root\t\033[A\x7f\x7f\x7f\x7f\t"}),
                HasSubstr("user, @group, all or online"));
}

// ---- Abandoning ---------------------------------------------------------------------------

TEST(ComposePage, IsLeftWithoutAQuestionWhileEmpty) {
    const typed_bytes typed("\033", /*stays_open=*/true);
    const child_result child = run_in_child([&] {
        tui.input.fd = typed.reader.get();
        return compose_page().text.empty() ? 0 : 1; // or this waits for ever
    });
    EXPECT_EQ(child.exit_status, 0);
    EXPECT_THAT(child.out, Not(HasSubstr("Discard")));
}

TEST(ComposePage, AsksBeforeWhatIsWrittenIsLost) {
    const std::string frame = dialog_after({"x\033"});
    EXPECT_THAT(frame, HasSubstr("┌─ Discard the message? ─"));
    EXPECT_THAT(frame, HasSubstr("│  The message you are writing will be lost. "));
}

TEST(ComposePage, EndsWhenTheTerminalIsGone) {
    EXPECT_EQ(form_after({"written"}).exit_status, 0);
}

TEST(ComposePage, KeepsTheTextWhenTheTerminalIsGone) {
    const scratch_state state;
    const child_result child = run_with_keys("root\tTitle\t\tone\rtwo", [] {
        const std::string farewell = compose_keep(compose_page()).at(0);
        const std::string path = farewell.substr(farewell.rfind(' ') + 1);
        struct stat status = {};
        stat(path.c_str(), &status);
        fprintf(stderr, "%s|%o|%s", farewell.c_str(), status.st_mode & 0777U,
                read_file(path).c_str());
        unlink(path.c_str());
    });
    EXPECT_THAT(child.err, testing::MatchesRegex("the text of the new message is kept in "
                                                 "/tmp/tellbox-testo-.{6}\\|600\\|one\ntwo\n"));
}

TEST(ComposePage, KeepsNothingWithoutAText) {
    EXPECT_EQ(form_after({"root\tTitle"}).err, "");
    EXPECT_EQ(form_after({"\t\t\ttext\033", "y"}).err, "");
}

// ---- Sending ------------------------------------------------------------------------------

TEST(ComposeSend, ShowsWhatWillBeSent) {
    const std::string frame =
        dialog_after({std::string("root\tNotice\t2h\tHello\rthere") + CTRL_S});
    EXPECT_THAT(frame, HasSubstr("┌─ Send the message? ─"));
    EXPECT_THAT(frame, HasSubstr("│  To: root (1 recipient) "));
    EXPECT_THAT(frame, HasSubstr("│  Title: Notice "));
    EXPECT_THAT(frame, HasSubstr("│  Expires: 2h "));
    EXPECT_THAT(frame, HasSubstr("│  Text: 11 bytes "));
}

TEST(ComposeSend, LeavesOutWhatIsNotSet) {
    const std::string frame = dialog_after({std::string("root\t\t\tHello") + CTRL_S});
    EXPECT_THAT(frame, HasSubstr("┌─ Send the message? ─"));
    EXPECT_THAT(frame, Not(HasSubstr("│  Title: ")));
    EXPECT_THAT(frame, Not(HasSubstr("│  Expires: ")));
}

TEST(ComposeSend, AFailureKeepsTheForm) {
    const std::string typed = std::string(NO_SUCH_USER) + "\tNotice\t\tHello" + CTRL_S;
    const std::string frame = dialog_after({typed, "y"});
    EXPECT_THAT(frame, HasSubstr("┌─ Sending result ─"));
    EXPECT_THAT(frame, HasSubstr("│  tbx: no such user: no-such-user-here "));
    const std::string after = screen_after({typed, "y", "x"});
    EXPECT_THAT(after, HasSubstr("[ no-such-user-here "));
    EXPECT_THAT(after, HasSubstr("[ Notice "));
    EXPECT_THAT(after, HasSubstr("│ Hello "));
}

TEST(ComposeSend, ANoKeepsTheForm) {
    EXPECT_THAT(screen_after({std::string("root\t\t\tHello") + CTRL_S, "n"}),
                HasSubstr("│ Hello "));
}

TEST(ComposeSend, SendsTheFieldsAndTheText) {
    const scratch_state state;
    const std::string keys = std::string("root\tNotice\t2h\tHello\r\"there\"") + CTRL_S;
    const child_result child =
        run_with_steps({keys, "y"}, [] { return compose_page().text.empty() ? 0 : 1; });
    EXPECT_EQ(child.exit_status, 0);
    EXPECT_THAT(last_frame(child.out), HasSubstr("┌─ Message sent ─"));
    EXPECT_THAT(last_frame(child.out), HasSubstr("│  Message 1 sent to 1 user. "));
    EXPECT_EQ(state.read("sent/1/recipients"), "root\n");
    EXPECT_THAT(state.read("sent/1/msg"), HasSubstr("\ntitle: Notice\nexpires: 1"));
    EXPECT_THAT(state.read("sent/1/msg"), HasSubstr("\n\nHello\n\"there\"\n"));
}
