#include "tbx/command.h"

#include "common/core.h"
#include "tbx/accounts.h"
#include "tbx/sent.h"

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
    switch (message_look_up(path.c_str(), &message)) {
    case lookup::found:
        return message;
    case lookup::failed:
        die("%s: %s", path.c_str(), strerror(errno));
    case lookup::absent:
        break;
    }
    die("no such message: %s", id_text);
}

bool has_marker_or_die(int64_t id, const char *name) {
    const std::string path = sent_path(id, name);
    const lookup state = path_look_up(path.c_str());
    if (state == lookup::failed)
        die("%s: %s", path.c_str(), strerror(errno));
    return state == lookup::found;
}

// A name that cannot be looked up now counts as known: sudo itself has looked it up.
static bool is_known_author(const char *name) {
    resolved_user user;
    return name != nullptr && *name != '\0' && strlen(name) < AUTHOR_BYTES &&
           user_lookup_by_name(name, &user) != lookup::absent;
}

const char *current_author() {
    static char author[AUTHOR_BYTES]; // what the last call returned
    const char *sudo_user = getenv("SUDO_USER");
    if (is_known_author(sudo_user)) {
        snprintf(author, sizeof author, "%s", sudo_user);
        return author;
    }
    resolved_user user;
    const bool is_known = user_lookup_by_uid(getuid(), &user) == lookup::found;
    snprintf(author, sizeof author, "%s", is_known ? user.name.c_str() : "?");
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
