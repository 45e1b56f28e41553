#include "floor_mailbox.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstring>

struct file_target {
    const char *mailbox;
    const char *id;
};

static void run_on_mailbox(const char *var, const account &user, const std::string &id,
                           void (*work)(const void *), const std::string_view *input) {
    const path mailbox("%s/users/%s", var, user.name.c_str());
    if (input == nullptr)
        require_folder(mailbox);
    const file_target target = {mailbox, id.c_str()};
    std::string nothing;
    run_as(user, work, &target, input, &nothing);
}

// ---- Writing ------------------------------------------------------------------------------

static void write_copy(const void *argument) {
    const auto &target = *static_cast<const file_target *>(argument);
    for (const char *folder : {"inbox", "read", "acks", "state"})
        whatever(mkdir(path("%s/%s", target.mailbox, folder), 0755));
    if (exists(path("%s/read/%s", target.mailbox, target.id)) ||
        exists(path("%s/acks/%s", target.mailbox, target.id)))
        fail("a message that was read already");
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

void deliver_copy(const char *var, const account &user, const std::string &id,
                  std::string_view text) {
    prepare_mailbox(path("%s/users/%s", var, user.name.c_str()), user);
    run_on_mailbox(var, user, id, write_copy, &text);
}

// ---- Removing -----------------------------------------------------------------------------

static void remove_file(const void *argument, const char *folder, const char *suffix) {
    const auto &target = *static_cast<const file_target *>(argument);
    unlink(path("%s/%s/%s%s", target.mailbox, folder, target.id, suffix));
}

static void require_gone(const void *argument, const char *folder, const char *suffix) {
    const auto &target = *static_cast<const file_target *>(argument);
    if (exists(path("%s/%s/%s%s", target.mailbox, folder, target.id, suffix)))
        fail(target.mailbox);
}

static void remove_marks(const void *target) {
    remove_file(target, "state", ".term");
    remove_file(target, "state", ".gui");
}

static void remove_copy(const void *target) {
    remove_file(target, "inbox", "");
    remove_marks(target);
    require_gone(target, "inbox", "");
}

static void remove_shown(const void *target) {
    remove_marks(target);
    require_gone(target, "state", ".term");
    require_gone(target, "state", ".gui");
}

static void remove_all(const void *target) {
    remove_file(target, "inbox", "");
    remove_file(target, "read", "");
    remove_file(target, "acks", "");
    remove_marks(target);
}

void withdraw_copy(const char *var, const account &user, const std::string &id) {
    run_on_mailbox(var, user, id, remove_copy, nullptr);
}

void reset_shown(const char *var, const account &user, const std::string &id) {
    run_on_mailbox(var, user, id, remove_shown, nullptr);
}

void purge_files(const char *var, const account &user, const std::string &id) {
    run_on_mailbox(var, user, id, remove_all, nullptr);
}

// ---- Reading ------------------------------------------------------------------------------

// Fails for any other reason than that there is no such file.
static void require_missing(const char *name) {
    if (errno != ENOENT)
        fail(name);
}

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
    const int fd = open(name, O_RDONLY | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        require_missing(name);
        return;
    }
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
    if (stat(name, &status) != 0) {
        require_missing(name);
        return;
    }
    const size_t digits = strspn(file, "0123456789");
    out->append("S ").append(file, digits).append(" ");
    out->append(std::to_string(status.st_mtime)).append("\n");
}

static void report_all(const std::string & /*identifiers*/, std::string *report) {
    report_folder("acks", report_confirmation, report);
    report_folder("state", report_shown, report);
}

static void report_one(const std::string &identifier, std::string *report) {
    const std::string id = words_of(identifier).front();
    report_confirmation(id.c_str(), report);
    report_shown((id + ".term").c_str(), report);
    report_shown((id + ".gui").c_str(), report);
}

template <void report_on(const std::string &, std::string *)>
static void report_mailbox(const void *argument) {
    must(chdir(static_cast<const char *>(argument)), "mailbox");
    std::string identifiers;
    append_rest(STDIN_FILENO, &identifiers);
    std::string report;
    report_on(identifiers, &report);
    if (!report.empty())
        write_whole(STDOUT_FILENO, report);
}

static void run_report(const char *var, const char *name, void (*work)(const void *),
                       std::string_view ids) {
    const account user = look_up(name);
    const path mailbox("%s/users/%s", var, name);
    require_folder(mailbox);
    std::string report;
    run_as(user, work, mailbox.c_str(), &ids, &report);
}

void read_marks(const char *var, const char *name, const std::string &id) {
    run_report(var, name, report_mailbox<report_one>, id + "\n");
}

void read_mailbox(const char *var, const char *name, std::string_view ids) {
    run_report(var, name, report_mailbox<report_all>, ids);
}

std::string joined(const std::vector<std::string> &names, char separator) {
    std::string text;
    for (const std::string &name : names)
        text.append(name).push_back(separator);
    return text;
}
