// Runs a program and lets one of its system calls, or of its children's, go wrong.
//
//   fault_trace [--hurry] LOG [POINT ACTION] -- PROGRAM [ARGUMENT...]
//
// With --hurry the program's monotonic clock gains a second each time the program reads it, so that
// no trial waits for a limit of time. Its children that become other programs keep the real clock.
//
// POINT is PROCESS/CALL/OCCURRENCE: process 0 is the program, 1 its first child and so on; each
// counts its calls by name from 1. Counting begins where the program's own code does, behind the
// loader, and ends for a child that becomes another program. ACTION is one of
//
//   kill        the process is killed before the call runs
//   fail=ERROR  the call does nothing and fails with this error number
//   half        the call, a write, takes half of its bytes
//   fill=ERROR  the same, and the next call of that name fails with this error number
//   tear        the call, a write, takes half of its bytes, then the process is killed
//   stop=GATE   everything stands still before the call until somebody writes a line to
//               GATE.opened; a line is written to GATE.reached before
//
// LOG gets a line for each call that has ended, tab-separated: process, call, occurrence, outcome
// (the result, an error as a negative number, or "killed"), flags ("create", "unnamed" for a file
// without a name, "truncate", "sets" for a terminal's attributes, or "-") and the files concerned.
// Ends with the program's status, or 128 and the number of the signal.
#include "calls.h"

#include <elf.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <map>
#include <string>
#include <string_view>
#include <utility>

namespace {

[[noreturn]] void fail(const char *what) {
    fprintf(stderr, "fault_trace: %s: %s\n", what, strerror(errno));
    _exit(125);
}

// ---- The point ----------------------------------------------------------------------------

enum class action { none, kill, fail, half, fill, tear, stop };

struct fault {
    int process = -1;
    std::string call;
    int occurrence = 0;
    action what = action::none;
    int error = 0;
    std::string gate;
};

fault parse_fault(const std::string &point, const std::string &how) {
    fault result;
    const size_t first = point.find('/');
    const size_t last = point.rfind('/');
    result.process = std::stoi(point.substr(0, first));
    result.call = point.substr(first + 1, last - first - 1);
    result.occurrence = std::stoi(point.substr(last + 1));

    const size_t equals = how.find('=');
    const std::string name = how.substr(0, equals);
    const std::string value = equals == std::string::npos ? "" : how.substr(equals + 1);
    static const std::map<std::string, action> ACTIONS = {
        {"kill", action::kill}, {"fail", action::fail}, {"half", action::half},
        {"fill", action::fill}, {"tear", action::tear}, {"stop", action::stop}};
    result.what = ACTIONS.at(name);
    if (result.what == action::fail || result.what == action::fill)
        result.error = std::stoi(value);
    result.gate = value;
    return result;
}

// ---- Looking into a process ---------------------------------------------------------------

// Returns how many bytes could be read, or -1.
ssize_t read_memory(pid_t pid, uint64_t address, void *buffer, size_t size) {
    iovec local = {buffer, size};
    iovec remote = {std::bit_cast<void *>(address), size};
    return process_vm_readv(pid, &local, 1, &remote, 1, 0);
}

// Up to the terminating zero byte; page by page, since the next page may not exist.
std::string read_string(pid_t pid, uint64_t address) {
    constexpr size_t PAGE = 4096;
    std::string text;
    while (text.size() < PATH_MAX) {
        char chunk[PAGE];
        const uint64_t start = address + text.size();
        const ssize_t got = read_memory(pid, start, chunk, PAGE - start % PAGE);
        if (got <= 0)
            return text;
        const std::string_view read(chunk, static_cast<size_t>(got));
        const size_t end = read.find('\0');
        text += read.substr(0, end);
        if (end != std::string_view::npos)
            return text;
    }
    return text;
}

std::string read_link(const std::string &path) {
    char target[PATH_MAX];
    const ssize_t length = readlink(path.c_str(), target, sizeof target);
    return length < 0 ? "" : std::string(target, static_cast<size_t>(length));
}

// What a descriptor stands for. The numbers of pipes and sockets differ from run to run.
std::string describe_fd(pid_t pid, bool is_first, int fd) {
    if (is_first && fd == STDOUT_FILENO)
        return "stdout";
    if (is_first && fd == STDERR_FILENO)
        return "stderr";
    std::string target = read_link("/proc/" + std::to_string(pid) + "/fd/" + std::to_string(fd));
    if (!target.starts_with('/'))
        target.erase(std::min(target.find(':'), target.size()));
    return target.empty() ? "fd" : target;
}

std::string path_at(pid_t pid, bool is_first, int directory, std::string path) {
    if (path.starts_with('/'))
        return path;
    const std::string base = directory == AT_FDCWD
                                 ? read_link("/proc/" + std::to_string(pid) + "/cwd")
                                 : describe_fd(pid, is_first, directory);
    return path.empty() ? base : base + "/" + path;
}

std::string describe_polled(pid_t pid, bool is_first, uint64_t address) {
    pollfd first = {};
    if (read_memory(pid, address, &first, sizeof first) != static_cast<ssize_t>(sizeof first))
        return "nothing";
    return describe_fd(pid, is_first, first.fd);
}

std::string describe_files(pid_t pid, bool is_first, const system_call &call,
                           const uint64_t (&arguments)[6]) {
    const int fd = static_cast<int>(arguments[0]);
    switch (call.named) {
    case names::nothing:
        return "-";
    case names::path:
        return path_at(pid, is_first, AT_FDCWD, read_string(pid, arguments[0]));
    case names::two_paths:
        return path_at(pid, is_first, AT_FDCWD, read_string(pid, arguments[0])) + "\t" +
               path_at(pid, is_first, AT_FDCWD, read_string(pid, arguments[1]));
    case names::fd:
        return describe_fd(pid, is_first, fd);
    case names::at:
        return path_at(pid, is_first, fd, read_string(pid, arguments[1]));
    case names::two_at:
        return path_at(pid, is_first, fd, read_string(pid, arguments[1])) + "\t" +
               path_at(pid, is_first, static_cast<int>(arguments[2]),
                       read_string(pid, arguments[3]));
    case names::mapped: {
        const int mapped = static_cast<int>(arguments[4]);
        return mapped < 0 ? "memory" : describe_fd(pid, is_first, mapped);
    }
    case names::polled:
        return describe_polled(pid, is_first, arguments[0]);
    }
    return "-";
}

const char *describe_flags(const system_call &call, const uint64_t (&arguments)[6]) {
    const bool opens = call.number == SYS_openat || call.number == SYS_open;
    const uint64_t flags = call.number == SYS_openat ? arguments[2] : arguments[1];
    if (opens && (flags & O_CREAT) != 0)
        return "create";
    if (opens && (flags & O_TMPFILE) == O_TMPFILE)
        return "unnamed";
    if (call.number == SYS_ioctl && arguments[1] >= TCSETS && arguments[1] <= TCSETSF)
        return "sets";
    return opens && (flags & O_TRUNC) != 0 ? "truncate" : "-";
}

// ---- The clock ----------------------------------------------------------------------------

bool write_memory(pid_t pid, uint64_t address, const void *buffer, size_t size) {
    // The call only reads from the local buffer.
    iovec local = {const_cast<void *>(buffer),
                   size}; // NOLINT(cppcoreguidelines-pro-type-const-cast)
    iovec remote = {std::bit_cast<void *>(address), size};
    return process_vm_writev(pid, &local, 1, &remote, 1, 0) == static_cast<ssize_t>(size);
}

// Makes a program that is about to begin read its clocks by system calls. Its stack holds the
// number of arguments, the arguments, the environment and the auxiliary vector.
void hide_shared_clock(pid_t pid) {
    auto at = static_cast<uint64_t>(ptrace(PTRACE_PEEKUSER, pid, offsetof(user, regs.rsp), 0));
    uint64_t word = 1;
    at += sizeof word;
    for (int lists = 0; lists < 2; at += sizeof word) {
        if (read_memory(pid, at, &word, sizeof word) < 0)
            fail("stack");
        lists += word == 0 ? 1 : 0;
    }
    Elf64_auxv_t entry = {};
    do {
        if (read_memory(pid, at, &entry, sizeof entry) < 0)
            fail("auxiliary vector");
        if (entry.a_type == AT_SYSINFO_EHDR) {
            entry.a_type = AT_IGNORE;
            if (!write_memory(pid, at, &entry, sizeof entry))
                fail("auxiliary vector");
        }
        at += sizeof entry;
    } while (entry.a_type != AT_NULL);
}

// Puts the clock's answer at `address` forward.
void gain_seconds(pid_t pid, uint64_t address, time_t seconds) {
    timespec clock = {};
    if (read_memory(pid, address, &clock, sizeof clock) < 0)
        return; // killed meanwhile
    clock.tv_sec += seconds;
    (void)write_memory(pid, address, &clock, sizeof clock); // as above
}

// ---- Where the program's own code begins --------------------------------------------------

uint64_t entry_address(pid_t pid) {
    const std::string path = "/proc/" + std::to_string(pid) + "/auxv";
    FILE *file = fopen(path.c_str(), "re");
    if (file == nullptr)
        fail("auxv");
    Elf64_auxv_t entry = {};
    while (fread(&entry, sizeof entry, 1, file) == 1 && entry.a_type != AT_ENTRY)
        ;
    fclose(file);
    return entry.a_un.a_val;
}

constexpr long BREAKPOINT = 0xcc;

// Puts a breakpoint there and returns what it replaces.
long break_at(pid_t pid, uint64_t address) {
    errno = 0;
    const long word = ptrace(PTRACE_PEEKTEXT, pid, address, 0);
    if (errno != 0 || ptrace(PTRACE_POKETEXT, pid, address, (word & ~0xffL) | BREAKPOINT) != 0)
        fail("breakpoint");
    return word;
}

// Takes it away again, and steps back onto the instruction that it replaced.
void remove_breakpoint(pid_t pid, uint64_t address, long word) {
    if (ptrace(PTRACE_POKETEXT, pid, address, word) != 0 ||
        ptrace(PTRACE_POKEUSER, pid, offsetof(user, regs.rip), address) != 0)
        fail("breakpoint");
}

// ---- The processes ------------------------------------------------------------------------

struct process {
    int ordinal = -1;        // -1 until its parent's fork has been seen
    bool is_counted = false; // not before its own code begins
    bool writes_counters = false;
    std::map<std::string, int, std::less<>> counts;

    // The call that it is in.
    const system_call *call = nullptr;
    int occurrence = 0;
    std::string files;
    const char *flags = "-";
    uint64_t first_argument = 0;
    int forced_error = 0;
    bool dies_behind = false;
    bool next_fails = false; // the next call of the fault's name

    uint64_t clock_answer = 0; // where the monotonic clock is read into; 0: it is not
};

struct tracer {
    fault wanted;
    FILE *log = nullptr;
    pid_t first = 0;
    int first_status = 0;
    uint64_t entry = 0;
    long entry_word = 0;
    int ordinals = 0;
    bool hurries = false;
    time_t gained = 0; // seconds
    std::map<pid_t, process> processes;
};

void log_call(const tracer &run, const process &one, const std::string &outcome) {
    fprintf(run.log, "%d\t%s\t%d\t%s\t%s\t%s\n", one.ordinal, one.call->name.data(), one.occurrence,
            outcome.c_str(), one.flags, one.files.c_str());
    fflush(run.log);
}

void go_on(pid_t pid, int signal_number) {
    ptrace(PTRACE_SYSCALL, pid, 0, signal_number); // it may have been killed meanwhile
}

void set_register(pid_t pid, size_t offset, uint64_t value) {
    if (ptrace(PTRACE_POKEUSER, pid, offset, value) != 0 && errno != ESRCH)
        fail("registers");
}

// A process is stopped before the call: it is made to do nothing, or only half.
void skip_call(pid_t pid, process *one, int error) {
    one->forced_error = error;
    if (one->call->number == SYS_brk) // asked for nothing, it tells where the heap ends
        set_register(pid, offsetof(user, regs.rdi), 0);
    else if (one->call->number != SYS_close) // whatever it reports, the descriptor is closed
        set_register(pid, offsetof(user, regs.orig_rax), static_cast<uint64_t>(-1));
}

void halve_write(pid_t pid, uint64_t bytes) {
    set_register(pid, offsetof(user, regs.rdx), bytes / 2);
}

void stand_still(const std::string &gate) {
    const int reached = open((gate + ".reached").c_str(), O_WRONLY | O_CLOEXEC);
    const int opened = open((gate + ".opened").c_str(), O_RDONLY | O_CLOEXEC);
    char byte = 0;
    if (reached < 0 || opened < 0 || write(reached, "\n", 1) != 1 || read(opened, &byte, 1) != 1)
        fail("gate");
    close(reached);
    close(opened);
}

void apply_fault(tracer *run, pid_t pid, process *one, const uint64_t (&arguments)[6]) {
    const fault &wanted = run->wanted;
    if (one->ordinal != wanted.process || one->call->name != wanted.call)
        return;
    if (one->next_fails) {
        one->next_fails = false;
        skip_call(pid, one, wanted.error);
        return;
    }
    if (one->occurrence != wanted.occurrence)
        return;
    switch (wanted.what) {
    case action::none:
        break;
    case action::kill:
        log_call(*run, *one, "killed");
        kill(pid, SIGKILL);
        break;
    case action::fail:
        skip_call(pid, one, wanted.error);
        break;
    case action::half:
        halve_write(pid, arguments[2]);
        break;
    case action::fill:
        halve_write(pid, arguments[2]);
        one->next_fails = true;
        break;
    case action::tear:
        halve_write(pid, arguments[2]);
        one->dies_behind = true;
        break;
    case action::stop:
        stand_still(wanted.gate);
        break;
    }
}

// A program that counts what is executed says so before it writes its counters, which do not
// belong to it, and behind that: a call that only fails.
constexpr uint64_t COUNTERS_MARK = 0x7b78;

void look_for_mark(process *one, const __ptrace_syscall_info &info) {
    if (info.entry.nr == SYS_getpriority && info.entry.args[0] == COUNTERS_MARK)
        one->writes_counters = info.entry.args[1] != 0;
}

void enter_call(tracer *run, pid_t pid, process *one, const __ptrace_syscall_info &info) {
    look_for_mark(one, info);
    const bool is_its_own = one->is_counted && !one->writes_counters;
    const bool reads_clock = is_its_own && run->hurries && info.entry.nr == SYS_clock_gettime &&
                             info.entry.args[0] == CLOCK_MONOTONIC;
    one->clock_answer = reads_clock ? info.entry.args[1] : 0;
    one->call = is_its_own ? find_call(static_cast<long>(info.entry.nr)) : nullptr;
    if (one->call == nullptr)
        return;
    uint64_t arguments[6];
    std::copy(std::begin(info.entry.args), std::end(info.entry.args), arguments);
    one->occurrence = ++one->counts[std::string(one->call->name)];
    one->files = describe_files(pid, pid == run->first, *one->call, arguments);
    one->flags = describe_flags(*one->call, arguments);
    one->first_argument = arguments[0];
    apply_fault(run, pid, one, arguments);
}

void leave_call(tracer *run, pid_t pid, process *one, int64_t result) {
    if (one->clock_answer != 0)
        gain_seconds(pid, std::exchange(one->clock_answer, 0), ++run->gained);
    if (one->call == nullptr)
        return;
    if (one->forced_error != 0 && one->call->number == SYS_brk) {
        set_register(pid, offsetof(user, regs.rdi), one->first_argument);
    } else if (one->forced_error != 0) {
        result = -one->forced_error;
        set_register(pid, offsetof(user, regs.rax), static_cast<uint64_t>(result));
    }
    log_call(*run, *one, std::to_string(result));
    one->call = nullptr;
    one->forced_error = 0;
    if (one->dies_behind)
        kill(pid, SIGKILL);
}

void handle_call_stop(tracer *run, pid_t pid, process *one) {
    __ptrace_syscall_info info = {};
    if (ptrace(PTRACE_GET_SYSCALL_INFO, pid, sizeof info, &info) > 0) {
        if (info.op == PTRACE_SYSCALL_INFO_ENTRY)
            enter_call(run, pid, one, info);
        else if (info.op == PTRACE_SYSCALL_INFO_EXIT)
            leave_call(run, pid, one, info.exit.rval);
    }
    go_on(pid, 0);
}

// A new child stands still until its place in the order is known.
void handle_fork(tracer *run, pid_t pid, const process &parent) {
    unsigned long child = 0;
    ptrace(PTRACE_GETEVENTMSG, pid, 0, &child);
    const bool was_waiting = run->processes.contains(static_cast<pid_t>(child));
    process &created = run->processes[static_cast<pid_t>(child)];
    created.ordinal = ++run->ordinals;
    created.is_counted = parent.is_counted;
    if (was_waiting)
        go_on(static_cast<pid_t>(child), 0);
    go_on(pid, 0);
}

// The program itself is followed from its first own instruction; a child that becomes another
// program is let go.
void handle_exec(tracer *run, pid_t pid, process *one) {
    if (pid == run->first) {
        run->entry = entry_address(pid);
        run->entry_word = break_at(pid, run->entry);
        if (run->hurries)
            hide_shared_clock(pid);
        go_on(pid, 0);
        return;
    }
    if (one->call != nullptr)
        log_call(*run, *one, "0");
    ptrace(PTRACE_DETACH, pid, 0, 0);
    run->processes.erase(pid);
}

bool is_at_entry(const tracer &run, pid_t pid) {
    return pid == run.first && run.entry != 0 &&
           static_cast<uint64_t>(ptrace(PTRACE_PEEKUSER, pid, offsetof(user, regs.rip), 0)) ==
               run.entry + 1;
}

void handle_signal_stop(tracer *run, pid_t pid, process *one, int number) {
    if (number == SIGTRAP && is_at_entry(*run, pid)) {
        remove_breakpoint(pid, run->entry, run->entry_word);
        run->entry = 0;
        one->is_counted = true;
        number = 0;
    }
    go_on(pid, number);
}

// The first stop of a new child comes before or behind its parent's.
void handle_first_stop(tracer *run, pid_t pid) {
    const auto known = run->processes.find(pid);
    if (known == run->processes.end())
        run->processes[pid]; // held until handle_fork
    else
        go_on(pid, 0);
}

void handle_stop(tracer *run, pid_t pid, int status) {
    const auto found = run->processes.find(pid);
    const int number = WSTOPSIG(status);
    const int event = status >> 16;
    if (found == run->processes.end() || (number == SIGSTOP && event == 0)) {
        handle_first_stop(run, pid);
        return;
    }
    process &one = found->second;
    if (number == (SIGTRAP | 0x80))
        handle_call_stop(run, pid, &one);
    else if (event == PTRACE_EVENT_FORK || event == PTRACE_EVENT_VFORK ||
             event == PTRACE_EVENT_CLONE)
        handle_fork(run, pid, one);
    else if (event == PTRACE_EVENT_EXEC)
        handle_exec(run, pid, &one);
    else
        handle_signal_stop(run, pid, &one, number);
}

void follow(tracer *run) {
    while (!run->processes.empty()) {
        int status = 0;
        const pid_t pid = waitpid(-1, &status, __WALL);
        if (pid < 0 && errno == EINTR)
            continue;
        if (pid < 0)
            break;
        if (WIFSTOPPED(status)) {
            handle_stop(run, pid, status);
            continue;
        }
        run->processes.erase(pid);
        if (pid == run->first)
            run->first_status = status;
    }
}

void start(tracer *run, char **command) {
    run->first = fork();
    if (run->first < 0)
        fail("fork");
    if (run->first == 0) {
        ptrace(PTRACE_TRACEME, 0, 0, 0);
        raise(SIGSTOP);
        execv(command[0], command);
        fail(command[0]);
    }
    int status = 0;
    constexpr long OPTIONS = PTRACE_O_TRACESYSGOOD | PTRACE_O_TRACEFORK | PTRACE_O_TRACEVFORK |
                             PTRACE_O_TRACECLONE | PTRACE_O_TRACEEXEC | PTRACE_O_EXITKILL;
    if (waitpid(run->first, &status, 0) != run->first || !WIFSTOPPED(status) ||
        ptrace(PTRACE_SETOPTIONS, run->first, 0, OPTIONS) != 0)
        fail("ptrace");
    run->processes[run->first].ordinal = 0;
    go_on(run->first, 0);
}

} // namespace

int main(int argc, char **argv) {
    tracer run;
    run.hurries = argc > 1 && strcmp(argv[1], "--hurry") == 0;
    argc -= run.hurries ? 1 : 0;
    argv += run.hurries ? 1 : 0;
    const bool has_fault = argc > 4 && strcmp(argv[2], "--") != 0;
    const int separator = has_fault ? 4 : 2;
    if (argc <= separator + 1 || strcmp(argv[separator], "--") != 0) {
        fprintf(stderr,
                "usage: fault_trace [--hurry] LOG [POINT ACTION] -- PROGRAM [ARGUMENT...]\n");
        return 125;
    }
    if (has_fault)
        run.wanted = parse_fault(argv[2], argv[3]);
    run.log = fopen(argv[1], "we");
    if (run.log == nullptr)
        fail(argv[1]);
    start(&run, argv + separator + 1);
    follow(&run);
    return WIFSIGNALED(run.first_status) ? 128 + WTERMSIG(run.first_status)
                                         : WEXITSTATUS(run.first_status);
}
