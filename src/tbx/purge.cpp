#include "tbx/command.h"

#include "common/core.h"
#include "common/event.h"
#include "common/message.h"
#include "tbx/sent.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>

// Everything before it is old; nothing is older than a duration too large for the clock.
static int64_t parse_cutoff_or_die(const char *duration_text) {
    if (duration_text == nullptr || *duration_text == '\0')
        die("missing duration, for example 90d");
    int64_t duration = 0;
    if (!parse_duration(duration_text, &duration))
        die("invalid duration: %s (for example 90d, 12h, 30m)", duration_text);
    return duration > now() ? INT64_MIN : now() - duration;
}

// When the message was sent; where that cannot be read, when its directory was last changed,
// or 0, so that a broken message is always old enough. False when a read failed for want of
// resources, which says nothing about the message.
static bool message_date(int64_t id, int64_t *date) {
    message_record message;
    if (message_load(sent_path(id, "msg").c_str(), &message) == 0) {
        *date = message.date;
        return true;
    }
    if (is_resource_error(errno))
        return false;
    struct stat status = {};
    const bool known = lstat(sent_message_dir(id).c_str(), &status) == 0;
    *date = known ? status.st_mtime : 0;
    return known || !is_resource_error(errno);
}

static bool is_due(int64_t id, int64_t cutoff) {
    int64_t date = 0;
    return sent_marker_look_up(id, "incomplete") == marker_state::absent &&
           message_date(id, &date) && date < cutoff;
}

// Moves the message out of every listing at once, unless another run is working on it.
static bool move_aside(int64_t id, const char *aside) {
    const unique_fd lock = sent_lock(id, /*nonblocking=*/true);
    if (!lock || rename(sent_message_dir(id).c_str(), aside) != 0)
        return false;
    if (fsync_path(sent_dir().c_str()) != 0)
        errno = 0; // on a failing disk the removal goes on all the same
    return true;
}

// Renamed first and deleted afterwards: an interruption never leaves half a message listed.
static bool purge_one(int64_t id, const char *duration_text) {
    const std::string aside =
        xasprintf("%s/.deleting-%lld", sent_dir().c_str(), static_cast<long long>(id));
    if (!move_aside(id, aside.c_str()))
        return false;
    event_log("DELETED", id, /*user=*/nullptr, /*channel=*/nullptr, duration_text,
              current_author());
    sent_remove_message_dir(aside.c_str(), id);
    return true;
}

static void report(int deleted, const char *duration_text) {
    if (deleted == 0)
        printf("No messages older than %s.\n", duration_text);
    else if (deleted == 1)
        printf("Deleted 1 message older than %s.\n", duration_text);
    else
        printf("Deleted %d messages older than %s.\n", deleted, duration_text);
}

static void list_ids_or_die(strlist *ids) {
    const std::string sent = sent_dir();
    if (sent_list_ids(ids) != 0 && errno != ENOENT)
        die("%s: %s", sent.c_str(), strerror(errno));
}

void cmd_purge(const char *duration_text) {
    const int64_t cutoff = parse_cutoff_or_die(duration_text);
    strlist ids;
    list_ids_or_die(&ids);
    int deleted = 0;
    for (const char *name : ids) {
        int64_t id = 0;
        if (parse_id(name, &id) && is_due(id, cutoff) && purge_one(id, duration_text))
            deleted++;
    }
    report(deleted, duration_text);
}
