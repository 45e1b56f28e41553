#include "tbx/command.h"

#include "common/core.h"
#include "common/event.h"
#include "common/message.h"
#include "tbx/sent.h"
#include "tbx/withdrawal.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <vector>

// Returns the time before which messages are old. If the duration is too large for the clock, none
// is.
static int64_t parse_cutoff_or_die(const char *duration_text) {
    if (duration_text == nullptr || *duration_text == '\0')
        die("missing duration, for example 90d");
    int64_t duration = 0;
    if (!parse_duration(duration_text, &duration))
        die("invalid duration: %s (for example 90d, 12h, 30m)", duration_text);
    return duration > now() ? INT64_MIN : now() - duration;
}

// Finds when the message was sent. If there is no message, `date` is when its directory was last
// changed, or 0 if there is no directory either: a broken message is always old enough. Returns 0,
// or -1 when it could not be read.
static int message_date(int64_t id, int64_t *date) {
    message_record message;
    struct stat status = {};
    switch (message_look_up(sent_path(id, "msg").c_str(), &message)) {
    case lookup::found:
        *date = message.date;
        return 0;
    case lookup::failed:
        return -1;
    case lookup::absent:
        break;
    }
    if (lstat(sent_message_dir(id).c_str(), &status) != 0) {
        *date = 0;
        return lookup_of_error(errno) == lookup::absent ? 0 : -1;
    }
    *date = status.st_mtime;
    return 0;
}

static bool is_due(int64_t id, int64_t cutoff) {
    int64_t date = 0;
    return sent_marker_look_up(id, "incomplete") == lookup::absent &&
           message_date(id, &date) == 0 && date < cutoff;
}

// Renames the message's directory, which removes it from every listing at once. The caller holds
// its lock.
static bool move_aside(int64_t id, const char *aside) {
    if (rename(sent_message_dir(id).c_str(), aside) != 0)
        return false;
    (void)fsync_path(sent_dir().c_str()); // on a failing disk the removal goes on all the same
    return true;
}

static std::string aside_dir(int64_t id) {
    return xasprintf("%s/.deleting-%lld", sent_dir().c_str(), static_cast<long long>(id));
}

// Renames the directory of a message that is due, and records it. Returns false when another run is
// working on the message, or the directory cannot be renamed.
static bool take_due(int64_t id, const char *duration_text, std::vector<removed_message> *removed) {
    const std::string aside = aside_dir(id);
    {
        const message_lock lock = sent_lock(id, /*nonblocking=*/true);
        // Looked up again under the lock: a send may have marked it meanwhile, and died.
        if (lock.state != lock_state::taken ||
            sent_marker_look_up(id, "incomplete") != lookup::absent ||
            !move_aside(id, aside.c_str()))
            return false;
    }
    event_log("DELETED", id, /*user=*/nullptr, /*channel=*/nullptr, duration_text,
              current_author());
    removed->push_back({id, aside});
    return true;
}

// ---- What a send left that could not be marked --------------------------------------------

constexpr int64_t LITTER_AGE_SECONDS = 60; // a send marks its directory sooner than that

// Whether the directory holds neither a message nor a mark. Then nobody received anything, and no
// other command removes it.
static bool holds_no_message(int64_t id) {
    for (const char *name : {"msg", "delivery", "incomplete", "failed", "revoking", "revoked"})
        if (sent_marker_look_up(id, name) != lookup::absent)
            return false;
    return true;
}

static bool is_old_litter(int64_t id) {
    struct stat status = {};
    return sent_marker_exists(id, "lock") && holds_no_message(id) &&
           lstat(sent_message_dir(id).c_str(), &status) == 0 &&
           now() - status.st_mtime >= LITTER_AGE_SECONDS;
}

// Renames such a directory. It was never a message, so it is not counted and not recorded.
static void take_litter(int64_t id, std::vector<removed_message> *removed) {
    const std::string aside = aside_dir(id);
    const message_lock lock = sent_lock(id, /*nonblocking=*/true);
    if (lock.state == lock_state::taken && holds_no_message(id) && move_aside(id, aside.c_str()))
        removed->push_back({id, aside});
}

// ---- The command --------------------------------------------------------------------------

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
    if (sent_list_ids(ids) != 0 && lookup_of_error(errno) == lookup::failed)
        die("%s: %s", sent.c_str(), strerror(errno));
}

// Renames first and deletes afterwards: an interruption never leaves half a message listed.
void cmd_purge(const char *duration_text) {
    const int64_t cutoff = parse_cutoff_or_die(duration_text);
    strlist ids;
    list_ids_or_die(&ids);
    int deleted = 0;
    std::vector<removed_message> removed;
    for (const char *name : ids) {
        int64_t id = 0;
        if (!parse_id(name, &id))
            continue;
        if (is_due(id, cutoff))
            deleted += take_due(id, duration_text, &removed) ? 1 : 0;
        else if (is_old_litter(id))
            take_litter(id, &removed);
    }
    const size_t left = sent_remove_message_dirs(removed);
    report(deleted, duration_text);
    if (left > 0)
        warn(
            "some copies could not be removed from the mailboxes: the next tbx command will retry");
}
