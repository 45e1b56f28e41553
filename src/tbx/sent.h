// The administrator's store: one directory per message, with the reference copy, the
// recipients, the delivery log and markers that say which operation is under way.
#pragma once

#include "common/core.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

constexpr size_t RECIPIENTS_MAX_BYTES = 4'194'304;
constexpr size_t DELIVERY_MAX_BYTES = 16'777'216;

// ---- Paths --------------------------------------------------------------------------------

[[nodiscard]] std::string sent_dir();                              // "VAR/sent"
[[nodiscard]] std::string sent_message_dir(int64_t id);            // "VAR/sent/ID"
[[nodiscard]] std::string sent_path(int64_t id, const char *name); // "VAR/sent/ID/NAME"

// ---- Identifiers, locks, markers ----------------------------------------------------------

// Appends the identifiers of all messages, ascending. Returns 0, or -1 with errno when the store
// cannot be read.
[[nodiscard]] int sent_list_ids(strlist *list);

// Creates missing state directories, takes the next free identifier under the sequence lock and
// creates its directory. Ends the process with "%s: %s" on failure; the error is EOVERFLOW when no
// identifier up to ID_MAX is free.
[[nodiscard]] int64_t sent_allocate_id();

enum class lock_state {
    taken,
    held,   // by another run
    failed, // the lock file could not be opened or locked; errno says why
};

// The lock of a message, held until this object ends.
struct message_lock {
    lock_state state;
    unique_fd file;
};

// Takes the message's lock; waits for another run that holds it unless `nonblocking`.
[[nodiscard]] message_lock sent_lock(int64_t id, bool nonblocking);

// Creates an empty marker; an existing one stays as it is. Returns 0, or -1 with errno.
[[nodiscard]] int sent_marker_create(int64_t id, const char *name);
// Looks the marker up; for `failed`, errno says why.
[[nodiscard]] lookup sent_marker_look_up(int64_t id, const char *name);
// Whether the marker is known to exist.
[[nodiscard]] bool sent_marker_exists(int64_t id, const char *name);

// Writes a marker that holds the current time, atomically. Returns 0, or -1 with errno: EEXIST when
// it exists already and keeps its time.
[[nodiscard]] int sent_marker_write_time(int64_t id, const char *name);

// Reads the time in the "revoked" marker, 0 when it is missing or malformed. Returns 0, or -1 with
// errno when it could not be read.
[[nodiscard]] int sent_revocation_time(int64_t id, int64_t *time);

// ---- Recipients and delivery log ----------------------------------------------------------

// Reads the names of the message's recipients into `list`, which is emptied first. `absent` when
// there is no such file, `failed` with errno when it could not be read; both leave the list empty.
[[nodiscard]] lookup sent_read_recipients(int64_t id, strlist *list);
// The same for the message directory at path `dir`.
[[nodiscard]] lookup sent_read_recipients_in(const char *dir, strlist *list);

// The users in the log, each once in the order of their first lines, and the number of terminals
// written to, as text. The two lists are parallel; they point into `log`.
struct delivery_table {
    std::vector<std::string_view> users;
    std::vector<std::string_view> terminals;
    strbuf log; // as it was read
    place_index by_user;
};

// Fills `table` from the message's delivery log; the first line of each user counts. Returns
// `absent` and `failed` as sent_read_recipients() does; both leave it empty.
[[nodiscard]] lookup sent_read_delivery(int64_t id, delivery_table *table);

// Position of `user` in the table, or -1.
[[nodiscard]] ptrdiff_t delivery_find(const delivery_table &table, std::string_view user);

// Appends "USER NOW TERMINALS" to the delivery log. Best effort: a failure is not reported.
void sent_append_delivery(int64_t id, const char *user, int terminals);

// Removes an incomplete last line from the delivery log: an interrupted or failing append leaves
// one, and the next line would run into it. Returns 0, also when there is no log. Returns -1 with
// errno when the log could not be read or the line could not be removed.
[[nodiscard]] int sent_mend_delivery(int64_t id);
