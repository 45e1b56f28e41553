#include "tbx/mailbox.h"

#include "common/environment.h"
#include "common/message.h"
#include "tbx/mounts.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <functional>

// ---- Paths --------------------------------------------------------------------------------

std::string users_dir() {
    return xasprintf("%s/users", var_dir());
}

std::string mailbox_dir(const resolved_user &user) {
    return users_dir().append("/").append(user.name);
}

std::string mailbox_file(const mailbox_target &target, const char *folder, const char *suffix) {
    return xasprintf("%s/%s/%lld%s", target.mailbox.c_str(), folder,
                     static_cast<long long>(target.id), suffix);
}

// ---- Finding the mailbox, as root ---------------------------------------------------------
// A user may mount a file system on the mailbox, and a call on it may never return. So the
// directory is opened without entering a mount. The mount table tells whether the administrator or
// the user mounted it; reading the table makes no call on that file system.

static unique_fd open_users_dir() {
    return unique_fd(open(users_dir().c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
}

// Opens `name` in `users` with O_PATH, which makes no call on the file. A link is opened itself.
static unique_fd open_in(const unique_fd &users, const char *name, uint64_t resolve) {
    open_how how = {};
    how.flags = O_PATH | O_NOFOLLOW | O_CLOEXEC;
    how.resolve = resolve;
    return unique_fd(static_cast<int>(syscall(SYS_openat2, users.get(), name, &how, sizeof how)));
}

// Whether the error means that the kernel, or a filter of system calls, does not know openat2.
static bool lacks_openat2(int error) {
    return error == ENOSYS || error == EPERM;
}

// Finds what is mounted on the mailbox. The mount table holds paths without links, so the folder's
// real path is used. Returns 0, or -1 with errno.
static int mailbox_mount(const unique_fd &users, const resolved_user &user, mount_point *mount) {
    char path[PATH_MAX];
    const std::string link = xasprintf("/proc/self/fd/%d", users.get());
    const ssize_t length = readlink(link.c_str(), path, sizeof path);
    if (length < 0) {
        errno = EIO; // ENOENT would mean that the mailbox is missing
        return -1;
    }
    const std::string mailbox =
        std::string(path, static_cast<size_t>(length)).append("/").append(user.name);
    const int result = mount_point_of(mailbox, mount);
    if (result != 0 && lookup_of_error(errno) == lookup::absent)
        errno = EIO; // as above
    return result;
}

// Opens whatever is at the mailbox's path. Returns an empty descriptor with errno when that fails:
// EXDEV for a mount that is not the administrator's or a name that leads elsewhere, an error of
// lacks_openat2() without openat2.
static unique_fd open_mailbox(const unique_fd &users, const resolved_user &user) {
    constexpr uint64_t INSIDE = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS;
    const char *name = user.name.c_str();
    if (!is_storable_name(user.name)) {
        errno = EXDEV;
        return {};
    }
    unique_fd mailbox = open_in(users, name, INSIDE | RESOLVE_NO_XDEV);
    mount_point mount;
    if (mailbox || errno != EXDEV || mailbox_mount(users, user, &mount) != 0)
        return mailbox;
    if (mount.maker == mount_maker::administrator) {
        mailbox = open_in(users, name, INSIDE);
        // The user may have mounted something on top meanwhile: no call may be made on that.
        if (!mailbox || mount_id_of_fd(mailbox.get()) == mount.id)
            return mailbox;
    }
    errno = EXDEV;
    return {};
}

static mailbox_state state_of_directory(const unique_fd &found) {
    struct stat status = {};
    if (fstat(found.get(), &status) != 0)
        return mailbox_state::failed;
    return S_ISDIR(status.st_mode) ? mailbox_state::found : mailbox_state::absent;
}

static mailbox_state state_of_error(int error) {
    if (error == EXDEV)
        return mailbox_state::barred;
    return lookup_of_error(error) == lookup::absent ? mailbox_state::absent : mailbox_state::failed;
}

// ---- Without openat2 ----------------------------------------------------------------------
// Without it a child that stays root, with a time limit, makes every look at the mailbox.

// Whether a child may look: not if a user has mounted something there.
static mailbox_state may_look_by_path(const unique_fd &users, const resolved_user &user) {
    mount_point mount;
    if (mailbox_mount(users, user, &mount) != 0)
        return mailbox_state::failed;
    return mount.maker == mount_maker::user ? mailbox_state::barred : mailbox_state::found;
}

// Exit statuses of look_by_path(); every other end of the child is a failure.
constexpr int LOOK_FOUND = 10;
constexpr int LOOK_ABSENT = 11;
constexpr int LOOK_FAILED = 12;

// In the child.
static int look_by_path(void *argument) {
    const auto &user = *static_cast<const resolved_user *>(argument);
    switch (directory_look_up(mailbox_dir(user).c_str())) {
    case lookup::found:
        return LOOK_FOUND;
    case lookup::absent:
        return LOOK_ABSENT;
    case lookup::failed:
        break;
    }
    return LOOK_FAILED;
}

static mailbox_state look_up_in_child(const unique_fd &users, resolved_user user) {
    const mailbox_state allowed = may_look_by_path(users, user);
    if (allowed != mailbox_state::found)
        return allowed;
    const child_end result = run_bounded(user, look_by_path, &user, MAILBOX_TIMEOUT_SECONDS);
    if (result.outcome == child_outcome::refused)
        return mailbox_state::barred;
    if (result.outcome == child_outcome::failed)
        return mailbox_state::failed;
    if (result.status == LOOK_FOUND)
        return mailbox_state::found;
    if (result.status == LOOK_ABSENT)
        return mailbox_state::absent;
    errno = EIO; // the child's own error is lost
    return mailbox_state::failed;
}

// In the child. Exit status 0 when the mailbox exists and belongs to the user.
static int prepare_by_path(void *argument) {
    const auto &user = *static_cast<const resolved_user *>(argument);
    const std::string mailbox = mailbox_dir(user);
    struct stat status = {};
    if (lstat(mailbox.c_str(), &status) != 0 &&
        ((mkdir(mailbox.c_str(), 0700) != 0 && errno != EEXIST) ||
         lstat(mailbox.c_str(), &status) != 0))
        return 1;
    if (!S_ISDIR(status.st_mode))
        return 1;
    const bool is_roots = geteuid() == 0 && !test_mode() && status.st_uid == 0;
    return is_roots && lchown(mailbox.c_str(), user.uid, user.gid) != 0 ? 1 : 0;
}

static bool prepare_in_child(const unique_fd &users, resolved_user user) {
    return may_look_by_path(users, user) == mailbox_state::found &&
           run_bounded(user, prepare_by_path, &user, MAILBOX_TIMEOUT_SECONDS).succeeded();
}

// ---- Looking it up, preparing it ----------------------------------------------------------

mailbox_state mailbox_look_up(const resolved_user &user) {
    const unique_fd users = open_users_dir();
    if (!users)
        return state_of_error(errno);
    const unique_fd mailbox = open_mailbox(users, user);
    if (mailbox)
        return state_of_directory(mailbox);
    return lacks_openat2(errno) ? look_up_in_child(users, user) : state_of_error(errno);
}

// Gives the directory to the user if it belongs to root: root made it just now, or in an earlier
// run.
static bool hand_over(const unique_fd &mailbox, const resolved_user &user) {
    struct stat status = {};
    if (fstat(mailbox.get(), &status) != 0 || !S_ISDIR(status.st_mode))
        return false;
    if (geteuid() != 0 || test_mode() || status.st_uid != 0)
        return true;
    return fchownat(mailbox.get(), "", user.uid, user.gid, AT_EMPTY_PATH) == 0;
}

// Root's part: makes sure that the mailbox directory exists, is a directory and is the user's.
static bool prepare_mailbox(const resolved_user &user) {
    const unique_fd users = open_users_dir();
    if (!users)
        return false;
    unique_fd mailbox = open_mailbox(users, user);
    if (!mailbox && errno == ENOENT) {
        if (mkdirat(users.get(), user.name.c_str(), 0700) != 0 && errno != EEXIST)
            return false;
        mailbox = open_mailbox(users, user);
    }
    if (mailbox)
        return hand_over(mailbox, user);
    return lacks_openat2(errno) && prepare_in_child(users, user);
}

static child_end run_on_mailbox(const resolved_user &user, user_callback callback,
                                mailbox_target *target, const std::string_view *input) {
    return run_as_user(user, callback, target, input, nullptr, 0, MAILBOX_TIMEOUT_SECONDS);
}

// ---- Delivering ---------------------------------------------------------------------------

bool mailbox_deliver(const resolved_user &user, int64_t id, std::string_view text) {
    mailbox_target target = {mailbox_dir(user), id};
    return prepare_mailbox(user) &&
           run_on_mailbox(user, mailbox_write_copy, &target, &text).succeeded();
}

static bool make_subdirectories(const std::string &mailbox) {
    for (const char *folder : {"inbox", "read", "acks", "state"})
        if (mkdir((mailbox + "/" + folder).c_str(), 0755) != 0 && errno != EEXIST)
            return false;
    return true;
}

// Whether the user has read or confirmed the message.
static lookup answer_look_up(const mailbox_target &target) {
    const lookup read = path_look_up(mailbox_file(target, "read", "").c_str());
    return read == lookup::absent ? path_look_up(mailbox_file(target, "acks", "").c_str()) : read;
}

static bool write_copy_file(const char *path, const strbuf &text) {
    unique_fd fd(open(path, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644));
    return fd && write_all(fd.get(), text.data, text.len) == 0 && fd.close() == 0;
}

int mailbox_write_copy(void *argument) {
    const auto &target = *static_cast<const mailbox_target *>(argument);
    if (!make_subdirectories(target.mailbox))
        return 1;
    switch (answer_look_up(target)) {
    case lookup::found:
        return 0; // a repeated delivery must not bring it back
    case lookup::failed:
        return 1;
    case lookup::absent:
        break;
    }
    strbuf text;
    if (read_fd_limited(STDIN_FILENO, MESSAGE_FILE_MAX_BYTES, &text) != 0 || text.len == 0)
        return 1;

    const std::string copy = mailbox_file(target, "inbox", "");
    const std::string temporary = mailbox_file(target, "inbox", ".tmp");
    (void)unlink(temporary.c_str()); // left by an interrupted delivery; there may be none
    if (!write_copy_file(temporary.c_str(), text) || rename(temporary.c_str(), copy.c_str()) != 0) {
        (void)unlink(temporary.c_str()); // an incomplete copy must not stay; there may be none
        return 1;
    }
    struct stat status = {};
    const bool stands =
        stat(copy.c_str(), &status) == 0 && S_ISREG(status.st_mode) && status.st_size > 0;
    return stands ? 0 : 1;
}

// ---- Removing -----------------------------------------------------------------------------

bool mailbox_withdraw(const resolved_user &user, int64_t id) {
    std::vector<size_t> done;
    mailbox_withdraw_all(user, {id}, &done);
    return !done.empty();
}

bool mailbox_purge_message(const resolved_user &user, int64_t id) {
    std::vector<size_t> done;
    mailbox_purge_all(user, {id}, &done);
    return !done.empty();
}

bool mailbox_reset_shown(const resolved_user &user, int64_t id) {
    mailbox_target target = {mailbox_dir(user), id};
    return mailbox_look_up(user) == mailbox_state::found && // else nothing will be shown
           run_on_mailbox(user, mailbox_remove_shown, &target, nullptr).succeeded();
}

// Ignores failures: the callers look at what is left.
static void remove_file(const mailbox_target &target, const char *folder, const char *suffix) {
    (void)unlink(mailbox_file(target, folder, suffix).c_str());
}

// Whether the file still exists. A file that cannot be looked up counts as left.
static bool file_is_left(const mailbox_target &target, const char *folder, const char *suffix) {
    return path_look_up(mailbox_file(target, folder, suffix).c_str()) != lookup::absent;
}

static void remove_shown_marks(const mailbox_target &target) {
    remove_file(target, "state", ".term");
    remove_file(target, "state", ".gui");
}

int mailbox_remove_copy(void *argument) {
    const auto &target = *static_cast<const mailbox_target *>(argument);
    remove_file(target, "inbox", "");
    remove_shown_marks(target);
    return file_is_left(target, "inbox", "") ? 1 : 0;
}

int mailbox_remove_shown(void *argument) {
    const auto &target = *static_cast<const mailbox_target *>(argument);
    remove_shown_marks(target);
    return file_is_left(target, "state", ".term") || file_is_left(target, "state", ".gui") ? 1 : 0;
}

int mailbox_remove_all(void *argument) {
    const auto &target = *static_cast<const mailbox_target *>(argument);
    remove_file(target, "inbox", "");
    remove_file(target, "read", "");
    remove_file(target, "acks", "");
    remove_shown_marks(target);
    return 0;
}

// ---- Many messages, one child -------------------------------------------------------------

// What one child does with many messages. It has the list in its copy of the parent's memory, and
// reports one byte for each message, in order.
struct mailbox_batch {
    std::string mailbox;
    const std::vector<int64_t> *ids;
    int (*remove)(void *target); // one of the callbacks
};

constexpr char DONE = '0'; // in the report, for a message whose callback returned 0

// Writes the report so far. If the parent has stopped reading, SIGPIPE ends the child.
static void write_report(const std::string &report) {
    if (write_all(STDOUT_FILENO, report.data(), report.size()) != 0)
        _exit(1);
}

static int remove_each(void *argument) {
    const auto &batch = *static_cast<const mailbox_batch *>(argument);
    std::string report;
    for (const int64_t id : *batch.ids) {
        mailbox_target target = {batch.mailbox, id};
        report.push_back(static_cast<char>(DONE + batch.remove(&target)));
    }
    write_report(report);
    return 0;
}

static void remove_all(const resolved_user &user, mailbox_batch batch, std::vector<size_t> *done) {
    strbuf report;
    const mailbox_state mailbox = mailbox_look_up(user);
    if (mailbox == mailbox_state::found)
        (void)run_as_user(user, remove_each, &batch, nullptr, &report, batch.ids->size(),
                          MAILBOX_TIMEOUT_SECONDS); // the report tells
    for (size_t place = 0; place < batch.ids->size(); place++)
        if (mailbox == mailbox_state::absent || (place < report.len && report.data[place] == DONE))
            done->push_back(place);
}

void mailbox_withdraw_all(const resolved_user &user, const std::vector<int64_t> &ids,
                          std::vector<size_t> *done) {
    remove_all(user, {mailbox_dir(user), &ids, mailbox_remove_copy}, done);
}

void mailbox_purge_all(const resolved_user &user, const std::vector<int64_t> &ids,
                       std::vector<size_t> *done) {
    remove_all(user, {mailbox_dir(user), &ids, mailbox_remove_all}, done);
}

// ---- What a mailbox holds -----------------------------------------------------------------

constexpr int SURVEY_TIMEOUT_SECONDS = 10; // leaves the user time for missing copies

struct mailbox_question {
    std::string mailbox;
    const std::vector<expected_copy> *copies;
};

size_t copy_hash(std::string_view text) {
    return std::hash<std::string_view>{}(text);
}

static bool is_directory_at(const std::string &path) {
    return directory_look_up(path.c_str()) == lookup::found;
}

// In the child. Returns `unknown` when something could not be read.
static copy_state look_at_copy(const std::string &mailbox, const expected_copy &expected) {
    const mailbox_target target = {mailbox, expected.id};
    const lookup answer = answer_look_up(target);
    if (answer != lookup::absent)
        return answer == lookup::found ? copy_state::held : copy_state::unknown;
    const std::string path = mailbox_file(target, "inbox", "");
    strbuf copy;
    switch (read_stored_file(path.c_str(), expected.bytes, &copy)) {
    case lookup::failed:
        return copy_state::unknown;
    case lookup::absent:
        return is_directory_at(path) ? copy_state::blocked : copy_state::missing;
    case lookup::found:
        break;
    }
    const bool is_whole = copy.len == expected.bytes && copy_hash(copy.view()) == expected.hash;
    return is_whole ? copy_state::held : copy_state::missing;
}

static int look_at_copies(void *argument) {
    constexpr size_t PORTION = 256; // reported together; what is reported in time counts
    const auto &question = *static_cast<const mailbox_question *>(argument);
    std::string report;
    for (const expected_copy &expected : *question.copies) {
        report.push_back(
            static_cast<char>('0' + static_cast<int>(look_at_copy(question.mailbox, expected))));
        if (report.size() == PORTION) {
            write_report(report);
            report.clear();
        }
    }
    write_report(report);
    return 0;
}

static copy_state reported_state(char byte) {
    for (const copy_state state : {copy_state::held, copy_state::missing, copy_state::blocked})
        if (byte == '0' + static_cast<int>(state))
            return state;
    return copy_state::unknown;
}

std::vector<copy_state> mailbox_survey(const resolved_user &user,
                                       const std::vector<expected_copy> &copies) {
    const mailbox_state mailbox = mailbox_look_up(user);
    std::vector<copy_state> states(copies.size(), mailbox == mailbox_state::absent
                                                      ? copy_state::missing
                                                      : copy_state::unknown);
    mailbox_question question = {mailbox_dir(user), &copies};
    strbuf report;
    if (mailbox == mailbox_state::found)
        (void)run_as_user(user, look_at_copies, &question, nullptr, &report, copies.size(),
                          SURVEY_TIMEOUT_SECONDS); // the report tells
    std::transform(report.view().begin(), report.view().end(), states.begin(), reported_state);
    return states;
}
