#include "user/instance.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <ctime>

constexpr mode_t LOCK_MODE = 0600;
constexpr mode_t READY_MODE = 0644;
constexpr size_t READY_MAX_BYTES = 64;
constexpr int REPLACE_TRIES = 250;
constexpr long REPLACE_INTERVAL_MS = 20;

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

static instance_lock try_lock(const unique_fd &file, pid_t *holder) {
    struct flock lock = whole_file();
    if (fcntl(file.get(), F_SETLK, &lock) == 0)
        return instance_lock::taken;
    if (errno != EAGAIN && errno != EACCES)
        return instance_lock::failed;
    lock = whole_file();
    if (fcntl(file.get(), F_GETLK, &lock) != 0)
        return instance_lock::failed;
    *holder = lock.l_type == F_UNLCK ? 0 : lock.l_pid;
    return instance_lock::held_by_another;
}

instance_lock instance_take(unique_fd *lock, pid_t *holder) {
    *holder = 0;
    const std::string path = runtime_folder() + "/tellbox-agent.lock";
    lock->reset(
        open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, LOCK_MODE));
    return *lock ? try_lock(*lock, holder) : instance_lock::failed;
}

bool instance_replace(unique_fd *lock, pid_t holder) {
    if (holder > 0 && kill(holder, SIGTERM) != 0 && errno != ESRCH)
        return false;
    for (int i = 0; i < REPLACE_TRIES; i++) {
        pid_t other = 0;
        const instance_lock result = try_lock(*lock, &other);
        if (result != instance_lock::held_by_another)
            return result == instance_lock::taken;
        if (other != 0 && other != holder)
            return false; // another agent was faster
        const timespec interval = {0, REPLACE_INTERVAL_MS * 1'000'000};
        nanosleep(&interval, nullptr);
    }
    return false;
}

// ---- The readiness file -------------------------------------------------------------------

static std::string ready_path() {
    return runtime_folder() + "/tellbox-agent.ready";
}

static std::string own_number() {
    return std::to_string(getpid()) + "\n";
}

int ready_file_write() {
    const std::string number = own_number();
    return write_file_atomic(ready_path().c_str(), number.data(), number.size(), READY_MODE);
}

void ready_file_remove() {
    strbuf text;
    if (read_file_limited(ready_path().c_str(), READY_MAX_BYTES, /*nofollow=*/true, &text) == 0 &&
        text.view() == own_number())
        unlink(ready_path().c_str()); // if it stays, it names a process that is gone
}
