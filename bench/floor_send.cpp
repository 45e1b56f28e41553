// floor_send VAR: one message to every human user, with just the calls that sending asks for.
// The recipients, the text and the files are those of "tbx send --to all".
#include "floor.h"

#define SD_JOURNAL_SUPPRESS_LOCATION
#include <dirent.h>
#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <syslog.h>
#include <systemd/sd-journal.h>
#include <systemd/sd-login.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

constexpr uid_t HUMAN_UID_MIN = 1000;
constexpr uid_t HUMAN_UID_MAX = 60'000;
constexpr const char *AUTHOR = "root";

// ---- Recipients ---------------------------------------------------------------------------

static std::vector<std::string> human_users() {
    std::string login_definitions;
    read_file("/etc/login.defs", &login_definitions);
    std::vector<std::string> names;
    setpwent();
    while (const passwd *entry = getpwent())
        if (entry->pw_uid >= HUMAN_UID_MIN && entry->pw_uid <= HUMAN_UID_MAX)
            names.emplace_back(entry->pw_name);
    endpwent();
    std::sort(names.begin(), names.end());
    return names;
}

static std::string joined(const std::vector<std::string> &names, char separator) {
    std::string text;
    for (const std::string &name : names)
        text.append(name).push_back(separator);
    return text;
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

// ---- The copy -----------------------------------------------------------------------------

struct copy_target {
    const char *mailbox;
    const char *id;
};

// In the child, as the recipient.
static void write_copy(const void *argument) {
    const auto &target = *static_cast<const copy_target *>(argument);
    for (const char *folder : {"inbox", "read", "acks", "state"})
        whatever(mkdir(path("%s/%s", target.mailbox, folder), 0755));
    if (exists(path("%s/read/%s", target.mailbox, target.id)) ||
        exists(path("%s/acks/%s", target.mailbox, target.id)))
        fail("a copy that was there already");
    std::string text;
    append_rest(STDIN_FILENO, &text);
    const path copy("%s/inbox/%s", target.mailbox, target.id);
    const path sibling("%s/inbox/%s.tmp", target.mailbox, target.id);
    unlink(sibling); // a stale one
    const int fd =
        must(open(sibling, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644), sibling);
    write_whole(fd, text);
    must(close(fd), sibling);
    must(rename(sibling, copy), copy);
    struct stat status = {};
    must(stat(copy, &status), copy);
}

static void prepare_mailbox(const char *mailbox, const account &user) {
    struct stat status = {};
    if (lstat(mailbox, &status) != 0) {
        must(mkdir(mailbox, 0700), mailbox);
        must(lstat(mailbox, &status), mailbox);
    }
    if (status.st_uid == 0)
        must(lchown(mailbox, user.uid, user.gid), mailbox);
}

static void deliver_copy(const account &user, const message &sent) {
    const path mailbox("%s/users/%s", sent.var, user.name.c_str());
    prepare_mailbox(mailbox, user);
    const copy_target target = {mailbox, sent.id.c_str()};
    std::string nothing;
    run_as(user, write_copy, &target, sent.file_text, &nothing);
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

// Asks every session for its owner, and those of the user for their type: once for the
// consoles, once for a desktop.
static void look_through_sessions(const account &user) {
    char **sessions = nullptr;
    const int count = sd_get_sessions(&sessions);
    for (int i = 0; i < count; i++) {
        uid_t owner = 0;
        char *type = nullptr;
        if (sd_session_get_uid(sessions[i], &owner) >= 0 && owner == user.uid)
            whatever(sd_session_get_type(sessions[i], &type));
        free(type);
        free(sessions[i]);
    }
    free(sessions);
}

// ---- The record ---------------------------------------------------------------------------

static void record(const char *event, const message &sent, const char *user, const char *sentence,
                   const char *details, const char *author) {
    const int result = sd_journal_send_with_location(
        "CODE_FILE=src/event", "CODE_LINE=75", "event", "MESSAGE=%s", sentence,
        "SYSLOG_IDENTIFIER=tbx", "PRIORITY=%d", LOG_INFO, "TBX_EVENT=%s", event, "TBX_MESSAGE=%s",
        sent.id.c_str(), "TBX_USER=%s", user, "TBX_CHANNEL=%s", "", "TBX_DETAILS=%s", details,
        "TBX_AUTHOR=%s", author, nullptr);
    errno = -result; // the library returns what others leave there
    must(result, "journal");
}

static void append_delivery(const message &sent, const account &user, int terminals) {
    const path line("%s %lld %d\n", user.name.c_str(), static_cast<long long>(time(nullptr)),
                    terminals);
    const path name("%s/delivery", sent.dir.c_str());
    const int fd =
        must(open(name, O_WRONLY | O_CREAT | O_APPEND | O_NOFOLLOW | O_CLOEXEC, 0600), name);
    write_whole(fd, static_cast<const char *>(line));
    close(fd);
}

// ---- Sending ------------------------------------------------------------------------------

static void deliver_to(const char *name, const message &sent) {
    if (exists(path("%s/revoked", sent.dir.c_str())))
        fail("revoked");
    const account user = look_up(name);
    deliver_copy(user, sent);
    const int terminals = write_to_pseudo_terminals(user, sent.banner);
    look_through_sessions(user);
    look_through_sessions(user);
    append_delivery(sent, user, terminals);
    record("DELIVERED", sent, name,
           path("message %s delivered to %s (terminals written: %d)", sent.id.c_str(), name,
                terminals),
           path("%d", terminals), "");
}

static void complete(const message &sent) {
    const int users = must(open(path("%s/users", sent.var), O_RDONLY | O_CLOEXEC), "users");
    must(syncfs(users), "users");
    close(users);
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
    look_for_interrupted(var);
    const std::vector<std::string> recipients = human_users();
    whatever(getpwuid(getuid()) != nullptr ? 0 : -1);

    const message sent = compose(var, argv[2]);
    const int lock = lock_file(path("%s/lock", sent.dir.c_str()));
    save(sent, recipients);
    for (const std::string &name : recipients)
        deliver_to(name.c_str(), sent);
    const std::string names = joined(recipients, ' ');
    record("SENT", sent, "", names.c_str(), names.c_str(), AUTHOR);
    complete(sent);
    close(lock);
    printf("Message %s sent to %zu users.\n", sent.id.c_str(), recipients.size());
    return 0;
}
