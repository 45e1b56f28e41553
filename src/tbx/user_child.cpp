#include "tbx/user_child.h"

#include "common/child.h"
#include "common/environment.h"

#include <fcntl.h>
#include <grp.h>
#include <linux/capability.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <optional>
#include <unordered_map>

constexpr int CHILD_FAILED = 126; // exit status of a child that never reached its callback

// ---- What is known of a user for this run -------------------------------------------------

constexpr int64_t SECOND_CHANCE_AFTER_MS = 60'000;
constexpr int64_t SECOND_CHANCE_MS = 1000;

struct user_run {
    std::optional<std::vector<gid_t>> groups; // looked up once
    int64_t left_ms = USER_TIME_MS;
    int64_t over_since_ms = 0; // when it came to an end, on the monotonic clock
};

// By user name, for one run or until user_times_renew().
static std::unordered_map<std::string, user_run, string_hash, std::equal_to<>> user_runs;

static user_run &run_of(const resolved_user &user) {
    return user_runs[user.name];
}

user_timer::user_timer(const resolved_user &user)
    : user_(user), start_ms_(monotonic_ms()), left_ms_(run_of(user).left_ms) {}

user_timer::~user_timer() {
    const int saved = errno; // of what was timed
    const int64_t end_ms = monotonic_ms();
    user_run &run = run_of(user_);
    run.left_ms = std::max<int64_t>(left_ms_ - (end_ms - start_ms_), 0);
    if (run.left_ms == 0 && left_ms_ > 0)
        run.over_since_ms = end_ms;
    errno = saved;
}

int64_t user_timer::deadline_ms(int64_t limit_ms) const {
    return start_ms_ + std::min(limit_ms, left_ms_);
}

void user_times_renew() {
    const int64_t now_ms = monotonic_ms();
    std::erase_if(user_runs, [](const auto &entry) { return entry.second.left_ms > 0; });
    for (auto &[name, run] : user_runs) {
        run.groups.reset();
        if (now_ms - run.over_since_ms >= SECOND_CHANCE_AFTER_MS)
            run.left_ms = SECOND_CHANCE_MS;
    }
}

void user_times_forget() {
    user_runs.clear();
}

// ---- Waiting ------------------------------------------------------------------------------

constexpr int KILL_PATIENCE_MS = 2000;
constexpr int NOT_REAPED = -1; // no wait status has this value
constexpr int64_t POLL_LIMIT_MS = 1000;

// Waits for the child until the deadline. Returns false only if it is still running then. If
// there is no such child, returns true and leaves `status` unchanged.
static bool await_child(pid_t child, int64_t deadline_ms, int *status) {
    const int64_t left_ms = std::clamp<int64_t>(deadline_ms - monotonic_ms(), 0, INT_MAX);
    return child_await(child, child_pidfd(child), static_cast<int>(left_ms), status);
}

// Kills the child and waits for it. A child that hangs in a user's file system may not even end by
// SIGKILL: after KILL_PATIENCE_MS it is given up, so that no user can block the administrator.
// Returns -1.
static int kill_and_reap(pid_t child) {
    int status = 0;
    (void)kill(child, SIGKILL); // cannot fail: a child stays ours until it is waited for
    (void)await_child(child, monotonic_ms() + KILL_PATIENCE_MS, &status);
    return -1;
}

int reap_child(pid_t child, int64_t deadline_ms, int *status) {
    *status = NOT_REAPED;
    if (!await_child(child, deadline_ms, status))
        return kill_and_reap(child);
    return *status == NOT_REAPED ? -1 : 0;
}

// ---- The child's side ---------------------------------------------------------------------

// What a child does, and as whom.
struct child_task {
    const resolved_user *user; // null: as this process
    user_callback callback;
    void *argument;
    const std::vector<gid_t> *groups; // the user's
};

void drop_descriptors_or_exit(int failure_status) {
    const unique_fd null(open("/dev/null", O_RDWR | O_CLOEXEC));
    if (!null || dup2(null.get(), STDIN_FILENO) < 0 || dup2(null.get(), STDOUT_FILENO) < 0 ||
        dup2(null.get(), STDERR_FILENO) < 0)
        _exit(failure_status);
    closefrom(STDERR_FILENO + 1);
}

// Standard input becomes the input pipe, or /dev/null if there is none; standard output the output
// pipe; standard error /dev/null, so that nothing of the user's reaches root's terminal. Every
// other descriptor is closed, above all the message's lock: a user who stops their child must not
// hold it.
static void redirect_standard_descriptors(const child_pipe &input, const child_pipe &output) {
    const unique_fd null(open("/dev/null", O_RDWR | O_CLOEXEC));
    const int in = input.read_end ? input.read_end.get() : null.get();
    if (!null || dup2(in, STDIN_FILENO) < 0 || dup2(output.write_end.get(), STDOUT_FILENO) < 0 ||
        dup2(null.get(), STDERR_FILENO) < 0)
        _exit(CHILD_FAILED);
    closefrom(STDERR_FILENO + 1);
}

static int drop_capabilities() {
    __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    const __user_cap_data_struct none[_LINUX_CAPABILITY_U32S_3] = {};
    return static_cast<int>(syscall(SYS_capset, &header, none));
}

// Becomes `user` for good or ends the child: nothing runs between two identities.
//
// The user must not look into this copy of root's memory. If fs.suid_dumpable is 1, the user could
// do so from setresuid() to PR_SET_DUMPABLE: until then the process keeps its capabilities, so that
// the user may not trace it, and blocks signals, so that none makes it dump core.
static void become_user(const resolved_user &user, const std::vector<gid_t> &groups) {
    sigset_t all;
    sigset_t previous;
    (void)sigfillset(&all); // cannot fail
    if (sigprocmask(SIG_SETMASK, &all, &previous) != 0 || prctl(PR_SET_KEEPCAPS, 1) != 0 ||
        setgroups(groups.size(), groups.data()) != 0 ||
        setresgid(user.gid, user.gid, user.gid) != 0 ||
        setresuid(user.uid, user.uid, user.uid) != 0 || prctl(PR_SET_DUMPABLE, 0) != 0 ||
        drop_capabilities() != 0 || prctl(PR_SET_KEEPCAPS, 0) != 0 ||
        sigprocmask(SIG_SETMASK, &previous, nullptr) != 0)
        _exit(CHILD_FAILED);
    if (getuid() != user.uid || geteuid() != user.uid || getegid() != user.gid || setuid(0) == 0)
        _exit(CHILD_FAILED); // if root can be regained, the drop has failed
}

// Makes the kernel kill this child when the parent ends: nobody else would end it, and it must not
// write into the mailbox beside a later run. Called after the change of identity, which clears the
// request.
static void die_with_parent(pid_t parent) {
    if (prctl(PR_SET_PDEATHSIG, SIGKILL) != 0 || getppid() != parent)
        _exit(CHILD_FAILED);
}

[[noreturn]] static void run_child(const child_task &task, pid_t parent, child_pipe *input,
                                   child_pipe *output) {
    die_as_child();
    input->write_end.reset();
    output->read_end.reset();
    redirect_standard_descriptors(*input, *output);
    if (task.user != nullptr)
        become_user(*task.user, *task.groups);
    die_with_parent(parent);
    if (chdir("/") != 0)
        _exit(CHILD_FAILED);
    umask(022);
    (void)signal(SIGPIPE, SIG_DFL); // cannot fail: the signal exists
    const int status = task.callback(task.argument);
    (void)fflush(stdout); // what cannot be written is missing in the report
    _exit(status & 0xff);
}

// ---- The parent's side --------------------------------------------------------------------

// Ignores SIGPIPE: a child that ends without reading its input must not end this process.
class sigpipe_ignored {
public:
    sigpipe_ignored() : previous_(signal(SIGPIPE, SIG_IGN)) {}
    ~sigpipe_ignored() { (void)signal(SIGPIPE, previous_); } // cannot fail: it was set before
    sigpipe_ignored(const sigpipe_ignored &) = delete;
    sigpipe_ignored &operator=(const sigpipe_ignored &) = delete;

private:
    void (*previous_)(int);
};

// Feeds and drains the child until EOF of its output. Returns false when the deadline came first.
static bool exchange_until(child_exchange *traffic, int64_t deadline_ms) {
    while (true) {
        const int64_t left_ms = std::min(deadline_ms - monotonic_ms(), POLL_LIMIT_MS);
        if (left_ms < 1)
            return false;
        const exchange_state state =
            child_exchange_step(traffic, static_cast<int>(left_ms), /*pidfd=*/-1);
        if (state == exchange_state::ended)
            return true;
    }
}

static child_end result_of(int wait_status) {
    if (!WIFEXITED(wait_status))
        return {child_outcome::refused, -1};
    if (WEXITSTATUS(wait_status) != CHILD_FAILED)
        return {child_outcome::done, WEXITSTATUS(wait_status)};
    errno = EPERM; // the child could not become the user; its own error is lost
    return {child_outcome::failed, -1};
}

// Feeds, drains and waits for a started child.
static child_end attend_child(pid_t child, child_exchange *traffic, int64_t deadline_ms) {
    const bool in_time = exchange_until(traffic, deadline_ms);
    traffic->to_child.reset();
    traffic->from_child.reset();
    int status = 0;
    if (!in_time)
        (void)kill_and_reap(child);
    else if (reap_child(child, deadline_ms, &status) == 0 && traffic->error == 0)
        return result_of(status);
    if (traffic->error == 0)
        return {child_outcome::refused, -1};
    errno = traffic->error;
    return {child_outcome::failed, -1};
}

static bool set_nonblocking(const unique_fd &fd) {
    return fcntl(fd.get(), F_SETFL, O_NONBLOCK) == 0;
}

// Starts the child and attends to it until the deadline.
static child_end run_task(const child_task &task, const std::string_view *input, strbuf *output,
                          size_t output_limit, int64_t deadline_ms) {
    constexpr child_end NOT_STARTED = {child_outcome::failed, -1};
    child_pipe to_child;
    child_pipe from_child;
    if ((input != nullptr && !child_pipe_open(&to_child)) || !child_pipe_open(&from_child))
        return NOT_STARTED;
    if (input != nullptr && !set_nonblocking(to_child.write_end))
        return NOT_STARTED;
    (void)fflush(stdout); // an error is reported at the end of the run
    (void)fflush(stderr); // there is nowhere to report it
    const pid_t parent = getpid();
    const pid_t child = fork();
    if (child < 0)
        return NOT_STARTED;
    if (child == 0)
        run_child(task, parent, &to_child, &from_child);

    const sigpipe_ignored guard;
    to_child.read_end.reset();
    from_child.write_end.reset();
    child_exchange traffic = {std::move(to_child.write_end), std::move(from_child.read_end),
                              input != nullptr ? *input : std::string_view(), output, output_limit};
    if (traffic.input.empty())
        traffic.to_child.reset();
    return attend_child(child, &traffic, deadline_ms);
}

// Looks the user's groups up once in a run. Null, with errno, when that fails.
static const std::vector<gid_t> *groups_of(const resolved_user &user) {
    std::optional<std::vector<gid_t>> &groups = run_of(user).groups;
    if (!groups) {
        std::vector<gid_t> found;
        if (user_groups_list(user, &found) != 0)
            return nullptr;
        groups = std::move(found);
    }
    return &*groups;
}

child_end run_as_user(const resolved_user &user, user_callback callback, void *argument,
                      const std::string_view *input, strbuf *output, size_t output_limit,
                      int timeout_seconds) {
    child_task task = {nullptr, callback, argument, nullptr};
    if (geteuid() == 0 && !test_mode()) {
        task.user = &user;
        task.groups = groups_of(user); // the time of the account service is not the user's
        if (task.groups == nullptr)
            return {child_outcome::failed, -1};
    }
    const user_timer timer(user);
    if (timer.is_over())
        return {child_outcome::refused, -1};
    return run_task(task, input, output, output_limit,
                    timer.deadline_ms(int64_t{timeout_seconds} * 1000));
}

child_end run_bounded(const resolved_user &user, user_callback callback, void *argument,
                      int timeout_seconds) {
    const user_timer timer(user);
    if (timer.is_over())
        return {child_outcome::refused, -1};
    return run_task({nullptr, callback, argument, nullptr}, nullptr, nullptr, 0,
                    timer.deadline_ms(int64_t{timeout_seconds} * 1000));
}
