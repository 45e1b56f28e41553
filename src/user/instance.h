// One agent for each user: its lock, and the file by which `tbx` finds it.
#pragma once

#include "common/core.h"

#include <sys/types.h>

#include <functional>
#include <string>

// "/run/user/UID": XDG_RUNTIME_DIR is ignored, so that all programs use the same folder.
[[nodiscard]] std::string runtime_folder();

enum class instance_state {
    only,   // this process holds the lock from now on, as long as it lives
    served, // another agent serves this user, and looks at the mailbox once more
    ended,  // a signal asked this process to end while it waited
    failed, // with errno: EBUSY if another program holds the lock
};

// Becomes the only agent of this user. Another agent that has just begun or is about to end is
// waited for. SIGTERM and SIGINT must be blocked.
//   outranks  whether the other agent, with this process number, must make way for this one
[[nodiscard]] instance_state instance_become(unique_fd *lock,
                                             const std::function<bool(pid_t)> &outranks);

// Writes the readiness file, which names this process. Returns 0, or -1 with errno.
[[nodiscard]] int ready_file_write();
// Writes it again if it is missing: without it, `tbx` would start agents that wait in vain.
void ready_file_restore();
// Removes it if it still names this process. From then on `tbx` starts another agent, which waits
// for the lock: whoever does not serve the user any more removes it first.
void ready_file_remove();
