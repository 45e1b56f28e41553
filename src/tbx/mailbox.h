// The users' mailboxes. A child that has become the user does every operation inside one. Root only
// creates the mailbox directory and gives it to the user. Root makes no call on a file system that
// a user could have mounted.
#pragma once

#include "common/core.h"
#include "tbx/accounts.h"
#include "tbx/user_child.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

constexpr int MAILBOX_TIMEOUT_SECONDS = 20;

// What the callbacks inside a mailbox work on.
struct mailbox_target {
    std::string mailbox; // directory
    int64_t id;          // message
};

// "VAR/users"
[[nodiscard]] std::string users_dir();
// "VAR/users/NAME"
[[nodiscard]] std::string mailbox_dir(const resolved_user &user);
// "MAILBOX/FOLDER/IDSUFFIX", for example mailbox_file(target, "state", ".term").
[[nodiscard]] std::string mailbox_file(const mailbox_target &target, const char *folder,
                                       const char *suffix);

enum class mailbox_state {
    found,
    absent, // nothing is there, or a link or file is in its place
    barred, // the user has mounted something on it: nothing is read or written there
    failed, // could not be looked up; errno says why
};

// Looks the user's mailbox directory up.
[[nodiscard]] mailbox_state mailbox_look_up(const resolved_user &user);

// ---- One message --------------------------------------------------------------------------

// Writes `text` (the message file) to inbox/ID, creating the mailbox when needed. Returns true when
// the copy is there, or when the user has already read or confirmed the message.
[[nodiscard]] bool mailbox_deliver(const resolved_user &user, int64_t id, std::string_view text);

// Removes the copy and the shown-marks. Returns true when no copy is left, also when there is no
// mailbox.
[[nodiscard]] bool mailbox_withdraw(const resolved_user &user, int64_t id);

// Removes the shown-marks, so that the message is shown again. Returns true when both are gone,
// false when there is no mailbox.
[[nodiscard]] bool mailbox_reset_shown(const resolved_user &user, int64_t id);

// Removes every file of the message, as far as possible. Returns false when it could not be tried.
[[nodiscard]] bool mailbox_purge_message(const resolved_user &user, int64_t id);

// ---- Many messages, one child -------------------------------------------------------------

// The same as mailbox_withdraw and mailbox_purge_message, for many messages. Appends to `done` the
// positions in `ids` of the messages that are done; the others failed.
void mailbox_withdraw_all(const resolved_user &user, const std::vector<int64_t> &ids,
                          std::vector<size_t> *done);
void mailbox_purge_all(const resolved_user &user, const std::vector<int64_t> &ids,
                       std::vector<size_t> *done);

// A copy as it should stand in an inbox.
struct expected_copy {
    int64_t id;
    size_t bytes;
    size_t hash; // copy_hash of the message file
};
[[nodiscard]] size_t copy_hash(std::string_view text);

enum class copy_state : uint8_t {
    unknown, // the mailbox could not be looked at
    held,    // the whole copy is there, or the user has read or confirmed the message
    missing,
    blocked, // a directory is in its place: it cannot be delivered
};

// Looks which of the copies the mailbox holds, and changes nothing. Returns one state for each of
// `copies`.
[[nodiscard]] std::vector<copy_state> mailbox_survey(const resolved_user &user,
                                                     const std::vector<expected_copy> &copies);

// ---- In the child -------------------------------------------------------------------------

// The callbacks, each run as the user; the argument is a mailbox_target. They report through
// their exit status only: 0 done, 1 not.
int mailbox_write_copy(void *argument);   // reads the copy from standard input
int mailbox_remove_copy(void *argument);  // inbox/ID and the shown-marks
int mailbox_remove_shown(void *argument); // the shown-marks
int mailbox_remove_all(void *argument);   // every file of the message
