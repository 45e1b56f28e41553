#include "common/core.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>

// ---- Ownership ----------------------------------------------------------------------------

void unique_fd::reset(int fd) {
    const int old = std::exchange(fd_, fd);
    if (old < 0)
        return;
    const int saved = errno;
    (void)::close(old); // errors matter only where close() is called
    errno = saved;
}

int unique_fd::close() {
    return ::close(release());
}

// ---- Diagnostics --------------------------------------------------------------------------

static const char *program_name = "tbx"; // for the whole process; set once at the start

void set_program_name(const char *name) {
    program_name = name;
}

static void __attribute__((format(printf, 1, 0))) report(const char *format, va_list arguments) {
    (void)fflush(stdout); // earlier output is shown before the diagnostic
    fprintf(stderr, "%s: ", program_name);
    vfprintf(stderr, format, arguments);
    fputc('\n', stderr);
}

static bool is_child = false; // of a fork of this program

void die_as_child() {
    is_child = true;
}

void die(const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    report(format, arguments);
    va_end(arguments);
    if (is_child)
        _exit(EXIT_FAILURE);
    exit(EXIT_FAILURE);
}

void warn(const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    report(format, arguments);
    va_end(arguments);
}

// ---- Memory -------------------------------------------------------------------------------

[[noreturn]] static void die_out_of_memory() {
    die("out of memory");
}

void install_out_of_memory_handler() {
    std::set_new_handler(die_out_of_memory);
}

void *xmalloc(size_t bytes) {
    return xrealloc(nullptr, bytes);
}

void *xrealloc(void *memory, size_t bytes) {
    void *result = realloc(memory, bytes == 0 ? 1 : bytes);
    if (result == nullptr)
        die_out_of_memory();
    return result;
}

static owned_cstring copy_bytes(const char *text, size_t length) {
    owned_cstring copy(static_cast<char *>(xmalloc(length + 1)));
    memcpy(copy.get(), text, length);
    copy.get()[length] = '\0';
    return copy;
}

owned_cstring xstrdup(const char *text) {
    return copy_bytes(text, strlen(text));
}

std::string xasprintf(const char *format, ...) {
    strbuf text;
    va_list arguments;
    va_start(arguments, format);
    strbuf_vprintf(&text, format, arguments);
    va_end(arguments);
    return std::string(text.view());
}

// ---- strbuf -------------------------------------------------------------------------------

constexpr size_t STRBUF_FIRST_BYTES = 64;

void strbuf_reserve(strbuf *b, size_t n) {
    if (n > SIZE_MAX - 1 - b->len)
        die_out_of_memory();
    const size_t needed = b->len + n + 1;
    if (b->cap >= needed)
        return;
    size_t cap = b->cap < STRBUF_FIRST_BYTES ? STRBUF_FIRST_BYTES : b->cap;
    while (cap < needed)
        cap = cap > SIZE_MAX / 4 ? needed : cap * 2; // doubling would reach 2^63
    b->data = static_cast<char *>(xrealloc(b->data, cap));
    b->cap = cap;
    b->data[b->len] = '\0';
}

void strbuf_append(strbuf *b, const void *data, size_t n) {
    strbuf_reserve(b, n);
    if (n > 0)
        memcpy(b->data + b->len, data, n);
    b->len += n;
    b->data[b->len] = '\0';
}

void strbuf_append_str(strbuf *b, const char *text) {
    strbuf_append(b, text, strlen(text));
}

void strbuf_append_view(strbuf *b, std::string_view text) {
    strbuf_append(b, text.data(), text.size());
}

void strbuf_append_char(strbuf *b, char c) {
    strbuf_append(b, &c, 1);
}

// Formats into the free room. If that is too small, makes room and formats again.
void strbuf_vprintf(strbuf *b, const char *format, va_list arguments) {
    strbuf_reserve(b, 0);
    va_list again;
    va_copy(again, arguments);
    const size_t room = b->cap - b->len;
    const int length = vsnprintf(b->data + b->len, room, format, arguments);
    if (length < 0)
        die("invalid format");
    const auto bytes = static_cast<size_t>(length);
    if (bytes >= room) {
        strbuf_reserve(b, bytes);
        vsnprintf(b->data + b->len, bytes + 1, format, again);
    }
    va_end(again);
    b->len += bytes;
}

void strbuf_printf(strbuf *b, const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    strbuf_vprintf(b, format, arguments);
    va_end(arguments);
}

void strbuf_reset(strbuf *b) {
    b->len = 0;
    if (b->data != nullptr)
        b->data[0] = '\0';
}

void strbuf_free(strbuf *b) {
    free(b->data);
    b->data = nullptr;
    b->len = 0;
    b->cap = 0;
}

// ---- strlist ------------------------------------------------------------------------------

constexpr size_t STRLIST_FIRST_ITEMS = 16;

strlist::~strlist() {
    strlist_free(this);
}

void strlist_push(strlist *l, owned_cstring text) {
    if (l->count == l->cap) {
        l->cap = l->cap == 0 ? STRLIST_FIRST_ITEMS : l->cap * 2;
        l->items = static_cast<char **>(xrealloc(l->items, l->cap * sizeof(char *)));
    }
    l->items[l->count++] = text.release();
}

void strlist_push_dup(strlist *l, const char *text) {
    strlist_push(l, xstrdup(text));
}

void strlist_push_view(strlist *l, std::string_view text) {
    strlist_push(l, copy_bytes(text.data(), text.size()));
}

int strlist_contains(const strlist *l, const char *text) {
    for (const char *item : *l)
        if (strcmp(item, text) == 0)
            return 1;
    return 0;
}

static void sort_items(strlist *l, int (*compare)(const char *, const char *)) {
    if (l->count < 2)
        return;
    qsort_r(
        l->items, l->count, sizeof(char *),
        [](const void *a, const void *b, void *order) {
            return reinterpret_cast<decltype(compare)>(order)(*static_cast<char *const *>(a),
                                                              *static_cast<char *const *>(b));
        },
        reinterpret_cast<void *>(compare));
}

void strlist_sort(strlist *l) {
    sort_items(l, strcmp);
}

void strlist_free(strlist *l) {
    for (char *item : *l)
        free(item);
    free(l->items);
    l->items = nullptr;
    l->count = 0;
    l->cap = 0;
}

// ---- Lines --------------------------------------------------------------------------------

bool next_line(std::string_view *rest, std::string_view *line) {
    if (rest->empty())
        return false;
    const size_t end = rest->find('\n');
    *line = rest->substr(0, end);
    rest->remove_prefix(end == std::string_view::npos ? rest->size() : end + 1);
    return true;
}

std::string strlist_lines(const strlist &l) {
    std::string lines;
    for (const char *item : l)
        lines.append(item).push_back('\n');
    return lines;
}

// ---- place_index --------------------------------------------------------------------------

void place_index::put(slot added) {
    const size_t mask = slots_.size() - 1;
    size_t at = added.hash & mask;
    while (slots_[at].number != 0)
        at = (at + 1) & mask;
    slots_[at] = added;
}

void place_index::grow() {
    constexpr size_t FIRST_SLOTS = 64;
    const std::vector<slot> taken =
        std::exchange(slots_, std::vector<slot>(std::max(2 * slots_.size(), FIRST_SLOTS)));
    for (const slot &one : taken)
        if (one.number != 0)
            put(one);
}

void place_index::add(uint32_t hash, size_t place) {
    const size_t count = place + 1;
    if (2 * count > slots_.size())
        grow();
    put({hash, static_cast<uint32_t>(count)});
}

// ---- Looking up ---------------------------------------------------------------------------

lookup lookup_of_error(int error) {
    return error == ENOENT || error == ENOTDIR ? lookup::absent : lookup::failed;
}

lookup path_look_up(const char *path) {
    struct stat status = {};
    return lstat(path, &status) == 0 ? lookup::found : lookup_of_error(errno);
}

lookup directory_look_up(const char *path) {
    struct stat status = {};
    if (lstat(path, &status) != 0)
        return lookup_of_error(errno);
    return S_ISDIR(status.st_mode) ? lookup::found : lookup::absent;
}

// ---- Files --------------------------------------------------------------------------------

constexpr size_t READ_CHUNK_BYTES = 8192;

int read_fd_limited(int fd, size_t max, strbuf *b) {
    char chunk[READ_CHUNK_BYTES];
    while (true) {
        const ssize_t got = read(fd, chunk, sizeof chunk);
        if (got == 0)
            return 0;
        if (got < 0) {
            if (errno == EINTR)
                continue;
            return -1;
        }
        const size_t room = b->len < max ? max - b->len : 0;
        const auto bytes = static_cast<size_t>(got);
        strbuf_append(b, chunk, bytes < room ? bytes : room);
    }
}

int read_file_limited(const char *path, size_t max, bool nofollow, strbuf *b) {
    const int flags = O_RDONLY | O_NOCTTY | O_NONBLOCK | O_CLOEXEC | (nofollow ? O_NOFOLLOW : 0);
    const unique_fd fd(open(path, flags));
    if (!fd)
        return -1;
    struct stat status = {};
    if (fstat(fd.get(), &status) != 0)
        return -1;
    if (!S_ISREG(status.st_mode)) {
        errno = EINVAL;
        return -1;
    }
    if (static_cast<uintmax_t>(status.st_size) > max) {
        errno = EFBIG;
        return -1;
    }
    return read_fd_limited(fd.get(), max, b);
}

// Whether something exists at `path` that is not a regular file of at most `max` bytes.
static bool is_no_such_file(const char *path, size_t max) {
    struct stat status = {};
    return lstat(path, &status) == 0 &&
           (!S_ISREG(status.st_mode) || static_cast<uintmax_t>(status.st_size) > max);
}

lookup read_stored_file(const char *path, size_t max, strbuf *b) {
    strbuf_reset(b);
    if (read_file_limited(path, max, /*nofollow=*/true, b) == 0)
        return lookup::found;
    const int error = errno;
    strbuf_reset(b); // part of a file must not be taken for the whole
    if (lookup_of_error(error) == lookup::absent || is_no_such_file(path, max))
        return lookup::absent;
    errno = error;
    return lookup::failed;
}

int write_all(int fd, const void *data, size_t len) {
    const char *rest = static_cast<const char *>(data);
    while (len > 0) {
        const ssize_t written = write(fd, rest, len);
        if (written < 0) {
            if (errno == EINTR)
                continue;
            return -1;
        }
        rest += written;
        len -= static_cast<size_t>(written);
    }
    return 0;
}

static int sync_retrying(int (*sync_call)(int), int fd) {
    while (sync_call(fd) != 0)
        if (errno != EINTR)
            return -1;
    return 0;
}

static int sync_path(const char *path, int (*sync_call)(int)) {
    const unique_fd fd(open(path, O_RDONLY | O_NOFOLLOW | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
    return fd ? sync_retrying(sync_call, fd.get()) : -1;
}

int fsync_path(const char *path) {
    return sync_path(path, fsync);
}

int syncfs_path(const char *path) {
    return sync_path(path, syncfs);
}

// Creates the file at `path`, writes and syncs its contents, and closes it.
static int write_new_file(const char *path, const void *data, size_t len, mode_t mode) {
    unique_fd fd(open(path, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode));
    if (!fd || write_all(fd.get(), data, len) != 0 || sync_retrying(fsync, fd.get()) != 0)
        return -1;
    return fd.close();
}

static int write_and_rename(const char *path, const void *data, size_t len, mode_t mode,
                            int (*rename_to)(const char *, const char *)) {
    const std::string temporary = xasprintf("%s.tmp", path);
    (void)unlink(temporary.c_str()); // left by an interrupted run; usually there is none
    if (write_new_file(temporary.c_str(), data, len, mode) == 0 &&
        rename_to(temporary.c_str(), path) == 0)
        return 0;
    const int saved = errno;
    (void)unlink(temporary.c_str()); // may never have been created
    errno = saved;
    return -1;
}

int write_file_atomic(const char *path, const void *data, size_t len, mode_t mode) {
    return write_and_rename(path, data, len, mode, rename);
}

// Renames, but fails with EEXIST if `to` exists. On file systems that cannot do this in one call,
// looks first and renames then.
static int rename_without_replacing(const char *from, const char *to) {
    if (renameat2(AT_FDCWD, from, AT_FDCWD, to, RENAME_NOREPLACE) == 0)
        return 0;
    if (errno != EINVAL && errno != ENOSYS)
        return -1;
    switch (path_look_up(to)) {
    case lookup::found:
        errno = EEXIST;
        return -1;
    case lookup::failed:
        return -1;
    case lookup::absent:
        break;
    }
    return rename(from, to);
}

int create_file_atomic(const char *path, const void *data, size_t len, mode_t mode) {
    return write_and_rename(path, data, len, mode, rename_without_replacing);
}

// ---- Predicates and parsing ---------------------------------------------------------------

int path_exists(const char *path) {
    struct stat status = {};
    return lstat(path, &status) == 0;
}

int is_directory(const char *path) {
    struct stat status = {};
    return lstat(path, &status) == 0 && S_ISDIR(status.st_mode);
}

static bool all_digits(std::string_view text) {
    for (const char c : text)
        if (c < '0' || c > '9')
            return false;
    return !text.empty();
}

int is_all_digits(const char *text) {
    return all_digits(text);
}

int parse_id(std::string_view text, int64_t *out) {
    if (text.size() > ID_MAX_DIGITS || !all_digits(text))
        return 0;
    int64_t value = 0;
    for (const char digit : text)
        value = value * 10 + (digit - '0');
    *out = value;
    return 1;
}

int parse_id(const char *text, int64_t *out) {
    return parse_id(std::string_view(text), out);
}

int compare_length_then_text(const char *a, const char *b) {
    const size_t length_a = strlen(a);
    const size_t length_b = strlen(b);
    if (length_a != length_b)
        return length_a < length_b ? -1 : 1;
    return strcmp(a, b);
}

const dirent *next_entry(DIR *directory) {
    errno = 0;
    return readdir(directory);
}

int list_numeric_entries(const char *dir, strlist *l) {
    const unique_dir directory(opendir(dir));
    if (!directory)
        return -1;
    while (const dirent *entry = next_entry(directory.get())) {
        const std::string_view name = entry->d_name;
        if (name.size() <= ID_MAX_DIGITS && all_digits(name))
            strlist_push_view(l, name);
    }
    if (errno != 0)
        return -1; // part of a directory must not be taken for the whole
    sort_items(l, compare_length_then_text);
    return 0;
}

// ---- Time ---------------------------------------------------------------------------------

// Not time(): it can be a tick behind the clock that other programs have just read.
time_t now() {
    timespec clock = {};
    (void)clock_gettime(CLOCK_REALTIME, &clock); // cannot fail: the clock exists
    return clock.tv_sec;
}

int64_t monotonic_ms() {
    timespec clock = {};
    (void)clock_gettime(CLOCK_MONOTONIC, &clock); // cannot fail: the clock exists
    return int64_t{clock.tv_sec} * 1000 + clock.tv_nsec / 1'000'000;
}

void format_time_short(int64_t t, char out[SHORT_TIME_BYTES]) {
    const time_t seconds = t;
    struct tm local = {};
    if (localtime_r(&seconds, &local) == nullptr ||
        strftime(out, SHORT_TIME_BYTES, "%d/%m %H:%M", &local) == 0)
        snprintf(out, SHORT_TIME_BYTES, "?");
}
