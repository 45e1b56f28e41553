#include "tbx/guide/guide.h"

#include "common/core.h"
#include "common/pager.h"
#include "tbx/guide/browser.h"
#include "tbx/guide/manual.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

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

static void show_paged_manual() {
    const int columns = terminal_columns();
    const bool colour = getenv("NO_COLOR") == nullptr;
    const auto print = [&](FILE *stream) { manual_print(stream, colour, columns); };
    const std::string command = pager_command();
    if (command.empty() || !pager_show(command, print))
        print(stdout);
}

void guide_show() {
    if (!on_terminal())
        manual_print(stdout, /*colour=*/false, MANUAL_DEFAULT_COLUMNS);
    else if (!guide_interactive())
        show_paged_manual();
}
