#include "tbx/command.h"

#include "support.h"
#include "tbx/sent.h"

#include <unistd.h>

namespace {

// What a command given `argument` says before it ends the process.
child_result refusal_of(void (*command)(const char *), const char *argument) {
    return run_in_child([command, argument] { command(argument); });
}

void parse_and_ignore(const char *text) {
    printf("%lld", static_cast<long long>(parse_message_id(text)));
}

std::string refused_id(const char *text) {
    const child_result child = refusal_of(parse_and_ignore, text);
    EXPECT_EQ(child.exit_status, 1);
    EXPECT_EQ(child.out, "");
    return child.err;
}

// The author that a process of `uid` finds, on a machine with pat and sam.
std::string author_of(const char *sudo_user, uid_t uid,
                      const private_machine &machine = machine_of_pat_and_sam()) {
    const environment_variable variable("SUDO_USER", sudo_user);
    const child_result child = run_on(machine, [uid] {
        if (setuid(uid) != 0)
            throw_errno("setuid");
        fputs(current_author(), stdout);
    });
    EXPECT_EQ(child.exit_status, 0) << child.err;
    return child.out;
}

private_machine machine_with_user(const std::string &name) {
    private_machine machine = machine_of_pat_and_sam();
    machine.passwd += name + ":x:1003:1003::/:/bin/sh\n";
    return machine;
}

// The seconds of a duration, or -1.
int64_t duration(const char *text) {
    int64_t seconds = -1;
    return parse_duration(text, &seconds) ? seconds : -1;
}

} // namespace

// ---- Identifiers --------------------------------------------------------------------------

TEST(ParseMessageId, TakesAnIdentifier) {
    EXPECT_EQ(parse_message_id("12"), 12);
    EXPECT_EQ(parse_message_id("007"), 7);
    EXPECT_EQ(parse_message_id("999999999999999999"), 999'999'999'999'999'999);
}

TEST(ParseMessageId, AbsentOrEmptyIsMissing) {
    EXPECT_EQ(refused_id(nullptr), "tbx: missing message ID\n");
    EXPECT_EQ(refused_id(""), "tbx: missing message ID\n");
}

TEST(ParseMessageId, MalformedIsReportedLikeAnUnknownOne) {
    EXPECT_EQ(refused_id("abc"), "tbx: no such message: abc\n");
    EXPECT_EQ(refused_id("-1"), "tbx: no such message: -1\n");
    EXPECT_EQ(refused_id("+7"), "tbx: no such message: +7\n");
    EXPECT_EQ(refused_id("0x7"), "tbx: no such message: 0x7\n");
    EXPECT_EQ(refused_id("1 "), "tbx: no such message: 1 \n");
    EXPECT_EQ(refused_id("7/"), "tbx: no such message: 7/\n");
    EXPECT_EQ(refused_id(".."), "tbx: no such message: ..\n");
    EXPECT_EQ(refused_id("1000000000000000000"), "tbx: no such message: 1000000000000000000\n");
    EXPECT_EQ(refused_id("%s%n"), "tbx: no such message: %s%n\n");
}

// ---- Messages and markers -----------------------------------------------------------------

TEST(LoadMessageOrDie, GivesTheReferenceCopy) {
    const scratch_state state;
    state.write("sent/7/msg", "date: 5\ntitle: Reboot\n");
    EXPECT_EQ(load_message_or_die(7, "007").title, "Reboot");
}

TEST(LoadMessageOrDie, UnreadableCopyIsNoSuchMessage) {
    const scratch_state state;
    for (const char *text : {static_cast<const char *>(nullptr), "", "no date\n"}) {
        if (text != nullptr)
            state.write("sent/7/msg", text);
        const child_result child = run_in_child([] { (void)load_message_or_die(7, "007"); });
        EXPECT_EQ(child.exit_status, 1);
        EXPECT_EQ(child.err, "tbx: no such message: 007\n");
    }
}

TEST(LoadMessageOrDie, FailingReadSaysNothingOfTheMessage) {
    SKIP_UNLESS_ROOT();
    const scratch_state state;
    state.write("sent/7/msg", "date: 5\n");
    const child_result child = run_on(private_machine(), [] {
        make_unreadable(sent_path(7, "msg"));
        (void)load_message_or_die(7, "007");
    });
    EXPECT_EQ(child.exit_status, 1);
    EXPECT_EQ(child.err, "tbx: " + state.path("sent/7/msg") + ": Input/output error\n");
}

TEST(HasMarkerOrDie, TellsWhetherItIsThere) {
    const scratch_state state;
    state.write("sent/7/failed", "");
    EXPECT_TRUE(has_marker_or_die(7, "failed"));
    EXPECT_FALSE(has_marker_or_die(7, "revoked"));
    EXPECT_FALSE(has_marker_or_die(8, "failed"));
}

TEST(HasMarkerOrDie, EndsTheProcessWhereThatCannotBeTold) {
    const scratch_state state;
    std::filesystem::create_directory(state.path("sent"));
    std::filesystem::create_symlink("7", state.path("sent/7")); // leads nowhere else
    const child_result child = run_in_child([] { (void)has_marker_or_die(7, "failed"); });
    EXPECT_EQ(child.exit_status, 1);
    EXPECT_EQ(child.err,
              "tbx: " + state.path("sent/7/failed") + ": Too many levels of symbolic links\n");
}

// ---- The author ---------------------------------------------------------------------------

TEST(CurrentAuthor, IsWhoeverCalledSudo) {
    SKIP_UNLESS_ROOT();
    EXPECT_EQ(author_of("pat", 0), "pat");
}

TEST(CurrentAuthor, IsTheRealUserWithoutSudo) {
    SKIP_UNLESS_ROOT();
    EXPECT_EQ(author_of(nullptr, 0), "root");
    EXPECT_EQ(author_of("", 0), "root");
    EXPECT_EQ(author_of(nullptr, SAM_UID), "sam");
}

TEST(CurrentAuthor, IsTheRealUserWhenTheCallerOfSudoHasNoAccount) {
    SKIP_UNLESS_ROOT();
    EXPECT_EQ(author_of("deleted", 0), "root");
}

TEST(CurrentAuthor, IsTheRealUserAndNotTheEffectiveOne) {
    SKIP_UNLESS_ROOT();
    const environment_variable variable("SUDO_USER", nullptr);
    const child_result child = run_on(machine_of_pat_and_sam(), [] {
        if (setresuid(SAM_UID, 0, 0) != 0)
            throw_errno("setresuid");
        fputs(current_author(), stdout);
    });
    EXPECT_EQ(child.out, "sam");
}

TEST(CurrentAuthor, MayHaveSixtyThreeCharacters) {
    SKIP_UNLESS_ROOT();
    const std::string name(63, 'n');
    EXPECT_EQ(author_of(name.c_str(), 0, machine_with_user(name)), name);
}

TEST(CurrentAuthor, IsTheRealUserWhenTheCallersNameIsLonger) {
    SKIP_UNLESS_ROOT();
    const std::string name(64, 'n');
    EXPECT_EQ(author_of(name.c_str(), 0, machine_with_user(name)), "root");
}

TEST(CurrentAuthor, IsCutWhenTheRealUsersNameIsLonger) {
    SKIP_UNLESS_ROOT();
    EXPECT_EQ(author_of(nullptr, 1003, machine_with_user(std::string(64, 'n'))),
              std::string(63, 'n'));
}

TEST(CurrentAuthor, WithoutAnAccountIsAQuestionMark) {
    SKIP_UNLESS_ROOT();
    EXPECT_EQ(author_of(nullptr, 4242), "?");
}

TEST(CurrentAuthor, IsDeterminedAnewByEachCall) {
    SKIP_UNLESS_ROOT();
    const child_result child = run_on(machine_of_pat_and_sam(), [] {
        for (const char *name : {"pat", "sam", "x"}) {
            setenv("SUDO_USER", name, 1);
            printf("%s ", current_author());
        }
    });
    EXPECT_EQ(child.out, "pat sam root ");
}

// ---- Durations ----------------------------------------------------------------------------

TEST(ParseDuration, CountsMinutesHoursAndDays) {
    EXPECT_EQ(duration("30m"), 1800);
    EXPECT_EQ(duration("12h"), 43'200);
    EXPECT_EQ(duration("90d"), 7'776'000);
    EXPECT_EQ(duration("0m"), 0);
    EXPECT_EQ(duration("007d"), 604'800);
}

TEST(ParseDuration, WantsANumberAndOneUnit) {
    for (const char *text : {"", "d", "90", "90D", "90s", "90w", "-1d", "+1d", "1.5h", " 1d", "1d ",
                             "1 d", "dd", "1dd", "d1", "0x5d", "1d\n", "1000000000000000000d"})
        EXPECT_EQ(duration(text), -1) << text;
}

TEST(ParseDuration, TooLargeForTheClockIsTheLargest) {
    EXPECT_EQ(duration("999999999999999999d"), INT64_MAX);
    EXPECT_EQ(duration("999999999999999999h"), INT64_MAX);
    EXPECT_EQ(duration("106751991167300d"), 106'751'991'167'300 * 86'400); // the last that fits
    EXPECT_EQ(duration("106751991167301d"), INT64_MAX);
    EXPECT_EQ(duration("153722867280912930m"), 153'722'867'280'912'930 * 60);
    EXPECT_EQ(duration("153722867280912931m"), INT64_MAX);
}

TEST(ParseDuration, RefusedTextLeavesTheSecondsAlone) {
    int64_t seconds = 42;
    EXPECT_EQ(parse_duration("90", &seconds), 0);
    EXPECT_EQ(seconds, 42);
}

// ---- Refusals of the commands -------------------------------------------------------------

namespace {

using id_command = void (*)(const char *);
constexpr id_command ID_COMMANDS[] = {cmd_status, cmd_revoke, cmd_remind, cmd_log};

} // namespace

TEST(Commands, WantAnIdentifier) {
    const scratch_state state;
    for (const id_command command : ID_COMMANDS) {
        const child_result child = refusal_of(command, nullptr);
        EXPECT_EQ(child.exit_status, 1);
        EXPECT_EQ(child.err, "tbx: missing message ID\n");
    }
}

TEST(Commands, ReportAnUnknownMessageAsTyped) {
    const scratch_state state;
    for (const id_command command : ID_COMMANDS)
        for (const char *text : {"7", "007", "abc", "1000000000000000000"}) {
            const child_result child = refusal_of(command, text);
            EXPECT_EQ(child.exit_status, 1);
            EXPECT_EQ(child.err, std::string("tbx: no such message: ") + text + "\n");
        }
    EXPECT_FALSE(state.exists("sent"));
}

TEST(Purge, WantsADuration) {
    const scratch_state state;
    for (const char *text : {static_cast<const char *>(nullptr), ""}) {
        const child_result child = refusal_of(cmd_purge, text);
        EXPECT_EQ(child.exit_status, 1);
        EXPECT_EQ(child.err, "tbx: missing duration, for example 90d\n");
    }
}

TEST(Purge, RefusesAMalformedDuration) {
    const scratch_state state;
    for (const char *text : {"90", "d", "90w"})
        EXPECT_EQ(refusal_of(cmd_purge, text).err,
                  std::string("tbx: invalid duration: ") + text + " (for example 90d, 12h, 30m)\n");
}

TEST(Purge, OfNothingSaysSo) {
    const scratch_state state;
    const child_result child = refusal_of(cmd_purge, "90d");
    EXPECT_EQ(child.exit_status, 0);
    EXPECT_EQ(child.out, "No messages older than 90d.\n");
}

TEST(Remind, RefusesARevokedAndAnExpiredMessage) {
    const scratch_state state;
    state.write("sent/7/msg", "date: 5\nexpires: 6\n\ntext\n");
    EXPECT_EQ(refusal_of(cmd_remind, "7").err, "tbx: message 7 has expired: nobody to remind\n");
    state.write("sent/7/revoked", "5\n");
    EXPECT_EQ(refusal_of(cmd_remind, "7").err,
              "tbx: message 7 has been revoked: nobody to remind\n");
}
