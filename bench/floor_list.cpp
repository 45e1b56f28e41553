// floor_list VAR USER...: the reads that "tbx list" asks for, of every message of the store and
// of the mailbox of each recipient named. Nothing is derived from what was read.
#include "floor_mailbox.h"

#include <cstdio>

static void read_message(const char *var, const std::string &id, std::string *text) {
    const path dir("%s/sent/%s", var, id.c_str());
    const char *dir_name = dir;
    if (exists(path("%s/failed", dir_name)) || exists(path("%s/revoked", dir_name)))
        fail(dir_name);
    read_file(path("%s/msg", dir_name), text);
    read_file(path("%s/recipients", dir_name), text);
    read_file(path("%s/delivery", dir_name), text);
    printf("%-5s %-12s %-40s  %d confirmed\n", id.c_str(), "", "", 0);
}

int main(int argc, char **argv) {
    if (argc < 2) {
        fprintf(stderr, "usage: floor_list STATE-DIRECTORY USER...\n");
        return 1;
    }
    const char *var = argv[1];
    require_nothing_interrupted(var);
    const path sent("%s/sent", var);
    require_folder(sent);
    const std::vector<std::string> ids = numbered_entries(sent);
    const std::string lines = joined(numbered_entries(sent), '\n'); // what the mailboxes are asked
    std::string text;
    for (const std::string &id : ids)
        read_message(var, id, &text);
    for (char **user = argv + 2; *user != nullptr; user++)
        read_mailbox(var, *user, lines);
    return 0;
}
