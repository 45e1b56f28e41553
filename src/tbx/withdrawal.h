// Taking messages out of the recipients' mailboxes: for a revocation, a purge, and the recovery of
// either.
#pragma once

#include "common/core.h"

#include <cstdint>
#include <string>
#include <vector>

// Removes every recipient's copy of the message, then the "revoking" marker. False, with the marker
// kept, when some copy could not be removed, or the recipients could not be told.
[[nodiscard]] bool sent_finish_revoking(int64_t id);

// The same for many messages, with one child for each user, and without the messages' locks while
// the mailboxes are worked on: each of them must be marked "revoked", and its lock must have been
// had once since. A message whose lock another run holds in the end keeps its marker.
void sent_finish_revocations(const std::vector<int64_t> &ids);

// A message directory that has been moved aside, and the message that it was.
struct removed_message {
    int64_t id;
    std::string dir;
};

// Removes every file of the messages in their recipients' mailboxes, with one child for each user,
// then the message directories. A directory stays for a later run when its recipients cannot be
// told or some mailbox could not be worked on. Returns how many messages stay for that reason.
size_t sent_remove_message_dirs(const std::vector<removed_message> &messages);
size_t sent_remove_message_dir(const char *dir, int64_t id);
