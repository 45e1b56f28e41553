// The process entry: environment, sudo, umask, the table of commands, and nothing else.
#include "common/core.h"
#include "common/environment.h"
#include "tbx/command.h"
#include "tbx/guide/guide.h"
#include "tbx/recovery.h"
#include "tbx/tui/list.h"

#include <fcntl.h>
#include <linux/close_range.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <vector>

// ---- Becoming root ------------------------------------------------------------------------

constexpr size_t EXECUTABLE_PATH_BYTES = 4096;

// Replaces this process by "sudo -- EXECUTABLE ARGUMENTS". Does not return.
[[noreturn]] static void reexec_with_sudo(char **argv) {
    char path[EXECUTABLE_PATH_BYTES];
    const ssize_t length = readlink("/proc/self/exe", path, sizeof path - 1);
    if (length < 1)
        die("/proc/self/exe: %s", strerror(errno));
    path[length] = '\0';

    char sudo[] = "sudo";
    char end_of_options[] = "--";
    std::vector<char *> list = {sudo, end_of_options, path};
    for (char **argument = argv[0] != nullptr ? argv + 1 : argv; *argument != nullptr; argument++)
        list.push_back(*argument);
    list.push_back(nullptr);
    execvp("sudo", list.data());
    die("sudo: %s", strerror(errno));
}

// ---- Commands -----------------------------------------------------------------------------

static void print_version() {
    printf("Tellbox - Advanced Messaging System for Linux %s\n", TBX_VERSION);
}

struct command {
    const char *name;
    int arguments_max; // -1: checked by the command itself, or not at all
    bool recovers;     // finishes interrupted operations first
    bool changes;      // cannot be undone: it is done even if its output is lost
    void (*run)(int argc, char **argv);
};

// Runs a command that looks at no argument.
template <void run()> static void without_arguments(int /*argc*/, char ** /*argv*/) {
    run();
}

// Runs a command that takes one argument, which may be absent.
template <void run(const char *)> static void with_optional_argument(int argc, char **argv) {
    run(argc > 0 ? argv[0] : nullptr);
}

static const command commands[] = {
    {"help", -1, false, false, without_arguments<guide_show>},
    {"-h", -1, false, false, without_arguments<guide_show>},
    {"--help", -1, false, false, without_arguments<guide_show>},
    {"version", -1, false, false, without_arguments<print_version>},
    {"--version", -1, false, false, without_arguments<print_version>},
    {"send", -1, true, true, cmd_send},
    {"list", 0, true, false, without_arguments<cmd_list>},
    {"status", 1, true, false, with_optional_argument<cmd_status>},
    {"revoke", 1, true, true, with_optional_argument<cmd_revoke>},
    {"remind", 1, true, true, with_optional_argument<cmd_remind>},
    {"log", 1, true, false, with_optional_argument<cmd_log>},
    {"purge", 1, false, true, with_optional_argument<cmd_purge>},
};

static const command &find_command_or_die(const char *name) {
    for (const command &candidate : commands)
        if (strcmp(candidate.name, name) == 0)
            return candidate;
    die("unknown command: %s (tbx --help for the guide)", name);
}

// Makes sure that all output is written. If it is not, for example on a full disk, the command
// fails; but not a command that has changed something, because the caller would repeat it.
static void flush_output(bool has_changed) {
    errno = EIO; // for an earlier error that left no errno
    if (fflush(stdout) == 0 && ferror(stdout) == 0)
        return;
    const int error = errno;
    if (!has_changed)
        die("standard output: %s", strerror(error));
    warn("standard output: %s", strerror(error));
}

static void run_command(const char *name, int argc, char **argv) {
    const command &chosen = find_command_or_die(name);
    if (chosen.arguments_max >= 0 && argc > chosen.arguments_max)
        die("too many arguments for %s: %s (tbx --help for the guide)", name,
            argv[chosen.arguments_max]);
    if (chosen.changes)
        (void)signal(SIGPIPE, SIG_IGN); // a closed pipe must not end it half-way
    if (chosen.recovers)
        recover_interrupted();
    chosen.run(argc, argv);
    flush_output(chosen.changes);
}

// Shows the interface if there is a terminal for it, else the guide.
static void run_without_command() {
    if (isatty(STDIN_FILENO) != 0 && isatty(STDOUT_FILENO) != 0) {
        recover_interrupted();
        if (tui_run())
            return;
    }
    guide_show();
}

// ---- Entry --------------------------------------------------------------------------------

// Opens /dev/null for each standard descriptor that is missing, so that a file of the store is
// never opened as standard output.
static void open_missing_standard_descriptors() {
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; fd++)
        // open() returns the lowest free descriptor, which is this one.
        if (fcntl(fd, F_GETFD) < 0 && errno == EBADF && open("/dev/null", O_RDWR) < 0)
            die("/dev/null: %s", strerror(errno));
}

// Makes inherited descriptors close-on-exec: the programs that we start, such as an editor, may run
// as another user. If the kernel does not have this call, they stay as they were.
static void keep_descriptors_from_children() {
    (void)syscall(SYS_close_range, STDERR_FILENO + 1, ~0U, CLOSE_RANGE_CLOEXEC);
}

int main(int argc, char **argv) {
    open_missing_standard_descriptors();
    keep_descriptors_from_children();
    (void)signal(SIGCHLD, SIG_DFL); // if our parent ignored it, no child could be waited for
    install_out_of_memory_handler();
    init_environment("tbx");
    if (geteuid() != 0 && !test_mode())
        reexec_with_sudo(argv);
    umask(022);
    if (argc < 2 || *argv[1] == '\0') {
        run_without_command();
        flush_output(/*has_changed=*/false);
    } else {
        run_command(argv[1], argc - 2, argv + 2);
    }
    return 0;
}
