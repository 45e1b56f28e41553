// The process entry of the recipients' program: environment and dispatch, nothing else.
#include "common/core.h"
#include "common/environment.h"
#include "common/message.h"

#include <csignal>
#include <cstring>

int main(int argc, char **argv) {
    signal(SIGCHLD, SIG_DFL); // ignored by whoever started us, no child could be waited for
    install_out_of_memory_handler();
    init_environment("tellbox");
    if (argc == 2 && strcmp(argv[1], "agent") == 0)
        die("there is no desktop agent in this build");
    die("unknown command: %s", argc > 1 ? clean_line(argv[1]).c_str() : "");
}
