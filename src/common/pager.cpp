#include "common/pager.h"

#include "common/core.h"

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <string_view>

static constexpr const char *DEFAULT_PAGER = "less -R -F -X";
static constexpr const char *DEFAULT_PATH = "/usr/bin:/bin";

// Exit statuses of a shell that cannot run, or cannot find, the command.
static constexpr int SHELL_CANNOT_RUN = 126;
static constexpr int SHELL_NOT_FOUND = 127;

static bool is_in_path(const char *program) {
    const char *path = getenv("PATH");
    std::string_view rest = path ? path : DEFAULT_PATH;
    while (!rest.empty()) {
        const std::string directory(rest.substr(0, rest.find(':')));
        rest.remove_prefix(std::min(directory.size() + 1, rest.size()));
        if (directory.empty())
            continue; // it means the current directory, which is not searched
        if (access(xasprintf("%s/%s", directory.c_str(), program).c_str(), X_OK) == 0)
            return true;
    }
    return false;
}

std::string pager_command() {
    const char *pager = getenv("PAGER");
    if (pager && pager[0])
        return pager;
    return is_in_path("less") ? DEFAULT_PAGER : "";
}

// Ignores SIGPIPE, SIGINT and SIGQUIT while it exists: Ctrl+C ends a search in the pager and must
// not end this process. Created after the pager has started, so that the pager keeps the defaults.
class signals_left_to_pager {
public:
    signals_left_to_pager() = default;
    ~signals_left_to_pager() {
        (void)signal(SIGPIPE, pipe_); // cannot fail: they were set before
        (void)signal(SIGINT, interrupt_);
        (void)signal(SIGQUIT, quit_);
    }
    signals_left_to_pager(const signals_left_to_pager &) = delete;
    signals_left_to_pager &operator=(const signals_left_to_pager &) = delete;

private:
    void (*pipe_)(int) = signal(SIGPIPE, SIG_IGN); // a pager that quits early is no failure
    void (*interrupt_)(int) = signal(SIGINT, SIG_IGN);
    void (*quit_)(int) = signal(SIGQUIT, SIG_IGN);
};

bool pager_show(const std::string &command, const std::function<void(FILE *)> &print) {
    // The text is UTF-8, even if sudo or a console has left the locale at "C".
    (void)setenv("LESSCHARSET", "utf-8", /*overwrite=*/0); // without it less shows what it can
    (void)fflush(stdout); // an error is reported at the end of the run
    FILE *pager = popen(command.c_str(), "we");
    if (!pager)
        return false;
    const signals_left_to_pager guard;
    errno = 0;
    print(pager);
    const bool is_cut = (fflush(pager) != 0 || ferror(pager) != 0) && errno != EPIPE;
    const int status = pclose(pager);
    if (is_cut)
        return false;
    if (status == -1 || !WIFEXITED(status))
        return true; // it ran
    return WEXITSTATUS(status) != SHELL_CANNOT_RUN && WEXITSTATUS(status) != SHELL_NOT_FOUND;
}
