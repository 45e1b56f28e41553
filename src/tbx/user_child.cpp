#include "tbx/user_child.h"

#include "common/environment.h"

#include <fcntl.h>
#include <grp.h>
#include <poll.h>
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
#include <ctime>
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

int64_t monotonic_ms() {
    timespec time = {};
    clock_gettime(CLOCK_MONOTONIC, &time); // cannot fail: the clock exists
    return int64_t{time.tv_sec} * 1000 + time.tv_nsec / 1'000'000;
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

constexpr int REAP_INTERVAL_MS = 10; // where the system has no pidfd
constexpr int KILL_PATIENCE_MS = 2000;
constexpr int NOT_REAPED = -1; // no wait status has this value
constexpr int POLL_LIMIT_MS = 1000;

// Returns a descriptor that becomes readable when `child` ends; empty if the system has no pidfds.
static unique_fd open_pidfd(pid_t child) {
    return unique_fd(static_cast<int>(syscall(SYS_pidfd_open, child, 0)));
}

// Sleeps until the child ends. Without a pidfd poll() watches nothing and returns after a moment,
// so that the child is looked at again.
static void await_exit(const unique_fd &pidfd, int64_t remaining_ms) {
    pollfd watched = {.fd = pidfd.get(), .events = POLLIN, .revents = 0};
    const int64_t longest_ms = pidfd ? INT_MAX : REAP_INTERVAL_MS;
    const int wait_ms = static_cast<int>(std::min(remaining_ms, longest_ms));
    (void)poll(&watched, 1, wait_ms); // however it ends, the caller looks at the child again
}

// Waits for the child until the deadline. Returns false only if it is still running then. If
// there is no such child, returns true and leaves `status` unchanged.
static bool await_child(pid_t child, int64_t deadline_ms, int *status) {
    const unique_fd pidfd = open_pidfd(child);
    while (true) {
        const pid_t ended = waitpid(child, status, WNOHANG);
        if (ended != 0 && !(ended < 0 && errno == EINTR))
            return true;
        const int64_t remaining_ms = deadline_ms - monotonic_ms();
        if (remaining_ms <= 0)
            return false;
        await_exit(pidfd, remaining_ms);
    }
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

struct pipe_ends {
    unique_fd read_end;
    unique_fd write_end;
};

static bool open_pipe(pipe_ends *ends) {
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0)
        return false;
    ends->read_end.reset(fds[0]);
    ends->write_end.reset(fds[1]);
    return true;
}

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
static void redirect_standard_descriptors(const pipe_ends &input, const pipe_ends &output) {
    const unique_fd null(open("/dev/null", O_RDWR | O_CLOEXEC));
    const int in = input.read_end ? input.read_end.get() : null.get();
    if (!null || dup2(in, STDIN_FILENO) < 0 || dup2(output.write_end.get(), STDOUT_FILENO) < 0 ||
        dup2(null.get(), STDERR_FILENO) < 0)
        _exit(CHILD_FAILED);
    closefrom(STDERR_FILENO + 1);
}

// Becomes `user` for good or ends the child: nothing runs between two identities.
static void become_user(const resolved_user &user, const std::vector<gid_t> &groups) {
    if (setgroups(groups.size(), groups.data()) != 0 ||
        setresgid(user.gid, user.gid, user.gid) != 0 ||
        setresuid(user.uid, user.uid, user.uid) != 0)
        _exit(CHILD_FAILED);
    if (getuid() != user.uid || geteuid() != user.uid || getegid() != user.gid || setuid(0) == 0)
        _exit(CHILD_FAILED); // if root can be regained, the drop has failed
    // The user must not look into this copy of root's memory, whatever the system's setting for
    // processes that change their user.
    if (prctl(PR_SET_DUMPABLE, 0) != 0)
        _exit(CHILD_FAILED);
}

// Makes the kernel kill this child when the parent ends: nobody else would end it, and it must not
// write into the mailbox beside a later run. Called after the change of identity, which clears the
// request.
static void die_with_parent(pid_t parent) {
    if (prctl(PR_SET_PDEATHSIG, SIGKILL) != 0 || getppid() != parent)
        _exit(CHILD_FAILED);
}

[[noreturn]] static void run_child(const child_task &task, pid_t parent, pipe_ends *input,
                                   pipe_ends *output) {
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
    ~sigpipe_ignored() { signal(SIGPIPE, previous_); }
    sigpipe_ignored(const sigpipe_ignored &) = delete;
    sigpipe_ignored &operator=(const sigpipe_ignored &) = delete;

private:
    void (*previous_)(int);
};

// The input and output of a child.
struct child_traffic {
    unique_fd to_child; // non-blocking; empty once everything is written
    unique_fd from_child;
    std::string_view input;
    strbuf *output;
    size_t output_limit;
    int error = 0; // set when the output could not be read to EOF
};

// Writes as much as the pipe takes. Closes it when everything is written or nobody reads it.
static void feed_child(child_traffic *traffic, short events) {
    if ((events & POLLOUT) == 0) {
        traffic->to_child.reset();
        return;
    }
    const ssize_t written =
        write(traffic->to_child.get(), traffic->input.data(), traffic->input.size());
    if (written < 0 && (errno == EINTR || errno == EAGAIN))
        return;
    if (written > 0)
        traffic->input.remove_prefix(static_cast<size_t>(written));
    if (written <= 0 || traffic->input.empty())
        traffic->to_child.reset();
}

// Reads once. Returns false at EOF, or on an error, which is kept in `error`.
static bool drain_child(child_traffic *traffic) {
    char chunk[8192];
    const ssize_t got = read(traffic->from_child.get(), chunk, sizeof chunk);
    if (got < 0 && errno != EINTR)
        traffic->error = errno;
    if (got <= 0)
        return got < 0 && errno == EINTR;
    if (traffic->output == nullptr || traffic->output->len >= traffic->output_limit)
        return true; // read all the same, so that the child never blocks on a full pipe
    const size_t room = traffic->output_limit - traffic->output->len;
    strbuf_append(traffic->output, chunk, std::min(static_cast<size_t>(got), room));
    return true;
}

// Feeds and drains the child until EOF of its output. Returns false when the deadline came first.
static bool exchange_until(child_traffic *traffic, int64_t deadline_ms) {
    while (true) {
        const int64_t remaining_ms = deadline_ms - monotonic_ms();
        if (remaining_ms < 1)
            return false;
        // poll() ignores negative descriptors.
        struct pollfd watched[] = {{traffic->from_child.get(), POLLIN, 0},
                                   {traffic->to_child.get(), POLLOUT, 0}};
        if (poll(watched, 2, static_cast<int>(std::min<int64_t>(remaining_ms, POLL_LIMIT_MS))) <
            0) {
            if (errno == EINTR)
                continue;
            traffic->error = errno;
            return true;
        }
        if (watched[1].revents != 0)
            feed_child(traffic, watched[1].revents);
        if (watched[0].revents != 0 && !drain_child(traffic))
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
static child_end attend_child(pid_t child, child_traffic *traffic, int64_t deadline_ms) {
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
    pipe_ends to_child;
    pipe_ends from_child;
    if ((input != nullptr && !open_pipe(&to_child)) || !open_pipe(&from_child))
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
    child_traffic traffic = {std::move(to_child.write_end), std::move(from_child.read_end),
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
