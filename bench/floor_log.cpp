// floor_log VAR ID SINCE: just the calls that "tbx log ID" asks for, of a message sent SINCE
// seconds after the epoch.
#include "floor_event.h"

#include <cstdio>
#include <cstdlib>

int main(int argc, char **argv) {
    if (argc != 4) {
        fprintf(stderr, "usage: floor_log STATE-DIRECTORY ID SINCE\n");
        return 1;
    }
    require_nothing_interrupted(argv[1]);
    std::string text;
    read_file(path("%s/sent/%s/msg", argv[1], argv[2]), &text);
    printf("Message %s\n", argv[2]);
    fflush(stdout);
    return print_history(argv[2], strtoll(argv[3], nullptr, 10)) > 0 ? 0 : 1;
}
