#include "tbx/tui/detail.h"

#include "tui_support.h"

#include <gmock/gmock.h>

using testing::HasSubstr;
using testing::Not;

namespace {

// The view of message 7 once `keys` are typed.
std::string view_after(std::string_view keys) {
    const environment_variable zone("TZ", "UTC");
    return last_frame(run_with_keys(keys, [] { detail_view(7); }).out);
}

// The dialog that `keys` open over it; empty for none.
std::string dialog_after(std::string_view keys) {
    return last_dialog(run_with_keys(keys, [] { detail_view(7); }).out);
}

// The view of a message with this text.
std::string view_of_text(const std::string &text) {
    const scratch_state state;
    add_message(state, 7, "Title", text);
    return view_after("");
}

std::string numbered_lines(int count) {
    std::string text;
    for (int i = 1; i <= count; i++)
        text += "line " + std::to_string(i) + "\n";
    return text;
}

// A store with message 7 for `count` recipients, none of whom has it.
void add_message_for(const scratch_state &state, int count) {
    add_message(state, 7, "", "text\n");
    std::string names;
    for (int i = 0; i < count; i++)
        names += "user" + std::to_string(i) + "\n";
    state.write("sent/7/recipients", names);
}

} // namespace

// ---- Facts and text -----------------------------------------------------------------------

TEST(DetailView, ShowsTheFacts) {
    const scratch_state state;
    add_message(state, 7, "Title", "The text\n");
    const std::string frame = view_after("");
    EXPECT_THAT(frame, HasSubstr("┌─ Message 7 · Title ─"));
    EXPECT_THAT(frame, HasSubstr("│  Title · 01/01 00:00 · from pat  "));
    EXPECT_THAT(frame, HasSubstr("│  │ The text  "));
    EXPECT_THAT(frame, HasSubstr("│   Recipients (1)   History     ▒▒▒▒▒▒▒▒▒▒▒▒  1 delivered  "));
    EXPECT_THAT(frame, HasSubstr("│  USER          STATE  "));
    EXPECT_THAT(frame, HasSubstr("│  root          delivered  "));
    EXPECT_THAT(
        frame,
        HasSubstr("│ Tab recipients/history   ↑/↓ scroll   m remind   r revoke   Esc back "));
}

TEST(DetailView, WithoutATitleSaysSo) {
    const scratch_state state;
    add_message(state, 7, "", "text\n");
    const std::string frame = view_after("");
    EXPECT_THAT(frame, HasSubstr("┌─ Message 7 ─"));
    EXPECT_THAT(frame, HasSubstr("│  no title · "));
}

TEST(DetailView, TellsExpiryAndRevocation) {
    const scratch_state state;
    const scratch_screen screen(100, 24);
    add_message(state, 7, "", "text\n");
    state.write("sent/7/msg",
                "format: 1\nid: 7\nfrom: pat\ndate: 7\ntitle: \nexpires: 60\n\ntext\n");
    state.write("sent/7/revoked", "120\n");
    EXPECT_THAT(view_after(""), HasSubstr(" · expired on 01/01 00:01 · revoked on 01/01 00:02 "));
}

TEST(DetailView, TellsWhenItWillExpire) {
    const scratch_state state;
    add_message(state, 7, "", "text\n");
    state.write("sent/7/msg",
                "format: 1\nid: 7\nfrom: pat\ndate: 7\ntitle: \nexpires: 4102444800\n\ntext\n");
    EXPECT_THAT(view_after(""), HasSubstr(" · expires on 01/01 00:00 "));
}

TEST(DetailView, ShowsSixLinesOfText) {
    const std::string frame = view_of_text(numbered_lines(6));
    EXPECT_THAT(frame, HasSubstr("│  │ line 6 "));
    EXPECT_THAT(frame, Not(HasSubstr("…")));
}

TEST(DetailView, OfSevenLinesShowsFive) {
    const std::string frame = view_of_text(numbered_lines(7));
    EXPECT_THAT(frame, HasSubstr("│  │ line 5 "));
    EXPECT_THAT(frame, Not(HasSubstr("line 6")));
    EXPECT_THAT(frame, HasSubstr("│  │ … "));
    EXPECT_THAT(view_of_text(numbered_lines(5) + "\n\n"), HasSubstr("│  │ line 5 "));
    EXPECT_THAT(view_of_text(numbered_lines(5) + "\n\n"), HasSubstr("│  │ … "));
}

TEST(DetailView, WrapsTheTextToTheScreen) {
    EXPECT_THAT(view_of_text(std::string(73, 'x') + "\n"),
                HasSubstr("│  │ " + std::string(72, 'x') + "  │\n│  │ x "));
}

// ---- Tabs and scrolling -------------------------------------------------------------------

TEST(DetailView, TabShowsTheHistory) {
    const scratch_state state;
    add_message(state, 7, "", "text\n");
    EXPECT_THAT(view_after("\t"), HasSubstr("│  No events in the system log. "));
    EXPECT_THAT(view_after("\033[Z"), HasSubstr("│  No events in the system log. "));
    EXPECT_THAT(view_after("\t\t"), HasSubstr("│  root          delivered  "));
}

TEST(DetailView, ScrollsThroughTheRecipients) {
    const scratch_state state;
    const scratch_screen screen(80, 20); // ten recipients fit
    add_message_for(state, 30);
    EXPECT_THAT(view_after("\033[B"), HasSubstr("STATE" + std::string(57, ' ') + "│\n│  user1 "));
    EXPECT_THAT(view_after("\033[6~"), HasSubstr("STATE" + std::string(57, ' ') + "│\n│  user10 "));
    EXPECT_THAT(view_after("\033[6~\033[5~\033[B"),
                HasSubstr("STATE" + std::string(57, ' ') + "│\n│  user1 "));
}

TEST(DetailView, DoesNotScrollPastEitherEnd) {
    const scratch_state state;
    const scratch_screen screen(80, 20);
    add_message_for(state, 30);
    const auto begins_with = [](const std::string &user) {
        return HasSubstr("STATE" + std::string(57, ' ') + "│\n│  " + user + " ");
    };
    EXPECT_THAT(view_after("\033[A"), begins_with("user0"));
    EXPECT_THAT(view_after("\033[A\033[A\033[B"), begins_with("user1"));
    EXPECT_THAT(view_after("\033[B\033[5~"), begins_with("user0"));
    EXPECT_THAT(view_after("\033[6~\033[6~\033[6~"), HasSubstr("│  user29 "));
    EXPECT_THAT(view_after("\033[6~\033[6~\033[6~"), begins_with("user20"));
    EXPECT_THAT(view_after("\033[6~\033[6~\033[6~\033[A"), begins_with("user19"));
    EXPECT_THAT(view_after("\033[6~\033[6~\033[6~\033[5~"), begins_with("user10"));
}

TEST(DetailView, CutsALongUserName) {
    const scratch_state state;
    add_message(state, 7, "", "text\n");
    state.write("sent/7/recipients", "a-very-long-user-name\n");
    EXPECT_THAT(view_after(""), HasSubstr("│  a-very-long-u sent, not delivered "));
}

// ---- Keys ---------------------------------------------------------------------------------

TEST(DetailView, RemindsOnlyWhomThereIsToRemind) {
    const scratch_state state;
    add_message(state, 7, "", "text\n");
    EXPECT_THAT(dialog_after("m"), HasSubstr("┌─ Remind message 7? ─"));
    state.write("sent/7/msg",
                "format: 1\nid: 7\nfrom: pat\ndate: 7\ntitle: \nexpires: 60\n\ntext\n");
    EXPECT_EQ(dialog_after("m"), "");
    add_message_for(state, 1);
    EXPECT_EQ(dialog_after("m"), "");
}

TEST(DetailView, RevokesWhatIsNotRevoked) {
    const scratch_state state;
    add_message(state, 7, "", "text\n");
    state.write("sent/7/msg",
                "format: 1\nid: 7\nfrom: pat\ndate: 7\ntitle: \nexpires: 60\n\ntext\n");
    EXPECT_THAT(dialog_after("r"), HasSubstr("┌─ Revoke message 7? ─"));
    state.write("sent/7/revoked", "120\n");
    EXPECT_EQ(dialog_after("r"), "");
    EXPECT_EQ(dialog_after("m"), "");
}

TEST(DetailView, IsLeftByQAndEscAndWhenTheTerminalIsGone) {
    const scratch_state state;
    add_message(state, 7, "", "text\n");
    for (const char *keys : {"q", "\033", ""}) {
        const child_result child = run_with_keys(keys, [] { detail_view(7); });
        EXPECT_EQ(child.exit_status, 0) << keys;
    }
    EXPECT_THAT(view_after("Q"), HasSubstr("Message 7"));
}

TEST(DetailView, OfAMessageThatIsGoneIsLeftAtOnce) {
    const scratch_state state;
    EXPECT_EQ(run_with_keys("", [] { detail_view(7); }).out, "");
}

TEST(DetailView, AMessageThatGoesWhileShownIsLeftAtTheNextReload) {
    const scratch_state state;
    add_message(state, 7, "", "text\n");
    const child_result child = run_in_child([&] {
        const typed_bytes typed("", /*stays_open=*/true);
        tui.input.fd = typed.reader.get();
        const bystander purger([&] {
            while (lseek(STDOUT_FILENO, 0, SEEK_CUR) == 0)
                usleep(1000); // until the view is shown, which nothing tells
            std::filesystem::remove(state.path("sent/7/recipients"));
            typed.type("\t");
        });
        detail_view(7); // or this waits for ever
    });
    EXPECT_EQ(child.exit_status, 0);
    EXPECT_THAT(last_frame(child.out), HasSubstr("Message 7"));
}
