// Who mounted what, from the mount table: it is read without asking any file system.
#pragma once

#include <string_view>

enum class mount_maker {
    nobody, // no mount stands there
    administrator,
    user, // a file system that answers when and what its owner likes
};

// Finds who made the topmost mount at `path`, an absolute path without links. Returns 0, or -1 with
// errno when the table cannot be read.
[[nodiscard]] int mount_maker_of(std::string_view path, mount_maker *maker);

// The same from the text of /proc/self/mountinfo.
[[nodiscard]] mount_maker mountinfo_maker(std::string_view mountinfo, std::string_view path);
