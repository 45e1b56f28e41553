#include "floor.h"

#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

// ---- Failing ------------------------------------------------------------------------------

void fail(const char *what) {
    fprintf(stderr, "floor: %s: %s\n", what, strerror(errno));
    _exit(1); // in a child too
}

int must(int result, const char *what) {
    if (result < 0)
        fail(what);
    return result;
}

// ---- Paths --------------------------------------------------------------------------------

path::path(const char *format, ...) : text_() {
    va_list arguments;
    va_start(arguments, format);
    const int length = vsnprintf(text_, sizeof text_, format, arguments);
    va_end(arguments);
    if (length < 0 || static_cast<size_t>(length) >= sizeof text_)
        fail(format);
}

// ---- Files --------------------------------------------------------------------------------

constexpr int READ_FLAGS = O_RDONLY | O_NOCTTY | O_NONBLOCK | O_CLOEXEC | O_NOFOLLOW;
constexpr int CREATE_FLAGS = O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC;

bool exists(const char *name) {
    struct stat status = {};
    return lstat(name, &status) == 0;
}

void require_folder(const char *name) {
    struct stat status = {};
    must(lstat(name, &status), name);
    if (!S_ISDIR(status.st_mode))
        fail(name);
}

void create_empty(const char *name) {
    close(must(open(name, CREATE_FLAGS, 0600), name));
}

void write_whole(int fd, std::string_view text) {
    if (write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size()))
        fail("write");
}

void append_rest(int fd, std::string *text) {
    char chunk[8192];
    ssize_t got = 0;
    while ((got = read(fd, chunk, sizeof chunk)) > 0)
        text->append(chunk, static_cast<size_t>(got));
    if (got < 0)
        fail("read");
}

void read_file(const char *name, std::string *text) {
    text->clear();
    const int fd = must(open(name, READ_FLAGS), name);
    struct stat status = {};
    must(fstat(fd, &status), name);
    append_rest(fd, text);
    close(fd);
}

void replace_file(const char *name, std::string_view text) {
    const path sibling("%s.tmp", name);
    unlink(sibling); // a stale one
    const int fd = must(open(sibling, CREATE_FLAGS | O_EXCL, 0600), sibling);
    write_whole(fd, text);
    must(fsync(fd), sibling);
    must(close(fd), sibling);
    must(rename(sibling, name), name);
}

void sync_file(const char *name) {
    const int fd = must(open(name, READ_FLAGS), name);
    must(fsync(fd), name);
    close(fd);
}

void sync_file_system(const char *name) {
    const int fd = must(open(name, READ_FLAGS), name);
    must(syncfs(fd), name);
    close(fd);
}

int lock_file(const char *name) {
    const int fd = must(open(name, CREATE_FLAGS, 0600), name);
    must(flock(fd, LOCK_EX), name);
    return fd;
}

std::vector<std::string> words_of(std::string_view text) {
    std::vector<std::string> words;
    for (size_t start = text.find_first_not_of(" \n"); start != text.npos;) {
        const size_t end = std::min(text.find_first_of(" \n", start), text.size());
        words.emplace_back(text.substr(start, end - start));
        start = text.find_first_not_of(" \n", end);
    }
    return words;
}

// ---- The store ----------------------------------------------------------------------------

std::vector<std::string> numbered_entries(const char *folder) {
    std::vector<std::string> names;
    DIR *directory = opendir(folder);
    if (directory == nullptr)
        return names;
    while (const dirent *entry = readdir(directory))
        if (isdigit(static_cast<unsigned char>(entry->d_name[0])) != 0)
            names.emplace_back(entry->d_name);
    closedir(directory);
    return names;
}

std::string first_interrupted(const char *var) {
    const path sent("%s/sent", var);
    std::string first;
    for (const std::string &id : numbered_entries(sent))
        if ((exists(path("%s/%s/incomplete", sent.c_str(), id.c_str())) ||
             exists(path("%s/%s/revoking", sent.c_str(), id.c_str()))) &&
            first.empty())
            first = id;
    numbered_entries(sent); // again, for interrupted purges
    return first;
}

void require_nothing_interrupted(const char *var) {
    if (!first_interrupted(var).empty())
        fail("an interrupted message");
}

// ---- Accounts -----------------------------------------------------------------------------

account look_up(const char *name) {
    const passwd *found = getpwnam(name);
    if (found == nullptr)
        fail(name);
    return {found->pw_name, found->pw_uid, found->pw_gid};
}

void look_up_author() {
    if (getpwuid(getuid()) == nullptr)
        fail("author");
}

// ---- Children -----------------------------------------------------------------------------

struct channel {
    int read_end;
    int write_end;
};

static channel open_channel() {
    int ends[2];
    must(pipe2(ends, O_CLOEXEC), "pipe");
    return {ends[0], ends[1]};
}

static void redirect(int input, int output) {
    const int null = must(open("/dev/null", O_RDWR | O_CLOEXEC), "/dev/null");
    must(dup2(input >= 0 ? input : null, STDIN_FILENO), "dup2");
    must(dup2(output, STDOUT_FILENO), "dup2");
    must(dup2(null, STDERR_FILENO), "dup2");
    close(null);
}

static void become(const account &user) {
    must(initgroups(user.name.c_str(), user.gid), "initgroups");
    must(setresgid(user.gid, user.gid, user.gid), "setresgid");
    must(setresuid(user.uid, user.uid, user.uid), "setresuid");
    if (getuid() != user.uid || geteuid() != user.uid || getegid() != user.gid || setuid(0) == 0)
        fail("privilege drop");
}

[[noreturn]] static void run_child(const account &user, void (*work)(const void *),
                                   const void *argument, const channel &to_child,
                                   const channel &from_child) {
    if (to_child.write_end >= 0)
        close(to_child.write_end);
    close(from_child.read_end);
    redirect(to_child.read_end, from_child.write_end);
    become(user);
    must(chdir("/"), "/");
    umask(022);
    signal(SIGPIPE, SIG_DFL);
    work(argument);
    _exit(0);
}

static void feed(const channel &to_child, std::string_view input) {
    close(to_child.read_end);
    write_whole(to_child.write_end, input); // read to its end before the child answers
    close(to_child.write_end);
}

void run_as(const account &user, void (*work)(const void *), const void *argument,
            const std::string_view *input, std::string *report) {
    const channel to_child = input != nullptr ? open_channel() : channel{-1, -1};
    const channel from_child = open_channel();
    const pid_t child = must(fork(), "fork");
    if (child == 0)
        run_child(user, work, argument, to_child, from_child);
    if (input != nullptr)
        feed(to_child, *input);
    close(from_child.write_end);
    append_rest(from_child.read_end, report);
    close(from_child.read_end);
    int status = 0;
    must(waitpid(child, &status, 0), "waitpid");
    if (status != 0)
        fail("a child");
}
