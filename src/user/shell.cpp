#include "user/shell.h"

#include "common/environment.h"
#include "user/command.h"
#include "user/hooks.h"
#include "user/texts.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

// ---- Filling in ---------------------------------------------------------------------------

std::string shell_word(std::string_view text) {
    std::string word = "'";
    for (const char c : text) {
        if (c == '\'')
            word += "'\\''";
        else
            word += c;
    }
    return word + "'";
}

static void replace_all(std::string *text, std::string_view name, std::string_view value) {
    for (size_t at = text->find(name); at != std::string::npos;
         at = text->find(name, at + value.size()))
        text->replace(at, name.size(), value);
}

static const char *hook_template(std::string_view shell) {
    if (shell == "bash")
        return BASH_HOOK;
    if (shell == "zsh")
        return ZSH_HOOK;
    return shell == "fish" ? FISH_HOOK : "";
}

std::string hook_text(std::string_view shell, const hook_place &place) {
    std::string text = hook_template(shell);
    replace_all(&text, "@PROGRAM@", shell_word(place.program));
    replace_all(&text, "@MAILBOX@", shell_word(place.mailbox));
    replace_all(&text, "@ENVIRONMENT@", place.environment);
    return text;
}

// An environment in which test mode is off, whatever the shell's own says.
static constexpr const char *NO_TEST_MODE = "TBX_TEST= ";

std::string profile_text(const std::string &program) {
    const hook_place place = {.program = program, .mailbox = "", .environment = NO_TEST_MODE};
    std::string text = PROFILE;
    replace_all(&text, "@PROGRAM@", shell_word(program));
    replace_all(&text, "@BASH@", shell_word(hook_text("bash", place)));
    replace_all(&text, "@ZSH@", shell_word(hook_text("zsh", place)));
    return text;
}

// ---- tellbox hook -------------------------------------------------------------------------

// Returns the path of this program, or its installed path if the running file has been replaced.
static std::string own_program() {
    constexpr std::string_view REPLACED = " (deleted)";
    std::array<char, PATH_MAX> path = {};
    const ssize_t length = readlink("/proc/self/exe", path.data(), path.size());
    const std::string_view name(path.data(), length > 0 ? static_cast<size_t>(length) : 0);
    if (name.empty() || name.ends_with(REPLACED))
        return std::string(lib_dir()) + "/tellbox-user";
    return std::string(name);
}

// Returns the path as it is from every folder: the shell will go to others.
static std::string absolute(const std::string &path) {
    if (path.starts_with('/'))
        return path;
    const owned_cstring here(getcwd(nullptr, 0));
    if (!here)
        die("%s: %s", path.c_str(), strerror(errno));
    return std::string(here.get()) + "/" + path;
}

// The hook, not the shell's environment, sets test mode for the program that the shell runs.
static std::string hook_environment() {
    if (!test_mode())
        return NO_TEST_MODE;
    return "TBX_TEST=1 TBX_VAR=" + shell_word(absolute(var_dir())) +
           " TBX_LIB=" + shell_word(absolute(lib_dir())) +
           " TBX_CONF=" + shell_word(absolute(conf_path())) + " ";
}

int cmd_hook(const arguments &shells) {
    if (shells.empty())
        die("%s", _("missing name of a shell: bash, zsh or fish"));
    const std::string text =
        hook_text(shells[0], {.program = own_program(),
                              .mailbox = absolute(mailbox_path(own_account_or_die())),
                              .environment = hook_environment()});
    if (text.empty())
        die(_("there is no hook for this shell: %s (bash, zsh or fish)"),
            clean_line(shells[0]).c_str());
    printf("%s", text.c_str());
    return 0;
}

// ---- The block ----------------------------------------------------------------------------

static constexpr std::string_view BLOCK_BEGIN = "# >>> tellbox >>>";
static constexpr std::string_view BLOCK_END = "# <<< tellbox <<<";
// Says that the file before the block did not end in a newline.
static constexpr std::string_view UNENDED = "# (the line above had no end)";
static constexpr std::string_view BLOCK_TEXT =
    "# Written by \"tellbox-user shells on\", taken out by \"tellbox-user shells off\".\n"
    "if [ -r /etc/profile.d/tellbox.sh ]; then . /etc/profile.d/tellbox.sh; fi\n";

// Moves the next line from `*rest` to `*line`, with its newline if it has one.
static bool next_whole_line(std::string_view *rest, std::string_view *line) {
    if (rest->empty())
        return false;
    *line = rest->substr(0, rest->find('\n'));
    *line = rest->substr(0, std::min(line->size() + 1, rest->size()));
    rest->remove_prefix(line->size());
    return true;
}

// Returns the line without its newline, or without the two characters that some editors put there.
static std::string_view unended(std::string_view line) {
    return line.substr(0, line.find_last_not_of("\r\n") + 1);
}

// Takes one block from `*rest`, of which the first line was read. False if its end is missing.
static bool skip_block(std::string_view *rest, bool *was_unended) {
    std::string_view line;
    while (next_whole_line(rest, &line)) {
        if (unended(line) == BLOCK_END)
            return true;
        if (unended(line) == BLOCK_BEGIN)
            return false;
        *was_unended = *was_unended || unended(line) == UNENDED;
    }
    return false;
}

bool without_block(std::string_view text, std::string *out) {
    out->clear();
    std::string_view rest = text;
    std::string_view line;
    while (next_whole_line(&rest, &line)) {
        bool was_unended = false;
        if (unended(line) == BLOCK_END)
            return false;
        if (unended(line) != BLOCK_BEGIN) {
            out->append(line);
            continue;
        }
        if (!skip_block(&rest, &was_unended))
            return false;
        if (was_unended && rest.empty() && out->ends_with('\n'))
            out->pop_back();
    }
    return true;
}

static std::string block_text(bool is_after_unended) {
    std::string block(BLOCK_BEGIN);
    block.append("\n");
    if (is_after_unended)
        block.append(UNENDED).append("\n");
    return block.append(BLOCK_TEXT).append(BLOCK_END).append("\n");
}

// Whether the text holds one block, wherever it is, and that one is current.
static bool has_current_block(std::string_view text) {
    constexpr size_t NOWHERE = std::string_view::npos;
    return std::ranges::any_of(std::array{true, false}, [&](bool is_after_unended) {
        const std::string block = block_text(is_after_unended);
        const size_t at = text.find(block);
        return at != NOWHERE && (at == 0 || text[at - 1] == '\n') && text.find(BLOCK_BEGIN) == at &&
               text.find(BLOCK_BEGIN, at + 1) == NOWHERE;
    });
}

bool with_block(std::string_view text, std::string *out) {
    if (!without_block(text, out))
        return false;
    if (has_current_block(text)) {
        out->assign(text);
        return true;
    }
    const bool is_unended = !out->empty() && out->back() != '\n';
    if (is_unended)
        out->append("\n");
    out->append(block_text(is_unended));
    return true;
}

// ---- tellbox-user shells on|off -----------------------------------------------------------

constexpr size_t SHELL_FILE_MAX_BYTES = 1'048'576;

namespace {

struct shell_file {
    const char *shell;
    std::array<const char *, 2> places; // the first that exists counts
};

enum class switched { yes, already, half_a_block, not_a_file, failed };

} // namespace

static constexpr std::array<shell_file, 2> SHELL_FILES = {{
    {"bash", {"/etc/bash.bashrc", "/etc/bashrc"}},
    {"zsh", {"/etc/zsh/zshrc", "/etc/zshrc"}},
}};

// Finds the file that exists; for a link, the file that it leads to. If it fails, `path` is the
// place, and errno says why.
static lookup find_file(const shell_file &file, std::string *path) {
    for (const char *place : file.places) {
        const owned_cstring real(realpath(place, nullptr));
        path->assign(real ? real.get() : place);
        if (real)
            return lookup::found;
        if (lookup_of_error(errno) == lookup::failed)
            return lookup::failed;
    }
    return lookup::absent;
}

// Copies access lists and labels to the new file. If it cannot have them, only the mode counts.
static void copy_attributes(int from, int to) {
    std::array<char, 4096> names = {};
    std::array<char, 4096> value = {};
    const ssize_t length = flistxattr(from, names.data(), names.size());
    for (ssize_t at = 0; at < length;
         at += static_cast<ssize_t>(strlen(&names[static_cast<size_t>(at)])) + 1) {
        const char *name = &names[static_cast<size_t>(at)];
        const ssize_t size = fgetxattr(from, name, value.data(), value.size());
        if (size >= 0)
            (void)fsetxattr(to, name, value.data(), static_cast<size_t>(size), 0); // see above
    }
}

static int write_like(const unique_fd &original, const std::string &path, std::string_view text) {
    struct stat status = {};
    const unique_fd fd(
        open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!fd || fstat(original.get(), &status) != 0 ||
        fchown(fd.get(), status.st_uid, status.st_gid) != 0)
        return -1;
    copy_attributes(original.get(), fd.get());
    if (fchmod(fd.get(), status.st_mode & 07777) != 0 ||
        write_all(fd.get(), text.data(), text.size()) != 0 || fsync(fd.get()) != 0)
        return -1;
    return 0;
}

// Replaces the open file by one with the same owner, mode and attributes.
static int replace_file(const unique_fd &original, const std::string &path, std::string_view text) {
    const size_t slash = path.rfind('/');
    const std::string folder = path.substr(0, slash);
    const std::string temporary = folder + "/." + path.substr(slash + 1) + ".tellbox";
    (void)unlink(temporary.c_str()); // left by a killed run: we hold the file's lock
    if (write_like(original, temporary, text) == 0 && rename(temporary.c_str(), path.c_str()) == 0)
        return fsync_path(folder.c_str());
    const int saved = errno;
    (void)unlink(temporary.c_str()); // may never have been created
    errno = saved;
    return -1;
}

// Whether the path still leads to the open file.
static bool is_still_there(const unique_fd &file, const std::string &path) {
    struct stat open_one = {};
    struct stat there = {};
    return fstat(file.get(), &open_one) == 0 && lstat(path.c_str(), &there) == 0 &&
           open_one.st_dev == there.st_dev && open_one.st_ino == there.st_ino;
}

// Opens the file and locks it. Another run may replace the file while this one waits for the lock:
// then it tries the new one.
static unique_fd open_and_lock(const std::string &path) {
    constexpr int TRIES = 100;
    constexpr int FLAGS = O_RDONLY | O_NOFOLLOW | O_NOCTTY | O_NONBLOCK | O_CLOEXEC;
    for (int i = 0; i < TRIES; i++) {
        unique_fd file(open(path.c_str(), FLAGS));
        while (file && flock(file.get(), LOCK_EX) != 0)
            if (errno != EINTR)
                return {};
        if (!file || is_still_there(file, path))
            return file;
    }
    errno = EAGAIN;
    return {};
}

static switched switch_file(const std::string &path, bool on) {
    const unique_fd original = open_and_lock(path);
    struct stat status = {};
    if (!original || fstat(original.get(), &status) != 0)
        return switched::failed;
    if (!S_ISREG(status.st_mode))
        return switched::not_a_file;
    strbuf text;
    if (status.st_size > static_cast<off_t>(SHELL_FILE_MAX_BYTES)) {
        errno = EFBIG;
        return switched::failed;
    }
    if (read_fd_limited(original.get(), SHELL_FILE_MAX_BYTES, &text) != 0)
        return switched::failed;
    std::string wanted;
    if (!(on ? with_block(text.view(), &wanted) : without_block(text.view(), &wanted)))
        return switched::half_a_block;
    if (wanted == text.view())
        return switched::already;
    return replace_file(original, path, wanted) == 0 ? switched::yes : switched::failed;
}

static int switch_and_tell(const shell_file &file, bool on) {
    std::string path;
    const char *state = on ? _("on") : _("off");
    switch (find_file(file, &path)) {
    case lookup::found:
        break;
    case lookup::absent:
        printf(_("%s: has no file here (%s or %s)\n"), file.shell, file.places[0], file.places[1]);
        return 0;
    case lookup::failed:
        warn("%s: %s", path.c_str(), strerror(errno));
        return 1;
    }
    switch (switch_file(path, on)) {
    case switched::yes:
        printf(_("%s: now %s (%s)\n"), file.shell, state, path.c_str());
        return 0;
    case switched::already:
        printf(_("%s: already %s (%s)\n"), file.shell, state, path.c_str());
        return 0;
    case switched::half_a_block:
        warn(_("%s: the tellbox block is damaged, remove it by hand"), path.c_str());
        return 1;
    case switched::not_a_file:
        warn(_("%s is not a regular file"), path.c_str());
        return 1;
    case switched::failed:
        warn("%s: %s", path.c_str(), strerror(errno));
        return 1;
    }
    return 1;
}

int cmd_shells(const arguments &words) {
    const bool on = words.size() == 1 && words[0] == "on";
    if (!on && (words.size() != 1 || words[0] != "off"))
        die("%s", _("usage: tellbox-user shells on|off"));
    if (geteuid() != 0)
        die("%s", _("only root can change the shells' files in /etc"));
    int status = 0;
    for (const shell_file &file : SHELL_FILES)
        status |= switch_and_tell(file, on);
    return status;
}
