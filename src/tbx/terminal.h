// A user's terminals, the banner that is written to them, and writing without blocking.
#pragma once

#include "common/core.h"
#include "common/message.h"

#include <cstdint>

// Appends the paths of the user's pseudo-terminals and of the consoles of the user's terminal
// sessions, sorted. In test mode only what TBX_TEST_TTY names.
void user_terminals_list(uint32_t uid, strlist *list);

// Appends the framed banner of `message`, with CR LF line ends.
void terminal_banner_build(const message_record &message, strbuf *out);

// Writes `length` bytes to the terminal at `path` if it belongs to `uid` and is a character device
// (in test mode: any file, appended to). Returns true only if every byte was written. Gives up just
// over 2 seconds after the start if the terminal takes nothing.
[[nodiscard]] bool terminal_write(const char *path, uint32_t uid, const char *data, size_t length);

// The same for all terminals of a user, with one time limit for all of them: many terminals that
// take nothing cost no more time than one. Returns how many took everything.
[[nodiscard]] int terminals_write(const strlist &paths, uint32_t uid, std::string_view text);

// Whether the user has an x11 or wayland session that is not closing.
[[nodiscard]] bool user_has_graphical_session(uint32_t uid);
