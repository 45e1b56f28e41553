#include "tbx/command.h"

#include "common/core.h"
#include "common/event.h"
#include "common/message.h"
#include "tbx/sent.h"
#include "tbx/withdrawal.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>

[[noreturn]] static void die_of_path(const std::string &path, int error) {
    die("%s: %s", path.c_str(), strerror(error));
}

constexpr int MARK_TRIES = 10;

// Writes the mark. Returns false if another run wrote it at the same time. Two runs can remove each
// other's temporary file, so that both fail and there is no mark: then it is tried again.
static bool write_mark_or_die(int64_t id) {
    for (int tries = 1; sent_marker_write_time(id, "revoked") != 0; tries++) {
        const int error = errno;
        if (sent_marker_exists(id, "revoked"))
            return false;
        const bool was_disturbed = error == ENOENT || error == EEXIST;
        if (!was_disturbed || tries == MARK_TRIES)
            die_of_path(sent_path(id, "revoked"), error);
    }
    return true;
}

// Syncs the marks. A recovery that ran before the message was marked "revoked" may have removed
// "revoking", so it is created again. A recovery that removes it from now on has withdrawn every
// copy.
static int sync_marks(int64_t id) {
    if (sent_marker_create(id, "revoking") != 0)
        return -1;
    if (fsync_path(sent_path(id, "revoking").c_str()) != 0 && errno != ENOENT)
        return -1;
    return fsync_path(sent_message_dir(id).c_str());
}

// Removes a mark that could not be synced, so that a revocation that is reported as failed can be
// repeated. If another run has withdrawn the copies, which removes "revoking", the mark stays.
static void take_mark_back(int64_t id) {
    const message_lock lock = sent_lock(id, /*nonblocking=*/false);
    if (lock.state == lock_state::taken && sent_marker_exists(id, "revoking"))
        (void)unlink(sent_path(id, "revoked").c_str()); // if it stays, the message is revoked
}

// Marks the message as revoked for good and records it, once.
static void mark_revoked(int64_t id) {
    if (!write_mark_or_die(id))
        return;
    const bool has_copies = sent_marker_exists(id, "revoking");
    if (sync_marks(id) != 0) {
        const int error = errno;
        if (has_copies)
            take_mark_back(id);
        die_of_path(sent_message_dir(id), error);
    }
    event_log("REVOKED", id, /*user=*/nullptr, /*channel=*/nullptr, /*details=*/nullptr,
              current_author());
}

void cmd_revoke(const char *id_text) {
    const int64_t id = parse_message_id(id_text);
    (void)load_message_or_die(id, id_text); // only to check that it exists

    // Without the mark no later run would remove the copies that this run cannot remove.
    if (sent_marker_create(id, "revoking") != 0) {
        const int error = errno;
        die_of_path(sent_path(id, "revoking"), error);
    }
    if (!has_marker_or_die(id, "revoked"))
        mark_revoked(id);

    // Marked before locked: a send in progress holds the lock until it ends, and looks for the
    // mark before each recipient.
    const message_lock lock = sent_lock(id, /*nonblocking=*/false);
    if (lock.state != lock_state::taken) {
        const int error = errno;
        die_of_path(sent_message_dir(id), error);
    }
    // Another run may have written the mark and taken it back. After a purge both are gone.
    if (sent_marker_exists(id, "revoking") && !has_marker_or_die(id, "revoked"))
        die_of_path(sent_path(id, "revoked"), ENOENT);
    if (!sent_finish_revoking(id))
        die("message %lld revoked, but some copies could not be removed from the mailboxes: the "
            "next tbx command will retry",
            static_cast<long long>(id));
    printf("Message %lld revoked.\n", static_cast<long long>(id));
}
