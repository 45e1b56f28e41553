#include "tbx/mailbox.h"

#include "common/environment.h"
#include "common/message.h"

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
#include <csignal>

constexpr int CHILD_FAILED = 126; // exit status of a child that never reached its callback

// ---- Waiting ------------------------------------------------------------------------------

constexpr int REAP_INTERVAL_MS = 10;
constexpr int KILL_PATIENCE_MS = 2000;
constexpr int NOT_REAPED = -1; // no wait status has this value
constexpr int POLL_LIMIT_MS = 1000;

int64_t monotonic_ms() {
    struct timespec time = {};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return int64_t{time.tv_sec} * 1000 + time.tv_nsec / 1'000'000;
}

// A descriptor that becomes readable when `child` ends; empty where the system has none.
static unique_fd open_pidfd(pid_t child) {
    return unique_fd(static_cast<int>(syscall(SYS_pidfd_open, child, 0)));
}

// Sleeps until the child ends, at most until the next try is due. Without a pidfd poll()
// watches nothing and only sleeps.
static void await_exit(const unique_fd &pidfd, int64_t remaining_ms) {
    struct pollfd watched = {pidfd.get(), POLLIN, 0};
    const int wait_ms = static_cast<int>(std::min<int64_t>(remaining_ms, REAP_INTERVAL_MS));
    poll(&watched, 1, wait_ms); // however it ends, the caller looks at the child again
}

// Whether the child has ended, and is reaped, by the deadline. True, too, where waiting for it
// makes no sense; `status` then stays as it was.
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

// A child that hangs in a file system of its user's own making may not even die of this: it is
// given up then, so that nobody can hold up the administrator.
static int kill_and_reap(pid_t child) {
    int status = 0;
    kill(child, SIGKILL); // cannot fail: a child stays ours until it is waited for
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

// Standard input becomes the input pipe, or /dev/null where there is none; standard output
// the output pipe; standard error /dev/null, so that nothing of the user's reaches root's
// terminal.
static void redirect_standard_descriptors(const pipe_ends &input, const pipe_ends &output) {
    const unique_fd null(open("/dev/null", O_RDWR | O_CLOEXEC));
    const int in = input.read_end ? input.read_end.get() : null.get();
    if (!null || dup2(in, STDIN_FILENO) < 0 || dup2(output.write_end.get(), STDOUT_FILENO) < 0 ||
        dup2(null.get(), STDERR_FILENO) < 0)
        _exit(CHILD_FAILED);
}

// Becomes `user` for good or ends the child: nothing runs between two identities.
static void become_user(const resolved_user &user) {
    if (initgroups(user.name.c_str(), user.gid) != 0 ||
        setresgid(user.gid, user.gid, user.gid) != 0 ||
        setresuid(user.uid, user.uid, user.uid) != 0)
        _exit(CHILD_FAILED);
    if (getuid() != user.uid || geteuid() != user.uid || getegid() != user.gid || setuid(0) == 0)
        _exit(CHILD_FAILED); // a way back to root is a failed drop
}

// When the parent is killed the child must go too: nobody would be left to end it, and it must
// not write into the mailbox beside a later run. After the change of identity, which clears the
// request.
static void die_with_parent(pid_t parent) {
    if (prctl(PR_SET_PDEATHSIG, SIGKILL) != 0 || getppid() != parent)
        _exit(CHILD_FAILED);
}

[[noreturn]] static void run_child(const resolved_user &user, user_callback callback,
                                   void *argument, pid_t parent, pipe_ends *input,
                                   pipe_ends *output) {
    input->write_end.reset();
    output->read_end.reset();
    redirect_standard_descriptors(*input, *output);
    // Above all the message's lock: a user who stops their child must not hold it.
    closefrom(STDERR_FILENO + 1);
    if (geteuid() == 0 && !test_mode())
        become_user(user);
    die_with_parent(parent);
    if (chdir("/") != 0)
        _exit(CHILD_FAILED);
    umask(022);
    signal(SIGPIPE, SIG_DFL);
    const int status = callback(argument);
    fflush(stdout);
    _exit(status & 0xff);
}

// ---- The parent's side --------------------------------------------------------------------

// Keeps a child that ends without reading its input from ending this process.
class sigpipe_ignored {
public:
    sigpipe_ignored() : previous_(signal(SIGPIPE, SIG_IGN)) {}
    ~sigpipe_ignored() { signal(SIGPIPE, previous_); }
    sigpipe_ignored(const sigpipe_ignored &) = delete;
    sigpipe_ignored &operator=(const sigpipe_ignored &) = delete;

private:
    void (*previous_)(int);
};

// What goes to the child and comes back from it.
struct child_traffic {
    unique_fd to_child; // non-blocking; empty once everything is written
    unique_fd from_child;
    std::string_view input;
    strbuf *output;
    size_t output_limit;
};

// Writes what the pipe takes, and closes it once nothing is left or nobody reads.
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

// Reads once. False at the end of the output or on an error.
static bool drain_child(child_traffic *traffic) {
    char chunk[8192];
    const ssize_t got = read(traffic->from_child.get(), chunk, sizeof chunk);
    if (got <= 0)
        return got < 0 && errno == EINTR;
    if (traffic->output == nullptr || traffic->output->len >= traffic->output_limit)
        return true; // read all the same, so that the child never blocks on a full pipe
    const size_t room = traffic->output_limit - traffic->output->len;
    strbuf_append(traffic->output, chunk, std::min(static_cast<size_t>(got), room));
    return true;
}

// Feeds and drains the child until its output ends. False when the deadline came first.
static bool exchange_until(child_traffic *traffic, int64_t deadline_ms) {
    while (true) {
        const int64_t remaining_ms = deadline_ms - monotonic_ms();
        if (remaining_ms < 1)
            return false;
        // A negative descriptor is passed over.
        struct pollfd watched[] = {{traffic->from_child.get(), POLLIN, 0},
                                   {traffic->to_child.get(), POLLOUT, 0}};
        if (poll(watched, 2, static_cast<int>(std::min<int64_t>(remaining_ms, POLL_LIMIT_MS))) <
            0) {
            if (errno == EINTR)
                continue;
            return true;
        }
        if (watched[1].revents != 0)
            feed_child(traffic, watched[1].revents);
        if (watched[0].revents != 0 && !drain_child(traffic))
            return true;
    }
}

static int exit_result(int wait_status) {
    if (!WIFEXITED(wait_status) || WEXITSTATUS(wait_status) == CHILD_FAILED)
        return -1;
    return WEXITSTATUS(wait_status);
}

// Follows a started child to its end.
static int attend_child(pid_t child, child_traffic *traffic, int64_t deadline_ms) {
    const bool in_time = exchange_until(traffic, deadline_ms);
    traffic->to_child.reset();
    traffic->from_child.reset();
    if (!in_time)
        return kill_and_reap(child);
    int status = 0;
    return reap_child(child, deadline_ms, &status) == 0 ? exit_result(status) : -1;
}

static bool set_nonblocking(const unique_fd &fd) {
    return fcntl(fd.get(), F_SETFL, O_NONBLOCK) == 0;
}

int run_as_user(const resolved_user &user, user_callback callback, void *argument,
                const std::string_view *input, strbuf *output, size_t output_limit,
                int timeout_seconds) {
    const int64_t deadline_ms = monotonic_ms() + int64_t{timeout_seconds} * 1000;
    pipe_ends to_child;
    pipe_ends from_child;
    if ((input != nullptr && !open_pipe(&to_child)) || !open_pipe(&from_child))
        return -1;
    if (input != nullptr && !set_nonblocking(to_child.write_end))
        return -1;
    fflush(stdout);
    fflush(stderr);
    const pid_t parent = getpid();
    const pid_t child = fork();
    if (child < 0)
        return -1;
    if (child == 0)
        run_child(user, callback, argument, parent, &to_child, &from_child);

    const sigpipe_ignored guard;
    to_child.read_end.reset();
    from_child.write_end.reset();
    child_traffic traffic = {std::move(to_child.write_end), std::move(from_child.read_end),
                             input != nullptr ? *input : std::string_view(), output, output_limit};
    if (traffic.input.empty())
        traffic.to_child.reset();
    const int result = attend_child(child, &traffic, deadline_ms);
    errno = 0; // it was started
    return result;
}

// ---- Paths --------------------------------------------------------------------------------

std::string mailbox_dir(const resolved_user &user) {
    return xasprintf("%s/users/%s", var_dir(), user.name.c_str());
}

std::string mailbox_file(const mailbox_target &target, const char *folder, const char *suffix) {
    return xasprintf("%s/%s/%lld%s", target.mailbox.c_str(), folder,
                     static_cast<long long>(target.id), suffix);
}

static int run_on_mailbox(const resolved_user &user, user_callback callback, mailbox_target *target,
                          const std::string_view *input) {
    return run_as_user(user, callback, target, input, nullptr, 0, MAILBOX_TIMEOUT_SECONDS);
}

// ---- Delivering ---------------------------------------------------------------------------

// Root's part: makes sure that the mailbox directory exists, is a directory and is the user's.
static bool prepare_mailbox(const char *mailbox, const resolved_user &user) {
    struct stat status = {};
    if (lstat(mailbox, &status) != 0) {
        if (mkdir(mailbox, 0700) != 0 && errno != EEXIST)
            return false;
        if (lstat(mailbox, &status) != 0)
            return false;
    }
    if (!S_ISDIR(status.st_mode))
        return false;
    if (geteuid() == 0 && !test_mode() && status.st_uid == 0)
        return lchown(mailbox, user.uid, user.gid) == 0;
    return true;
}

bool mailbox_deliver(const resolved_user &user, int64_t id, std::string_view text) {
    mailbox_target target = {mailbox_dir(user), id};
    return prepare_mailbox(target.mailbox.c_str(), user) &&
           run_on_mailbox(user, mailbox_write_copy, &target, &text) == 0;
}

static bool make_subdirectories(const std::string &mailbox) {
    for (const char *folder : {"inbox", "read", "acks", "state"})
        if (mkdir((mailbox + "/" + folder).c_str(), 0755) != 0 && errno != EEXIST)
            return false;
    return true;
}

static bool write_copy_file(const char *path, const strbuf &text) {
    unique_fd fd(open(path, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644));
    return fd && write_all(fd.get(), text.data, text.len) == 0 && fd.close() == 0;
}

int mailbox_write_copy(void *argument) {
    const auto &target = *static_cast<const mailbox_target *>(argument);
    if (!make_subdirectories(target.mailbox))
        return 1;
    for (const char *folder : {"read", "acks"}) {
        if (path_exists(mailbox_file(target, folder, "").c_str()))
            return 0; // read or confirmed: a repeated delivery must not bring it back
        if (is_resource_error(errno))
            return 1;
    }
    strbuf text;
    if (read_fd_limited(STDIN_FILENO, MESSAGE_FILE_MAX_BYTES, &text) != 0 || text.len == 0)
        return 1;

    const std::string copy = mailbox_file(target, "inbox", "");
    const std::string temporary = mailbox_file(target, "inbox", ".tmp");
    unlink(temporary.c_str()); // a stale one of an interrupted delivery
    if (!write_copy_file(temporary.c_str(), text) || rename(temporary.c_str(), copy.c_str()) != 0) {
        unlink(temporary.c_str()); // nothing half written stays
        return 1;
    }
    struct stat status = {};
    const bool stands =
        stat(copy.c_str(), &status) == 0 && S_ISREG(status.st_mode) && status.st_size > 0;
    return stands ? 0 : 1;
}

// ---- Removing -----------------------------------------------------------------------------

// Whether there is certainly nothing at `path`, or something that is no directory. A look-up
// that fails in another way says nothing.
static bool is_certainly_no_mailbox(const char *path) {
    struct stat status = {};
    if (lstat(path, &status) == 0)
        return !S_ISDIR(status.st_mode);
    return errno == ENOENT || errno == ENOTDIR;
}

bool mailbox_withdraw(const resolved_user &user, int64_t id) {
    mailbox_target target = {mailbox_dir(user), id};
    if (is_certainly_no_mailbox(target.mailbox.c_str()))
        return true; // nothing to withdraw
    return run_on_mailbox(user, mailbox_remove_copy, &target, nullptr) == 0;
}

bool mailbox_reset_shown(const resolved_user &user, int64_t id) {
    mailbox_target target = {mailbox_dir(user), id};
    if (!is_directory(target.mailbox.c_str()))
        return false; // nobody there to be shown anything
    return run_on_mailbox(user, mailbox_remove_shown, &target, nullptr) == 0;
}

bool mailbox_purge_message(const resolved_user &user, int64_t id) {
    mailbox_target target = {mailbox_dir(user), id};
    if (is_certainly_no_mailbox(target.mailbox.c_str()))
        return true;
    return run_on_mailbox(user, mailbox_remove_all, &target, nullptr) >= 0 || errno == 0;
}

// Failures are ignored: the callers look at what is left.
static void remove_file(const mailbox_target &target, const char *folder, const char *suffix) {
    unlink(mailbox_file(target, folder, suffix).c_str());
}

// A file that cannot be looked up is not known to be gone.
static bool file_is_left(const mailbox_target &target, const char *folder, const char *suffix) {
    const bool stands = path_exists(mailbox_file(target, folder, suffix).c_str()) != 0;
    return stands || (errno != ENOENT && errno != ENOTDIR);
}

static void remove_shown_marks(const mailbox_target &target) {
    remove_file(target, "state", ".term");
    remove_file(target, "state", ".gui");
}

int mailbox_remove_copy(void *argument) {
    const auto &target = *static_cast<const mailbox_target *>(argument);
    remove_file(target, "inbox", "");
    remove_shown_marks(target);
    return file_is_left(target, "inbox", "") ? 1 : 0;
}

int mailbox_remove_shown(void *argument) {
    const auto &target = *static_cast<const mailbox_target *>(argument);
    remove_shown_marks(target);
    return file_is_left(target, "state", ".term") || file_is_left(target, "state", ".gui") ? 1 : 0;
}

int mailbox_remove_all(void *argument) {
    const auto &target = *static_cast<const mailbox_target *>(argument);
    remove_file(target, "inbox", "");
    remove_file(target, "read", "");
    remove_file(target, "acks", "");
    remove_shown_marks(target);
    return 0;
}
