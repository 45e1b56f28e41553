#include "user/answer.h"

#include "common/event.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <ctime>

constexpr mode_t ANSWER_MODE = 0644;
// The mode of an answer that is recorded, but whose copy could not be moved: the next run only
// moves it.
constexpr mode_t RECORDED_MODE = 0444;
constexpr mode_t FOLDER_MODE = 0755;
constexpr int REPLACE_TRIES = 5;

// ---- The mailbox lock ---------------------------------------------------------------------

static void sleep_ms(long milliseconds) {
    const timespec time = {0, milliseconds * 1'000'000};
    (void)nanosleep(&time, nullptr); // a signal shortens it: the caller checks the clock
}

mailbox_lock mailbox_lock::take(const own_mailbox &box, int patience_ms) {
    constexpr long TRY_INTERVAL_MS = 5; // nothing reports that a lock is free
    mailbox_lock lock;
    const int64_t deadline = monotonic_ms() + patience_ms;
    // Opens the folder again: two locks of this process through one open file would be the same
    // lock.
    unique_fd fd(openat(box.folder.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    while (fd && flock(fd.get(), LOCK_EX | LOCK_NB) != 0) {
        if ((errno != EWOULDBLOCK && errno != EINTR) || monotonic_ms() >= deadline)
            return lock;
        sleep_ms(TRY_INTERVAL_MS);
    }
    lock.fd_ = std::move(fd);
    return lock;
}

// ---- Small steps --------------------------------------------------------------------------

static std::string id_text(int64_t id) {
    return std::to_string(id);
}

// Opens a folder of the mailbox that was missing when the mailbox was opened; creates it if it is
// still missing. Returns 0, or -1 with errno.
static int ensure_folder(const own_mailbox &box, const char *name, unique_fd *folder) {
    if (*folder)
        return 0;
    if (mkdirat(box.folder.get(), name, FOLDER_MODE) != 0 && errno != EEXIST)
        return -1;
    folder->reset(openat(box.folder.get(), name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    return *folder ? 0 : -1;
}

enum class presence { present, absent, unknown };

static presence look_for(const unique_fd &folder, const std::string &name, struct stat *status) {
    if (!folder)
        return presence::absent;
    if (fstatat(folder.get(), name.c_str(), status, AT_SYMLINK_NOFOLLOW) == 0)
        return presence::present;
    return errno == ENOENT ? presence::absent : presence::unknown;
}

static presence look_for(const unique_fd &folder, const std::string &name) {
    struct stat status = {};
    return look_for(folder, name, &status);
}

// Some file systems cannot sync a folder, and need not.
static int sync_folder(const unique_fd &folder) {
    while (fsync(folder.get()) != 0) {
        if (errno == EINVAL)
            return 0;
        if (errno != EINTR)
            return -1;
    }
    return 0;
}

static int sync_file(const unique_fd &file) {
    while (fsync(file.get()) != 0)
        if (errno != EINTR)
            return -1;
    return 0;
}

// Removes what this call has created. Keeps errno of the failure before it.
static void remove_again(const unique_fd &folder, const std::string &name) {
    const int saved = errno;
    (void)unlinkat(folder.get(), name.c_str(), 0); // may be gone already
    errno = saved;
}

// ---- Files that appear whole --------------------------------------------------------------

// A file that is being written. It has no name; on file systems without O_TMPFILE it has a hidden
// one.
struct new_file {
    unique_fd fd;
    std::string hidden; // empty: without a name
};

// Returns a hidden name that no other writer uses: ".NAME.PROCESS-TIME.tmp".
static std::string hidden_name(const std::string &name) {
    timespec time = {};
    (void)clock_gettime(CLOCK_MONOTONIC, &time); // cannot fail: the clock exists
    return xasprintf(".%s.%lld-%lld%09ld.tmp", name.c_str(), static_cast<long long>(getpid()),
                     static_cast<long long>(time.tv_sec), time.tv_nsec);
}

// Whether it is a name that hidden_name() gives, or ".NAME.tmp". Other programs' files are none.
static bool is_hidden_name(std::string_view name) {
    constexpr std::string_view END = ".tmp";
    constexpr std::string_view WRITER = "0123456789-";
    int64_t id = 0;
    if (!name.starts_with('.') || !name.ends_with(END) || name.size() <= END.size())
        return false;
    name = name.substr(1, name.size() - 1 - END.size());
    const size_t dot = name.rfind('.');
    if (dot != std::string_view::npos &&
        name.find_first_not_of(WRITER, dot + 1) == std::string_view::npos)
        name = name.substr(0, dot);
    const size_t mark = name.find('.');
    const std::string_view suffix = mark == std::string_view::npos ? "" : name.substr(mark);
    return parse_id(name.substr(0, mark), &id) != 0 &&
           (suffix.empty() || suffix == ".term" || suffix == ".gui");
}

static bool knows_no_unnamed_files(int error) {
    return error == EOPNOTSUPP || error == EISDIR || error == EINVAL;
}

// While it is open, its lock tells those who tidy up that it is in use. Nobody else can hold it
// yet; on a file system without locks there is none.
static void hold(const unique_fd &file) {
    (void)flock(file.get(), LOCK_EX | LOCK_NB); // no locks here: others are right without it
}

static int create_hidden(const unique_fd &folder, const std::string &name, new_file *file) {
    constexpr int FLAGS = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
    file->hidden = hidden_name(name);
    file->fd.reset(openat(folder.get(), file->hidden.c_str(), FLAGS, ANSWER_MODE));
    if (!file->fd)
        file->hidden.clear(); // it is not ours to remove
    return file->fd ? 0 : -1;
}

static int create_file(const unique_fd &folder, const std::string &name, new_file *file) {
    file->hidden.clear();
    file->fd.reset(openat(folder.get(), ".", O_TMPFILE | O_WRONLY | O_CLOEXEC, ANSWER_MODE));
    if (!file->fd && (!knows_no_unnamed_files(errno) || create_hidden(folder, name, file) != 0))
        return -1;
    hold(file->fd);
    return 0;
}

static void drop_file(const unique_fd &folder, new_file *file) {
    if (!file->hidden.empty())
        remove_again(folder, file->hidden);
    file->fd.reset();
}

// Gives the open file a name. Returns 0, or -1 with errno: EEXIST when the name is taken.
static int link_file(const unique_fd &folder, const new_file &file, const std::string &name) {
    const std::string open_file = "/proc/self/fd/" + std::to_string(file.fd.get());
    if (linkat(AT_FDCWD, open_file.c_str(), folder.get(), name.c_str(), AT_SYMLINK_FOLLOW) == 0)
        return 0;
    const bool has_proc = errno != ENOENT || path_exists("/proc/self/fd");
    if (has_proc || file.hidden.empty())
        return -1;
    return linkat(folder.get(), file.hidden.c_str(), folder.get(), name.c_str(), 0);
}

// ---- After an answer ----------------------------------------------------------------------

// Moves the copy of an answered message to read/. Returns whether it was there to be moved.
static bool move_to_read(own_mailbox *box, int64_t id) {
    const std::string name = id_text(id);
    if (ensure_folder(*box, "read", &box->read) != 0 ||
        renameat(box->inbox.get(), name.c_str(), box->read.get(), name.c_str()) != 0)
        return false;
    (void)sync_folder(box->read); // if the copy reappears in the inbox, it is moved again
    (void)sync_folder(box->inbox);
    return true;
}

// Moves the copy of an answer that was recorded. If that fails, the answer's mode says so: the next
// run does not record it again.
static void move_recorded(own_mailbox *box, int64_t id, const unique_fd &answer) {
    if (!move_to_read(box, id))
        (void)!fchmod(answer.get(), RECORDED_MODE); // finish_answer() can do without
}

static void record_confirmed(const own_mailbox &box, int64_t id, const std::string &where) {
    event_log("CONFIRMED", id, box.owner.c_str(), where.c_str(), /*details=*/nullptr,
              /*author=*/nullptr);
}

// ---- Confirming ---------------------------------------------------------------------------

static confirmation failed_with(int error) {
    confirmation outcome;
    outcome.error = error;
    return outcome;
}

// Whether the answer in acks/ is still the one that is open.
static bool stands(const unique_fd &folder, const std::string &name, const unique_fd &file) {
    struct stat there = {};
    struct stat open_one = {};
    return look_for(folder, name, &there) == presence::present &&
           fstat(file.get(), &open_one) == 0 && there.st_dev == open_one.st_dev &&
           there.st_ino == open_one.st_ino;
}

// Whether the copy is in read/. If that cannot be determined, the answer must not be removed.
static bool was_moved(own_mailbox *box, const std::string &name) {
    // The folder may have been missing when the mailbox was opened.
    return ensure_folder(*box, "read", &box->read) != 0 ||
           look_for(box->read, name) != presence::absent;
}

// Returns what another program has put at acks/ID.
static confirmation existing_answer(own_mailbox *box, int64_t id) {
    confirmation outcome;
    outcome.answer = answer_read(*box, id);
    const int error = errno;
    switch (outcome.answer.state) {
    case answer_state::answered:
        outcome.result = confirm_result::already;
        break;
    case answer_state::not_a_file:
        outcome.result = confirm_result::not_a_file;
        break;
    case answer_state::none: // removed again: withdrawn
        outcome.result = confirm_result::withdrawn;
        break;
    case answer_state::failed:
        outcome.error = error;
        break;
    }
    return outcome;
}

// Writes the answer. Holds its lock until the descriptor is closed: a program that finds the
// answer, and the copy still in the inbox, sees by it that this one is working. Returns 0, or -1
// with errno: EEXIST if there is an answer.
static int write_answer(own_mailbox *box, int64_t id, const std::string &text, new_file *file) {
    const std::string name = id_text(id);
    if (ensure_folder(*box, "acks", &box->acks) != 0 || create_file(box->acks, name, file) != 0)
        return -1;
    if (write_all(file->fd.get(), text.data(), text.size()) != 0 || sync_file(file->fd) != 0 ||
        link_file(box->acks, *file, name) != 0)
        return -1;
    if (sync_folder(box->acks) == 0)
        return 0;
    if (stands(box->acks, name, file->fd))
        remove_again(box->acks, name);
    return -1;
}

confirmation answer_confirm(own_mailbox *box, int64_t id, channel where) {
    const std::string name = id_text(id);
    if (look_for(box->acks, name) != presence::absent)
        return existing_answer(box, id);
    if (look_for(box->inbox, name) == presence::absent)
        return {.result = confirm_result::withdrawn, .answer = {}, .error = 0};

    confirmation outcome;
    outcome.result = confirm_result::confirmed;
    outcome.answer = {answer_state::answered, now(), channel_name(where)};
    new_file file;
    const std::string text =
        xasprintf("%lld %s\n", static_cast<long long>(outcome.answer.time), channel_name(where));
    const bool written = write_answer(box, id, text, &file) == 0;
    const int error = errno;
    if (!file.hidden.empty())
        remove_again(box->acks, file.hidden); // the answer has its final name now, or has failed
    if (!written && error == EEXIST)
        return existing_answer(box, id);
    if (!written) {
        event_log("CONFIRMATION_FAILED", id, box->owner.c_str(), channel_name(where),
                  strerror(error), /*author=*/nullptr);
        return failed_with(error);
    }
    if (look_for(box->inbox, name) == presence::absent) {
        // On a file system without locks another program may have recorded and moved it already.
        const bool is_standing = stands(box->acks, name, file.fd);
        if (is_standing && was_moved(box, name))
            return outcome;
        // Withdrawn or deleted meanwhile: its answer must not stay.
        if (is_standing)
            remove_again(box->acks, name);
        return {.result = confirm_result::withdrawn, .answer = {}, .error = 0};
    }
    record_confirmed(*box, id, channel_name(where));
    move_recorded(box, id, file.fd);
    return outcome;
}

// ---- Marks --------------------------------------------------------------------------------

// Writes a mark without a name: its text and its time.
static int write_mark(const unique_fd &state, const std::string &name, std::string_view text,
                      int64_t moment, new_file *file) {
    if (create_file(state, name, file) != 0)
        return -1;
    const timespec times[] = {{moment, 0}, {moment, 0}};
    if (write_all(file->fd.get(), text.data(), text.size()) == 0 &&
        futimens(file->fd.get(), times) == 0)
        return 0;
    drop_file(state, file);
    return -1;
}

// Gives the file a hidden name if it has none.
static int link_hidden(const unique_fd &state, const std::string &name, new_file *file) {
    if (!file->hidden.empty())
        return 0;
    const std::string hidden = hidden_name(name);
    if (link_file(state, *file, hidden) != 0)
        return -1;
    file->hidden = hidden;
    return 0;
}

// Replaces whatever is at the mark's name. Returns 0, or -1 with errno: EISDIR for a folder.
static int replace_mark(const unique_fd &state, const std::string &name, new_file *file) {
    if (link_hidden(state, name, file) != 0)
        return -1;
    if (renameat(state.get(), file->hidden.c_str(), state.get(), name.c_str()) != 0)
        return -1;
    file->hidden.clear();
    return 0;
}

static bool is_same_file(const struct stat &one, const struct stat &other) {
    return one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

// Replaces only the mark that was looked at. Returns 0, or -1 with errno: EAGAIN when there is
// another one now, which stays. On file systems that cannot exchange two files, looks first and
// replaces then.
static int replace_mark_if(const unique_fd &state, const std::string &name,
                           const struct stat &expected, new_file *file) {
    struct stat status = {};
    if (link_hidden(state, name, file) != 0)
        return -1;
    const char *hidden = file->hidden.c_str();
    if (renameat2(state.get(), hidden, state.get(), name.c_str(), RENAME_EXCHANGE) != 0)
        return errno == EINVAL || errno == ENOSYS ? replace_mark(state, name, file) : -1;
    if (look_for(state, file->hidden, &status) == presence::present &&
        is_same_file(status, expected) && !S_ISDIR(status.st_mode)) {
        remove_again(state, file->hidden);
        file->hidden.clear();
        return 0;
    }
    if (renameat2(state.get(), hidden, state.get(), name.c_str(), RENAME_EXCHANGE) != 0)
        file->hidden.clear(); // the other mark has this name now and must not be removed
    errno = EAGAIN;           // the caller looks at the new one
    return -1;
}

// Checks whether the message can be marked. Returns 0, or -1 with errno ENOENT or EALREADY.
static int check_waiting(const own_mailbox &box, int64_t id) {
    if (look_for(box.acks, id_text(id)) != presence::absent) {
        errno = EALREADY;
        return -1;
    }
    if (look_for(box.inbox, id_text(id)) != presence::absent)
        return 0;
    errno = ENOENT;
    return -1;
}

// Removes the mark again if the message was withdrawn or deleted meanwhile.
static int keep_only_if_waiting(const own_mailbox &box, int64_t id, const std::string &name) {
    if (look_for(box.inbox, id_text(id)) != presence::absent)
        return 0;
    errno = ENOENT;
    remove_again(box.state, name);
    return -1;
}

int answer_postpone(own_mailbox *box, int64_t id, channel where) {
    if (check_waiting(*box, id) != 0 || ensure_folder(*box, "state", &box->state) != 0)
        return -1;
    const std::string name = mark_name(id, where);
    new_file file;
    if (write_mark(box->state, name, "postponed\n", now(), &file) != 0)
        return -1;
    if (replace_mark(box->state, name, &file) != 0) {
        drop_file(box->state, &file);
        return -1;
    }
    if (keep_only_if_waiting(*box, id, name) != 0)
        return -1;
    event_log("POSTPONED", id, box->owner.c_str(), channel_name(where), /*details=*/nullptr,
              /*author=*/nullptr);
    return 0;
}

enum class shown_result { done, again, failed };

// Tries once. Replaces only the mark that it has looked at.
static shown_result try_shown(const own_mailbox &box, int64_t id, channel where, int64_t moment,
                              int64_t remind_seconds) {
    const std::string name = mark_name(id, where);
    struct stat status = {};
    const presence there = look_for(box.state, name, &status);
    if (there == presence::unknown)
        return shown_result::failed;
    if (there == presence::present && S_ISDIR(status.st_mode)) {
        errno = EISDIR; // an exchange would take the folder away
        return shown_result::failed;
    }
    const channel_mark mark = mark_read(box, id, where, now());
    const bool holds = mark.kind == mark_kind::postponed && mark.time + remind_seconds > moment;
    if (there == presence::present && mark.kind != mark_kind::none && (holds || mark.time > moment))
        return shown_result::done;
    new_file file;
    if (write_mark(box.state, name, "shown\n", moment, &file) != 0)
        return shown_result::failed;
    const int result = there == presence::absent ? link_file(box.state, file, name)
                                                 : replace_mark_if(box.state, name, status, &file);
    drop_file(box.state, &file);
    if (result == 0)
        return shown_result::done;
    const bool changed = errno == EEXIST || errno == ENOENT || errno == EAGAIN;
    return changed ? shown_result::again : shown_result::failed;
}

int answer_shown(own_mailbox *box, int64_t id, channel where, int64_t moment,
                 int64_t remind_seconds) {
    if (check_waiting(*box, id) != 0 || ensure_folder(*box, "state", &box->state) != 0)
        return -1;
    for (int tries = 1;; tries++) {
        const shown_result result = try_shown(*box, id, where, moment, remind_seconds);
        if (result == shown_result::done)
            return keep_only_if_waiting(*box, id, mark_name(id, where));
        if (result == shown_result::failed || tries == REPLACE_TRIES)
            return -1;
    }
}

// ---- Tidying up ---------------------------------------------------------------------------

// Opens an answer so that it can be locked: some network file systems lock only what is open for
// writing. An answer that was recorded is read-only.
static unique_fd open_answer(const own_mailbox &box, const std::string &name) {
    constexpr int FLAGS = O_NOFOLLOW | O_NOCTTY | O_NONBLOCK | O_CLOEXEC;
    unique_fd answer(openat(box.acks.get(), name.c_str(), O_RDWR | FLAGS));
    if (!answer && (errno == EACCES || errno == EROFS))
        answer.reset(openat(box.acks.get(), name.c_str(), O_RDONLY | FLAGS));
    return answer;
}

// Records an answer and moves its copy. Where the answer's mode cannot say that it was recorded,
// only a copy that is not in the inbox any more can: then the copy is moved first.
static void record_and_move(own_mailbox *box, int64_t id, const unique_fd &answer, mode_t mode,
                            const std::string &where) {
    if (fchmod(answer.get(), mode & 07777) == 0) {
        record_confirmed(*box, id, where);
        move_recorded(box, id, answer);
    } else if (move_to_read(box, id) || look_for(box->inbox, id_text(id)) == presence::absent) {
        record_confirmed(*box, id, where);
    }
}

// Whether another program may still be recording this answer. Asked only where locks cannot tell.
static bool is_fresh(const struct stat &answer) {
    constexpr int64_t WORK_SECONDS_MAX = 10; // it is synced between the write and the record
    const int64_t age = now() - answer.st_mtim.tv_sec;
    return age >= 0 && age < WORK_SECONDS_MAX;
}

// Records and moves an answered message that is still in the inbox, unless another program is
// working on it.
static void finish_answer(own_mailbox *box, int64_t id) {
    const std::string name = id_text(id);
    const unique_fd answer = open_answer(*box, name);
    struct stat status = {};
    if (!answer || fstat(answer.get(), &status) != 0 || !S_ISREG(status.st_mode))
        return;
    const bool is_locked = flock(answer.get(), LOCK_EX | LOCK_NB) == 0;
    if (!is_locked && (errno == EWOULDBLOCK || is_fresh(status)))
        return;
    // The program that held the lock may have finished meanwhile, or removed the answer.
    struct stat copy = {};
    const presence there = look_for(box->inbox, name, &copy);
    const presence moved = look_for(box->read, name);
    if (!stands(box->acks, name, answer) || fstat(answer.get(), &status) != 0 ||
        there == presence::unknown || moved == presence::unknown ||
        (there == presence::present && !S_ISREG(copy.st_mode)))
        return;
    const bool is_recorded = (status.st_mode & S_IWUSR) == 0 || moved == presence::present;
    const answer_record given = answer_read(*box, id);
    if (given.state != answer_state::answered)
        return;
    if (!is_recorded) // even if the message was withdrawn since: the answer came first
        record_and_move(box, id, answer, status.st_mode, given.channel);
    else if (there == presence::present)
        (void)move_to_read(box, id); // the next run tries again
}

void answer_finish_interrupted(own_mailbox *box) {
    std::vector<int64_t> ids;
    if (!box->acks || folder_ids(box->inbox, &ids) != 0)
        return;
    for (const int64_t id : ids)
        if (look_for(box->acks, id_text(id)) == presence::present)
            finish_answer(box, id);
}

// Removes a hidden file unless its writer is still at work.
static void remove_leftover(const unique_fd &folder, const char *name) {
    const unique_fd file(
        openat(folder.get(), name, O_RDWR | O_NOFOLLOW | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
    if (file && flock(file.get(), LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK)
        return;
    (void)unlinkat(folder.get(), name, 0); // if it stays, the next run tries again
}

static void remove_leftovers_of(const unique_fd &folder) {
    if (!folder)
        return;
    unique_fd again(openat(folder.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const unique_dir directory(again ? fdopendir(again.get()) : nullptr);
    if (!directory)
        return;
    again.release();
    while (const dirent *entry = next_entry(directory.get()))
        if (is_hidden_name(entry->d_name))
            remove_leftover(folder, entry->d_name);
}

void answer_remove_leftovers(const own_mailbox &box, const mailbox_lock &lock) {
    if (!lock.is_held())
        return;
    for (const unique_fd *folder : {&box.acks, &box.read, &box.state})
        remove_leftovers_of(*folder);
}

// ---- The prompt's mark --------------------------------------------------------------------

int answer_touch_prompt(own_mailbox *box) {
    if (ensure_folder(*box, "state", &box->state) != 0)
        return -1;
    const unique_fd mark(openat(box->state.get(), ".prompt",
                                O_WRONLY | O_CREAT | O_NOFOLLOW | O_NOCTTY | O_NONBLOCK | O_CLOEXEC,
                                ANSWER_MODE));
    struct stat status = {};
    if (!mark || fstat(mark.get(), &status) != 0)
        return -1;
    if (!S_ISREG(status.st_mode)) {
        errno = EINVAL;
        return -1;
    }
    return futimens(mark.get(), nullptr);
}
