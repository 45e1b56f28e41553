#include "tbx/agent.h"

#include "common/core.h"
#include "common/environment.h"
#include "tbx/terminal.h"
#include "tbx/user_child.h"

#include <sys/types.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>

constexpr int WAKE_TIMEOUT_SECONDS = 5;
constexpr int LAUNCH_TIMEOUT_MS = 20'000;
constexpr int CANNOT_START = 127; // exit status of a child that could not run systemd-run
constexpr size_t READY_FILE_MAX_BYTES = 64;
constexpr size_t COMMAND_LINE_MAX_BYTES = 4096;
constexpr int64_t PID_MIN = 2;
constexpr int64_t PID_MAX = 4'194'304;

static std::string agent_path() {
    return xasprintf("%s/tellbox-user", lib_dir());
}

// ---- Waking, as the user ------------------------------------------------------------------

// The process that the readiness file names, or 0.
static pid_t ready_process(uint32_t uid) {
    const std::string path = xasprintf("/run/user/%u/tellbox-agent.ready", uid);
    strbuf text;
    if (read_file_limited(path.c_str(), READY_FILE_MAX_BYTES, /*nofollow=*/true, &text) != 0)
        return 0;
    const std::string_view line = text.view().substr(0, text.view().find('\n'));
    int64_t pid = 0;
    if (!parse_id(line, &pid) || pid < PID_MIN || pid > PID_MAX)
        return 0;
    return static_cast<pid_t>(pid);
}

// Whether the process is our agent, and not another one with its number.
static bool is_agent(pid_t pid) {
    const std::string path = xasprintf("/proc/%lld/cmdline", static_cast<long long>(pid));
    strbuf found;
    if (read_file_limited(path.c_str(), COMMAND_LINE_MAX_BYTES, /*nofollow=*/false, &found) != 0)
        return false;
    std::string expected = agent_path();
    expected.append(1, '\0').append("agent").append(1, '\0');
    return found.view() == expected;
}

int agent_wake_existing(void *argument) {
    const uint32_t uid = *static_cast<const uint32_t *>(argument);
    const pid_t agent = ready_process(uid);
    return agent != 0 && is_agent(agent) && kill(agent, SIGUSR1) == 0 ? 0 : 1;
}

// ---- Starting -----------------------------------------------------------------------------

// In the child: starts the agent through the user's service manager. systemd-run reaches it through
// a process that runs as the user and inherits its descriptors. The user could take the
// administrator's terminal from that process, so all descriptors are dropped.
[[noreturn]] static void exec_systemd_run(const char *agent, const char *machine) {
    drop_descriptors_or_exit(CANNOT_START);
    (void)signal(SIGPIPE, SIG_DFL); // cannot fail: the signal exists
    if (geteuid() == 0)
        execlp("systemd-run", "systemd-run", "--user", machine, "--collect", "--quiet", agent,
               "agent", nullptr);
    else
        execlp("systemd-run", "systemd-run", "--user", "--collect", "--quiet", agent, "agent",
               nullptr);
    _exit(CANNOT_START);
}

// Limited in time: a user's manager that answers but never finishes must not delay the other
// recipients.
static void start_new_agent(const resolved_user &user) {
    const user_timer timer(user);
    if (timer.is_over())
        return;
    const std::string agent = agent_path();
    const std::string machine = xasprintf("--machine=%s@.host", user.name.c_str());
    (void)fflush(stdout); // an error is reported at the end of the run
    const pid_t child = fork();
    if (child == 0)
        exec_systemd_run(agent.c_str(), machine.c_str());
    int status = 0;
    if (child > 0)
        (void)reap_child(child, timer.deadline_ms(LAUNCH_TIMEOUT_MS), &status); // not reported
}

void agent_start(const resolved_user &user) {
    if (test_mode() || !user_has_graphical_session(user.uid))
        return;
    uint32_t uid = user.uid;
    if (!run_as_user(user, agent_wake_existing, &uid, nullptr, nullptr, 0, WAKE_TIMEOUT_SECONDS)
             .succeeded())
        start_new_agent(user);
}
