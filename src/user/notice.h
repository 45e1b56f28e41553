// What the notification of a message says.
#pragma once

#include "common/message.h"
#include "user/notification.h"

#include <cstddef>

constexpr size_t FIRST_WORDS_MAX_CHARACTERS = 200;
// The longest text that counts as shown whole, and can be answered in the notification.
constexpr size_t WHOLE_TEXT_MAX_CHARACTERS = 400;

// The notification of a message.
//   has_window  it leads to the window; otherwise there is only the notification
[[nodiscard]] notice make_notice(const message_record &message, bool has_window);

// The notification that an answer is lost.
[[nodiscard]] notice make_failure_notice(int64_t id, const char *reason);

// The notification that the message was withdrawn before the answer.
[[nodiscard]] notice make_withdrawn_notice(int64_t id);

// Returns at most so many characters of UTF-8 text, with "…" in place of the rest.
[[nodiscard]] std::string first_characters(const std::string &text, size_t max);
