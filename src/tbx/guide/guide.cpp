#include "tbx/guide/guide.h"

#include "common/core.h"
#include "tbx/guide/browser.h"
#include "tbx/guide/manual.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

static constexpr const char *DEFAULT_PAGER = "less -R -F -X";
static constexpr const char *DEFAULT_PATH = "/usr/bin:/bin";

// What a shell returns for a command that it cannot run, or cannot find.
static constexpr int SHELL_CANNOT_RUN = 126;
static constexpr int SHELL_NOT_FOUND = 127;

static bool on_terminal() {
    return isatty(STDIN_FILENO) && isatty(STDOUT_FILENO);
}

static int terminal_columns() {
    const unique_fd tty(open("/dev/tty", O_RDWR | O_NOCTTY | O_CLOEXEC));
    winsize size = {};
    if (!tty || ioctl(tty.get(), TIOCGWINSZ, &size) != 0 || size.ws_col == 0)
        return MANUAL_DEFAULT_COLUMNS;
    return size.ws_col;
}

static bool is_in_path(const char *program) {
    const char *path = getenv("PATH");
    std::string_view rest = path ? path : DEFAULT_PATH;
    while (!rest.empty()) {
        const std::string directory(rest.substr(0, rest.find(':')));
        rest.remove_prefix(std::min(directory.size() + 1, rest.size()));
        if (directory.empty())
            continue; // the current directory is no place to find programs in
        if (access(xasprintf("%s/%s", directory.c_str(), program).c_str(), X_OK) == 0)
            return true;
    }
    return false;
}

// The shell command of the pager; empty when there is none.
static std::string pager_command() {
    const char *pager = getenv("PAGER");
    if (pager && pager[0])
        return pager;
    return is_in_path("less") ? DEFAULT_PAGER : "";
}

// While the pager has the terminal, its keys are the pager's: an interrupt ends a search there
// and not this process under it. Called after the pager started, which keeps the defaults.
static void leave_signals_to_pager() {
    signal(SIGPIPE, SIG_IGN); // quitting before the end is no failure
    signal(SIGINT, SIG_IGN);
    signal(SIGQUIT, SIG_IGN);
}

// Shows the page through `command`. False when that could not be run.
static bool page_through(const std::string &command, bool colour, int columns) {
    FILE *pager = popen(command.c_str(), "we");
    if (!pager)
        return false;
    leave_signals_to_pager();
    manual_print(pager, colour, columns);
    const int status = pclose(pager);
    if (status == -1 || !WIFEXITED(status))
        return true; // it ran
    return WEXITSTATUS(status) != SHELL_CANNOT_RUN && WEXITSTATUS(status) != SHELL_NOT_FOUND;
}

static void show_paged_manual() {
    const int columns = terminal_columns();
    const bool colour = getenv("NO_COLOR") == nullptr;
    // The page is UTF-8 whatever the locale, which sudo or a console may have left at "C".
    setenv("LESSCHARSET", "utf-8", /*overwrite=*/0);
    fflush(stdout);
    const std::string command = pager_command();
    if (command.empty() || !page_through(command, colour, columns))
        manual_print(stdout, colour, columns);
}

void guide_show() {
    if (!on_terminal())
        manual_print(stdout, /*colour=*/false, MANUAL_DEFAULT_COLUMNS);
    else if (!guide_interactive())
        show_paged_manual();
}
