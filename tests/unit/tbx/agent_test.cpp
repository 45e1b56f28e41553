#include "tbx/agent.h"

#include "support.h"

#include <fcntl.h>
#include <grp.h>
#include <unistd.h>

#include <csignal>
#include <functional>
#include <vector>

namespace {

const resolved_user PAT = {"pat", PAT_UID, PAT_UID};
const std::string AGENT = "/usr/local/lib/tellbox/tellbox-user";
const std::string READY_FILE = "/run/user/1001/tellbox-agent.ready";

// What the stand-in for systemd-run is told when an agent is started as it should be.
const std::string STARTED =
    "--user\n--machine=pat@.host\n--collect\n--quiet\n" + AGENT + "\nagent\n";

std::string session(uint32_t uid, const std::string &type, const std::string &state) {
    return "UID=" + std::to_string(uid) + "\nCLASS=user\nACTIVE=1\nTYPE=" + type +
           "\nSTATE=" + state + "\n";
}

private_machine machine_with_sessions(const std::map<std::string, std::string> &sessions) {
    private_machine machine = machine_of_pat_and_sam();
    machine.sessions = sessions;
    return machine;
}

private_machine desktop_of_pat() {
    return machine_with_sessions({{"1", session(PAT_UID, "wayland", "active")}});
}

void become(uint32_t uid) {
    if (setgroups(0, nullptr) != 0 || setresgid(uid, uid, uid) != 0 ||
        setresuid(uid, uid, uid) != 0)
        throw_errno("become");
}

// Puts a systemd-run first in PATH that writes down its arguments and then does `more`.
void install_systemd_run(const std::string &more = "") {
    std::filesystem::create_directories("/run/log");
    std::filesystem::permissions("/run/log", std::filesystem::perms(0777));
    write_file("/run/bin/systemd-run",
               "#!/bin/sh\nprintf '%s\\n' \"$@\" > /run/log/started\n" + more + "\n");
    std::filesystem::permissions("/run/bin/systemd-run", std::filesystem::perms(0755));
    setenv("PATH", "/run/bin:/usr/bin:/bin", 1);
}

std::string started() {
    return path_exists("/run/log/started") ? read_file("/run/log/started") : "nothing\n";
}

// A process of `uid` with the given command line, which waits until a signal ends it. It is
// the shell under another name, reading a script that is called as the second argument says.
class standing_process {
public:
    standing_process(uint32_t uid, std::vector<std::string> arguments) {
        write_file("/run/scripts/" + (arguments.size() > 1 ? arguments[1] : "none"), "read line\n");
        int fds[2];
        int executed[2];
        if (pipe(fds) != 0 || pipe2(executed, O_CLOEXEC) != 0)
            throw_errno("pipe");
        pid_ = fork();
        if (pid_ == 0) {
            std::vector<char *> list;
            for (std::string &argument : arguments)
                list.push_back(argument.data());
            list.push_back(nullptr);
            become(uid);
            if (dup2(fds[0], STDIN_FILENO) >= 0 && chdir("/run/scripts") == 0)
                execv("/bin/sh", list.data());
            _exit(1);
        }
        keeps_open_.reset(fds[1]);
        close(fds[0]);
        close(executed[1]);
        char byte = 0;
        const ssize_t got = read(executed[0], &byte, 1); // the end comes with the execution
        close(executed[0]);
        if (pid_ < 0 || got != 0)
            throw_errno("standing process");
    }
    standing_process(const standing_process &) = delete;
    standing_process &operator=(const standing_process &) = delete;

    [[nodiscard]] std::string pid() const { return std::to_string(pid_); }

    // Ends the process and tells whether SIGUSR1 had been sent to it before: of two signals
    // that wait, the one with the smaller number comes first.
    [[nodiscard]] bool was_woken() const {
        int status = 0;
        if (kill(pid_, SIGTERM) != 0 || waitpid(pid_, &status, 0) != pid_ || !WIFSIGNALED(status))
            throw_errno("standing process");
        return WTERMSIG(status) == SIGUSR1;
    }

private:
    pid_t pid_ = -1;
    unique_fd keeps_open_; // the process reads from the other end
};

// Runs `body` on the machine, outside test mode, with a systemd-run in place.
child_result run_with_systemd_run(const private_machine &machine,
                                  const std::function<void()> &body) {
    const real_state state;
    child_result child = run_for_real(state, machine, [&body] {
        install_systemd_run();
        body();
    });
    EXPECT_EQ(child.exit_status, 0) << child.err;
    return child;
}

// What agent_start(PAT) starts on the machine.
std::string start_on(const private_machine &machine) {
    return run_with_systemd_run(machine,
                                [] {
                                    agent_start(PAT);
                                    fputs(started().c_str(), stdout);
                                })
        .out;
}

// What agent_start(PAT) does for a process and a readiness file: "woken", then what it started.
// In `ready`, PID stands for the process.
std::string start_beside(uint32_t uid, const std::vector<std::string> &arguments,
                         const std::string &ready) {
    return run_with_systemd_run(desktop_of_pat(),
                                [&] {
                                    const standing_process process(uid, arguments);
                                    std::string text = ready;
                                    if (const size_t place = text.find("PID"); place != text.npos)
                                        text.replace(place, 3, process.pid());
                                    write_file(READY_FILE, text);
                                    agent_start(PAT);
                                    printf("%s%s", process.was_woken() ? "woken, " : "",
                                           started().c_str());
                                })
        .out;
}

std::string start_beside_agent(const std::string &ready) {
    return start_beside(PAT_UID, {AGENT, "agent"}, ready);
}

} // namespace

// ---- Who gets an agent --------------------------------------------------------------------

TEST(AgentStart, StartsAnAgentForAUserOfADesktop) {
    SKIP_UNLESS_ROOT();
    for (const char *type : {"x11", "wayland"})
        EXPECT_EQ(start_on(machine_with_sessions({{"1", session(PAT_UID, type, "active")}})),
                  STARTED);
}

TEST(AgentStart, DoesNothingWithoutADesktop) {
    SKIP_UNLESS_ROOT();
    EXPECT_EQ(start_on(machine_with_sessions({})), "nothing\n");
    EXPECT_EQ(start_on(machine_with_sessions({{"1", session(PAT_UID, "tty", "active")}})),
              "nothing\n");
    EXPECT_EQ(start_on(machine_with_sessions({{"1", session(SAM_UID, "x11", "active")}})),
              "nothing\n");
}

TEST(AgentStart, DoesNothingForADesktopThatIsClosing) {
    SKIP_UNLESS_ROOT();
    EXPECT_EQ(start_on(machine_with_sessions({{"1", session(PAT_UID, "x11", "closing")}})),
              "nothing\n");
}

TEST(AgentStart, DoesNothingInTestMode) {
    SKIP_UNLESS_ROOT();
    const scratch_state state;
    const child_result child = run_on(desktop_of_pat(), [] {
        install_systemd_run();
        agent_start(PAT);
        fputs(started().c_str(), stdout);
    });
    EXPECT_EQ(child.out, "nothing\n");
}

TEST(AgentStart, DoesNotWakeAnAgentInTestModeOrWithoutADesktop) {
    SKIP_UNLESS_ROOT();
    const child_result child = run_with_systemd_run(machine_with_sessions({}), [] {
        const standing_process agent(PAT_UID, {AGENT, "agent"});
        write_file(READY_FILE, agent.pid() + "\n");
        agent_start(PAT);
        setenv("TBX_TEST", "1", 1);
        init_environment("tbx");
        write_file("/run/systemd/sessions/1", session(PAT_UID, "x11", "active"));
        agent_start(PAT);
        fputs(agent.was_woken() ? "woken" : "left alone", stdout);
    });
    EXPECT_EQ(child.out, "left alone");
}

// ---- Waking -------------------------------------------------------------------------------

TEST(AgentWake, RunningAgentIsSignalledAndNoneIsStarted) {
    SKIP_UNLESS_ROOT();
    EXPECT_EQ(start_beside_agent("PID\n"), "woken, nothing\n");
    EXPECT_EQ(start_beside_agent("PID"), "woken, nothing\n");
    EXPECT_EQ(start_beside_agent("00PID\n"), "woken, nothing\n");
}

TEST(AgentWake, OnlyTheFirstLineOfTheReadinessFileCounts) {
    SKIP_UNLESS_ROOT();
    EXPECT_EQ(start_beside_agent("PID\nready since noon\n"), "woken, nothing\n");
    EXPECT_EQ(start_beside_agent("\nPID\n"), STARTED);
}

TEST(AgentWake, ReadinessFileHasAtMostSixtyFourBytes) {
    SKIP_UNLESS_ROOT();
    for (const size_t bytes : {64U, 65U}) {
        const child_result child = run_with_systemd_run(desktop_of_pat(), [bytes] {
            const standing_process agent(PAT_UID, {AGENT, "agent"});
            std::string text = agent.pid() + "\n";
            text.resize(bytes, 'x');
            write_file(READY_FILE, text);
            agent_start(PAT);
            fputs(agent.was_woken() ? "woken" : started().c_str(), stdout);
        });
        EXPECT_EQ(child.out, bytes == 64 ? "woken" : STARTED);
    }
}

TEST(AgentWake, ReadinessFileMustHoldANumber) {
    SKIP_UNLESS_ROOT();
    for (const char *ready : {"", "\n", " PID\n", "PID \n", "+PID\n", "-PID\n", "xPID\n", "PIDx\n",
                              "0xPID\n", "0000000000000000000PID\n"})
        EXPECT_EQ(start_beside_agent(ready), STARTED) << ready;
}

TEST(AgentWake, NumberMustBeThatOfAProcess) {
    SKIP_UNLESS_ROOT();
    for (const char *ready : {"0\n", "1\n", "4194305\n", "999999999999999999\n"})
        EXPECT_EQ(start_beside_agent(ready), STARTED) << ready;
}

TEST(AgentWake, WithoutAReadinessFileAnAgentIsStarted) {
    SKIP_UNLESS_ROOT();
    EXPECT_EQ(start_on(desktop_of_pat()), STARTED);
}

TEST(AgentWake, ReadinessFileMustBeAFile) {
    SKIP_UNLESS_ROOT();
    const auto with = [](void (*create)(const standing_process &)) {
        return run_with_systemd_run(desktop_of_pat(),
                                    [create] {
                                        const standing_process agent(PAT_UID, {AGENT, "agent"});
                                        std::filesystem::create_directories("/run/user/1001");
                                        create(agent);
                                        agent_start(PAT);
                                        fputs(agent.was_woken() ? "woken" : started().c_str(),
                                              stdout);
                                    })
            .out;
    };
    EXPECT_EQ(with([](const standing_process &agent) {
                  write_file("/run/user/1001/target", agent.pid());
                  std::filesystem::create_symlink("target", READY_FILE);
              }),
              STARTED);
    EXPECT_EQ(with([](const standing_process &) { std::filesystem::create_directory(READY_FILE); }),
              STARTED);
    EXPECT_EQ(with([](const standing_process &) { make_fifo(READY_FILE); }), STARTED);
    EXPECT_EQ(with([](const standing_process &agent) { // not the user's to read
                  write_file(READY_FILE, agent.pid());
                  std::filesystem::permissions(READY_FILE, std::filesystem::perms(0600));
              }),
              STARTED);
}

TEST(AgentWake, AnotherProgramIsNotTakenForTheAgent) {
    SKIP_UNLESS_ROOT();
    const std::vector<std::vector<std::string>> others = {
        {AGENT, "agent", "more"}, {AGENT, "agent2"},
        {AGENT + "2", "agent"},   {"/opt/tellbox/tellbox-user", "agent"},
        {AGENT, "agent", ""},     {AGENT}};
    for (const auto &arguments : others)
        EXPECT_EQ(start_beside(PAT_UID, arguments, "PID\n"), STARTED)
            << arguments.front() << " with " << arguments.size() - 1 << " arguments";
}

TEST(AgentWake, ProcessOfSomeoneElseIsNotSignalled) {
    SKIP_UNLESS_ROOT();
    EXPECT_EQ(start_beside(SAM_UID, {AGENT, "agent"}, "PID\n"), STARTED);
    EXPECT_EQ(start_beside(0, {AGENT, "agent"}, "PID\n"), STARTED);
}

TEST(AgentWake, StaleNumberStartsAnAgent) {
    SKIP_UNLESS_ROOT();
    const child_result child = run_with_systemd_run(desktop_of_pat(), [] {
        const standing_process agent(PAT_UID, {AGENT, "agent"});
        write_file(READY_FILE, agent.pid());
        (void)agent.was_woken(); // and is gone
        agent_start(PAT);
        fputs(started().c_str(), stdout);
    });
    EXPECT_EQ(child.out, STARTED);
}

TEST(AgentWakeExisting, TellsThroughItsResult) {
    SKIP_UNLESS_ROOT();
    const child_result child = run_with_systemd_run(desktop_of_pat(), [] {
        uint32_t uid = PAT_UID;
        printf("%d ", agent_wake_existing(&uid));
        const standing_process agent(PAT_UID, {AGENT, "agent"});
        write_file(READY_FILE, agent.pid());
        printf("%d ", agent_wake_existing(&uid));
        uid = SAM_UID; // another file
        printf("%d", agent_wake_existing(&uid));
        (void)agent.was_woken();
    });
    EXPECT_EQ(child.out, "1 0 1");
}

// ---- Starting -----------------------------------------------------------------------------

TEST(AgentStart, ByAnOrdinaryUserNamesNoMachine) {
    SKIP_UNLESS_ROOT();
    const child_result child = run_with_systemd_run(desktop_of_pat(), [] {
        become(PAT_UID);
        agent_start(PAT);
        fputs(started().c_str(), stdout);
    });
    EXPECT_EQ(child.out, "--user\n--collect\n--quiet\n" + AGENT + "\nagent\n");
}

TEST(AgentStart, WaitsForSystemdRunWhateverItsStatus) {
    SKIP_UNLESS_ROOT();
    const child_result child = run_with_systemd_run(desktop_of_pat(), [] {
        install_systemd_run("echo end >> /run/log/started; exit 3");
        agent_start(PAT);
        fputs(started().c_str(), stdout);
        puts(has_no_children() ? "alone" : "with children");
    });
    EXPECT_EQ(child.out, STARTED + "end\nalone\n");
}

// The user can look into what systemd-run starts, and take a descriptor out of it.
TEST(AgentStart, SystemdRunHasNoDescriptorOfOurs) {
    SKIP_UNLESS_ROOT();
    const child_result child = run_with_systemd_run(desktop_of_pat(), [] {
        install_systemd_run("echo to standard output\n"
                            "echo to standard error >&2\n"
                            // The shell has the script at a number of two digits.
                            "(readlink /proc/$$/fd/? > /run/log/started)\n"
                            "true");
        replace_standard_input();
        const unique_fd inheritable(open("/etc/passwd", O_RDONLY)); // NOLINT(android-cloexec-open)
        printf("printed before\n");                                 // and only once
        agent_start(PAT);
        fputs(started().c_str(), stdout);
    });
    EXPECT_EQ(child.out, "printed before\n/dev/null\n/dev/null\n/dev/null\n");
    EXPECT_EQ(child.err, "");
}

TEST(AgentStart, NothingIsStartedWithoutANullDevice) {
    SKIP_UNLESS_ROOT();
    const child_result child = run_with_systemd_run(desktop_of_pat(), [] {
        if (mount("tmpfs", "/dev", "tmpfs", 0, nullptr) != 0)
            throw_errno("/dev");
        agent_start(PAT);
        fputs(started().c_str(), stdout);
    });
    EXPECT_EQ(child.out, "nothing\n");
    EXPECT_EQ(child.err, "");
}

TEST(AgentStart, MissingSystemdRunIsNotReported) {
    SKIP_UNLESS_ROOT();
    const child_result child = run_with_systemd_run(desktop_of_pat(), [] {
        setenv("PATH", "/run/nowhere", 1);
        agent_start(PAT);
        puts(has_no_children() ? "went on" : "with children");
    });
    EXPECT_EQ(child.out, "went on\n");
    EXPECT_EQ(child.err, "");
}
