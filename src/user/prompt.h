// What a shell prints before its prompt.
#pragma once

#include "user/inbox.h"

#include <cstdint>
#include <string>
#include <vector>

// What a look has left for the shell to remember.
enum class prompt_memory {
    none,        // the mailbox holds all: what was shown is marked, and state/.prompt has the time
    shown,       // something was shown that could not be marked
    blind,       // the time of state/.prompt could not be set: only time tells when to look again
    shown_blind, // both
};

// Returns the exit status for the shell: when it looks again, and what it must remember.
//
//   1 to 60      minutes
//   61 to 120    1 to 60 seconds
//   193 to 212   1 to 20 minutes; something was shown that is not marked
//   213          the same, and until then nothing but the time counts: a minute
//
// For the shell every other status is a failure: nothing but the time counts for a minute.
[[nodiscard]] int prompt_status(int64_t seconds, prompt_memory memory);

// Returns the text for a screen with so many rows and columns: the messages in order, as many as
// fit into two thirds of it. At least one is shown, cut to that length. `shown` receives the
// identifiers of those that are in it.
//   has_more   others are due too: their number is not known
[[nodiscard]] std::string prompt_text(const std::vector<waiting_message> &due, bool has_more,
                                      int rows, int columns, std::vector<int64_t> *shown);
