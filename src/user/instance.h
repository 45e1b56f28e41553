// One agent for each user: its lock, and the file by which `tbx` finds it.
#pragma once

#include "common/core.h"

#include <sys/types.h>

#include <string>

// "/run/user/UID": XDG_RUNTIME_DIR is ignored, so that all programs use the same folder.
[[nodiscard]] std::string runtime_folder();

enum class instance_lock { taken, held_by_another, failed };

// Takes the lock of this user's agent; it is held as long as the process lives.
//   holder  the other agent's process; 0 if it has just ended
// If it fails, errno says why.
[[nodiscard]] instance_lock instance_take(unique_fd *lock, pid_t *holder);

// Asks another agent to end, and takes the lock then. Returns false if it does not end in time.
[[nodiscard]] bool instance_replace(unique_fd *lock, pid_t holder);

// Writes the readiness file, which names this process. Returns 0, or -1 with errno.
[[nodiscard]] int ready_file_write();
// Removes it if it still names this process.
void ready_file_remove();
