// The message record, its file text, and the cleaning of untrusted text.
#pragma once

#include "common/core.h"

#include <cstdint>
#include <string>

constexpr size_t MESSAGE_FILE_MAX_BYTES = 73'728;

struct message_record {
    int64_t id = 0;      // 0 when the file has none
    std::string from;    // author's account name
    int64_t date = 0;    // time of sending, seconds since the epoch
    std::string title;   // empty when there is none
    int64_t expires = 0; // seconds since the epoch; 0 means never
    std::string text;
};

// Appends the file text of `rec`: the header lines, an empty line, the text.
void message_format(const message_record &rec, strbuf *buf);

// Parses file text. Returns 0, or -1 with errno EINVAL and a zeroed record when there is no
// valid date; everything else is tolerated.
[[nodiscard]] int message_parse(const char *data, size_t len, message_record *rec);

// Reads and parses a message file of at most MESSAGE_FILE_MAX_BYTES, symbolic links refused.
// Returns 0, or -1 with errno and a zeroed record.
[[nodiscard]] int message_load(const char *path, message_record *rec);

// The same, for a caller that acts on a missing message. Returns `absent` when there is no message
// (no file, not a regular file, too long, or damaged), `failed` with errno when that could not be
// determined.
[[nodiscard]] lookup message_look_up(const char *path, message_record *rec);

void message_free(message_record *rec); // releases the strings and zeroes the record

// Whether the message has an expiry time and `now` has reached it.
[[nodiscard]] bool message_is_expired(const message_record &rec, int64_t now);

// Appends "TITLE · DATE", or the date alone for an untitled message.
void message_headline(const message_record &rec, strbuf *buf);

// Appends a copy of `data` without terminal escape sequences and control characters; tab,
// newline and all other bytes from 0x20 up are kept.
void sanitize_text(const char *data, size_t len, strbuf *buf);

// Appends a copy of `text` with U+FFFD in place of every byte that is not part of a valid UTF-8
// character.
void repair_utf8(std::string_view text, strbuf *buf);

// Returns untrusted text made safe for a screen: valid UTF-8 without escape sequences and control
// characters.
[[nodiscard]] std::string clean_text(std::string_view text);
// The same on one line: line ends and tabs become blanks.
[[nodiscard]] std::string clean_line(std::string_view text);

// Appends a message as a terminal shows it: a headline, the text without its trailing newlines, a
// rule. Every line ends with "\n".
void message_banner(const message_record &rec, strbuf *buf);
