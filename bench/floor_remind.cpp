// floor_remind VAR ID: just the calls that "tbx remind ID" asks for, of a message that nobody
// has confirmed.
#include "floor_event.h"
#include "floor_mailbox.h"

#include <cstdio>

int main(int argc, char **argv) {
    if (argc != 3) {
        fprintf(stderr, "usage: floor_remind STATE-DIRECTORY ID\n");
        return 1;
    }
    const char *var = argv[1];
    const char *id = argv[2];
    require_nothing_interrupted(var);
    const path sent("%s/sent", var);
    const path dir("%s/%s", sent.c_str(), id);
    const char *dir_name = dir;
    std::string text;
    std::string names;
    read_file(path("%s/msg", dir_name), &text);
    read_file(path("%s/recipients", dir_name), &names);
    read_file(path("%s/delivery", dir_name), &text);
    if (exists(path("%s/revoked", dir_name)) || exists(path("%s/incomplete", dir_name)))
        fail(dir_name);
    const std::vector<std::string> recipients = words_of(names);
    for (const std::string &name : recipients)
        read_marks(var, name.c_str(), id);
    for (const std::string &name : recipients) {
        const account user = look_up(name.c_str());
        reset_shown(var, user, id);
        look_through_sessions(user);
    }
    look_up_author();
    const auto count = static_cast<int>(recipients.size());
    record({"REMINDED", id, "", path("message %s: %d recipients reminded by %s", id, count, AUTHOR),
            path("%d", count), AUTHOR});
    printf("Message %s: %d recipients reminded.\n", id, count);
    return 0;
}
