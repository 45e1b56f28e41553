// floor_revoke VAR ID: just the calls that "tbx revoke ID" asks for.
#include "floor_event.h"
#include "floor_mailbox.h"

#include <unistd.h>

#include <cstdio>
#include <ctime>

static void mark(const char *dir, const char *id) {
    if (exists(path("%s/revoked", dir)))
        fail("revoked already");
    replace_file(path("%s/revoked", dir),
                 path("%lld\n", static_cast<long long>(time(nullptr))).c_str());
    sync_file(path("%s/revoking", dir));
    sync_file(dir);
    look_up_author();
    record({"REVOKED", id, "", path("message %s revoked by %s", id, AUTHOR), "", AUTHOR});
}

int main(int argc, char **argv) {
    if (argc != 3) {
        fprintf(stderr, "usage: floor_revoke STATE-DIRECTORY ID\n");
        return 1;
    }
    const char *var = argv[1];
    const char *id = argv[2];
    require_nothing_interrupted(var);
    const path dir("%s/sent/%s", var, id);
    std::string text;
    read_file(path("%s/msg", dir.c_str()), &text);
    create_empty(path("%s/revoking", dir.c_str()));
    mark(dir, id);
    const int lock = lock_file(path("%s/lock", dir.c_str()));
    read_file(path("%s/recipients", dir.c_str()), &text);
    for (const std::string &name : words_of(text))
        withdraw_copy(var, look_up(name.c_str()), id);
    must(unlink(path("%s/revoking", dir.c_str())), "revoking");
    close(lock);
    printf("Message %s revoked.\n", id);
    return 0;
}
