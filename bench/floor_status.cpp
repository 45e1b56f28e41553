// floor_status VAR ID: the reads that "tbx status ID" asks for, of one message and of the
// mailboxes of its recipients. Nothing is derived from what the mailboxes say.
#include "floor_mailbox.h"

#include <cstdio>

int main(int argc, char **argv) {
    if (argc != 3) {
        fprintf(stderr, "usage: floor_status STATE-DIRECTORY ID\n");
        return 1;
    }
    const char *var = argv[1];
    require_nothing_interrupted(var);
    const path sent("%s/sent", var);
    const path dir("%s/%s", sent.c_str(), argv[2]);
    const char *dir_name = dir;
    std::string text;
    std::string names;
    read_file(path("%s/msg", dir_name), &text);
    if (exists(path("%s/failed", dir_name)))
        fail(dir_name);
    read_file(path("%s/recipients", dir_name), &names);
    read_file(path("%s/delivery", dir_name), &text);
    if (exists(path("%s/revoked", dir_name)) || exists(path("%s/incomplete", dir_name)))
        fail(dir_name);
    for (const std::string &name : words_of(names)) {
        read_marks(var, name.c_str(), argv[2]);
        printf("%-16s %s\n", name.c_str(), "delivered");
    }
    return 0;
}
