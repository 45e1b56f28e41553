// One journal record for each event in a message's life, and the sentence that describes it.
#pragma once

#include "common/core.h"

#include <cstdint>

// Records one event in the journal. If the journal does not take it, writes its sentence to the
// system log. Null texts count as empty; newlines in `details` become blanks. Reports no failure.
//   event    SENT, DELIVERED, NOT_DELIVERED, CANCELLED, RECOVERED, DELETED, REMINDED, REVOKED
//   user     the recipient concerned
//   channel  how a user-side event happened
//   author   the administrator who caused it
void event_log(const char *event, int64_t message, const char *user, const char *channel,
               const char *details, const char *author);

// Appends the sentence of an event. Returns false and appends nothing for an unknown event. No text
// may be null.
[[nodiscard]] bool event_describe(const char *event, int64_t message, const char *user,
                                  const char *channel, const char *details, const char *author,
                                  strbuf *out);
