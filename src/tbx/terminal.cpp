#include "tbx/terminal.h"

#include "common/environment.h"
#include "tbx/recipients.h"

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
#include <vector>

constexpr const char *PSEUDO_TERMINALS = "/dev/pts";
constexpr const char *CONSOLE_PREFIX = "tty";
constexpr int64_t WRITE_PATIENCE_MS = 2000;
constexpr int WRITE_POLL_MILLISECONDS = 100;
constexpr size_t WAITING_TERMINALS_MAX = 256;

// ---- Login sessions -----------------------------------------------------------------------

// Returns one text of a session; `read` is a function of the sd_session_get_ family. Null when
// unknown.
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
    (void)login_sessions_list(&sessions); // what cannot be asked for counts as none
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
    while (const dirent *entry = next_entry(directory.get())) {
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
    (void)login_sessions_list(&sessions); // what cannot be asked for counts as none
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

void terminal_banner_build(const message_record &message, strbuf *out) {
    strbuf plain;
    strbuf_append_char(&plain, '\n'); // not on the line that is being typed
    message_banner(message, &plain);
    for (const char byte : plain.view()) {
        if (byte == '\n')
            strbuf_append_char(out, '\r'); // a full-screen program may have made the terminal raw
        strbuf_append_char(out, byte);
    }
}

// ---- Writing ------------------------------------------------------------------------------

// A terminal on which not everything has been written yet.
struct pending_output {
    unique_fd terminal;
    std::string_view rest;
    int64_t start_ms; // of writing to the user's terminals: one time limit for all
};

enum class output_state { whole, waiting, given_up };

// Writes as much as the terminal takes now. Gives up a full terminal when the time limit is over.
static output_state write_some(pending_output *pending) {
    while (!pending->rest.empty()) {
        const ssize_t count =
            write(pending->terminal.get(), pending->rest.data(), pending->rest.size());
        const bool is_full = count == 0 || (count < 0 && (errno == EAGAIN || errno == EINTR));
        if (count > 0)
            pending->rest.remove_prefix(static_cast<size_t>(count));
        else if (is_full && monotonic_ms() - pending->start_ms <= WRITE_PATIENCE_MS)
            return output_state::waiting;
        else
            return output_state::given_up;
    }
    return output_state::whole;
}

// Waits until one of them has room, at most WRITE_POLL_MILLISECONDS.
static void wait_for_room(const std::vector<pending_output> &waiting) {
    std::vector<pollfd> watched;
    watched.reserve(waiting.size());
    for (const pending_output &pending : waiting)
        watched.push_back({.fd = pending.terminal.get(), .events = POLLOUT, .revents = 0});
    (void)poll(watched.data(), watched.size(), WRITE_POLL_MILLISECONDS); // the next writes tell
}

// Writes what is left to all of them. Returns how many took everything.
static int finish_waiting(std::vector<pending_output> *waiting) {
    int whole = 0;
    while (!waiting->empty()) {
        wait_for_room(*waiting);
        std::erase_if(*waiting, [&whole](pending_output &pending) {
            const output_state state = write_some(&pending);
            whole += state == output_state::whole ? 1 : 0;
            return state != output_state::waiting;
        });
    }
    return whole;
}

// Checks the open descriptor: the path may have another owner since it was listed.
static bool may_write_to(int fd, uint32_t uid) {
    struct stat status = {};
    return fstat(fd, &status) == 0 && status.st_uid == uid &&
           (test_mode() || S_ISCHR(status.st_mode));
}

// Opens the terminal. Returns an empty descriptor if it is not the user's.
static unique_fd open_terminal(const char *path, uint32_t uid) {
    const int append = test_mode() ? O_APPEND : 0; // a file in place of a terminal keeps its text
    unique_fd terminal(open(path, O_WRONLY | O_NOCTTY | O_NONBLOCK | O_CLOEXEC | append));
    if (terminal && !may_write_to(terminal.get(), uid)) {
        terminal.reset();
        errno = EACCES;
    }
    return terminal;
}

int terminals_write(const strlist &paths, uint32_t uid, std::string_view text) {
    int whole = 0;
    const int64_t start_ms = monotonic_ms();
    std::vector<pending_output> waiting;
    for (const char *path : paths) {
        unique_fd terminal = open_terminal(path, uid);
        const bool lacks_descriptors = !terminal && (errno == EMFILE || errno == ENFILE);
        if (lacks_descriptors || waiting.size() == WAITING_TERMINALS_MAX)
            whole += finish_waiting(&waiting);
        if (lacks_descriptors)
            terminal = open_terminal(path, uid);
        if (!terminal)
            continue;
        pending_output pending = {std::move(terminal), text, start_ms};
        const output_state state = write_some(&pending);
        if (state == output_state::whole)
            whole++;
        else if (state == output_state::waiting)
            waiting.push_back(std::move(pending));
    }
    return whole + finish_waiting(&waiting);
}

bool terminal_write(const char *path, uint32_t uid, const char *data, size_t length) {
    strlist paths;
    strlist_push_dup(&paths, path);
    return terminals_write(paths, uid, {data, length}) == 1;
}
