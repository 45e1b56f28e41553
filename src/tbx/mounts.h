// Who mounted what, from the mount table. Reading it makes no call on the mounted file systems.
#pragma once

#include <cstdint>
#include <string_view>

enum class mount_maker {
    nobody, // nothing is mounted there
    administrator,
    user, // a file system whose owner decides when and what it answers
};

// The topmost mount at a path.
struct mount_point {
    mount_maker maker = mount_maker::nobody;
    int64_t id = -1; // of the mount, as from mount_id_of_fd()
};

// Finds the topmost mount at `path`, an absolute path without links. Returns 0, or -1 with errno
// when the table cannot be read.
[[nodiscard]] int mount_point_of(std::string_view path, mount_point *mount);

// Returns the identifier of the mount that an open descriptor belongs to, -1 when it cannot be
// read.
[[nodiscard]] int64_t mount_id_of_fd(int fd);

// Returns the topmost mount at `path` from the text of /proc/self/mountinfo.
[[nodiscard]] mount_point mountinfo_topmost(std::string_view mountinfo, std::string_view path);
