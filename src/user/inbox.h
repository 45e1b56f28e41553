// The own mailbox as the user's programs see it: what waits, what is due, what was answered.
// Everything here only reads, and trusts nothing: it follows no link, waits for no pipe, limits the
// size of every file, and cleans all texts.
#pragma once

#include "common/core.h"
#include "common/message.h"

#include <cstdint>
#include <string>
#include <vector>

// ---- The mailbox --------------------------------------------------------------------------

// Finds the account of the effective UID. If several accounts share the UID, takes the one that
// LOGNAME or USER names, otherwise the first. Returns 0; or -1 with errno, ENOENT if there is no
// account.
[[nodiscard]] int own_account(std::string *name);

// Whether a folder in the users folder can have this name. Others lead out of it.
[[nodiscard]] bool is_account_folder(const std::string &name);

// A mailbox that is open. A folder's descriptor is empty if the folder does not exist.
struct own_mailbox {
    std::string owner; // account name
    std::string path;
    unique_fd folder;
    unique_fd inbox;
    unique_fd read;
    unique_fd acks;
    unique_fd state;
};

enum class mailbox_look { found, absent, failed };

// Opens the mailbox of `owner`. If it fails, errno says why and `box->path` names what could not be
// opened: EACCES and the like, ENOTDIR for a link or anything else that is no folder, EPERM for a
// mailbox that belongs to another user. A long-running program opens it anew for each look.
[[nodiscard]] mailbox_look mailbox_open(const std::string &owner, own_mailbox *box);

// "VAR/users/OWNER"; `name` such as "acks/12" is appended if it is not empty.
[[nodiscard]] std::string mailbox_path(const std::string &owner, const std::string &name = "");

// ---- Channels and marks -------------------------------------------------------------------

enum class channel { terminal, desktop };

// "terminal" or "desktop", as answers and events have it.
[[nodiscard]] const char *channel_name(channel where);
// The file name of the channel's mark: "12.term" or "12.gui".
[[nodiscard]] std::string mark_name(int64_t id, channel where);

enum class mark_kind { none, shown, postponed };

// The contents of a mark. A mark from the future, or one that is not a regular file, counts as
// none.
struct channel_mark {
    mark_kind kind = mark_kind::none;
    int64_t time = 0; // seconds since the epoch
};

[[nodiscard]] channel_mark mark_read(const own_mailbox &box, int64_t id, channel where,
                                     int64_t now);

// ---- Answers ------------------------------------------------------------------------------

// not_a_file: acks/ID exists but is not a regular file. It is no answer, but no answer can be
// written.
enum class answer_state { none, answered, not_a_file, failed };

struct answer_record {
    answer_state state = answer_state::none; // failed: with errno
    int64_t time = 0;                        // 0 if the file has none
    std::string channel;                     // clean; usually "terminal" or "desktop"
};

[[nodiscard]] answer_record answer_read(const own_mailbox &box, int64_t id);

// Parses the first line of an answer: "SECONDS CHANNEL".
[[nodiscard]] answer_record answer_parse(std::string_view text);

// ---- Messages -----------------------------------------------------------------------------

// A message that waits for an answer: inbox/ID is a regular file that parses, it has not expired,
// and acks/ID does not exist.
struct waiting_message {
    int64_t id = 0;         // the file's name; the header in the file does not count
    message_record message; // clean; `message.id` is `id`
    channel_mark terminal;
    channel_mark desktop;
};

// A message that is not loaded yet: it may have expired, or be no message.
struct pending_message {
    int64_t id = 0;
    channel_mark terminal;
    channel_mark desktop;
};

// Lists the identifiers in a folder of the mailbox, ascending; none for an empty descriptor.
// Returns 0, or -1 with errno.
[[nodiscard]] int folder_ids(const unique_fd &folder, std::vector<int64_t> *ids);

// Every inbox/ID without an acks/ID, ascending, with its marks. No message is opened. Returns 0,
// or -1 with errno.
[[nodiscard]] int inbox_pending(const own_mailbox &box, int64_t now,
                                std::vector<pending_message> *pending);

// Reads a message from an open folder of the mailbox ("inbox" or "read") and cleans it. Returns
// 0, or -1 with errno: ENOENT, EINVAL or ELOOP for what is no message, EFBIG.
[[nodiscard]] int message_read(const unique_fd &folder, int64_t id, message_record *message);

// The same; what is no message is absent. If it failed, errno says why.
[[nodiscard]] lookup message_look_up(const unique_fd &folder, int64_t id, message_record *message);

enum class waiting_state { waiting, answered, expired, absent, failed };

// Looks at one message. `message` is filled unless the result is absent or failed (with errno).
// What is no message counts as absent. not_a_file at acks/ID counts as answered.
[[nodiscard]] waiting_state inbox_look(const own_mailbox &box, int64_t id, int64_t now,
                                       waiting_message *message);

// All waiting messages, ascending. Returns 0; or -1 with errno, also if one message cannot be read.
[[nodiscard]] int inbox_waiting(const own_mailbox &box, int64_t now,
                                std::vector<waiting_message> *waiting);

// ---- Due ----------------------------------------------------------------------------------

// Returns when a message is due on a channel: 0 if it is due now. It is not due while it was shown
// on this channel, or postponed on either, less than `remind_seconds` ago.
[[nodiscard]] int64_t due_time(const channel_mark &terminal, const channel_mark &desktop,
                               channel where, int64_t now, int64_t remind_seconds);

// Returns the setting of the configuration file, in seconds.
[[nodiscard]] int64_t remind_seconds();
