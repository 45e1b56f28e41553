// Prints the manual page for man(1), made from the tables that the program's own guide shows.
//
//   tbx-man-page DATE >tbx.1
#include "roff.h"
#include "tbx/guide/texts.h"

#include <cstdio>

static void print_page(const char *date) {
    printf(".TH TBX 1 %s \"tbx " TBX_VERSION "\" \"tbx manual\"\n", date);
    printf(".nh\n.ad l\n");
    roff_print_name("NAME", MANUAL_NAME_LINE);
    roff_print_synopsis("SYNOPSIS", GUIDE_SYNOPSIS);
    roff_print_section("DESCRIPTION");
    roff_print_text(GUIDE_DESCRIPTION);
    roff_print_table("COMMANDS", GUIDE_COMMANDS);
    roff_print_table("SEND OPTIONS", GUIDE_SEND_OPTIONS);
    roff_print_table("EXAMPLES", GUIDE_EXAMPLES);
    roff_print_table("FILES", GUIDE_FILES);
    roff_print_table("ENVIRONMENT", GUIDE_ENVIRONMENT);
    roff_print_table("EXIT STATUS", GUIDE_EXIT_STATUS);
    roff_print_section("SEE ALSO");
    roff_print_text(GUIDE_SEE_ALSO);
}

int main(int argc, char **argv) {
    if (argc != 2) {
        fprintf(stderr, "usage: tbx-man-page DATE\n");
        return 1;
    }
    print_page(argv[1]);
    return fflush(stdout) == 0 && ferror(stdout) == 0 ? 0 : 1;
}
