// floor_purge VAR DURATION: just the calls that "tbx purge DURATION" asks for, where every
// message is old enough.
#include "floor_event.h"
#include "floor_mailbox.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>

static void move_aside(const char *dir, const char *aside, const char *sent) {
    const int lock = lock_file(path("%s/lock", dir));
    must(rename(dir, aside), dir);
    sync_file(sent);
    close(lock);
}

static void remove_folder(const char *name) {
    DIR *directory = opendir(name);
    if (directory == nullptr)
        fail(name);
    while (const dirent *entry = readdir(directory))
        if (entry->d_name[0] != '.')
            must(unlinkat(dirfd(directory), entry->d_name, 0), entry->d_name);
    closedir(directory);
    must(rmdir(name), name);
}

static void purge(const char *var, const std::string &id, const char *duration) {
    const path sent("%s/sent", var);
    const char *sent_name = sent;
    const path dir("%s/%s", sent_name, id.c_str());
    const path aside("%s/.deleting-%s", sent_name, id.c_str());
    std::string text;
    if (exists(path("%s/incomplete", dir.c_str())))
        fail(dir);
    read_file(path("%s/msg", dir.c_str()), &text);
    move_aside(dir, aside, sent);
    look_up_author();
    record({"DELETED", id.c_str(), "",
            path("message %s deleted by %s (older than %s)", id.c_str(), AUTHOR, duration),
            duration, AUTHOR});
    read_file(path("%s/recipients", aside.c_str()), &text);
    for (const std::string &name : words_of(text))
        purge_files(var, look_up(name.c_str()), id);
    remove_folder(aside);
}

int main(int argc, char **argv) {
    if (argc != 3) {
        fprintf(stderr, "usage: floor_purge STATE-DIRECTORY DURATION\n");
        return 1;
    }
    const std::vector<std::string> ids = numbered_entries(path("%s/sent", argv[1]));
    for (const std::string &id : ids)
        purge(argv[1], id, argv[2]);
    printf("Deleted %zu messages older than %s.\n", ids.size(), argv[2]);
    return 0;
}
