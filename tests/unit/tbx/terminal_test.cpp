#include "tbx/terminal.h"

#include "common/environment.h"
#include "support.h"

#include <gmock/gmock.h>

#include <fcntl.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <functional>
#include <thread>
#include <vector>

namespace {

constexpr uint32_t PAT = 1001;
constexpr uint32_t SAM = 1002;

// A raw pseudo-terminal: what is written to `path` is read from `master` unchanged.
struct pseudo_terminal {
    unique_fd master;
    unique_fd slave; // keeps the terminal alive
    std::string path;

    pseudo_terminal() {
        int fds[2];
        char name[64];
        if (openpty(&fds[0], &fds[1], name, nullptr, nullptr) != 0)
            throw_errno("openpty");
        master = unique_fd(fds[0]);
        slave = unique_fd(fds[1]);
        path = name;
        termios raw = {};
        cfmakeraw(&raw);
        if (tcsetattr(slave.get(), TCSANOW, &raw) != 0)
            throw_errno("tcsetattr");
    }
};

// Reads up to `length` bytes, fewer only at the end or on an error.
std::string read_bytes(int fd, size_t length) {
    std::string text(length, '\0');
    size_t done = 0;
    while (done < length) {
        const ssize_t count = read(fd, text.data() + done, length - done);
        if (count <= 0)
            break;
        done += static_cast<size_t>(count);
    }
    text.resize(done);
    return text;
}

bool write_text(const std::string &path, const std::string &text, uint32_t uid = geteuid()) {
    return terminal_write(path.c_str(), uid, text.data(), text.size());
}

// A login session as the login manager writes it.
std::string session(uint32_t uid, const std::string &type, const std::string &more) {
    return "UID=" + std::to_string(uid) + "\nCLASS=user\nACTIVE=1\nTYPE=" + type + "\n" + more;
}

std::string console_session(uint32_t uid, const std::string &terminal) {
    return session(uid, "tty", "STATE=active\nTTY=" + terminal + "\n");
}

// A fresh /dev/pts, where the next terminals are 0, 1, 2 and so on. For a child on a private
// machine.
void mount_pseudo_terminals() {
    if (mount("devpts", "/dev/pts", "devpts", 0, "newinstance,ptmxmode=0666") != 0)
        throw_errno("devpts");
}

// Opens the terminals 0 to `count` - 1, of root.
std::vector<pseudo_terminal> open_terminals(size_t count) {
    return std::vector<pseudo_terminal>(count);
}

void give_to(const std::string &path, uint32_t uid) {
    if (chown(path.c_str(), uid, static_cast<gid_t>(-1)) != 0)
        throw_errno(path);
}

// PAT's terminals on a machine with the given sessions, after `prepare` has run there.
std::string terminals_of_pat(const std::map<std::string, std::string> &sessions,
                             const std::function<void()> &prepare) {
    private_machine machine;
    machine.sessions = sessions;
    const child_result child = run_on(machine, [&prepare] {
        mount_pseudo_terminals();
        const std::vector<pseudo_terminal> opened = open_terminals(11);
        prepare();
        strlist list;
        user_terminals_list(PAT, &list);
        fputs(joined(list).c_str(), stdout);
    });
    EXPECT_EQ(child.exit_status, 0) << child.err;
    return child.out;
}

bool pat_has_graphical_session(const std::map<std::string, std::string> &sessions) {
    private_machine machine;
    machine.sessions = sessions;
    const child_result child =
        run_on(machine, [] { return user_has_graphical_session(PAT) ? 10 : 20; });
    EXPECT_TRUE(child.exit_status == 10 || child.exit_status == 20) << child.err;
    return child.exit_status == 10;
}

std::string banner_of(const std::string &title, const std::string &text) {
    const environment_variable zone("TZ", "UTC");
    const message_record message = {.id = 1,
                                    .from = "root",
                                    .date = 1'763'201'040, // 15 November 2025, 10:04
                                    .title = title,
                                    .expires = 0,
                                    .text = text};
    strbuf out;
    terminal_banner_build(message, &out);
    return std::string(out.view());
}

constexpr const char *RULE = "────────────────────────────────────────\r\n";

} // namespace

// ---- The banner ---------------------------------------------------------------------------

TEST(Banner, ShowsTitleDateTextAndRule) {
    EXPECT_EQ(banner_of("Reboot", "At noon.\n"),
              std::string("\r\n── Tellbox · Message from the administrator · "
                          "Reboot · 15/11 10:04 ──\r\n"
                          "At noon.\r\n") +
                  RULE);
}

TEST(Banner, ShowsTheDateAloneWithoutTitle) {
    EXPECT_EQ(banner_of("", "At noon.\n"),
              std::string("\r\n── Tellbox · Message from the administrator · 15/11 10:04 ──\r\n"
                          "At noon.\r\n") +
                  RULE);
}

TEST(Banner, RuleIsFortyColumns) {
    const std::string banner = banner_of("", "x");
    const std::string rule = banner.substr(banner.find("x\r\n") + 3);
    EXPECT_EQ(rule.size(), 40 * std::string("─").size() + 2);
}

TEST(Banner, RuleFollowsTheLastLineOfTheText) {
    const std::string expected = banner_of("", "one");
    EXPECT_EQ(banner_of("", "one\n"), expected);
    EXPECT_EQ(banner_of("", "one\n\n\n"), expected);
}

TEST(Banner, LinesAndEmptyLinesOfTheTextAreKept) {
    EXPECT_EQ(banner_of("", "\none\n\n two \n"),
              std::string("\r\n── Tellbox · Message from the administrator · 15/11 10:04 ──\r\n"
                          "\r\none\r\n\r\n two \r\n") +
                  RULE);
}

TEST(Banner, ReturnsTheCarriageBeforeEveryNewline) {
    EXPECT_THAT(banner_of("", "a\r\nb"), testing::HasSubstr("a\r\r\nb\r\n"));
}

TEST(Banner, IsAppended) {
    strbuf out;
    strbuf_append_str(&out, "before");
    terminal_banner_build(message_record(), &out);
    EXPECT_TRUE(out.view().starts_with("before\r\n── Tellbox"));
}

// ---- Writing ------------------------------------------------------------------------------

TEST(TerminalWrite, WritesEveryByteToAPseudoTerminal) {
    const pseudo_terminal terminal;
    const std::string text = "\r\nHello ─ \x1b[0m\r\n";
    EXPECT_TRUE(write_text(terminal.path, text));
    EXPECT_EQ(read_bytes(terminal.master.get(), text.size()), text);
}

TEST(TerminalWrite, NothingToWriteIsWritten) {
    const pseudo_terminal terminal;
    EXPECT_TRUE(write_text(terminal.path, ""));
}

TEST(TerminalWrite, WaitsForATerminalThatIsReadSlowly) {
    pseudo_terminal terminal;
    std::string text; // far more than a terminal holds
    for (int line = 0; line < 20'000; line++)
        text += std::to_string(line) + "\n";
    std::string received;
    std::thread reader([&] { received = read_bytes(terminal.master.get(), text.size()); });
    const bool written = write_text(terminal.path, text);
    if (!written)
        terminal.slave.reset(); // ends the reader
    reader.join();
    EXPECT_TRUE(written);
    EXPECT_EQ(received, text);
}

TEST(TerminalWrite, GivesUpATerminalThatTakesNothingAfterMoreThanTwoSeconds) {
    const pseudo_terminal terminal; // nobody reads
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(write_text(terminal.path, std::string(300'000, 'x')));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
}

TEST(TerminalWrite, FailsWhenTheTerminalHangsUpMidway) {
    pseudo_terminal terminal;
    std::thread reader([&] {
        EXPECT_EQ(read_bytes(terminal.master.get(), 100).size(), 100U);
        terminal.master.reset();
    });
    EXPECT_FALSE(write_text(terminal.path, std::string(300'000, 'x')));
    reader.join();
}

TEST(TerminalWrite, LeavesTheTerminalsOfOthersAlone) {
    const pseudo_terminal terminal;
    EXPECT_FALSE(write_text(terminal.path, "private", geteuid() + 1));
    int waiting = -1;
    ASSERT_EQ(ioctl(terminal.master.get(), FIONREAD, &waiting), 0);
    EXPECT_EQ(waiting, 0);
}

TEST(TerminalWrite, AsksForTheOwnerOfTheTerminalNotOfALinkToIt) {
    SKIP_UNLESS_ROOT();
    const pseudo_terminal terminal; // of root
    const scratch_directory scratch;
    const std::string link = scratch.path("link");
    std::filesystem::create_symlink(terminal.path, link);
    ASSERT_EQ(lchown(link.c_str(), PAT, static_cast<gid_t>(-1)), 0);
    EXPECT_FALSE(write_text(link, "private", PAT));
}

TEST(TerminalWrite, LeavesWhatIsNoCharacterDeviceAlone) {
    const scratch_directory scratch;
    scratch.write("file", "kept");
    EXPECT_FALSE(write_text(scratch.path("file"), "text"));
    EXPECT_EQ(scratch.read("file"), "kept");
    EXPECT_FALSE(write_text(scratch.path(), "text"));
}

TEST(TerminalWrite, FailsWhereThereIsNothing) {
    const scratch_directory scratch;
    EXPECT_FALSE(write_text(scratch.path("none"), "text"));
    EXPECT_FALSE(write_text(scratch.path("none"), ""));
    EXPECT_FALSE(scratch.exists("none"));
}

TEST(TerminalWrite, DoesNotMakeItTheControllingTerminal) {
    const pseudo_terminal terminal;
    const child_result child = run_in_child([&terminal] {
        setsid();
        const bool written = write_text(terminal.path, "text");
        const unique_fd controlling(open("/dev/tty", O_RDWR | O_CLOEXEC));
        printf("%s, %s", written ? "written" : "failed", strerror(controlling ? 0 : errno));
    });
    EXPECT_EQ(child.out, "written, No such device or address");
}

// ---- Writing in test mode -----------------------------------------------------------------

TEST(TerminalWriteInTestMode, AppendsToAFile) {
    const scratch_state test_mode;
    test_mode.write("terminal", "before\n");
    EXPECT_TRUE(write_text(test_mode.path("terminal"), "one\n"));
    EXPECT_TRUE(write_text(test_mode.path("terminal"), "two\n"));
    EXPECT_EQ(test_mode.read("terminal"), "before\none\ntwo\n");
}

TEST(TerminalWriteInTestMode, CreatesNoFile) {
    const scratch_state test_mode;
    EXPECT_FALSE(write_text(test_mode.path("none"), "text"));
    EXPECT_FALSE(test_mode.exists("none"));
}

TEST(TerminalWriteInTestMode, LeavesTheFilesOfOthersAlone) {
    const scratch_state test_mode;
    test_mode.write("terminal", "kept");
    EXPECT_FALSE(write_text(test_mode.path("terminal"), "text", geteuid() + 1));
    EXPECT_EQ(test_mode.read("terminal"), "kept");
}

TEST(TerminalWriteInTestMode, StillWritesToATerminal) {
    const scratch_state test_mode;
    const pseudo_terminal terminal;
    EXPECT_TRUE(write_text(terminal.path, "text"));
    EXPECT_EQ(read_bytes(terminal.master.get(), 4), "text");
}

TEST(TerminalWriteInTestMode, PipeThatNobodyReadsDoesNotBlock) {
    const scratch_state test_mode;
    ASSERT_EQ(mkfifo(test_mode.path("pipe").c_str(), 0600), 0);
    EXPECT_FALSE(write_text(test_mode.path("pipe"), "text"));
}

// ---- Finding terminals --------------------------------------------------------------------

TEST(UserTerminals, ArePseudoTerminalsAndConsolesInByteOrder) {
    SKIP_UNLESS_ROOT();
    EXPECT_EQ(terminals_of_pat({{"1", console_session(PAT, "tty2")}},
                               [] {
                                   give_to("/dev/pts/3", PAT);
                                   give_to("/dev/pts/10", PAT);
                               }),
              "/dev/pts/10 /dev/pts/3 /dev/tty2");
}

TEST(UserTerminals, PseudoTerminalsOfOthersAreNotListedThoughASessionNamesThem) {
    SKIP_UNLESS_ROOT();
    EXPECT_EQ(terminals_of_pat({{"1", console_session(PAT, "pts/4")}},
                               [] { give_to("/dev/pts/4", SAM); }),
              "");
}

TEST(UserTerminals, SessionOnAPseudoTerminalAddsNothingToWhatIsOwned) {
    SKIP_UNLESS_ROOT();
    EXPECT_EQ(terminals_of_pat({{"1", console_session(PAT, "pts/4")}},
                               [] { give_to("/dev/pts/4", PAT); }),
              "/dev/pts/4");
}

TEST(UserTerminals, AreListedWithoutAnySession) {
    SKIP_UNLESS_ROOT();
    EXPECT_EQ(terminals_of_pat({},
                               [] {
                                   give_to("/dev/pts/2", PAT);
                                   give_to("/dev/pts/5", PAT);
                                   give_to("/dev/pts/10", PAT);
                               }),
              "/dev/pts/10 /dev/pts/2 /dev/pts/5");
}

TEST(UserTerminals, AreListedWhereTheLoginManagerIsMissing) {
    SKIP_UNLESS_ROOT();
    EXPECT_EQ(terminals_of_pat({},
                               [] {
                                   give_to("/dev/pts/2", PAT);
                                   std::filesystem::remove_all("/run/systemd");
                               }),
              "/dev/pts/2");
}

TEST(UserTerminals, OnlyTtyAndDigitsIsAConsole) {
    SKIP_UNLESS_ROOT();
    EXPECT_EQ(terminals_of_pat({{"1", console_session(PAT, "tty")},
                                {"2", console_session(PAT, "ttyS0")},
                                {"3", console_session(PAT, "tty2x")},
                                {"4", console_session(PAT, "console")},
                                {"5", console_session(PAT, "xtty3")},
                                {"6", session(PAT, "tty", "")},
                                {"7", console_session(PAT, "tty63")},
                                {"8", console_session(PAT, "../dev/tty4")},
                                {"9", console_session(PAT, "/dev/tty5")},
                                {"c1", console_session(PAT, "TTY6")}},
                               [] {}),
              "/dev/tty63");
}

TEST(UserTerminals, OnlySessionsOfTypeTtyHaveAConsole) {
    SKIP_UNLESS_ROOT();
    EXPECT_EQ(terminals_of_pat({{"1", session(PAT, "x11", "TTY=tty7\n")},
                                {"2", session(PAT, "wayland", "TTY=tty8\n")},
                                {"3", session(PAT, "unspecified", "TTY=tty9\n")},
                                {"4", "UID=1001\nTTY=tty10\n"}},
                               [] {}),
              "");
}

TEST(UserTerminals, ConsolesOfOthersAreNotListed) {
    SKIP_UNLESS_ROOT();
    EXPECT_EQ(terminals_of_pat({{"1", console_session(SAM, "tty1")},
                                {"2", "TYPE=tty\nTTY=tty2\n"},
                                {"3", console_session(PAT, "tty3")}},
                               [] {}),
              "/dev/tty3");
}

TEST(UserTerminals, ConsoleOfAClosingSessionCounts) {
    SKIP_UNLESS_ROOT();
    EXPECT_EQ(terminals_of_pat({{"1", session(PAT, "tty", "STATE=closing\nTTY=tty1\n")},
                                {"2", session(PAT, "tty", "STATE=online\nTTY=tty2\n")},
                                {"3", session(PAT, "tty", "TTY=tty3\n")}},
                               [] {}),
              "/dev/tty1 /dev/tty2 /dev/tty3");
}

TEST(UserTerminals, ConsoleOfTwoSessionsIsListedOnce) {
    SKIP_UNLESS_ROOT();
    EXPECT_EQ(
        terminals_of_pat({{"1", console_session(PAT, "tty1")}, {"2", console_session(PAT, "tty1")}},
                         [] {}),
        "/dev/tty1");
}

TEST(UserTerminals, ConsolesAreListedWithoutAnyPseudoTerminals) {
    SKIP_UNLESS_ROOT();
    EXPECT_EQ(terminals_of_pat({{"1", console_session(PAT, "tty1")}},
                               [] {
                                   if (mount("tmpfs", "/dev", "tmpfs", 0, nullptr) != 0)
                                       throw_errno("/dev");
                               }),
              "/dev/tty1");
}

TEST(UserTerminals, OnlyNumberedCharacterDevicesArePseudoTerminals) {
    SKIP_UNLESS_ROOT();
    EXPECT_EQ(terminals_of_pat({},
                               [] {
                                   if (mount("tmpfs", "/dev/pts", "tmpfs", 0, nullptr) != 0)
                                       throw_errno("/dev/pts");
                                   for (const char *name : {"12", "ptmx", "1a", "-1"}) {
                                       const std::string path = std::string("/dev/pts/") + name;
                                       if (mknod(path.c_str(), S_IFCHR | 0600, makedev(1, 3)) != 0)
                                           throw_errno(path);
                                       give_to(path, PAT);
                                   }
                                   write_file("/dev/pts/13", "");
                                   give_to("/dev/pts/13", PAT);
                                   std::filesystem::create_symlink("12", "/dev/pts/14");
                                   std::filesystem::create_directory("/dev/pts/15");
                                   give_to("/dev/pts/15", PAT);
                               }),
              "/dev/pts/12");
}

// ---- Finding terminals in test mode -------------------------------------------------------

TEST(UserTerminalsInTestMode, IsTheOneThatTheEnvironmentNames) {
    const scratch_state test_mode;
    const pseudo_terminal own; // not looked for
    const environment_variable variable("TBX_TEST_TTY", "/some/file");
    strlist list;
    user_terminals_list(geteuid(), &list);
    EXPECT_EQ(joined(list), "/some/file");
}

TEST(UserTerminalsInTestMode, AreNoneWithoutTheVariable) {
    const scratch_state test_mode;
    const pseudo_terminal own; // not looked for
    for (const char *value : {static_cast<const char *>(nullptr), ""}) {
        const environment_variable variable("TBX_TEST_TTY", value);
        strlist list;
        user_terminals_list(geteuid(), &list);
        EXPECT_EQ(list.count, 0U);
    }
}

TEST(UserTerminals, IgnoreTheVariableOutsideTestMode) {
    SKIP_UNLESS_ROOT();
    const environment_variable variable("TBX_TEST_TTY", "/some/file");
    EXPECT_EQ(terminals_of_pat({}, [] {}), "");
}

// ---- Graphical sessions -------------------------------------------------------------------

TEST(GraphicalSession, IsOneOfTypeX11OrWayland) {
    SKIP_UNLESS_ROOT();
    EXPECT_TRUE(pat_has_graphical_session({{"1", session(PAT, "x11", "STATE=active\n")}}));
    EXPECT_TRUE(pat_has_graphical_session({{"1", session(PAT, "wayland", "STATE=online\n")}}));
    EXPECT_FALSE(pat_has_graphical_session({{"1", session(PAT, "tty", "STATE=active\n")}}));
    EXPECT_FALSE(pat_has_graphical_session({{"1", session(PAT, "mir", "STATE=active\n")}}));
    EXPECT_FALSE(pat_has_graphical_session({{"1", session(PAT, "web", "STATE=active\n")}}));
    EXPECT_FALSE(pat_has_graphical_session({{"1", "UID=1001\nSTATE=active\n"}}));
}

TEST(GraphicalSession, IsNoneWithoutSessions) {
    SKIP_UNLESS_ROOT();
    EXPECT_FALSE(pat_has_graphical_session({}));
}

TEST(GraphicalSession, ThatIsClosingDoesNotCount) {
    SKIP_UNLESS_ROOT();
    EXPECT_FALSE(pat_has_graphical_session({{"1", session(PAT, "x11", "STATE=closing\n")}}));
}

TEST(GraphicalSession, WhoseStateCannotBeReadCounts) {
    SKIP_UNLESS_ROOT();
    EXPECT_TRUE(pat_has_graphical_session({{"1", session(PAT, "wayland", "")}}));
}

TEST(GraphicalSession, OfAnotherUserDoesNotCount) {
    SKIP_UNLESS_ROOT();
    EXPECT_FALSE(pat_has_graphical_session(
        {{"1", session(SAM, "x11", "STATE=active\n")}, {"2", "TYPE=x11\nSTATE=active\n"}}));
}

TEST(GraphicalSession, CountsAmongOthersThatDoNot) {
    SKIP_UNLESS_ROOT();
    EXPECT_TRUE(pat_has_graphical_session({{"1", session(PAT, "x11", "STATE=closing\n")},
                                           {"2", session(PAT, "tty", "STATE=active\n")},
                                           {"3", session(SAM, "x11", "STATE=active\n")},
                                           {"4", session(PAT, "wayland", "STATE=active\n")}}));
}
