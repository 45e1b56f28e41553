#include "tbx/tui/compose_editor.h"

#include "common/child.h"
#include "common/core.h"
#include "tbx/accounts.h"
#include "tbx/tui/screen.h"

#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <optional>

static constexpr size_t EDITED_MAX_BYTES = 131'072; // longer texts are cut when read back

static constexpr int CANNOT_BECOME_USER = 126; // exit statuses of the child
static constexpr int CANNOT_START_EDITOR = 127;

// ---- The file -----------------------------------------------------------------------------

struct edited_file {
    std::string path;
    std::optional<resolved_user> user; // as whom the editor runs; none: as this process
};

// Finds the user who called sudo: the editor and what it starts need not be root. Returns false
// when the look-up fails: then no editor is started, because it would run as root.
static bool find_calling_user(std::optional<resolved_user> *caller) {
    const char *name = getenv("SUDO_USER");
    resolved_user user;
    if (geteuid() != 0 || name == nullptr || *name == '\0')
        return true;
    const lookup found = user_lookup_by_name(name, &user);
    if (found == lookup::found)
        *caller = std::move(user);
    return found != lookup::failed;
}

static bool write_text(unique_fd *fd, std::string_view contents) {
    return write_all(fd->get(), contents.data(), contents.size()) == 0;
}

// Creates a file for the text below `directory`, of mode 0600. Returns it open; empty, with errno,
// when it could not be written whole.
static unique_fd create_file(const char *directory, std::string_view text, std::string *path) {
    *path = std::string(directory) + "/tellbox-testo-XXXXXX";
    unique_fd fd(mkostemp(path->data(), O_CLOEXEC));
    if (!fd || write_text(&fd, std::string(text) + "\n"))
        return fd;
    const int error = errno;
    (void)unlink(path->c_str()); // a part must not be taken for the whole text
    errno = error;
    return {};
}

// The user could not edit the file of another, and root must not.
static bool create_edited_file(const std::string &text, edited_file *file) {
    unique_fd fd = create_file("/tmp", text, &file->path);
    if (!fd)
        return false;
    if ((!file->user || fchown(fd.get(), file->user->uid, file->user->gid) == 0) && fd.close() == 0)
        return true;
    (void)unlink(file->path.c_str()); // nothing but the form's text is in it
    return false;
}

// The editor may have put anything in the file's place: only a file of its user's own counts.
static bool is_users_own(const unique_fd &fd, const edited_file &file) {
    const uid_t owner = file.user ? file.user->uid : geteuid();
    struct stat status = {};
    return fstat(fd.get(), &status) == 0 && S_ISREG(status.st_mode) && status.st_nlink == 1 &&
           status.st_uid == owner;
}

// Reads at most EDITED_MAX_BYTES and one more, whatever the file's size.
static bool read_beginning(const unique_fd &fd, std::string *contents) {
    contents->resize(EDITED_MAX_BYTES + 1);
    size_t length = 0;
    while (length < contents->size()) {
        const ssize_t got = read(fd.get(), contents->data() + length, contents->size() - length);
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0)
            return false;
        if (got == 0)
            break;
        length += static_cast<size_t>(got);
    }
    contents->resize(length);
    return true;
}

static edit_end read_file_back(const edited_file &file, std::string *contents) {
    const int flags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    const unique_fd fd(open(file.path.c_str(), flags));
    if (!fd && errno == ENOENT)
        return edit_end::no_file;
    if (!fd || !is_users_own(fd, file) || !read_beginning(fd, contents))
        return edit_end::not_read;
    return contents->size() > EDITED_MAX_BYTES ? edit_end::cut : edit_end::taken;
}

// ---- The editor ---------------------------------------------------------------------------

// Sets the user's name and home directory: the editor reads its settings and writes its files
// there. Returns false when memory ran out.
static bool set_environment(const passwd &account) {
    return setenv("HOME", account.pw_dir, /*overwrite=*/1) == 0 &&
           setenv("SHELL", account.pw_shell, /*overwrite=*/1) == 0 &&
           setenv("USER", account.pw_name, /*overwrite=*/1) == 0 &&
           setenv("LOGNAME", account.pw_name, /*overwrite=*/1) == 0;
}

// Becomes the user for good or ends the child.
static void become(const resolved_user &user) {
    if (initgroups(user.name.c_str(), user.gid) != 0 ||
        setresgid(user.gid, user.gid, user.gid) != 0 ||
        setresuid(user.uid, user.uid, user.uid) != 0)
        _exit(CANNOT_BECOME_USER);
    if (getuid() != user.uid || geteuid() != user.uid || (user.uid != 0 && setuid(0) == 0))
        _exit(CANNOT_BECOME_USER); // if root can be regained, the drop has failed
}

// Returns VISUAL, else EDITOR; null if neither is set.
static const char *chosen_editor() {
    for (const char *variable : {"VISUAL", "EDITOR"}) {
        const char *editor = getenv(variable);
        if (editor != nullptr && *editor != '\0')
            return editor;
    }
    return nullptr;
}

// In the child. The shell splits the editor's words; the path stays one.
[[noreturn]] static void exec_editor(const edited_file &file) {
    for (const int number : {SIGINT, SIGQUIT, SIGTERM, SIGHUP, SIGTSTP, SIGCONT, SIGPIPE})
        (void)signal(number, SIG_DFL); // cannot fail: the signals exist
    closefrom(STDERR_FILENO + 1);      // the user gets no descriptor of root's
    if (file.user) {
        const passwd *account = getpwnam(file.user->name.c_str());
        if (account == nullptr || !set_environment(*account))
            _exit(CANNOT_BECOME_USER);
        become(*file.user);
    }
    const char *path = file.path.c_str();
    const char *editor = chosen_editor();
    if (editor != nullptr)
        execl("/bin/sh", "sh", "-c", "exec $0 \"$1\"", editor, path, nullptr);
    execlp("nano", "nano", path, nullptr);
    execlp("vi", "vi", path, nullptr);
    _exit(CANNOT_START_EDITOR);
}

// Waits for the editor's end. Returns its wait status, -1 when it is unknown. An editor that Ctrl+Z
// stops is continued at once, with what it started: the interface does not stop, so no shell could
// continue it.
static int await_editor(pid_t editor) {
    int status = -1;
    while (true) {
        if (waitpid(editor, &status, WUNTRACED) < 0) {
            if (errno != EINTR)
                return -1;
        } else if (!WIFSTOPPED(status)) {
            return status;
        } else if (WSTOPSIG(status) == SIGTSTP) {
            (void)kill(0, SIGCONT); // cannot fail: this process may signal itself
        }
    }
}

// Whether the editor could not be started. A shell returns the same status for an editor that it
// does not find or cannot run.
static bool could_not_start(int wait_status) {
    return WIFEXITED(wait_status) && (WEXITSTATUS(wait_status) == CANNOT_START_EDITOR ||
                                      WEXITSTATUS(wait_status) == CANNOT_BECOME_USER);
}

// Returns false when no editor could be started; the file is as it was then.
static bool run_editor(const edited_file &file) {
    (void)fflush(stdout); // what stays buffered must only not be written twice
    const tui_signals_ignored ignored(tui_signals_ignored::keys_and_continue);
    const pid_t editor = fork();
    if (editor == 0)
        exec_editor(file);
    return editor > 0 && !could_not_start(await_editor(editor));
}

// Takes over what is in the file. Removes it if nothing more is in it.
static edit_result take_over(const edited_file &file, bool has_run, compose_form *form) {
    std::string contents;
    const edit_end end = read_file_back(file, &contents);
    const bool is_read = end == edit_end::taken || end == edit_end::cut;
    // A shell that ran the editor may return the status of one that it could not start.
    const std::string before = compose_text_joined(form->text) + "\n";
    if (!has_run && is_read && contents == before.substr(0, EDITED_MAX_BYTES + 1)) {
        (void)unlink(file.path.c_str()); // nothing but the form's text is in it
        return {edit_end::not_started, ""};
    }
    if (is_read)
        compose_set_text(&form->text, contents.substr(0, EDITED_MAX_BYTES));
    if (end == edit_end::taken)
        (void)unlink(file.path.c_str()); // the form has all of it; the user may have moved it away
    const bool is_kept = end == edit_end::cut || end == edit_end::not_read;
    return {end, is_kept ? file.path : ""};
}

edit_result compose_edit_external(compose_form *form) {
    edited_file file;
    if (!find_calling_user(&file.user) ||
        !create_edited_file(compose_text_joined(form->text), &file))
        return {edit_end::not_started, ""};
    tui_restore();
    const bool has_run = run_editor(file);
    edit_result result = take_over(file, has_run, form);
    tui_raw_mode();
    tui_update_size();
    return result;
}

// ---- Keeping the text ---------------------------------------------------------------------

// The interface is about to end: a directory service that does not answer must not hold it up.
static constexpr int LOOK_UP_MS = 200;

// Gives the file to the user who called sudo. Best effort: root can read it in any case.
static void give_to_calling_user(const unique_fd &fd) {
    const pid_t child = fork();
    if (child == 0) {
        die_as_child();
        std::optional<resolved_user> user;
        const bool is_known = find_calling_user(&user) && user;
        _exit(is_known && fchown(fd.get(), user->uid, user->gid) == 0 ? 0 : 1);
    }
    if (child < 0)
        return;
    int status = 0;
    const unique_fd pidfd = child_pidfd(child);
    if (child_await(child, pidfd, LOOK_UP_MS, &status))
        return;
    (void)kill(child, SIGKILL); // cannot fail: a child stays ours until it is waited for
    (void)child_await(child, pidfd, LOOK_UP_MS,
                      &status); // if it hangs in a call, it is left behind
}

std::string compose_keep_text(std::string_view text) {
    std::string path;
    unique_fd fd = create_file("/tmp", text, &path);
    const int error = errno; // of /tmp, which is to be mended
    if (!fd)
        fd = create_file("/var/tmp", text, &path);
    if (!fd)
        return xasprintf("the text of the new message could not be kept: /tmp: %s",
                         strerror(error));
    give_to_calling_user(fd);
    return xasprintf("the text of the new message is kept in %s", path.c_str());
}
