// What the commands share, and the commands themselves. A command ends the process through
// die() on every error and returns on success.
#pragma once

#include "common/message.h"

#include <cstdint>
#include <string>
#include <string_view>

// Parses the identifier from the command line, null when absent. Ends the process with "missing
// message ID" or "no such message: %s".
[[nodiscard]] int64_t parse_message_id(const char *arg);

// Loads the reference copy of message `id`; `id_text` is the identifier as typed. Ends the process
// with "no such message: %s", or with the file and the error when it could not be read.
[[nodiscard]] message_record load_message_or_die(int64_t id, const char *id_text);

// Whether the marker of message `id` exists. Ends the process when that could not be looked up.
[[nodiscard]] bool has_marker_or_die(int64_t id, const char *name);

constexpr int AUTHOR_BYTES = 64;
// Returns the author of events and messages: SUDO_USER's account, else the real user's, else "?".
// The result is a process-wide buffer of AUTHOR_BYTES that each call overwrites.
[[nodiscard]] const char *current_author();

// Parses "NUMBER" followed by m, h or d into seconds. Returns 1, or 0 when it is no duration. A
// duration too large for 64 bits becomes INT64_MAX.
[[nodiscard]] int parse_duration(const char *text, int64_t *seconds);

// Return the text and the title of a message as `send` stores them.
[[nodiscard]] std::string send_stored_text(std::string_view text);
[[nodiscard]] std::string send_stored_title(std::string_view title);

void cmd_send(int argc, char **argv); // the arguments after "send"
void cmd_list();
void cmd_status(const char *id_text); // null when absent, like the arguments below
void cmd_revoke(const char *id_text);
void cmd_remind(const char *id_text);
void cmd_log(const char *id_text);
void cmd_purge(const char *duration_text);
