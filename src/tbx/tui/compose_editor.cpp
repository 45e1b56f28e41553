#include "tbx/tui/compose_editor.h"

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

static bool write_text(unique_fd *fd, const compose_text &text, edited_file *file) {
    const std::string contents = compose_text_joined(text) + "\n";
    if (write_all(fd->get(), contents.data(), contents.size()) != 0)
        return false;
    if (file->user && fchown(fd->get(), file->user->uid, file->user->gid) != 0)
        return false; // the user could not edit it, and root must not
    return fd->close() == 0;
}

static bool create_file(const compose_text &text, edited_file *file) {
    file->path = "/tmp/tellbox-testo-XXXXXX";
    unique_fd fd(mkostemp(file->path.data(), O_CLOEXEC));
    if (!fd)
        return false;
    if (write_text(&fd, text, file))
        return true;
    const int error = errno;
    unlink(file->path.c_str()); // a part must not be taken for the whole text
    errno = error;
    return false;
}

// The editor may have put anything in the file's place: only a file of its user's own counts.
static bool is_users_own(const unique_fd &fd, const edited_file &file) {
    const uid_t owner = file.user ? file.user->uid : geteuid();
    struct stat status = {};
    return fstat(fd.get(), &status) == 0 && S_ISREG(status.st_mode) && status.st_nlink == 1 &&
           status.st_uid == owner;
}

// Reads at most EDITED_MAX_BYTES, whatever the file's size.
static bool read_beginning(const unique_fd &fd, std::string *contents) {
    contents->resize(EDITED_MAX_BYTES);
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

static bool read_file_back(const edited_file &file, std::string *contents) {
    const int flags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    const unique_fd fd(open(file.path.c_str(), flags));
    return fd && is_users_own(fd, file) && read_beginning(fd, contents);
}

// ---- The editor ---------------------------------------------------------------------------

// Sets the user's name and home directory: the editor reads its settings and writes its files
// there.
static void set_environment(const passwd &account) {
    setenv("HOME", account.pw_dir, /*overwrite=*/1);
    setenv("SHELL", account.pw_shell, /*overwrite=*/1);
    setenv("USER", account.pw_name, /*overwrite=*/1);
    setenv("LOGNAME", account.pw_name, /*overwrite=*/1);
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
        signal(number, SIG_DFL);
    closefrom(STDERR_FILENO + 1); // the user gets no descriptor of root's
    if (file.user) {
        const passwd *account = getpwnam(file.user->name.c_str());
        if (account == nullptr)
            _exit(CANNOT_BECOME_USER);
        set_environment(*account);
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
            kill(0, SIGCONT);
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
    fflush(stdout);
    const tui_signals_ignored ignored;
    const pid_t editor = fork();
    if (editor == 0)
        exec_editor(file);
    return editor > 0 && !could_not_start(await_editor(editor));
}

bool compose_edit_external(compose_form *form) {
    edited_file file;
    if (!find_calling_user(&file.user) || !create_file(form->text, &file))
        return false;
    tui_restore();
    const bool has_run = run_editor(file);
    std::string contents;
    if (read_file_back(file, &contents))
        compose_set_text(&form->text, contents);
    unlink(file.path.c_str()); // the user may have moved it away
    tui_raw_mode();
    tui_update_size();
    return has_run;
}

// ---- Keeping the text ---------------------------------------------------------------------

std::string compose_keep_text(const compose_text &text) {
    edited_file file;
    (void)find_calling_user(&file.user); // if the user is unknown, root keeps the file
    if (create_file(text, &file))
        return file.path;
    file.user.reset();
    return create_file(text, &file) ? file.path : "";
}
