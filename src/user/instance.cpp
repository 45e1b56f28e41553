#include "user/instance.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <csignal>
#include <ctime>

constexpr mode_t LOCK_MODE = 0600;
constexpr mode_t READY_MODE = 0644;
constexpr size_t READY_MAX_BYTES = 64;
constexpr int WAIT_TRIES = 250; // five seconds
constexpr long WAIT_INTERVAL_MS = 20;

std::string runtime_folder() {
    return xasprintf("/run/user/%u", geteuid());
}

// ---- The lock -----------------------------------------------------------------------------

// A lock of this kind tells who holds it.
static struct flock whole_file() {
    struct flock lock = {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    return lock;
}

enum class lock_state { taken, held_by_another, failed };

//   holder  the other process; 0 if it is not known
static lock_state try_lock(const unique_fd &file, pid_t *holder) {
    *holder = 0;
    struct flock lock = whole_file();
    if (fcntl(file.get(), F_SETLK, &lock) == 0)
        return lock_state::taken;
    if (errno != EAGAIN && errno != EACCES)
        return lock_state::failed;
    lock = whole_file();
    if (fcntl(file.get(), F_GETLK, &lock) != 0)
        return lock_state::failed;
    *holder = lock.l_type == F_UNLCK || lock.l_pid < 0 ? 0 : lock.l_pid;
    return lock_state::held_by_another;
}

// ---- The readiness file -------------------------------------------------------------------

static std::string ready_path() {
    return runtime_folder() + "/tellbox-agent.ready";
}

int ready_file_write() {
    const std::string number = std::to_string(getpid()) + "\n";
    return write_file_atomic(ready_path().c_str(), number.data(), number.size(), READY_MODE);
}

void ready_file_restore() {
    struct stat status = {};
    if (lstat(ready_path().c_str(), &status) != 0 && errno == ENOENT)
        (void)ready_file_write(); // tried again at the next look
}

// Whether the readiness file names this process.
static bool is_ready(pid_t pid) {
    strbuf text;
    return read_file_limited(ready_path().c_str(), READY_MAX_BYTES, /*nofollow=*/true, &text) ==
               0 &&
           text.view() == std::to_string(pid) + "\n";
}

void ready_file_remove() {
    if (is_ready(getpid()))
        (void)unlink(ready_path().c_str()); // if it stays, it names a process that is gone
}

// ---- One for each user --------------------------------------------------------------------

// Returns the file that a process executes, also if it was replaced since; empty if unknown.
static std::string executable_of(const std::string &process) {
    constexpr std::string_view REPLACED = " (deleted)";
    char path[PATH_MAX];
    const ssize_t length = readlink(("/proc/" + process + "/exe").c_str(), path, sizeof path);
    if (length <= 0 || static_cast<size_t>(length) == sizeof path)
        return {};
    std::string_view file(path, static_cast<size_t>(length));
    if (file.ends_with(REPLACED))
        file.remove_suffix(REPLACED.size());
    return std::string(file);
}

// Whether the process that holds the lock is an agent: any program of the user could hold it.
static bool is_agent(pid_t holder) {
    struct stat status = {};
    const std::string number = std::to_string(holder);
    const std::string own = executable_of("self");
    return holder > 0 && stat(("/proc/" + number).c_str(), &status) == 0 &&
           status.st_uid == geteuid() && !own.empty() && executable_of(number) == own;
}

// Waits a moment. Returns true if a signal asks this process to end.
static bool is_ended_while_waiting() {
    sigset_t ending;
    sigemptyset(&ending);
    sigaddset(&ending, SIGTERM);
    sigaddset(&ending, SIGINT);
    const timespec interval = {0, WAIT_INTERVAL_MS * 1'000'000};
    return sigtimedwait(&ending, nullptr, &interval) > 0;
}

// Tells the other agent to look at the mailbox. Returns whether it serves the user. Its readiness
// file is looked at after the signal: an agent that is about to end removes it first, and then
// looks once more whether it is still needed.
static bool is_served_by(pid_t holder) {
    return is_ready(holder) && kill(holder, SIGUSR1) == 0 && is_ready(holder);
}

instance_state instance_become(unique_fd *lock, const std::function<bool(pid_t)> &outranks) {
    const std::string path = runtime_folder() + "/tellbox-agent.lock";
    lock->reset(
        open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, LOCK_MODE));
    if (!*lock)
        return instance_state::failed;
    for (int i = 0; i < WAIT_TRIES; i++) {
        pid_t holder = 0;
        const lock_state state = try_lock(*lock, &holder);
        if (state != lock_state::held_by_another)
            return state == lock_state::taken ? instance_state::only : instance_state::failed;
        if (is_agent(holder) && outranks(holder))
            (void)kill(holder, SIGTERM); // it may have ended by now
        else if (is_agent(holder) && is_served_by(holder))
            return instance_state::served;
        if (is_ended_while_waiting())
            return instance_state::ended;
    }
    errno = EBUSY;
    return instance_state::failed;
}
