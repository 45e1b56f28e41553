// floor_recovery VAR: just the calls that finishing an interrupted send asks for, and then those
// of "tbx log" of that message, whose history is empty.
#include "floor_event.h"
#include "floor_mailbox.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <unordered_set>

struct interrupted {
    const char *var;
    std::string id;
    std::string dir;
    std::string text;
};

// The first word of each line of the delivery log.
static std::unordered_set<std::string> delivered_to(const std::string &log) {
    const std::vector<std::string> words = words_of(log);
    std::unordered_set<std::string> names;
    for (size_t place = 0; place < words.size(); place += 3)
        names.insert(words[place]);
    return names;
}

static void complete(const interrupted &send, const std::string &name, bool is_new) {
    const account user = look_up(name.c_str());
    deliver_copy(send.var, user, send.id, send.text);
    if (!is_new)
        return;
    append_delivery(send.dir, user, 0);
    record({"DELIVERED", send.id.c_str(), name.c_str(),
            path("message %s delivered to %s (recovery)", send.id.c_str(), name.c_str()), "", ""});
    look_through_sessions(user);
}

static int complete_all(const interrupted &send) {
    std::string names;
    std::string log;
    read_file(path("%s/recipients", send.dir.c_str()), &names);
    read_file(path("%s/delivery", send.dir.c_str()), &log);
    const std::unordered_set<std::string> delivered = delivered_to(log);
    int completed = 0;
    for (const std::string &name : words_of(names)) {
        const bool is_new = !delivered.contains(name);
        complete(send, name, is_new);
        completed += is_new ? 1 : 0;
    }
    return completed;
}

static void finish(const interrupted &send, int completed) {
    sync_file_system(path("%s/users", send.var));
    sync_file(send.dir.c_str());
    must(unlink(path("%s/incomplete", send.dir.c_str())), "incomplete");
    record({"RECOVERED", send.id.c_str(), "",
            path("message %s: delivery completed for %d recipients after an interruption",
                 send.id.c_str(), completed),
            path("%d", completed), ""});
}

int main(int argc, char **argv) {
    if (argc != 2) {
        fprintf(stderr, "usage: floor_recovery STATE-DIRECTORY\n");
        return 1;
    }
    umask(022);
    interrupted send = {argv[1], first_interrupted(argv[1]), {}, {}};
    send.dir = path("%s/sent/%s", argv[1], send.id.c_str()).c_str();
    const int lock = lock_file(path("%s/lock", send.dir.c_str()));
    read_file(path("%s/msg", send.dir.c_str()), &send.text);
    if (exists(path("%s/revoked", send.dir.c_str())))
        fail("revoked");
    const int completed = complete_all(send);
    finish(send, completed);
    close(lock);
    printf("Message %s\n", send.id.c_str());
    if (print_history(send.id, 0) != 0)
        fail("a history");
    return 0;
}
