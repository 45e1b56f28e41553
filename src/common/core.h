// Utilities used everywhere: diagnostics, allocation that never returns null, growable
// containers, reading and writing of whole files, small predicates, identifiers, time.
#pragma once

#include <dirent.h>

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

// ---- Ownership ----------------------------------------------------------------------------

// Owns one file descriptor; -1 when empty. Closing keeps errno, so that an early
// `return -1` still reports the call that failed.
class unique_fd {
public:
    unique_fd() = default;
    explicit unique_fd(int fd) : fd_(fd) {}
    unique_fd(unique_fd &&other) noexcept : fd_(other.release()) {}
    unique_fd &operator=(unique_fd &&other) noexcept {
        reset(other.release());
        return *this;
    }
    ~unique_fd() { reset(); }

    [[nodiscard]] int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }
    int release() { return std::exchange(fd_, -1); }
    void reset(int fd = -1); // closes the old one
    // Closes the descriptor and reports errors, for files whose data matters. Returns 0, or -1 with
    // errno.
    [[nodiscard]] int close();

private:
    int fd_ = -1;
};

struct free_deleter {
    void operator()(void *memory) const { free(memory); }
};
struct dir_closer {
    void operator()(DIR *directory) const { closedir(directory); }
};
struct file_closer {
    void operator()(FILE *stream) const { fclose(stream); }
};

using owned_cstring = std::unique_ptr<char, free_deleter>; // NUL-terminated, from malloc
using unique_dir = std::unique_ptr<DIR, dir_closer>;
using unique_file = std::unique_ptr<FILE, file_closer>;

// Transparent hash, so that maps with std::string keys can be searched with a string_view.
struct string_hash {
    using is_transparent = void;
    size_t operator()(std::string_view text) const { return std::hash<std::string_view>{}(text); }
};

// ---- Diagnostics --------------------------------------------------------------------------

// Sets the prefix of every diagnostic, which is "tbx" at first. `name` must stay valid until the
// process ends.
void set_program_name(const char *name);

// Flushes standard output, writes "NAME: ", the message and a newline to standard error, and
// ends the process with status 1.
[[noreturn]] void die(const char *format, ...) __attribute__((format(printf, 1, 2)));

// Makes die() leave by _exit() from now on: for the child of a fork, which must not run what the
// parent has registered for its own end.
void die_as_child();

// The same output as die(), but returns.
void warn(const char *format, ...) __attribute__((format(printf, 1, 2)));

// ---- Memory -------------------------------------------------------------------------------
// When memory runs out, these functions end the process with die("out of memory"). So do the
// standard library's containers once install_out_of_memory_handler() has run.

void install_out_of_memory_handler();

[[nodiscard]] void *xmalloc(size_t bytes); // 0 bytes allocates 1
[[nodiscard]] void *xrealloc(void *memory, size_t bytes);
[[nodiscard]] owned_cstring xstrdup(const char *text);
[[nodiscard]] std::string xasprintf(const char *format, ...) __attribute__((format(printf, 1, 2)));

// ---- strbuf -------------------------------------------------------------------------------

// A growable byte string. `data` is null until something is reserved; from then on data[len] is a
// NUL byte. The contents may hold NUL bytes. The destructor releases it.
struct strbuf {
    char *data = nullptr;
    size_t len = 0; // bytes in use, without the final NUL
    size_t cap = 0; // bytes allocated

    strbuf() = default;
    strbuf(strbuf &&other) noexcept
        : data(std::exchange(other.data, nullptr)), len(std::exchange(other.len, 0)),
          cap(std::exchange(other.cap, 0)) {}
    strbuf &operator=(strbuf &&other) noexcept {
        std::swap(data, other.data);
        std::swap(len, other.len);
        std::swap(cap, other.cap);
        return *this;
    }
    ~strbuf() { free(data); }

    [[nodiscard]] std::string_view view() const { return {data ? data : "", len}; }
};

// Makes room for `n` more bytes and the NUL: 64 bytes first, then doubling.
void strbuf_reserve(strbuf *b, size_t n);
void strbuf_append(strbuf *b, const void *data, size_t n);
void strbuf_append_str(strbuf *b, const char *text);
void strbuf_append_view(strbuf *b, std::string_view text);
void strbuf_append_char(strbuf *b, char c);
// Appends formatted text; a format that the system refuses ends the process with
// die("invalid format").
void strbuf_printf(strbuf *b, const char *format, ...) __attribute__((format(printf, 2, 3)));
void strbuf_vprintf(strbuf *b, const char *format, va_list arguments)
    __attribute__((format(printf, 2, 0)));
void strbuf_reset(strbuf *b); // empties it and keeps the allocation
void strbuf_free(strbuf *b);  // releases the allocation; the buffer may be used again

// ---- strlist ------------------------------------------------------------------------------

// A growable array of owned strings: 16 items first, then doubling. The destructor releases it.
struct strlist {
    char **items = nullptr;
    size_t count = 0;
    size_t cap = 0;

    strlist() = default;
    strlist(strlist &&other) noexcept
        : items(std::exchange(other.items, nullptr)), count(std::exchange(other.count, 0)),
          cap(std::exchange(other.cap, 0)) {}
    strlist &operator=(strlist &&other) noexcept {
        std::swap(items, other.items);
        std::swap(count, other.count);
        std::swap(cap, other.cap);
        return *this;
    }
    ~strlist();

    // For range-for over the items.
    [[nodiscard]] char **begin() const { return items; }
    [[nodiscard]] char **end() const { return items + count; }
};

void strlist_push(strlist *l, owned_cstring text); // takes the string over
void strlist_push_dup(strlist *l, const char *text);
void strlist_push_view(strlist *l, std::string_view text); // copies; `text` holds no NUL
// 1 when an item equals `text` byte for byte, else 0.
[[nodiscard]] int strlist_contains(const strlist *l, const char *text);
void strlist_sort(strlist *l); // strcmp order
void strlist_free(strlist *l); // releases everything; the list may be used again

// ---- Lines --------------------------------------------------------------------------------

// Moves the next line from `*rest` to `*line`, without its newline. A last line without a newline
// counts too. Returns false when nothing is left.
[[nodiscard]] bool next_line(std::string_view *rest, std::string_view *line);

// Returns the items of a list, each followed by a newline.
[[nodiscard]] std::string strlist_lines(const strlist &l);

// ---- place_index --------------------------------------------------------------------------

// A hash table from keys to their places in a list, with linear probing, at most half full. It
// stores hashes and places, no keys: the caller keeps the list and compares the keys.
class place_index {
public:
    // Returns the place that was added with `hash` and for which `is_it(place)` is true, or -1.
    template <class Predicate>
    [[nodiscard]] ptrdiff_t find(uint32_t hash, const Predicate &is_it) const {
        if (slots_.empty())
            return -1;
        const size_t mask = slots_.size() - 1;
        for (size_t at = hash & mask; slots_[at].number != 0; at = (at + 1) & mask)
            if (slots_[at].hash == hash && is_it(slots_[at].number - 1))
                return slots_[at].number - 1;
        return -1;
    }
    // Adds a place. Places are added in order: 0, 1, 2 and so on, below 2^32 - 1.
    void add(uint32_t hash, size_t place);
    void clear() { slots_.clear(); }

private:
    struct slot {
        uint32_t hash = 0;
        uint32_t number = 0; // the place + 1; 0 for a free slot
    };

    void grow();
    void put(slot added);

    std::vector<slot> slots_; // their number is a power of two
};

// ---- Looking up ---------------------------------------------------------------------------

// The answer to "does it exist?". After `failed` nothing may be cancelled, removed, skipped or
// reported as done.
enum class lookup {
    found,
    absent, // the system says that it does not exist
    failed, // could not be determined; errno says why
};

// Classifies the errno of a call that failed on a path: `absent` for ENOENT and ENOTDIR, `failed`
// for every other one.
[[nodiscard]] lookup lookup_of_error(int error);

// Looks whether anything exists at `path`. A dangling symbolic link exists.
[[nodiscard]] lookup path_look_up(const char *path);

// Looks whether `path` is a directory. Anything else, also a symbolic link to a directory, is
// `absent`.
[[nodiscard]] lookup directory_look_up(const char *path);

// ---- Files --------------------------------------------------------------------------------
// Unless it says otherwise, a function returns 0, or -1 with errno; none of them prints.

// Reads `fd` to EOF and appends to `b` until b->len is `max` bytes; bytes after that are dropped.
// EINTR is retried. What was read before an error stays in `b`.
[[nodiscard]] int read_fd_limited(int fd, size_t max, strbuf *b);

// Appends the regular file at `path` to `b`.
//   max       bytes; a longer file is refused with EFBIG
//   nofollow  refuse a symbolic link as the last component
// Returns 0, or -1 with errno: EINVAL when it is not a regular file, otherwise that of open,
// fstat or read. A pipe or terminal at `path` never blocks.
[[nodiscard]] int read_file_limited(const char *path, size_t max, bool nofollow, strbuf *b);

// Reads the regular file at `path` into `b`, which is emptied first. Returns `absent` for a missing
// file, a symbolic link as the last component, anything else that is not a regular file, and a file
// of more than `max` bytes. Otherwise an error is `failed`, with errno.
[[nodiscard]] lookup read_stored_file(const char *path, size_t max, strbuf *b);

// Writes every byte, retrying on EINTR.
[[nodiscard]] int write_all(int fd, const void *data, size_t len);

// Opens `path` (a file or a directory) read-only and syncs it to the disk.
[[nodiscard]] int fsync_path(const char *path);
// Opens `path` and syncs the whole file system that holds it.
[[nodiscard]] int syncfs_path(const char *path);

// Replaces the file at `path` by `len` bytes of `data`: writes "PATH.tmp", syncs it, renames it. A
// failure removes the temporary file and keeps the old contents. The directory is not synced here.
[[nodiscard]] int write_file_atomic(const char *path, const void *data, size_t len, mode_t mode);
// The same, but fails with EEXIST if something exists at `path`. Of several processes that create
// it at once at most one succeeds; all can fail, because they share the temporary file.
[[nodiscard]] int create_file_atomic(const char *path, const void *data, size_t len, mode_t mode);

// ---- Predicates and parsing: 1 for yes, 0 for no ------------------------------------------

[[nodiscard]] int path_exists(const char *path);   // a dangling symbolic link exists
[[nodiscard]] int is_directory(const char *path);  // a symbolic link to a directory is not one
[[nodiscard]] int is_all_digits(const char *text); // non-empty, 0 to 9 only

constexpr size_t ID_MAX_DIGITS = 18;
constexpr int64_t ID_MAX = 999'999'999'999'999'999;

// Parses 1 to 18 decimal digits into `out`. Returns 0 for anything else and leaves `out` unchanged.
[[nodiscard]] int parse_id(const char *text, int64_t *out);
[[nodiscard]] int parse_id(std::string_view text, int64_t *out);

// Returns the next entry of a directory. Returns null with errno 0 at its end, and null with errno
// set when it cannot be read.
[[nodiscard]] const dirent *next_entry(DIR *directory);

// Appends the names of a directory's entries that are 1 to 18 digits, then sorts the whole list by
// value. Returns 0, or -1 with errno when the directory cannot be opened or read.
[[nodiscard]] int list_numeric_entries(const char *dir, strlist *l);

// Order of digit strings without leading zeros by value: shorter first, then strcmp.
[[nodiscard]] int compare_length_then_text(const char *a, const char *b);

// ---- Time ---------------------------------------------------------------------------------

[[nodiscard]] time_t now();           // seconds since the epoch
[[nodiscard]] int64_t monotonic_ms(); // milliseconds on the monotonic clock

constexpr size_t SHORT_TIME_BYTES = 32;
// Writes `t` as local time, "%d/%m %H:%M", or "?" when it cannot be shown.
void format_time_short(int64_t t, char out[SHORT_TIME_BYTES]);
