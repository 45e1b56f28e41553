// Who mounted what, from the mount table: it is read without asking any file system.
#pragma once

#include <cstdint>
#include <string_view>

enum class mount_maker {
    nobody, // no mount stands there
    administrator,
    user, // a file system that answers when and what its owner likes
};

// The topmost mount of a place.
struct mount_point {
    mount_maker maker = mount_maker::nobody;
    int64_t id = -1; // of the mount, as mount_id_of_fd
};

// Finds the topmost mount at `path`, an absolute path without links. Returns 0, or -1 with errno
// when the table cannot be read.
[[nodiscard]] int mount_point_of(std::string_view path, mount_point *mount);

// The mount that an open descriptor belongs to, -1 when that cannot be read.
[[nodiscard]] int64_t mount_id_of_fd(int fd);

// The same from the text of /proc/self/mountinfo.
[[nodiscard]] mount_point mountinfo_topmost(std::string_view mountinfo, std::string_view path);
