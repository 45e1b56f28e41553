#include "terminal.h"

#include "environment.h"
#include "recipients.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <systemd/sd-login.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>

constexpr const char *PSEUDO_TERMINALS = "/dev/pts";
constexpr const char *CONSOLE_PREFIX = "tty";
constexpr size_t BANNER_RULE_COLUMNS = 40;
constexpr time_t WRITE_PATIENCE_SECONDS = 2;
constexpr int WRITE_POLL_MILLISECONDS = 100;

// ---- Login sessions -----------------------------------------------------------------------

// One text of a session, through `read` of the sd_session_get_ family; null when unknown.
static owned_cstring session_text(int (*read)(const char *, char **), const char *session) {
    char *text = nullptr;
    const int result = read(session, &text);
    owned_cstring owned(text);
    return result >= 0 ? std::move(owned) : nullptr;
}

static bool session_belongs_to(const char *session, uint32_t uid) {
    uid_t owner = 0;
    return sd_session_get_uid(session, &owner) >= 0 && owner == uid;
}

static bool is_graphical_session(const char *session) {
    const owned_cstring type = session_text(sd_session_get_type, session);
    return type && (strcmp(type.get(), "x11") == 0 || strcmp(type.get(), "wayland") == 0);
}

// A session whose state cannot be read counts as live.
static bool is_closing_session(const char *session) {
    const owned_cstring state = session_text(sd_session_get_state, session);
    return state && strcmp(state.get(), "closing") == 0;
}

bool user_has_graphical_session(uint32_t uid) {
    strlist sessions;
    login_sessions_list(&sessions);
    return std::any_of(sessions.begin(), sessions.end(), [uid](const char *session) {
        return session_belongs_to(session, uid) && is_graphical_session(session) &&
               !is_closing_session(session);
    });
}

// ---- Finding terminals --------------------------------------------------------------------

static bool is_terminal_of(const char *path, uint32_t uid) {
    struct stat status = {};
    return lstat(path, &status) == 0 && S_ISCHR(status.st_mode) && status.st_uid == uid;
}

static void pseudo_terminals_list(uint32_t uid, strlist *list) {
    const unique_dir directory(opendir(PSEUDO_TERMINALS));
    if (!directory)
        return;
    while (const dirent *entry = readdir(directory.get())) {
        if (!is_all_digits(entry->d_name))
            continue;
        const std::string path = xasprintf("%s/%s", PSEUDO_TERMINALS, entry->d_name);
        if (is_terminal_of(path.c_str(), uid))
            strlist_push_view(list, path);
    }
}

static bool is_console_name(const char *name) {
    const size_t prefix_length = strlen(CONSOLE_PREFIX);
    return strncmp(name, CONSOLE_PREFIX, prefix_length) == 0 && is_all_digits(name + prefix_length);
}

// The console's name ("tty2") when the session is a terminal session on one, else null.
static owned_cstring session_console(const char *session) {
    const owned_cstring type = session_text(sd_session_get_type, session);
    if (!type || strcmp(type.get(), "tty") != 0)
        return nullptr;
    owned_cstring terminal = session_text(sd_session_get_tty, session);
    return terminal && is_console_name(terminal.get()) ? std::move(terminal) : nullptr;
}

static void consoles_list(uint32_t uid, strlist *list) {
    strlist sessions;
    login_sessions_list(&sessions);
    for (const char *session : sessions) {
        if (!session_belongs_to(session, uid))
            continue;
        const owned_cstring console = session_console(session);
        if (!console)
            continue;
        const std::string path = xasprintf("/dev/%s", console.get());
        if (!strlist_contains(list, path.c_str()))
            strlist_push_view(list, path);
    }
}

void user_terminals_list(uint32_t uid, strlist *list) {
    if (test_mode()) {
        const char *path = getenv("TBX_TEST_TTY");
        if (path && *path != '\0')
            strlist_push_dup(list, path);
        return;
    }
    pseudo_terminals_list(uid, list);
    consoles_list(uid, list);
    strlist_sort(list);
}

// ---- The banner ---------------------------------------------------------------------------

static std::string_view without_trailing_newlines(std::string_view text) {
    return text.substr(0, text.find_last_not_of('\n') + 1);
}

static void append_plain_banner(const message_record &message, strbuf *out) {
    strbuf_append_str(out, "\n── Tellbox · Message from the administrator · ");
    message_headline(message, out);
    strbuf_append_str(out, " ──\n");
    strbuf_append_view(out, without_trailing_newlines(message.text));
    strbuf_append_str(out, "\n");
    for (size_t column = 0; column < BANNER_RULE_COLUMNS; column++)
        strbuf_append_str(out, "─");
    strbuf_append_str(out, "\n");
}

void terminal_banner_build(const message_record &message, strbuf *out) {
    strbuf plain;
    append_plain_banner(message, &plain);
    for (const char byte : plain.view()) {
        if (byte == '\n')
            strbuf_append_char(out, '\r'); // a full-screen program may have made the terminal raw
        strbuf_append_char(out, byte);
    }
}

// ---- Writing ------------------------------------------------------------------------------

static time_t monotonic_seconds() {
    timespec time = {};
    clock_gettime(CLOCK_MONOTONIC, &time); // cannot fail: the clock exists
    return time.tv_sec;
}

// Waits for room, for at most one short wait. False once patience has run out.
static bool wait_for_room(int fd, time_t start) {
    if (monotonic_seconds() - start > WRITE_PATIENCE_SECONDS)
        return false;
    pollfd room = {.fd = fd, .events = POLLOUT, .revents = 0};
    poll(&room, 1, WRITE_POLL_MILLISECONDS); // whatever it says, the next write tells
    return true;
}

static bool write_patiently(int fd, const char *data, size_t length) {
    const time_t start = monotonic_seconds();
    size_t written = 0;
    while (written < length) {
        const ssize_t count = write(fd, data + written, length - written);
        const bool is_full = count == 0 || (count < 0 && (errno == EAGAIN || errno == EINTR));
        if (count > 0)
            written += static_cast<size_t>(count);
        else if (!is_full || !wait_for_room(fd, start))
            return false;
    }
    return true;
}

// Asked of the open descriptor: the path may have changed hands since it was listed.
static bool may_write_to(int fd, uint32_t uid) {
    struct stat status = {};
    return fstat(fd, &status) == 0 && status.st_uid == uid &&
           (test_mode() || S_ISCHR(status.st_mode));
}

bool terminal_write(const char *path, uint32_t uid, const char *data, size_t length) {
    const int append = test_mode() ? O_APPEND : 0; // a file in place of a terminal keeps its text
    const unique_fd terminal(open(path, O_WRONLY | O_NOCTTY | O_NONBLOCK | O_CLOEXEC | append));
    return terminal && may_write_to(terminal.get(), uid) &&
           write_patiently(terminal.get(), data, length);
}
