#include "tbx/command.h"

#include "common/core.h"
#include "tbx/sent.h"

#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

int64_t parse_message_id(const char *arg) {
    if (arg == nullptr || *arg == '\0')
        die("%s", "missing message ID");
    int64_t id = 0;
    if (!parse_id(arg, &id))
        die("no such message: %s", arg);
    return id;
}

message_record load_message_or_die(int64_t id, const char *id_text) {
    const std::string path = sent_path(id, "msg");
    message_record message;
    if (message_load(path.c_str(), &message) == 0)
        return message;
    if (is_resource_error(errno))
        die("%s: %s", path.c_str(), strerror(errno));
    die("no such message: %s", id_text);
}

bool has_marker_or_die(int64_t id, const char *name) {
    const marker_state state = sent_marker_look_up(id, name);
    const int error = errno;
    if (state == marker_state::unknown)
        die("%s: %s", sent_path(id, name).c_str(), strerror(error));
    return state == marker_state::present;
}

static bool is_known_author(const char *name) {
    return name != nullptr && *name != '\0' && strlen(name) < AUTHOR_BYTES &&
           getpwnam(name) != nullptr;
}

const char *current_author() {
    static char author[AUTHOR_BYTES]; // what the last call returned
    const char *sudo_user = getenv("SUDO_USER");
    if (is_known_author(sudo_user)) {
        snprintf(author, sizeof author, "%s", sudo_user);
        return author;
    }
    const struct passwd *account = getpwuid(getuid());
    snprintf(author, sizeof author, "%s", account != nullptr ? account->pw_name : "?");
    return author;
}

static int64_t unit_seconds(char unit) {
    switch (unit) {
    case 'm':
        return 60;
    case 'h':
        return 3600;
    case 'd':
        return 86'400;
    default:
        return 0;
    }
}

int parse_duration(const char *text, int64_t *seconds) {
    std::string_view number = text;
    if (number.size() < 2)
        return 0;
    const int64_t unit = unit_seconds(number.back());
    number.remove_suffix(1);
    int64_t count = 0;
    if (unit == 0 || !parse_id(number, &count))
        return 0;
    if (__builtin_mul_overflow(count, unit, seconds))
        *seconds = INT64_MAX;
    return 1;
}
