// What the floors share: the calls that the behaviour prescribes for accounts, files and
// children, and as little else as can be. Whatever fails ends the floor with status 1, so that
// it never looks fast by doing less.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

// ---- Failing ------------------------------------------------------------------------------

[[noreturn]] void fail(const char *what); // with errno's text

// `result`, unless it is negative: then the floor has failed.
int must(int result, const char *what);

// The result of a call that is made for its cost alone, whatever it answers.
inline void whatever(int /*result*/) {}

// ---- Paths --------------------------------------------------------------------------------

// A formatted path, without allocation. The format and its arguments are the floor's own.
class path {
public:
    explicit path(const char *format, ...) __attribute__((format(printf, 2, 3)));
    [[nodiscard]] const char *c_str() const { return text_; }
    operator const char *() const { return text_; } // NOLINT: stands where a path is passed

private:
    static constexpr size_t PATH_BYTES = 512;
    char text_[PATH_BYTES];
};

// ---- Files --------------------------------------------------------------------------------

bool exists(const char *name); // one lstat
void require_folder(const char *name);
void create_empty(const char *name);
void write_whole(int fd, std::string_view text);
void append_rest(int fd, std::string *text);                // reads to the end, in chunks
void read_file(const char *name, std::string *text);        // replaces `text`; it must be there
void replace_file(const char *name, std::string_view text); // sibling, sync, rename
void sync_file(const char *name);
void sync_file_system(const char *name); // the whole one that holds `name`
int lock_file(const char *name);         // the descriptor that holds the lock
std::vector<std::string> words_of(std::string_view text);

// ---- The store ----------------------------------------------------------------------------

// The names of the numbered entries of a folder, in the folder's order.
std::vector<std::string> numbered_entries(const char *folder);

// The look around that most commands begin with: the identifier of the first message that was
// interrupted, or nothing.
std::string first_interrupted(const char *var);
void require_nothing_interrupted(const char *var); // looks in the same way

// ---- Accounts and children ----------------------------------------------------------------

struct account {
    std::string name;
    uid_t uid;
    gid_t gid;
};

account look_up(const char *name);
void look_up_author(); // who runs this

// Runs `work(argument)` in a child that has become `user`, with `input` on its standard input
// (null for /dev/null), and appends what it prints to `report`. The child must end with status 0.
void run_as(const account &user, void (*work)(const void *), const void *argument,
            const std::string_view *input, std::string *report);
