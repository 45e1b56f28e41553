#include "tbx/tui/compose_editor.h"

#include "tui_support.h"

#include <gmock/gmock.h>

#include <sys/stat.h>

#include <csignal>
#include <filesystem>

using testing::HasSubstr;
using testing::StartsWith;

namespace {

bool is_regular(const std::string &path) {
    return std::filesystem::symlink_status(path).type() == std::filesystem::file_type::regular;
}

constexpr const char *NOBODY = "nobody"; // on every system, and able to run an editor

// An editor that runs `script` in a shell, with the path of the text as $1.
struct scripted_editor {
    explicit scripted_editor(const std::string &script) {
        directory.write("editor", "#!/bin/sh\n" + script + "\n");
        const auto everyone = std::filesystem::perms(0755);
        std::filesystem::permissions(directory.path("editor"), everyone);
        std::filesystem::permissions(directory.path(), everyone);
    }
    [[nodiscard]] std::string path() const { return directory.path("editor"); }
    scratch_directory directory;
};

struct edit_options {
    const char *visual = nullptr;
    const char *editor = nullptr;
    const char *sudo_user = nullptr;
    const char *search_path = "/usr/bin:/bin";
    void (*prepare)() = [] {}; // runs in the child, right before
};

struct edited {
    std::string text;   // that came back when "old\ntext" was edited
    std::string output; // what was written to the terminal
    edit_end end;
    std::string kept; // what is in the file that was kept, which is removed
};

edited edit(const edit_options &options) {
    const scratch_directory results;
    const child_result child = run_in_child([&] {
        const environment_variable visual("VISUAL", options.visual);
        const environment_variable editor("EDITOR", options.editor);
        const environment_variable user("SUDO_USER", options.sudo_user);
        const environment_variable path("PATH", options.search_path);
        compose_form form;
        form.text.lines = {"old", "text"};
        options.prepare();
        const edit_result result = compose_edit_external(&form);
        results.write("end", std::to_string(static_cast<int>(result.end)));
        results.write("text", compose_text_joined(form.text));
        results.write("kept", result.kept.empty() || !is_regular(result.kept)
                                  ? result.kept
                                  : read_file(result.kept));
        if (!result.kept.empty())
            std::filesystem::remove(result.kept);
    });
    return {results.read("text"), child.out, static_cast<edit_end>(std::stoi(results.read("end"))),
            results.read("kept")};
}

edited edit_by(const std::string &script, const char *sudo_user = nullptr) {
    const scripted_editor editor(script);
    return edit({.visual = editor.path().c_str(), .sudo_user = sudo_user});
}

std::string edited_by(const std::string &script, const char *sudo_user = nullptr) {
    return edit_by(script, sudo_user).text;
}

// Which of the two keys' signals a process ignores, from its file in /proc.
std::string ignored_in(const std::string &status) {
    constexpr std::string_view FIELD = "SigIgn:";
    const size_t at = status.find(FIELD) + FIELD.size();
    const auto mask = strtoull(status.c_str() + at, nullptr, 16);
    std::string names;
    for (const int number : {SIGINT, SIGTSTP})
        if ((mask >> (number - 1) & 1) != 0)
            names += std::string(sigabbrev_np(number)) + " ";
    return names;
}

constexpr const char *UNCHANGED = "old\ntext";

// Edits the text in a child that `limit` leaves too little to hand it over. Gives what was written
// to the terminal.
std::string expect_unchanged_text(void (*limit)()) {
    const child_result child = run_in_child([limit] {
        limit();
        compose_form form;
        form.text.lines = {"old", "text"};
        const bool has_run = compose_edit_external(&form).end != edit_end::not_started;
        return !has_run && compose_text_joined(form.text) == UNCHANGED ? 10 : 20;
    });
    EXPECT_EQ(child.exit_status, 10);
    return child.out;
}

} // namespace

// ---- Which editor -------------------------------------------------------------------------

TEST(ComposeEditor, TakesOverWhatWasWritten) {
    EXPECT_EQ(edited_by("printf 'new\\nlines\\n' >\"$1\""), "new\nlines");
}

TEST(ComposeEditor, GivesTheTextWithAFinalNewline) {
    EXPECT_EQ(edited_by("od -An -c \"$1\" | tr -d ' ' >\"$1.out\"; cat \"$1.out\" >\"$1\"; "
                        "rm \"$1.out\""),
              "old\\ntext\\n");
}

TEST(ComposeEditor, MayCarryArguments) {
    const scripted_editor editor("printf '%s,' \"$@\" >\"$2\"");
    EXPECT_THAT(edit({.visual = (editor.path() + " -x").c_str()}).text,
                HasSubstr("-x,/tmp/tellbox-testo-"));
}

TEST(ComposeEditor, VisualComesBeforeEditor) {
    const scripted_editor visual("echo visual >\"$1\"");
    const scripted_editor editor("echo editor >\"$1\"");
    EXPECT_EQ(edit({.visual = visual.path().c_str(), .editor = editor.path().c_str()}).text,
              "visual");
    EXPECT_EQ(edit({.visual = "", .editor = editor.path().c_str()}).text, "editor");
    EXPECT_EQ(edit({.editor = editor.path().c_str()}).text, "editor");
}

TEST(ComposeEditor, WithNoneSetIsNanoElseVi) {
    const scratch_directory programs;
    const auto install = [&](const std::string &name) {
        programs.write(name, "#!/bin/sh\necho " + name + " >\"$1\"\n");
        std::filesystem::permissions(programs.path(name), std::filesystem::perms(0755));
    };
    install("vi");
    EXPECT_EQ(edit({.search_path = programs.path().c_str()}).text, "vi");
    install("nano");
    EXPECT_EQ(edit({.visual = "", .editor = "", .search_path = programs.path().c_str()}).text,
              "nano");
}

TEST(ComposeEditor, ThatCannotBeStartedLeavesTheText) {
    EXPECT_EQ(edit({.visual = "/nowhere/editor"}).text, UNCHANGED);
    EXPECT_EQ(edit({.search_path = "/nowhere"}).text, UNCHANGED);
}

TEST(ComposeEditor, IsNotStartedOnHalfAText) {
    const scripted_editor editor("echo started >>\"$0.started\"; echo new >\"$1\"");
    const environment_variable visual("VISUAL", editor.path().c_str());
    expect_unchanged_text([] { limit_files(3); });
    EXPECT_FALSE(editor.directory.exists("editor.started"));
}

TEST(ComposeEditor, WithoutProcessesLeavesTheText) {
    const scripted_editor editor("echo new >\"$1\"");
    const edited result =
        edit({.visual = editor.path().c_str(), .prepare = [] { refuse_call(SYS_clone, EAGAIN); }});
    EXPECT_EQ(result.text, UNCHANGED);
}

TEST(ComposeEditor, WithoutDescriptorsLeavesTheText) {
    EXPECT_EQ(expect_unchanged_text([] { leave_descriptors(0); }), ""); // stays on the screen
}

TEST(ComposeEditor, WhoseStatusNobodyTellsIsWaitedFor) {
    const scripted_editor editor("echo new >\"$1\"");
    const edited result =
        edit({.visual = editor.path().c_str(), .prepare = [] { signal(SIGCHLD, SIG_IGN); }});
    EXPECT_EQ(result.text, "new");
}

// ---- As whom ------------------------------------------------------------------------------

TEST(ComposeEditor, RunsAsTheUserWhoCalledSudo) {
    SKIP_UNLESS_ROOT();
    EXPECT_EQ(
        edited_by("stat -c %U \"$1\" >\"$1.out\" && id -un >\"$1\" && cat \"$1.out\" >>\"$1\"; "
                  "rm \"$1.out\"",
                  NOBODY),
        "nobody\nnobody");
}

TEST(ComposeEditor, IsNotStartedWhereItCannotBecomeThatUser) {
    SKIP_UNLESS_ROOT();
    const scripted_editor editor("echo new >\"$1\"");
    for (void (*refuse)() :
         {+[] { refuse_call(SYS_setgroups, EPERM); }, +[] { refuse_call(SYS_setresgid, EAGAIN); },
          +[] { refuse_call(SYS_setresuid, EAGAIN); }}) {
        const edited result =
            edit({.visual = editor.path().c_str(), .sudo_user = NOBODY, .prepare = refuse});
        EXPECT_EQ(result.text, UNCHANGED);
    }
}

TEST(ComposeEditor, DoesNotRunAsRootWhereTheFileCannotBeGivenAway) {
    SKIP_UNLESS_ROOT();
    const scripted_editor editor("id -un >\"$1\"");
    const edited result =
        edit({.visual = editor.path().c_str(), .sudo_user = NOBODY, .prepare = [] {
                  refuse_call(SYS_fchown, EPERM);
              }});
    EXPECT_EQ(result.text, UNCHANGED);
    EXPECT_EQ(result.end, edit_end::not_started);
}

TEST(ComposeEditor, RunsAsThisProcessWhenTheUserIsUnknown) {
    SKIP_UNLESS_ROOT();
    EXPECT_EQ(edited_by("id -un >\"$1\"", "no-such-user-here"), "root");
    EXPECT_EQ(edited_by("id -un >\"$1\"", ""), "root");
}

// ---- What comes back ----------------------------------------------------------------------

TEST(ComposeEditor, IsCutAtItsLimit) {
    const edited result =
        edit_by("head -c 131071 /dev/zero | tr '\\0' x >\"$1\"; printf yz >>\"$1\"");
    EXPECT_EQ(result.text, std::string(131'071, 'x') + "y");
    EXPECT_EQ(result.end, edit_end::cut);
    EXPECT_EQ(result.kept, std::string(131'071, 'x') + "yz");
    const edited fits = edit_by("head -c 131072 /dev/zero | tr '\\0' x >\"$1\"");
    EXPECT_EQ(fits.text, std::string(131'072, 'x'));
    EXPECT_EQ(fits.end, edit_end::taken);
}

TEST(ComposeEditor, ThatCannotBeStartedLeavesTheTextToTheLastNewline) {
    const child_result child = run_in_child([] {
        const environment_variable visual("VISUAL", "/nowhere/editor");
        compose_form form;
        form.text.lines = {std::string(200'000, 'x'), "", ""};
        const std::string before = compose_text_joined(form.text);
        const edit_result result = compose_edit_external(&form);
        return result.end == edit_end::not_started && result.kept.empty() &&
                       compose_text_joined(form.text) == before
                   ? 0
                   : 1;
    });
    EXPECT_EQ(child.exit_status, 0);
}

TEST(ComposeEditor, ThatEndsLikeOneThatIsMissingHasWrittenAllTheSame) {
    const edited result = edit_by("echo new >\"$1\"; exit 127");
    EXPECT_EQ(result.text, "new");
    EXPECT_EQ(result.end, edit_end::taken);
}

TEST(ComposeEditor, AFileThatWasReplacedByAnotherOfTheUsersCounts) {
    EXPECT_EQ(edited_by("echo new >\"$1.new\" && mv \"$1.new\" \"$1\""), "new");
}

TEST(ComposeEditor, AnEmptyFileIsAnEmptyText) {
    EXPECT_EQ(edited_by(": >\"$1\""), "");
}

TEST(ComposeEditor, AFileThatIsGoneLeavesTheText) {
    const edited result = edit_by("rm \"$1\"");
    EXPECT_EQ(result.text, UNCHANGED);
    EXPECT_EQ(result.end, edit_end::no_file);
}

TEST(ComposeEditor, ALinkInItsPlaceIsNotFollowed) {
    EXPECT_EQ(edited_by("ln -sf /etc/hostname \"$1\""), UNCHANGED);
}

TEST(ComposeEditor, AFileWithASecondLinkLeavesTheText) {
    const edited result = edit_by("echo new >\"$1\"; ln \"$1\" \"$0.link\"");
    EXPECT_EQ(result.text, UNCHANGED);
    EXPECT_EQ(result.end, edit_end::not_read);
    EXPECT_EQ(result.kept, "new\n");
}

TEST(ComposeEditor, APipeInItsPlaceDoesNotBlock) {
    EXPECT_EQ(edited_by("rm \"$1\"; mkfifo \"$1\""), UNCHANGED);
}

TEST(ComposeEditor, AFileOfSomebodyElseLeavesTheText) {
    SKIP_UNLESS_ROOT();
    EXPECT_EQ(edited_by("echo new >\"$1\"; chown nobody \"$1\""), UNCHANGED);
}

TEST(ComposeEditor, LeavesNoFile) {
    const std::string path = edited_by("echo \"$1\" >\"$1\"");
    EXPECT_THAT(path, StartsWith("/tmp/tellbox-testo-"));
    EXPECT_FALSE(path_exists(path.c_str()));
}

// ---- Signals ------------------------------------------------------------------------------

TEST(ComposeEditor, GoesOnWhenItIsStopped) {
    EXPECT_EQ(edited_by("kill -TSTP $$; echo on >\"$1\""), "on");
}

TEST(ComposeEditor, CtrlCAndCtrlZReachItAndNotTheInterface) {
    EXPECT_EQ(ignored_in(edited_by("cat /proc/$$/status >\"$1\"")), "");
    EXPECT_EQ(ignored_in(edited_by("cat /proc/$PPID/status >\"$1\"")), "INT TSTP ");
}

// ---- The terminal -------------------------------------------------------------------------

TEST(ComposeEditor, GetsTheTerminalAsItWas) {
    const scripted_editor editor("printf editor; echo new >\"$1\"");
    EXPECT_EQ(edit({.visual = editor.path().c_str()}).output,
              "\033[?2004l\033[?25h\033[?1049leditor\033[?1049h\033[?25l\033[?2004h");
}
