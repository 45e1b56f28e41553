// Shared by the unit tests: scratch files, environment variables, functions that end the
// process, and a private machine with its own accounts and login sessions. Everything is undone
// by destructors or by the end of the child. Trouble in a helper itself is thrown, which fails
// the test.
#pragma once

#include "common/core.h"
#include "common/environment.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <type_traits>

[[noreturn]] inline void throw_errno(const std::string &what) {
    throw std::system_error(errno, std::generic_category(), what);
}

// ---- Files --------------------------------------------------------------------------------

// Creates or replaces a file, and the directories above it.
inline void write_file(const std::filesystem::path &path, std::string_view text) {
    std::filesystem::create_directories(path.parent_path());
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file << text << std::flush;
    if (!file)
        throw_errno(path);
}

[[nodiscard]] inline std::string read_file(const std::filesystem::path &path) {
    std::ifstream file(path, std::ios::binary);
    if (!file)
        throw_errno(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

// A directory of this test's own, removed with all that is in it.
class scratch_directory {
public:
    scratch_directory() {
        std::string name = std::filesystem::temp_directory_path() / "tbx-test-XXXXXX";
        if (!mkdtemp(name.data()))
            throw_errno(name);
        path_ = name;
    }
    scratch_directory(const scratch_directory &) = delete;
    scratch_directory &operator=(const scratch_directory &) = delete;
    ~scratch_directory() {
        std::error_code ignored; // a leftover in /tmp is no reason to fail a test
        std::filesystem::remove_all(path_, ignored);
    }

    [[nodiscard]] const std::string &path() const { return path_; }
    // Path of the file `name` ("a" or "a/b") in the directory.
    [[nodiscard]] std::string path(const std::string &name) const { return path_ + "/" + name; }
    void write(const std::string &name, std::string_view text) const {
        write_file(path(name), text);
    }
    [[nodiscard]] std::string read(const std::string &name) const { return read_file(path(name)); }
    [[nodiscard]] bool exists(const std::string &name) const { // a dangling link exists
        return std::filesystem::symlink_status(path(name)).type() !=
               std::filesystem::file_type::not_found;
    }

private:
    std::string path_;
};

// The items of a list in one line, separated by blanks.
[[nodiscard]] inline std::string joined(const strlist &list) {
    std::string text;
    for (const char *item : list)
        text += (text.empty() ? "" : " ") + std::string(item);
    return text;
}

// ---- Environment --------------------------------------------------------------------------

// Sets an environment variable, or unsets it with null, and puts the old value back.
class environment_variable {
public:
    environment_variable(const char *name, const char *value) : name_(name) {
        if (const char *old = getenv(name))
            old_ = old;
        apply(value);
    }
    environment_variable(const environment_variable &) = delete;
    environment_variable &operator=(const environment_variable &) = delete;
    ~environment_variable() { apply(old_ ? old_->c_str() : nullptr); }

private:
    void apply(const char *value) const {
        if ((value ? setenv(name_.c_str(), value, 1) : unsetenv(name_.c_str())) != 0)
            abort();
        tzset(); // for TZ
    }

    std::string name_;
    std::optional<std::string> old_;
};

// Test mode on an empty state directory of this test's own.
class scratch_state : public scratch_directory {
public:
    scratch_state() : var_("TBX_VAR", path().c_str()) { init_environment("tbx"); }
    ~scratch_state() {
        unsetenv("TBX_TEST");
        init_environment("tbx");
    }

private:
    environment_variable test_{"TBX_TEST", "1"};
    environment_variable var_;
};

// ---- Children -----------------------------------------------------------------------------

struct child_result {
    int exit_status = -1; // -1 when a signal ended the child
    int signal = 0;
    std::string out; // standard output
    std::string err; // standard error
};

constexpr int CHILD_THREW = 120; // exit status of a child whose body threw

// Runs `body` in a forked child, for functions that end the process or that change it for good.
// The exit status is what `body` returns (0 if nothing), unless it ends the process itself.
// Assertions belong in the parent: let the child print what it sees.
template <typename Body> child_result run_in_child(Body &&body) {
    const int out = memfd_create("stdout", MFD_CLOEXEC);
    const int err = memfd_create("stderr", MFD_CLOEXEC);
    fflush(nullptr);
    const pid_t child = fork();
    if (out < 0 || err < 0 || child < 0)
        throw_errno("run_in_child");
    if (child == 0) {
        int status = 0;
        if (dup2(out, STDOUT_FILENO) < 0 || dup2(err, STDERR_FILENO) < 0)
            _exit(CHILD_THREW);
        try {
            if constexpr (std::is_void_v<std::invoke_result_t<Body>>)
                body();
            else
                status = body();
        } catch (const std::exception &error) {
            fprintf(stderr, "thrown: %s\n", error.what());
            status = CHILD_THREW;
        }
        fflush(nullptr);
        _exit(status);
    }
    int status = 0;
    while (waitpid(child, &status, 0) < 0)
        if (errno != EINTR)
            throw_errno("waitpid");
    child_result result;
    if (WIFEXITED(status))
        result.exit_status = WEXITSTATUS(status);
    else
        result.signal = WTERMSIG(status);
    result.out = read_file("/proc/self/fd/" + std::to_string(out));
    result.err = read_file("/proc/self/fd/" + std::to_string(err));
    close(out);
    close(err);
    return result;
}

// ---- A private machine --------------------------------------------------------------------

// First line of a test that needs accounts, sessions or sockets at their fixed paths.
#define SKIP_UNLESS_ROOT()                                                                         \
    do {                                                                                           \
        if (geteuid() != 0)                                                                        \
            GTEST_SKIP() << "needs root, for a private mount namespace";                           \
    } while (false)

// What a child finds in /etc and /run, which are otherwise empty. Nothing on the host changes.
struct private_machine {
    std::string passwd = "root:x:0:0:root:/root:/bin/bash\n";
    std::string group = "root:x:0:\n";
    std::optional<std::string> login_defs = {};       // no such file unless given
    std::map<std::string, std::string> sessions = {}; // files of /run/systemd/sessions

    // Run in a child only.
    void enter() const {
        if (unshare(CLONE_NEWNS) != 0 ||
            mount("none", "/", "none", MS_REC | MS_PRIVATE, nullptr) != 0)
            throw_errno("mount namespace");
        for (const char *directory : {"/etc", "/run"})
            if (mount("tmpfs", directory, "tmpfs", 0, "mode=755") != 0)
                throw_errno(directory);
        write_file("/etc/nsswitch.conf", "passwd: files\ngroup: files\n");
        write_file("/etc/passwd", passwd);
        write_file("/etc/group", group);
        if (login_defs)
            write_file("/etc/login.defs", *login_defs);
        std::filesystem::create_directories("/run/systemd/sessions");
        for (const auto &[name, text] : sessions)
            write_file("/run/systemd/sessions/" + name, text);
    }
};

// Runs `body` in a child for which the machine is `machine`. Needs root.
template <typename Body> child_result run_on(const private_machine &machine, Body &&body) {
    return run_in_child([&] {
        machine.enter();
        return body();
    });
}

// ---- More about files ---------------------------------------------------------------------

inline void make_fifo(const std::string &path) {
    if (mkfifo(path.c_str(), 0600) != 0)
        throw_errno(path);
}

// "MODE UID GID" of the file itself, a symbolic link is not followed: "0644 1001 1001".
[[nodiscard]] inline std::string mode_and_owner(const std::string &path) {
    struct stat status = {};
    if (lstat(path.c_str(), &status) != 0)
        throw_errno(path);
    return xasprintf("%04o %u %u", status.st_mode & 07777U, status.st_uid, status.st_gid);
}

// How many descriptors this process has open, to see that none is left behind.
[[nodiscard]] inline size_t open_descriptors() {
    const std::filesystem::directory_iterator entries("/proc/self/fd"); // its own counts too
    return static_cast<size_t>(std::distance(begin(entries), end(entries)));
}

// Leaves this process room for that many more descriptors. For a child only.
inline void leave_descriptors(rlim_t count) {
    const unique_fd lowest_free(dup(STDIN_FILENO));
    rlimit limit = {};
    if (!lowest_free || getrlimit(RLIMIT_NOFILE, &limit) != 0)
        throw_errno("leave_descriptors");
    limit.rlim_cur = static_cast<rlim_t>(lowest_free.get()) + count;
    if (setrlimit(RLIMIT_NOFILE, &limit) != 0)
        throw_errno("setrlimit");
}

// Lets no file of this process grow beyond so many bytes. For a child only.
inline void limit_files(rlim_t bytes) {
    rlimit limit = {};
    if (getrlimit(RLIMIT_FSIZE, &limit) != 0)
        throw_errno("getrlimit");
    limit.rlim_cur = bytes;
    signal(SIGXFSZ, SIG_IGN);
    if (setrlimit(RLIMIT_FSIZE, &limit) != 0)
        throw_errno("setrlimit");
}

// Gives this process an empty file for its standard input, whatever the tests are run with. For
// a child only.
inline void replace_standard_input() {
    const unique_fd file(memfd_create("stdin", MFD_CLOEXEC));
    if (dup2(file.get(), STDIN_FILENO) < 0)
        throw_errno("dup2");
}

[[nodiscard]] inline bool has_no_children() {
    return waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD;
}

// Starts a process that runs `body` and ends with its result, at the latest with this one.
[[nodiscard]] inline pid_t start_process(int (*body)()) {
    const pid_t process = fork();
    if (process == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        _exit(body());
    }
    return process;
}

// Waits for such a process; -1 when a signal ended it.
[[nodiscard]] inline int exit_status_of(pid_t process) {
    int status = 0;
    if (waitpid(process, &status, 0) != process || !WIFEXITED(status))
        return -1;
    return WEXITSTATUS(status);
}

// What the C library calls for dup2() and poll().
#ifdef SYS_dup2
constexpr uint32_t DUP2_CALL = SYS_dup2;
#else
constexpr uint32_t DUP2_CALL = SYS_dup3;
#endif
#ifdef SYS_poll
constexpr uint32_t POLL_CALL = SYS_poll;
#else
constexpr uint32_t POLL_CALL = SYS_ppoll;
#endif

// Asks the program about every further call, here and in what is started from here. For a child
// only.
template <size_t LENGTH> void filter_calls(sock_filter (&program)[LENGTH]) {
    const sock_fprog filter = {LENGTH, program};
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 ||
        prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) != 0)
        throw_errno("seccomp");
}

// Makes every further call of this number fail with the error, here and in what is started from
// here. For a child only.
inline void refuse_call(uint32_t number, uint32_t error) {
    sock_filter program[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, number, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | error),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    filter_calls(program);
}

// Makes every further fcntl() that sets flags fail, and no other. For a child only.
inline void refuse_setting_flags() {
    sock_filter program[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_fcntl, 0, 3),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, args[1])),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, F_SETFL, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EINVAL),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    filter_calls(program);
}

// Interrupts this process's calls by a signal every few milliseconds, without restarting them.
// The third signal runs `action`, in its handler. For a child only.
inline void interrupt_calls(void (*action)()) {
    static volatile sig_atomic_t count;
    static void (*third_action)();
    count = 0;
    third_action = action;
    struct sigaction handler = {};
    handler.sa_handler = [](int) {
        count = count + 1;
        if (count == 3)
            third_action();
    };
    sigaction(SIGALRM, &handler, nullptr);
    const itimerval interval = {{0, 5000}, {0, 5000}};
    setitimer(ITIMER_REAL, &interval, nullptr);
}

inline void stop_interrupting() {
    const itimerval never = {};
    setitimer(ITIMER_REAL, &never, nullptr);
}

// Waits until the process waits for a lock of flock(); false if that takes very long.
[[nodiscard]] inline bool await_waiting_for_lock(pid_t process) {
    const std::string waiting = "-> FLOCK  ADVISORY  WRITE " + std::to_string(process) + " ";
    for (int tries = 0; tries < 6000; tries++) {
        if (read_file("/proc/locks").find(waiting) != std::string::npos)
            return true;
        usleep(10'000); // nothing tells of it
    }
    return false;
}

// An empty store of messages, in test mode.
struct scratch_store : scratch_state {
    scratch_store() {
        std::filesystem::create_directory(path("users"));
        std::filesystem::create_directory(path("sent"));
    }
    void make_message(const std::string &id) const {
        std::filesystem::create_directory(path("sent/" + id));
    }
};

// ---- A machine with a state directory -----------------------------------------------------

constexpr uint32_t PAT_UID = 1001; // also the number of the user's own group
constexpr uint32_t SAM_UID = 1002;

// A machine with the users pat, who is in the group staff (50) too, and sam.
[[nodiscard]] inline private_machine machine_of_pat_and_sam() {
    return {.passwd = "root:x:0:0:root:/root:/bin/bash\n"
                      "pat:x:1001:1001::/home/pat:/bin/bash\n"
                      "sam:x:1002:1002::/home/sam:/bin/sh\n",
            .group = "root:x:0:\n"
                     "staff:x:50:pat\n"
                     "pat:x:1001:\n"
                     "sam:x:1002:\n"};
}

// Makes every read of the file fail with an input/output error. In a child on a private
// machine only.
inline void make_unreadable(const std::string &path) {
    if (mount("/proc/self/mem", path.c_str(), "none", MS_BIND, nullptr) != 0)
        throw_errno(path);
}

// The state directory as it is outside test mode, with its two folders. In a child that has
// entered it, it stands at /var/lib/tellbox; everyone else sees it at state_path().
class real_state : public scratch_directory {
public:
    real_state() {
        std::filesystem::permissions(path(), std::filesystem::perms(0755));
        std::filesystem::create_directories(state_path("users"));
        std::filesystem::create_directories(state_path("sent"));
        std::filesystem::permissions(state_path("sent"), std::filesystem::perms(0700));
    }
    [[nodiscard]] std::string state_path(const std::string &name) const {
        return path("tellbox/" + name);
    }
    // Leaves test mode. Run in a child on a private machine only.
    void enter() const {
        if (mount(path().c_str(), "/var/lib", "none", MS_BIND, nullptr) != 0)
            throw_errno("/var/lib");
        unsetenv("TBX_TEST");
        init_environment("tbx");
    }
};

// Runs `body` in a child on the machine with that state directory, outside test mode.
template <typename Body>
child_result run_for_real(const real_state &state, const private_machine &machine, Body &&body) {
    return run_on(machine, [&] {
        state.enter();
        return body();
    });
}

inline void give_file_to(const std::string &path, uint32_t uid) {
    if (lchown(path.c_str(), uid, uid) != 0)
        throw_errno(path);
}

// Pat's mailbox in such a state directory; not there until something is put into it. Needs
// root.
struct real_mailbox : real_state {
    [[nodiscard]] std::string file(const std::string &name = "") const {
        return state_path("users/pat") + (name.empty() ? "" : "/" + name);
    }
    [[nodiscard]] bool has(const std::string &name) const {
        return path_exists(file(name).c_str()) != 0;
    }
    [[nodiscard]] std::string text(const std::string &name) const { return read_file(file(name)); }

    // What the user would have created, as the user's own.
    void make_directory(const std::string &name = "") const {
        std::filesystem::create_directory(file(name));
        give_file_to(file(name), PAT_UID);
    }
    void make_folders() const {
        for (const char *folder : {"", "inbox", "read", "acks", "state"})
            make_directory(folder);
    }
    void put(const std::string &name, std::string_view text) const {
        write_file(file(name), text);
        give_file_to(file(name), PAT_UID);
    }
};

// Stands in the journal's place and takes its records. On a private machine only; takes the
// few records that a socket holds unread.
class journal_stand_in {
public:
    journal_stand_in() : socket_(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        std::filesystem::create_directories("/run/systemd/journal");
        const sockaddr_un address = {.sun_family = AF_UNIX,
                                     .sun_path = "/run/systemd/journal/socket"};
        if (bind(socket_.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0)
            throw_errno(address.sun_path);
    }

    // One line per record received, "EVENT ID user=USER details=DETAILS author=AUTHOR".
    [[nodiscard]] std::string events() const {
        std::string lines;
        std::string record(65'536, '\0');
        ssize_t length = 0;
        while ((length = recv(socket_.get(), record.data(), record.size(), MSG_DONTWAIT)) > 0) {
            const std::string_view fields(record.data(), static_cast<size_t>(length));
            lines += field(fields, "EVENT") + " " + field(fields, "MESSAGE") +
                     " user=" + field(fields, "USER") + " details=" + field(fields, "DETAILS") +
                     " author=" + field(fields, "AUTHOR") + "\n";
        }
        return lines;
    }

private:
    static std::string field(std::string_view record, const std::string &name) {
        const std::string start = "\nTBX_" + name + "=";
        const size_t place = record.find(start);
        if (place == record.npos)
            return "(none)";
        const std::string_view value = record.substr(place + start.size());
        return std::string(value.substr(0, value.find('\n')));
    }

    unique_fd socket_;
};
