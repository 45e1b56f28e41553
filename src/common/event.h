// One journal record per event in a message's life, and the sentence that tells it.
#pragma once

#include "common/core.h"

#include <cstdint>

// Records one event in the journal, or its sentence in the system log where there is no
// journal. Null texts count as empty; newlines in `details` become blanks. Never fails the
// caller.
//   event    SENT, DELIVERED, NOT_DELIVERED, CANCELLED, RECOVERED, DELETED, REMINDED, REVOKED
//   user     the recipient concerned
//   channel  how a user-side event happened
//   author   the administrator who caused it
void event_log(const char *event, int64_t message, const char *user, const char *channel,
               const char *details, const char *author);

// Appends the sentence of an event. False, with nothing appended, for an unknown name.
// No text may be null.
[[nodiscard]] bool event_describe(const char *event, int64_t message, const char *user,
                                  const char *channel, const char *details, const char *author,
                                  strbuf *out);
