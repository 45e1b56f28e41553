#include "tbx/sent.h"

#include "common/environment.h"
#include "tbx/mailbox.h"
#include "tbx/recipients.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>
#include <unordered_map>

// Non-blocking, so that a named pipe in a file's place is refused; files do not care.
constexpr int STORE_CREATE = O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
constexpr int STORE_APPEND = STORE_CREATE | O_APPEND;
constexpr mode_t STORE_FILE_MODE = 0600;
constexpr size_t TIME_FILE_MAX_BYTES = 64; // ".seq", "revoked"

// ---- Paths --------------------------------------------------------------------------------

std::string sent_dir() {
    return xasprintf("%s/sent", var_dir());
}

std::string users_dir() {
    return xasprintf("%s/users", var_dir());
}

std::string sent_message_dir(int64_t id) {
    std::string path = var_dir();
    return path.append("/sent/").append(std::to_string(id));
}

std::string sent_path(int64_t id, const char *name) {
    std::string path = sent_message_dir(id);
    return path.append("/").append(name);
}

// ---- Small files --------------------------------------------------------------------------

// The number on the first line of a small file; 0 when it is missing or malformed, -1 with errno
// when it could not be read for want of resources.
static int64_t read_number(const char *path) {
    strbuf text;
    if (read_file_limited(path, TIME_FILE_MAX_BYTES, /*nofollow=*/true, &text) != 0)
        return is_resource_error(errno) ? -1 : 0;
    int64_t number = 0;
    return parse_id(text.view().substr(0, text.view().find('\n')), &number) ? number : 0;
}

static std::string number_line(int64_t number) {
    return xasprintf("%lld\n", static_cast<long long>(number));
}

static int write_number(const char *path, int64_t number) {
    const std::string text = number_line(number);
    return write_file_atomic(path, text.data(), text.size(), STORE_FILE_MODE);
}

// ---- Identifiers --------------------------------------------------------------------------

int sent_list_ids(strlist *list) {
    return list_numeric_entries(sent_dir().c_str(), list);
}

static unique_fd open_locked(const char *path, int operation) {
    unique_fd lock(open(path, STORE_CREATE, STORE_FILE_MODE));
    if (!lock)
        return {};
    while (flock(lock.get(), operation) != 0)
        if (errno != EINTR)
            return {};
    return lock;
}

// Returns 0, or the errno that kept the directory from being created.
static int make_directory(const char *path, mode_t mode) {
    return mkdir(path, mode) == 0 ? 0 : errno;
}

static void require_directory(const std::string &path, int error) {
    if (!is_directory(path.c_str()))
        die("%s: %s", var_dir(), strerror(error == EEXIST ? ENOTDIR : error));
}

// Whatever is there already is fine, as long as both folders are directories then. An error
// that kept the state directory from being created explains those of its folders.
static void create_state_directories() {
    const int var_error = make_directory(var_dir(), 0755);
    const int users_error = make_directory(users_dir().c_str(), 0755);
    const int sent_error = make_directory(sent_dir().c_str(), 0700);
    const bool var_failed = var_error != 0 && var_error != EEXIST;
    require_directory(users_dir(), var_failed ? var_error : users_error);
    require_directory(sent_dir(), var_failed ? var_error : sent_error);
}

// Creates the directory of the first free identifier after `last`.
static int64_t claim_directory_after(int64_t last, const char *seq_path) {
    for (int64_t id = last + 1; id <= ID_MAX; id++) {
        const std::string dir = sent_message_dir(id);
        if (mkdir(dir.c_str(), 0700) == 0)
            return id;
        if (errno != EEXIST)
            die("%s: %s", dir.c_str(), strerror(errno));
    }
    die("%s: %s", seq_path, strerror(EOVERFLOW));
}

int64_t sent_allocate_id() {
    create_state_directories();
    const std::string lock_path = sent_dir() + "/.seq.lock";
    const std::string seq_path = sent_dir() + "/.seq";
    const unique_fd lock = open_locked(lock_path.c_str(), LOCK_EX);
    if (!lock)
        die("%s: %s", lock_path.c_str(), strerror(errno));
    const int64_t last = read_number(seq_path.c_str());
    if (last < 0) // from 0 on, a purged identifier would be taken again
        die("%s: %s", seq_path.c_str(), strerror(errno));
    const int64_t id = claim_directory_after(last, seq_path.c_str());
    if (write_number(seq_path.c_str(), id) != 0)
        die("%s: %s", seq_path.c_str(), strerror(errno));
    return id;
}

// ---- Locks and markers --------------------------------------------------------------------

unique_fd sent_lock(int64_t id, bool nonblocking) {
    return open_locked(sent_path(id, "lock").c_str(), nonblocking ? LOCK_EX | LOCK_NB : LOCK_EX);
}

void sent_marker_create(int64_t id, const char *name) {
    const unique_fd marker(open(sent_path(id, name).c_str(), STORE_CREATE, STORE_FILE_MODE));
}

marker_state sent_marker_look_up(int64_t id, const char *name) {
    if (path_exists(sent_path(id, name).c_str()))
        return marker_state::present;
    return errno == ENOENT || errno == ENOTDIR ? marker_state::absent : marker_state::unknown;
}

int sent_marker_exists(int64_t id, const char *name) {
    return sent_marker_look_up(id, name) == marker_state::present;
}

int sent_marker_write_time(int64_t id, const char *name) {
    const std::string text = number_line(now());
    return create_file_atomic(sent_path(id, name).c_str(), text.data(), text.size(),
                              STORE_FILE_MODE);
}

int64_t sent_revocation_time(int64_t id) {
    return read_number(sent_path(id, "revoked").c_str());
}

// ---- Recipients ---------------------------------------------------------------------------

// The predicates are objects and not functions: only those are inlined into the searches, which
// go over every byte of every message's lists.
constexpr auto is_separator = [](char c) { return c == ' ' || c == '\t' || c == '\n'; };

static void push_tokens(std::string_view text, strlist *list) {
    const char *end = text.data() + text.size();
    for (const char *start = text.data(); start < end;) {
        const char *stop = std::find_if(start, end, is_separator);
        if (stop > start)
            strlist_push_view(list, {start, static_cast<size_t>(stop - start)});
        start = stop + 1;
    }
}

static int read_recipients_file(const char *path, strlist *list) {
    strbuf text;
    if (read_file_limited(path, RECIPIENTS_MAX_BYTES, /*nofollow=*/true, &text) != 0)
        return -1;
    push_tokens(text.view(), list);
    return 0;
}

int sent_read_recipients(int64_t id, strlist *list) {
    return read_recipients_file(sent_path(id, "recipients").c_str(), list);
}

// ---- Delivery log -------------------------------------------------------------------------

constexpr size_t LOG_USER_MAX_BYTES = 255;
constexpr size_t LOG_COUNT_MAX_BYTES = 31;
constexpr size_t LOG_LINE_MAX_BYTES = 399;

constexpr auto is_log_blank = [](char c) { return c == ' ' || (c >= '\t' && c <= '\r'); };

// Takes the next blank-separated field of at most `max` bytes off `line`; what is longer is
// left for the next field.
static std::string_view take_field(std::string_view *line, size_t max) {
    const char *begin = line->data();
    const char *end = begin + line->size();
    const char *start = std::find_if_not(begin, end, is_log_blank);
    const char *stop = std::find_if(start, end, is_log_blank);
    const size_t length = std::min(static_cast<size_t>(stop - start), max);
    line->remove_prefix(static_cast<size_t>(start - begin) + length);
    return {start, length};
}

static uint32_t hash_of(std::string_view name) {
    return static_cast<uint32_t>(std::hash<std::string_view>{}(name));
}

static ptrdiff_t find_user(const delivery_table &table, std::string_view user, uint32_t hash) {
    return table.by_user.find(hash, [&](size_t place) { return table.users[place] == user; });
}

// The first line of a user counts.
static void add_delivery_line(std::string_view line, delivery_table *table) {
    const std::string_view user = take_field(&line, LOG_USER_MAX_BYTES);
    const uint32_t hash = hash_of(user);
    if (user.empty() || find_user(*table, user, hash) >= 0)
        return;
    table->by_user.add(hash, table->users.size());
    table->users.push_back(user);
    take_field(&line, SIZE_MAX); // the time
    const std::string_view terminals = take_field(&line, LOG_COUNT_MAX_BYTES);
    table->terminals.push_back(terminals.empty() ? "0" : terminals.substr(0, terminals.find('\0')));
}

int sent_read_delivery(int64_t id, delivery_table *table) {
    *table = {};
    if (read_file_limited(sent_path(id, "delivery").c_str(), DELIVERY_MAX_BYTES, /*nofollow=*/true,
                          &table->log) != 0)
        return -1;
    std::string_view rest = table->log.view();
    while (!rest.empty()) {
        const size_t end = rest.find('\n');
        add_delivery_line(rest.substr(0, end), table);
        rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
    }
    return 0;
}

ptrdiff_t delivery_find(const delivery_table &table, std::string_view user) {
    return find_user(table, user, hash_of(user));
}

void sent_append_delivery(int64_t id, const char *user, int terminals) {
    const std::string line =
        xasprintf("%s %lld %d\n", user, static_cast<long long>(now()), terminals);
    if (line.size() > LOG_LINE_MAX_BYTES)
        return;
    const unique_fd log(open(sent_path(id, "delivery").c_str(), STORE_APPEND, STORE_FILE_MODE));
    if (log && write_all(log.get(), line.data(), line.size()) != 0)
        (void)sent_mend_delivery(id); // best effort, like the log itself
}

bool sent_mend_delivery(int64_t id) {
    const std::string path = sent_path(id, "delivery");
    strbuf log;
    if (read_file_limited(path.c_str(), DELIVERY_MAX_BYTES, /*nofollow=*/true, &log) != 0)
        return !is_resource_error(errno); // nothing to mend, or nothing that can be read
    if (log.len == 0 || log.view().back() == '\n')
        return true;
    const size_t last_newline = log.view().rfind('\n');
    const size_t whole = last_newline == std::string_view::npos ? 0 : last_newline + 1;
    const unique_fd file(open(path.c_str(), O_WRONLY | O_NOFOLLOW | O_CLOEXEC));
    return file && ftruncate(file.get(), static_cast<off_t>(whole)) == 0;
}

// ---- Removing -----------------------------------------------------------------------------

// Removes the files of a directory (one level; it holds nothing but files) and the directory.
static void remove_directory(const char *dir) {
    const int fd = open(dir, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd >= 0) {
        const unique_dir directory(fdopendir(fd));
        if (!directory) {
            close(fd);
            return; // for want of memory: tried again by a later run
        }
        while (const dirent *entry = readdir(directory.get()))
            if (strcmp(entry->d_name, ".") != 0 && strcmp(entry->d_name, "..") != 0)
                unlinkat(fd, entry->d_name, 0); // what stays makes rmdir fail
    }
    rmdir(dir); // what cannot be removed is tried again by a later run
}

// Whether a look-up or read that just failed did so for want of resources, which says nothing
// about whether the account or file exists.
static bool failed_for_resources() {
    return is_resource_error(errno);
}

void sent_remove_message_dir(const char *dir, int64_t id) {
    strlist recipients;
    if (read_recipients_file(xasprintf("%s/recipients", dir).c_str(), &recipients) != 0 &&
        failed_for_resources())
        return;
    bool all_tried = true;
    for (const char *name : recipients) {
        resolved_user user;
        if (user_lookup_by_name(name, &user)) {
            if (!mailbox_purge_message(user, id))
                all_tried = false;
        } else if (failed_for_resources()) {
            all_tried = false;
        }
    }
    if (all_tried)
        remove_directory(dir);
}

bool sent_finish_revoking(int64_t id) {
    strlist recipients;
    if (sent_read_recipients(id, &recipients) != 0 && failed_for_resources())
        return false;
    size_t failures = 0;
    for (const char *name : recipients) {
        resolved_user user;
        if (user_lookup_by_name(name, &user)) {
            if (!mailbox_withdraw(user, id))
                failures++;
        } else if (failed_for_resources()) {
            failures++;
        }
    }
    if (failures > 0)
        return false;
    unlink(sent_path(id, "revoking").c_str());
    return true;
}

// ---- State of a recipient -----------------------------------------------------------------

struct user_confirmations {
    confirmation_list list;
    int error = 0; // that kept them from being read
};

// For the length of one run, or until recipient_state_cache_drop(): what each user's mailbox
// said, and the identifiers that it was asked for.
static struct {
    std::optional<int64_t> only_id; // none: every message
    bool ids_listed = false;
    std::string id_lines; // as each child takes them
    std::unordered_map<std::string, user_confirmations, string_hash, std::equal_to<>> users;
} state_cache;

// False, with errno, where the store cannot be listed: no identifiers then, and not half of them.
static bool list_ids_once() {
    if (state_cache.ids_listed)
        return true;
    strlist ids;
    state_cache.ids_listed = sent_list_ids(&ids) == 0;
    const int error = errno;
    if (state_cache.ids_listed)
        state_cache.id_lines = identifier_lines(ids);
    strlist_free(&ids);
    errno = error;
    return state_cache.ids_listed;
}

// False, with errno, where something could not be read.
static bool read_confirmations(const char *name, confirmation_list *list) {
    resolved_user user;
    if (!user_lookup_by_name(name, &user))
        return !failed_for_resources();
    if (!list_ids_once() && failed_for_resources())
        return false;
    return mailbox_read_confirmations(user, state_cache.id_lines, list);
}

static const user_confirmations &confirmations_of(const char *name, int64_t id) {
    if (state_cache.only_id && *state_cache.only_id != id)
        recipient_state_cache_drop();
    const auto found = state_cache.users.find(std::string_view(name));
    if (found != state_cache.users.end())
        return found->second;
    user_confirmations &known = state_cache.users[name];
    if (!read_confirmations(name, &known.list))
        known.error = errno;
    return known;
}

const confirmation_entry *recipient_confirmation(const char *user, int64_t id) {
    return confirmation_find(confirmations_of(user, id).list, id);
}

// Splits "SECONDS DETAIL"; a time that is no number counts as 0.
static void split_ack(std::string_view ack, recipient_status *out) {
    const size_t blank = ack.find(' ');
    if (!parse_id(ack.substr(0, blank), &out->time))
        out->time = 0;
    if (blank != std::string_view::npos)
        out->detail = ack.substr(blank + 1);
}

// What a confirmation in the mailbox makes of a recipient who has the message.
static void apply_ack(std::string_view ack, const message_record &message, int64_t cutoff,
                      recipient_status *out) {
    recipient_status confirmed;
    split_ack(ack, &confirmed);
    if (message.expires != 0 && message.expires < confirmed.time) {
        out->late = true;
        return;
    }
    if (cutoff != 0 && cutoff < confirmed.time)
        return;
    confirmed.state = delivery_state::confirmed;
    *out = std::move(confirmed);
}

bool recipient_state(const char *user, int64_t id, const delivery_table &delivery,
                     const message_record &message, int64_t cutoff, recipient_status *out) {
    *out = {};
    if (delivery_find(delivery, user) < 0)
        return true;
    out->state = delivery_state::delivered;
    const user_confirmations &known = confirmations_of(user, id);
    if (known.error != 0) {
        errno = known.error;
        return false;
    }
    const confirmation_entry *entry = confirmation_find(known.list, id);
    if (entry != nullptr && entry->ack)
        apply_ack(*entry->ack, message, cutoff, out);
    return true;
}

void recipient_state_cache_drop() {
    state_cache.users.clear();
    state_cache.id_lines.clear();
    state_cache.ids_listed = false;
    state_cache.only_id.reset();
}

void recipient_state_ask_only(int64_t id) {
    if (state_cache.only_id == id)
        return;
    recipient_state_cache_drop();
    state_cache.only_id = id;
    state_cache.id_lines = number_line(id);
    state_cache.ids_listed = true;
}
