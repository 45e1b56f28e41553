#include "user/inbox.h"

#include "common/environment.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

constexpr size_t ANSWER_MAX_BYTES = 200;
constexpr size_t MARK_MAX_BYTES = 16;
constexpr int READ_FLAGS = O_RDONLY | O_NOFOLLOW | O_NOCTTY | O_NONBLOCK | O_CLOEXEC;

// ---- The account --------------------------------------------------------------------------

bool is_account_folder(const std::string &name) {
    return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos;
}

// Whether the variable names an account with this UID.
static bool names_account(const char *variable, uid_t uid, std::string *name) {
    const char *value = getenv(variable);
    if (value == nullptr || !is_account_folder(value))
        return false;
    const passwd *account = getpwnam(value);
    if (account == nullptr || account->pw_uid != uid)
        return false;
    *name = account->pw_name;
    return true;
}

int own_account(std::string *name) {
    const uid_t uid = geteuid();
    if (names_account("LOGNAME", uid, name) || names_account("USER", uid, name))
        return 0;
    errno = 0;
    const passwd *account = getpwuid(uid);
    if (account == nullptr) {
        errno = errno == 0 ? ENOENT : errno;
        return -1;
    }
    *name = account->pw_name;
    if (is_account_folder(*name))
        return 0;
    errno = EINVAL;
    return -1;
}

// ---- The mailbox --------------------------------------------------------------------------

std::string mailbox_path(const std::string &owner, const std::string &name) {
    const std::string path = xasprintf("%s/users/%s", var_dir(), owner.c_str());
    return name.empty() ? path : path + "/" + name;
}

static unique_fd open_folder(int parent, const char *path) {
    return unique_fd(openat(parent, path, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

// Opens one of the mailbox's folders; `fd` is empty if it does not exist.
static bool open_subfolder(own_mailbox *box, const char *name, unique_fd *fd) {
    *fd = open_folder(box->folder.get(), name);
    if (*fd || errno == ENOENT)
        return true;
    box->path += std::string("/") + name;
    return false;
}

static bool is_own(const unique_fd &folder) {
    struct stat status = {};
    if (fstat(folder.get(), &status) != 0)
        return false;
    errno = EPERM;
    return status.st_uid == geteuid();
}

mailbox_look mailbox_open(const std::string &owner, own_mailbox *box) {
    *box = {};
    box->owner = owner;
    box->path = mailbox_path(owner);
    box->folder = open_folder(AT_FDCWD, box->path.c_str());
    if (!box->folder)
        return errno == ENOENT ? mailbox_look::absent : mailbox_look::failed;
    const bool open = is_own(box->folder) && open_subfolder(box, "inbox", &box->inbox) &&
                      open_subfolder(box, "read", &box->read) &&
                      open_subfolder(box, "acks", &box->acks) &&
                      open_subfolder(box, "state", &box->state);
    return open ? mailbox_look::found : mailbox_look::failed;
}

static std::string id_text(int64_t id) {
    return std::to_string(id);
}

// Appends the regular file to `text`, at most `max` bytes of it.
//   all   a longer file is refused with EFBIG
static int read_entry(const unique_fd &folder, const std::string &name, size_t max, bool all,
                      struct stat *status, strbuf *text) {
    if (!folder) {
        errno = ENOENT;
        return -1;
    }
    const unique_fd fd(openat(folder.get(), name.c_str(), READ_FLAGS));
    if (!fd || fstat(fd.get(), status) != 0)
        return -1;
    if (!S_ISREG(status->st_mode)) {
        errno = EINVAL;
        return -1;
    }
    if (all && static_cast<uintmax_t>(status->st_size) > max) {
        errno = EFBIG;
        return -1;
    }
    // Most files are much smaller than the limit. One byte more shows that nothing follows.
    constexpr size_t GROWTH_BYTES = 4096;
    size_t room = static_cast<size_t>(std::min(status->st_size, static_cast<off_t>(max))) + 1;
    for (; text->len < max; room = GROWTH_BYTES) {
        const size_t wanted = std::min(room, max - text->len);
        strbuf_reserve(text, wanted);
        const ssize_t got = read(fd.get(), text->data + text->len, wanted);
        if (got == 0)
            break;
        if (got < 0 && errno != EINTR)
            return -1;
        text->len += got > 0 ? static_cast<size_t>(got) : 0;
    }
    text->data[text->len] = '\0';
    return 0;
}

// ---- Channels and marks -------------------------------------------------------------------

const char *channel_name(channel where) {
    return where == channel::terminal ? "terminal" : "desktop";
}

std::string mark_name(int64_t id, channel where) {
    return id_text(id) + (where == channel::terminal ? ".term" : ".gui");
}

channel_mark mark_read(const own_mailbox &box, int64_t id, channel where, int64_t now) {
    struct stat status = {};
    strbuf text;
    if (read_entry(box.state, mark_name(id, where), MARK_MAX_BYTES, /*all=*/false, &status,
                   &text) != 0 ||
        status.st_mtim.tv_sec > now)
        return {};
    const bool is_postponed = text.view().starts_with("postponed");
    return {is_postponed ? mark_kind::postponed : mark_kind::shown, status.st_mtim.tv_sec};
}

// ---- Answers ------------------------------------------------------------------------------

answer_record answer_parse(std::string_view text) {
    answer_record answer;
    answer.state = answer_state::answered;
    const std::string_view line = text.substr(0, text.find('\n'));
    const size_t blank = line.find(' ');
    (void)!parse_id(line.substr(0, blank), &answer.time); // stays 0 if it is no number
    if (blank != std::string_view::npos)
        answer.channel = clean_text(line.substr(blank + 1));
    return answer;
}

answer_record answer_read(const own_mailbox &box, int64_t id) {
    answer_record answer;
    struct stat status = {};
    strbuf text;
    if (read_entry(box.acks, id_text(id), ANSWER_MAX_BYTES, /*all=*/false, &status, &text) == 0)
        return answer_parse(text.view());
    // A file may exist even if it cannot be opened: the directory entry says what it is.
    const int error = errno;
    if (error == ENOENT)
        return answer;
    const bool is_there =
        fstatat(box.acks.get(), id_text(id).c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0;
    answer.state =
        is_there && !S_ISREG(status.st_mode) ? answer_state::not_a_file : answer_state::failed;
    errno = error;
    return answer;
}

// ---- Messages -----------------------------------------------------------------------------

// Opens the directory again: a descriptor has only one reading position.
static unique_dir open_listing(const unique_fd &folder) {
    unique_fd again(openat(folder.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!again)
        return nullptr;
    unique_dir directory(fdopendir(again.get()));
    if (directory)
        again.release();
    return directory;
}

// Whether the name is an identifier. "007" is none: identifiers have no leading zeros.
static bool is_identifier(const char *name, int64_t *id) {
    return name[0] != '0' && parse_id(name, id) != 0;
}

int folder_ids(const unique_fd &folder, std::vector<int64_t> *ids) {
    ids->clear();
    if (!folder)
        return 0;
    const unique_dir directory = open_listing(folder);
    if (!directory)
        return -1;
    while (const dirent *entry = next_entry(directory.get())) {
        int64_t id = 0;
        if (is_identifier(entry->d_name, &id))
            ids->push_back(id);
    }
    if (errno != 0)
        return -1; // part of a directory must not be taken for the whole
    std::sort(ids->begin(), ids->end());
    return 0;
}

// Looks whether there is anything at acks/ID.
static lookup answer_look_up(const own_mailbox &box, int64_t id) {
    struct stat status = {};
    if (!box.acks)
        return lookup::absent;
    if (fstatat(box.acks.get(), id_text(id).c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0)
        return lookup::found;
    return lookup_of_error(errno);
}

int inbox_pending(const own_mailbox &box, int64_t now, std::vector<pending_message> *pending) {
    pending->clear();
    std::vector<int64_t> ids;
    if (folder_ids(box.inbox, &ids) != 0)
        return -1;
    for (const int64_t id : ids) {
        const lookup answer = answer_look_up(box, id);
        if (answer == lookup::failed)
            return -1;
        if (answer == lookup::absent)
            pending->push_back({id, mark_read(box, id, channel::terminal, now),
                                mark_read(box, id, channel::desktop, now)});
    }
    return 0;
}

int message_read(const unique_fd &folder, int64_t id, message_record *message) {
    struct stat status = {};
    strbuf text;
    if (read_entry(folder, id_text(id), MESSAGE_FILE_MAX_BYTES, /*all=*/true, &status, &text) != 0)
        return -1;
    if (message_parse(text.data, text.len, message) != 0)
        return -1;
    message->id = id;
    message->from = clean_line(message->from);
    message->title = clean_line(message->title);
    message->text = clean_text(message->text);
    return 0;
}

// Whether the error means that there is no file, or one that is no message.
static bool tells_of_no_message(int error) {
    return lookup_of_error(error) == lookup::absent || error == ELOOP || error == EINVAL ||
           error == EFBIG || error == ENXIO;
}

lookup message_look_up(const unique_fd &folder, int64_t id, message_record *message) {
    if (message_read(folder, id, message) == 0)
        return lookup::found;
    return tells_of_no_message(errno) ? lookup::absent : lookup::failed;
}

waiting_state inbox_look(const own_mailbox &box, int64_t id, int64_t now,
                         waiting_message *message) {
    *message = {};
    message->id = id;
    const lookup found = message_look_up(box.inbox, id, &message->message);
    if (found != lookup::found)
        return found == lookup::absent ? waiting_state::absent : waiting_state::failed;
    message->terminal = mark_read(box, id, channel::terminal, now);
    message->desktop = mark_read(box, id, channel::desktop, now);
    const lookup answer = answer_look_up(box, id);
    if (answer != lookup::absent)
        return answer == lookup::found ? waiting_state::answered : waiting_state::failed;
    return message_is_expired(message->message, now) ? waiting_state::expired
                                                     : waiting_state::waiting;
}

int inbox_waiting(const own_mailbox &box, int64_t now, std::vector<waiting_message> *waiting) {
    waiting->clear();
    std::vector<int64_t> ids;
    if (folder_ids(box.inbox, &ids) != 0)
        return -1;
    for (const int64_t id : ids) {
        waiting_message message;
        const waiting_state state = inbox_look(box, id, now, &message);
        if (state == waiting_state::failed)
            return -1;
        if (state == waiting_state::waiting)
            waiting->push_back(std::move(message));
    }
    return 0;
}

// ---- Due ----------------------------------------------------------------------------------

int64_t due_time(const channel_mark &terminal, const channel_mark &desktop, channel where,
                 int64_t now, int64_t remind_seconds) {
    int64_t due = 0;
    for (const channel_mark *mark : {&terminal, &desktop}) {
        const bool is_this = mark == (where == channel::terminal ? &terminal : &desktop);
        if (mark->kind == mark_kind::postponed || (mark->kind == mark_kind::shown && is_this))
            due = std::max(due, mark->time + remind_seconds);
    }
    return due > now ? due : 0;
}

int64_t remind_seconds() {
    config settings;
    load_config(&settings);
    return settings.remind_minutes * 60;
}
