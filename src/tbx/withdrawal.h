// Removes messages from the recipients' mailboxes: for a revocation, a purge, and the recovery of
// either.
#pragma once

#include "common/core.h"

#include <cstdint>
#include <string>
#include <vector>

// Removes every recipient's copy of the message, then the "revoking" marker. Returns false and
// keeps the marker when a copy could not be removed or the recipients could not be read.
[[nodiscard]] bool sent_finish_revoking(int64_t id);

// The same for many messages, with one child for each user. The messages' locks are not held while
// it works on the mailboxes. So each message must be marked "revoked", and the caller must have
// held its lock once after that. If another run holds a message's lock at the end, the marker
// stays.
void sent_finish_revocations(const std::vector<int64_t> &ids);

// A message directory that has been renamed, and the identifier of its message.
struct removed_message {
    int64_t id;
    std::string dir;
};

// Removes every file of the messages in their recipients' mailboxes, with one child for each user,
// then the message directories. A directory stays for a later run when its recipients cannot be
// read or some mailbox could not be worked on. Returns how many messages stay for that reason.
size_t sent_remove_message_dirs(const std::vector<removed_message> &messages);
size_t sent_remove_message_dir(const char *dir, int64_t id);
