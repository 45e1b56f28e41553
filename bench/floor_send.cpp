// floor_send VAR: one message to every human user, with just the calls that sending asks for.
// The recipients, the text and the files are those of "tbx send --to all".
#include "floor_event.h"
#include "floor_mailbox.h"

#include <dirent.h>
#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <ctime>

// ---- Recipients ---------------------------------------------------------------------------

static uid_t defined_number(const std::vector<std::string> &words, std::string_view key) {
    const auto found = std::find(words.begin(), words.end(), key);
    if (found == words.end())
        fail("login.defs");
    return static_cast<uid_t>(strtoul(found[1].c_str(), nullptr, 10));
}

static std::vector<std::string> human_users() {
    std::string login_definitions;
    read_file("/etc/login.defs", &login_definitions);
    read_file("/etc/login.defs", &login_definitions); // once for each number
    const std::vector<std::string> words = words_of(login_definitions);
    const uid_t uid_min = defined_number(words, "UID_MIN");
    const uid_t uid_max = defined_number(words, "UID_MAX");
    std::vector<std::string> names;
    setpwent();
    while (const passwd *entry = getpwent())
        if (entry->pw_uid >= uid_min && entry->pw_uid <= uid_max)
            names.emplace_back(entry->pw_name);
    endpwent();
    std::sort(names.begin(), names.end());
    return names;
}

// ---- The message --------------------------------------------------------------------------

struct message {
    const char *var;
    std::string id;
    std::string dir;
    std::string file_text;
    std::string banner;
};

static std::string allocate_id(const char *var) {
    whatever(mkdir(var, 0755));
    whatever(mkdir(path("%s/users", var), 0755));
    whatever(mkdir(path("%s/sent", var), 0700));
    require_folder(path("%s/users", var));
    require_folder(path("%s/sent", var));
    const path sequence("%s/sent/.seq", var);
    const int lock = lock_file(path("%s/sent/.seq.lock", var));
    std::string last = "0";
    if (access(sequence, F_OK) == 0)
        read_file(sequence, &last);
    std::string id = std::to_string(strtoll(last.c_str(), nullptr, 10) + 1);
    must(mkdir(path("%s/sent/%s", var, id.c_str()), 0700), "message directory");
    replace_file(sequence, id + "\n");
    close(lock);
    return id;
}

static message compose(const char *var, const char *text) {
    message result = {var, allocate_id(var), {}, {}, {}};
    result.dir = std::string(var) + "/sent/" + result.id;
    const auto date = static_cast<long long>(time(nullptr));
    char header[256];
    snprintf(header, sizeof header,
             "format: 1\nid: %s\nfrom: %s\ndate: %lld\ntitle: \nexpires: ", result.id.c_str(),
             AUTHOR, date);
    result.file_text = std::string(header) + "\n\n" + text + "\n";
    result.banner = std::string("\r\nMessage\r\n") + text + "\r\n";
    return result;
}

static void save(const message &sent, const std::vector<std::string> &recipients) {
    const char *dir = sent.dir.c_str();
    create_empty(path("%s/incomplete", dir));
    replace_file(path("%s/msg", dir), sent.file_text);
    replace_file(path("%s/recipients", dir), joined(recipients, '\n'));
    sync_file(path("%s/incomplete", dir));
    sync_file(dir);
    sync_file(path("%s/sent", sent.var));
}

// ---- Terminals and sessions ---------------------------------------------------------------

static bool write_to_terminal(const char *name, const account &user, const std::string &banner) {
    const int fd = open(name, O_WRONLY | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    struct stat status = {};
    if (fd < 0 || fstat(fd, &status) != 0 || status.st_uid != user.uid)
        fail(name);
    write_whole(fd, banner);
    close(fd);
    return true;
}

static int write_to_pseudo_terminals(const account &user, const std::string &banner) {
    int written = 0;
    DIR *directory = opendir("/dev/pts");
    if (directory == nullptr)
        fail("/dev/pts");
    while (const dirent *entry = readdir(directory)) {
        if (isdigit(static_cast<unsigned char>(entry->d_name[0])) == 0)
            continue;
        const path name("/dev/pts/%s", entry->d_name);
        struct stat status = {};
        if (lstat(name, &status) == 0 && status.st_uid == user.uid)
            written += write_to_terminal(name, user, banner) ? 1 : 0;
    }
    closedir(directory);
    return written;
}

// ---- Sending ------------------------------------------------------------------------------

static void deliver_to(const char *name, const message &sent) {
    if (exists(path("%s/revoked", sent.dir.c_str())))
        fail("revoked");
    const account user = look_up(name);
    deliver_copy(sent.var, user, sent.id, sent.file_text);
    const int terminals = write_to_pseudo_terminals(user, sent.banner);
    look_through_sessions(user); // for consoles
    look_through_sessions(user); // for a desktop
    append_delivery(sent.dir, user, terminals);
    record({"DELIVERED", sent.id.c_str(), name,
            path("message %s delivered to %s (terminals written: %d)", sent.id.c_str(), name,
                 terminals),
            path("%d", terminals), ""});
}

static void complete(const message &sent) {
    sync_file_system(path("%s/users", sent.var));
    sync_file(sent.dir.c_str());
    must(unlink(path("%s/incomplete", sent.dir.c_str())), "incomplete");
    sync_file(sent.dir.c_str());
}

int main(int argc, char **argv) {
    if (argc != 3) {
        fprintf(stderr, "usage: floor_send STATE-DIRECTORY TEXT\n");
        return 1;
    }
    umask(022);
    const char *var = argv[1];
    require_nothing_interrupted(var);
    const std::vector<std::string> recipients = human_users();
    look_up_author();

    const message sent = compose(var, argv[2]);
    const int lock = lock_file(path("%s/lock", sent.dir.c_str()));
    save(sent, recipients);
    for (const std::string &name : recipients)
        deliver_to(name.c_str(), sent);
    const std::string names = joined(recipients, ' ');
    record({"SENT", sent.id.c_str(), "", names.c_str(), names.c_str(), AUTHOR});
    complete(sent);
    close(lock);
    printf("Message %s sent to %zu users.\n", sent.id.c_str(), recipients.size());
    return 0;
}
