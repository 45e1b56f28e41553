// The process entry of the recipients' program: environment, umask and dispatch, nothing else. It
// has two names: "tellbox", the user's command, and "tellbox-user", which shells and sessions run.
#include "common/core.h"
#include "common/environment.h"
#include "user/agent.h"
#include "user/command.h"
#include "user/texts.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <string_view>

// ---- Commands -----------------------------------------------------------------------------

static int print_version() {
    printf("Tellbox %s\n", TBX_VERSION);
    return 0;
}

struct command {
    const char *name;
    int arguments_max; // -1: as many as there are
    bool is_internal;  // of tellbox-user only
    int (*run)(const arguments &words);
};

// Runs a command that looks at no argument.
template <int run()> static int without_arguments(const arguments & /*words*/) {
    return run();
}

static const command commands[] = {
    {"help", -1, false, without_arguments<cmd_help>},
    {"-h", -1, false, without_arguments<cmd_help>},
    {"--help", -1, false, without_arguments<cmd_help>},
    {"version", -1, false, without_arguments<print_version>},
    {"--version", -1, false, without_arguments<print_version>},
    {"list", 0, false, without_arguments<cmd_list>},
    {"show", 1, false, cmd_show},
    {"read", -1, false, cmd_read},
    {"later", -1, false, cmd_later},
    {"hook", 1, false, cmd_hook},
    {"agent", 0, true, without_arguments<agent_run>},
    {"prompt", 2, true, cmd_prompt},
    {"mailbox", 0, true, without_arguments<cmd_mailbox>},
    {"shells", 1, true, cmd_shells},
};

static bool is_internal_name(const char *program) {
    const std::string_view path = program != nullptr ? program : "";
    return path.ends_with("tellbox-user");
}

static const command &find_command_or_die(const char *program, const char *name) {
    for (const command &candidate : commands)
        if (strcmp(candidate.name, name) == 0 &&
            (!candidate.is_internal || is_internal_name(program)))
            return candidate;
    die(_("unknown command: %s (tellbox help)"), clean_line(name).c_str());
}

static int run_command(const char *program, const char *name, const arguments &words) {
    const command &chosen = find_command_or_die(program, name);
    if (chosen.arguments_max >= 0 && words.size() > static_cast<size_t>(chosen.arguments_max))
        die(_("too many arguments for %s: %s (tellbox help)"), name,
            clean_line(words[static_cast<size_t>(chosen.arguments_max)]).c_str());
    return chosen.run(words);
}

// ---- Entry --------------------------------------------------------------------------------

// Opens /dev/null for each standard descriptor that is missing, so that a file of the mailbox is
// never opened as standard output.
static void open_missing_standard_descriptors() {
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; fd++)
        // open() returns the lowest free descriptor, which is this one.
        if (fcntl(fd, F_GETFD) < 0 && errno == EBADF && open("/dev/null", O_RDWR) < 0)
            die("/dev/null: %s", strerror(errno));
}

// Makes sure that all output is written: a full disk behind a redirection is an error.
static void flush_output_or_die() {
    errno = EIO; // for an earlier error that left no errno
    if (fflush(stdout) != 0 || ferror(stdout) != 0)
        die("%s: %s", _("standard output"), strerror(errno));
}

int main(int argc, char **argv) {
    init_environment("tellbox");
    open_missing_standard_descriptors();
    (void)signal(SIGCHLD, SIG_DFL); // if our parent ignored it, no child could be waited for
    (void)signal(SIGXFSZ, SIG_IGN); // a file size limit is an error like a full disk
    install_out_of_memory_handler();
    init_texts();
    umask(022);
    int status = 0;
    if (argc < 2)
        status = cmd_ask();
    else
        status = run_command(argv[0], argv[1], arguments(argv + 2, argv + argc));
    flush_output_or_die();
    return status;
}
