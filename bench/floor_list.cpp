// floor_list VAR USER...: the reads that "tbx list" asks for, of every message of the store and
// of the mailbox of each recipient named. Nothing is derived from what was read.
#include "floor.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>

// ---- A user's mailbox, in the child, as the user ------------------------------------------

// One line per file of the folder: what a confirmation says, or when a message was shown.
static void report_folder(const char *folder, void (*report)(const char *name, std::string *out),
                          std::string *out) {
    DIR *directory = opendir(folder);
    if (directory == nullptr)
        fail(folder);
    while (const dirent *entry = readdir(directory))
        if (isdigit(static_cast<unsigned char>(entry->d_name[0])) != 0)
            report(entry->d_name, out);
    closedir(directory);
}

static void report_confirmation(const char *id, std::string *out) {
    const path name("acks/%s", id);
    const int fd = must(open(name, O_RDONLY | O_NOCTTY | O_NONBLOCK | O_CLOEXEC), name);
    struct stat status = {};
    must(fstat(fd, &status), name);
    char text[200];
    const int got = must(static_cast<int>(read(fd, text, sizeof text)), name);
    close(fd);
    out->append("A ").append(id).append(" ").append(text, static_cast<size_t>(got));
}

static void report_shown(const char *file, std::string *out) {
    const path name("state/%s", file);
    struct stat status = {};
    must(stat(name, &status), name);
    const size_t digits = strspn(file, "0123456789");
    out->append("S ").append(file, digits).append(" ");
    out->append(std::to_string(status.st_mtime)).append("\n");
}

static void report_mailbox(const void *argument) {
    must(chdir(static_cast<const char *>(argument)), "mailbox");
    std::string identifiers;
    append_rest(STDIN_FILENO, &identifiers);
    std::string report;
    report_folder("acks", report_confirmation, &report);
    report_folder("state", report_shown, &report);
    if (!report.empty())
        write_whole(STDOUT_FILENO, report);
}

// ---- The store ----------------------------------------------------------------------------

static std::string joined_lines(const std::vector<std::string> &names) {
    std::string lines;
    for (const std::string &name : names)
        lines.append(name).push_back('\n');
    return lines;
}

static void read_mailbox(const char *var, const char *name, std::string_view ids) {
    const account user = look_up(name);
    const path mailbox("%s/users/%s", var, name);
    require_folder(mailbox);
    std::string report;
    run_as(user, report_mailbox, static_cast<const char *>(mailbox), ids, &report);
}

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
    look_for_interrupted(var);
    const path sent("%s/sent", var);
    require_folder(sent);
    const std::vector<std::string> ids = numbered_entries(sent);
    const std::string lines = joined_lines(numbered_entries(sent)); // what the mailboxes are asked
    std::string text;
    for (const std::string &id : ids)
        read_message(var, id, &text);
    for (char **user = argv + 2; *user != nullptr; user++)
        read_mailbox(var, *user, lines);
    return 0;
}
