#include "tbx/sent.h"

#include "common/environment.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

// O_NONBLOCK refuses a named pipe in a file's place; it has no effect on files.
constexpr int STORE_CREATE = O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
constexpr int STORE_APPEND = STORE_CREATE | O_APPEND;
constexpr mode_t STORE_FILE_MODE = 0600;
constexpr size_t TIME_FILE_MAX_BYTES = 64; // ".seq", "revoked"

// ---- Paths --------------------------------------------------------------------------------

std::string sent_dir() {
    return xasprintf("%s/sent", var_dir());
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

// Reads the number on the first line of a small file, 0 when it is missing or malformed. Returns
// 0, or -1 with errno when the file could not be read.
static int read_number(const char *path, int64_t *number) {
    *number = 0;
    strbuf text;
    if (read_stored_file(path, TIME_FILE_MAX_BYTES, &text) == lookup::failed)
        return -1;
    if (!parse_id(text.view().substr(0, text.view().find('\n')), number))
        *number = 0;
    return 0;
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

static message_lock open_locked(const char *path, int operation) {
    unique_fd lock(open(path, STORE_CREATE, STORE_FILE_MODE));
    if (!lock)
        return {lock_state::failed, {}};
    while (flock(lock.get(), operation) != 0)
        if (errno != EINTR)
            return {errno == EWOULDBLOCK ? lock_state::held : lock_state::failed, {}};
    return {lock_state::taken, std::move(lock)};
}

// Returns 0, or the errno that kept the directory from being created.
static int make_directory(const char *path, mode_t mode) {
    return mkdir(path, mode) == 0 ? 0 : errno;
}

static void require_directory(const std::string &path, int error) {
    const lookup found = directory_look_up(path.c_str());
    if (found == lookup::failed)
        die("%s: %s", var_dir(), strerror(errno));
    if (found == lookup::absent)
        die("%s: %s", var_dir(), strerror(error == EEXIST ? ENOTDIR : error));
}

// Creates the state directories that are missing; both folders must be directories then. If the
// state directory could not be created, its error is reported for its folders.
static void create_state_directories() {
    const int var_error = make_directory(var_dir(), 0755);
    const std::string users = xasprintf("%s/users", var_dir());
    const int users_error = make_directory(users.c_str(), 0755);
    const int sent_error = make_directory(sent_dir().c_str(), 0700);
    const bool var_failed = var_error != 0 && var_error != EEXIST;
    require_directory(users, var_failed ? var_error : users_error);
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
    const message_lock lock = open_locked(lock_path.c_str(), LOCK_EX);
    if (lock.state != lock_state::taken)
        die("%s: %s", lock_path.c_str(), strerror(errno));
    int64_t last = 0;
    if (read_number(seq_path.c_str(), &last) != 0) // from 0 on, a purged identifier would be reused
        die("%s: %s", seq_path.c_str(), strerror(errno));
    const int64_t id = claim_directory_after(last, seq_path.c_str());
    if (write_number(seq_path.c_str(), id) != 0)
        die("%s: %s", seq_path.c_str(), strerror(errno));
    return id;
}

// ---- Locks and markers --------------------------------------------------------------------

message_lock sent_lock(int64_t id, bool nonblocking) {
    return open_locked(sent_path(id, "lock").c_str(), nonblocking ? LOCK_EX | LOCK_NB : LOCK_EX);
}

int sent_marker_create(int64_t id, const char *name) {
    const unique_fd marker(open(sent_path(id, name).c_str(), STORE_CREATE, STORE_FILE_MODE));
    return marker ? 0 : -1;
}

lookup sent_marker_look_up(int64_t id, const char *name) {
    return path_look_up(sent_path(id, name).c_str());
}

bool sent_marker_exists(int64_t id, const char *name) {
    return sent_marker_look_up(id, name) == lookup::found;
}

int sent_marker_write_time(int64_t id, const char *name) {
    const std::string text = number_line(now());
    return create_file_atomic(sent_path(id, name).c_str(), text.data(), text.size(),
                              STORE_FILE_MODE);
}

int sent_revocation_time(int64_t id, int64_t *time) {
    return read_number(sent_path(id, "revoked").c_str(), time);
}

// ---- Recipients ---------------------------------------------------------------------------

// The predicates are lambdas, not functions: only lambdas are inlined into the searches, which
// visit every byte of every message's lists.
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

lookup sent_read_recipients_in(const char *dir, strlist *list) {
    strlist_free(list);
    strbuf text;
    const lookup found =
        read_stored_file(xasprintf("%s/recipients", dir).c_str(), RECIPIENTS_MAX_BYTES, &text);
    push_tokens(text.view(), list);
    return found;
}

lookup sent_read_recipients(int64_t id, strlist *list) {
    return sent_read_recipients_in(sent_message_dir(id).c_str(), list);
}

// ---- Delivery log -------------------------------------------------------------------------

constexpr size_t LOG_USER_MAX_BYTES = 255;
constexpr size_t LOG_COUNT_MAX_BYTES = 31;
constexpr size_t LOG_LINE_MAX_BYTES = 399;

constexpr auto is_log_blank = [](char c) { return c == ' ' || (c >= '\t' && c <= '\r'); };

// Removes the next blank-separated field from `line` and returns it, at most `max` bytes; the rest
// of a longer one becomes the next field.
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

lookup sent_read_delivery(int64_t id, delivery_table *table) {
    *table = {};
    const lookup found =
        read_stored_file(sent_path(id, "delivery").c_str(), DELIVERY_MAX_BYTES, &table->log);
    std::string_view rest = table->log.view();
    std::string_view line;
    while (next_line(&rest, &line))
        add_delivery_line(line, table);
    return found;
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

int sent_mend_delivery(int64_t id) {
    const std::string path = sent_path(id, "delivery");
    strbuf log;
    if (read_stored_file(path.c_str(), DELIVERY_MAX_BYTES, &log) == lookup::failed)
        return -1;
    if (log.len == 0 || log.view().back() == '\n')
        return 0;
    const size_t last_newline = log.view().rfind('\n');
    const size_t whole = last_newline == std::string_view::npos ? 0 : last_newline + 1;
    const unique_fd file(open(path.c_str(), O_WRONLY | O_NOFOLLOW | O_CLOEXEC));
    return file ? ftruncate(file.get(), static_cast<off_t>(whole)) : -1;
}
