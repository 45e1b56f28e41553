#include "tbx/mounts.h"

#include "common/core.h"

#include <fcntl.h>

#include <string>
#include <vector>

constexpr const char *MOUNT_TABLE = "/proc/self/mountinfo";
constexpr size_t MOUNT_TABLE_MAX_BYTES = 16'777'216;

// A line is "ID PARENT DEVICE ROOT PLACE OPTIONS [TAG...] - TYPE SOURCE SUPER-OPTIONS".
constexpr size_t PLACE_FIELD = 4;
constexpr size_t TAGS_FIELD = 6;

static std::vector<std::string_view> fields_of(std::string_view line) {
    std::vector<std::string_view> fields;
    while (true) {
        const size_t blank = line.find(' ');
        fields.push_back(line.substr(0, blank));
        if (blank == std::string_view::npos)
            return fields;
        line.remove_prefix(blank + 1);
    }
}

static bool is_octal_digit(char c) {
    return c >= '0' && c <= '7';
}

// The kernel writes blanks, tabs, newlines and backslashes as "\ooo".
static std::string unescaped(std::string_view field) {
    std::string text;
    for (size_t i = 0; i < field.size(); i++) {
        const bool is_escape = field[i] == '\\' && i + 3 < field.size() &&
                               is_octal_digit(field[i + 1]) && is_octal_digit(field[i + 2]) &&
                               is_octal_digit(field[i + 3]);
        if (!is_escape) {
            text.push_back(field[i]);
            continue;
        }
        const int value =
            (field[i + 1] - '0') * 64 + (field[i + 2] - '0') * 8 + (field[i + 3] - '0');
        text.push_back(static_cast<char>(value));
        i += 3;
    }
    return text;
}

// Users can mount only through FUSE, whose helper records the user. "user_id=0" is root.
static mount_maker maker_of(std::string_view type, std::string_view options) {
    const bool is_fuse = type == "fuse" || type == "fuseblk" || type.starts_with("fuse.") ||
                         type.starts_with("fuseblk.");
    if (!is_fuse)
        return mount_maker::administrator;
    constexpr std::string_view ROOTS = ",user_id=0,";
    const std::string all = "," + std::string(options) + ",";
    return all.find(ROOTS) != std::string::npos ? mount_maker::administrator : mount_maker::user;
}

mount_point mountinfo_topmost(std::string_view mountinfo, std::string_view path) {
    mount_point mount;
    std::string_view line;
    while (next_line(&mountinfo, &line)) {
        const std::vector<std::string_view> fields = fields_of(line);
        if (fields.size() <= TAGS_FIELD || unescaped(fields[PLACE_FIELD]) != path)
            continue;
        size_t dash = TAGS_FIELD;
        while (dash < fields.size() && fields[dash] != "-")
            dash++;
        // The last line of a path is the topmost mount.
        mount.maker = dash + 3 < fields.size() ? maker_of(fields[dash + 1], fields[dash + 3])
                                               : mount_maker::user;
        if (!parse_id(fields[0], &mount.id))
            mount.id = -1;
    }
    return mount;
}

int mount_point_of(std::string_view path, mount_point *mount) {
    const unique_fd table(open(MOUNT_TABLE, O_RDONLY | O_CLOEXEC));
    strbuf text;
    if (!table || read_fd_limited(table.get(), MOUNT_TABLE_MAX_BYTES, &text) != 0)
        return -1;
    *mount = mountinfo_topmost(text.view(), path);
    return 0;
}

int64_t mount_id_of_fd(int fd) {
    constexpr size_t FDINFO_MAX_BYTES = 4096;
    constexpr std::string_view KEY = "mnt_id:\t";
    const unique_fd info(open(xasprintf("/proc/self/fdinfo/%d", fd).c_str(), O_RDONLY | O_CLOEXEC));
    strbuf text;
    if (!info || read_fd_limited(info.get(), FDINFO_MAX_BYTES, &text) != 0)
        return -1;
    std::string_view rest = text.view();
    std::string_view line;
    int64_t id = -1;
    while (next_line(&rest, &line))
        if (line.starts_with(KEY) && !parse_id(line.substr(KEY.size()), &id))
            return -1;
    return id;
}
