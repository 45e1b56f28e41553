// What a shell prints before its prompt.
#pragma once

#include "user/inbox.h"

#include <cstdint>
#include <string>
#include <vector>

// Returns the exit status for the shell: when it looks again, and whether what was shown could be
// marked. If it could not be marked, the shell stays silent for that time.
//
//   1 to 60      minutes
//   61 to 120    1 to 60 seconds
//   193 to 252   1 to 60 minutes, and nothing could be marked
//
// For the shell every other status is a failure; it tries again in a minute.
[[nodiscard]] int prompt_status(int64_t seconds, bool marked);

// Returns the text for a screen with so many rows and columns: the messages in order, as many as
// fit into two thirds of it. At least one is shown, cut to that length. `shown` receives the
// identifiers of those that are in it.
//   others   how many more are due, for the last line
[[nodiscard]] std::string prompt_text(const std::vector<waiting_message> &due, size_t others,
                                      int rows, int columns, std::vector<int64_t> *shown);
