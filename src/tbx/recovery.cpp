#include "tbx/recovery.h"

#include "common/core.h"
#include "common/event.h"
#include "common/message.h"
#include "tbx/agent.h"
#include "tbx/mailbox.h"
#include "tbx/recipients.h"
#include "tbx/sent.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>

// If the mark stays, the next run comes here again.
static bool remove_incomplete(int64_t id) {
    return unlink(sent_path(id, "incomplete").c_str()) == 0;
}

// ---- A send that was cut off --------------------------------------------------------------

struct interrupted_send {
    int64_t id;
    strbuf file_text; // of "msg"
    message_record message;
    strlist recipients;
};

enum class saved { complete, partly, unknown };

// How much of the message was saved before the interruption; unknown when a read failed for
// want of resources.
static saved load_interrupted(interrupted_send *send) {
    const bool recipients_read = sent_read_recipients(send->id, &send->recipients) == 0;
    if (!recipients_read && is_resource_error(errno))
        return saved::unknown;
    const bool text_read = read_file_limited(sent_path(send->id, "msg").c_str(),
                                             MESSAGE_FILE_MAX_BYTES, true, &send->file_text) == 0;
    if (!text_read && is_resource_error(errno))
        return saved::unknown;
    const bool complete =
        text_read && send->file_text.len > 0 && send->recipients.count > 0 &&
        message_parse(send->file_text.data, send->file_text.len, &send->message) == 0;
    return complete ? saved::complete : saved::partly;
}

static void cancel_send(int64_t id) {
    if (sent_marker_write_time(id, "failed") != 0)
        errno = 0; // cancelled all the same: what was not saved cannot be sent
    if (!remove_incomplete(id))
        return; // told once, when it is done
    event_log("CANCELLED", id, /*user=*/nullptr, /*channel=*/nullptr, /*details=*/nullptr,
              /*author=*/nullptr);
    warn("message %lld was interrupted before being saved and has been cancelled",
         static_cast<long long>(id));
}

struct completion {
    int completed = 0; // recipients newly delivered to
    int failures = 0;
};

// Writes the copy for one recipient, also for one who has it already: it may be half written.
static void complete_recipient(const interrupted_send &send, const delivery_table &delivery,
                               const char *name, completion *done) {
    resolved_user user;
    if (!user_lookup_by_name(name, &user) ||
        !mailbox_deliver(user, send.id, send.file_text.view())) {
        done->failures++;
        return;
    }
    if (delivery_find(delivery, name) >= 0)
        return;
    sent_append_delivery(send.id, name, /*terminals=*/0);
    event_log("DELIVERED", send.id, name, /*channel=*/nullptr, /*details=*/nullptr,
              /*author=*/nullptr);
    agent_start(user);
    done->completed++;
}

static void report_completed(int64_t id, int completed) {
    if (completed == 0)
        return;
    event_log("RECOVERED", id, /*user=*/nullptr, /*channel=*/nullptr,
              std::to_string(completed).c_str(), /*author=*/nullptr);
    warn("completed delivery of message %lld to %d recipients", static_cast<long long>(id),
         completed);
}

// Makes the copies durable before the mark goes; where that fails it stays for the next run.
static void finish_send(int64_t id) {
    if (syncfs_path(users_dir().c_str()) == 0 && fsync_path(sent_message_dir(id).c_str()) == 0)
        (void)remove_incomplete(id);
}

static void complete_delivery(const interrupted_send &send) {
    if (!sent_mend_delivery(send.id))
        return; // the next line would run into the torn one: left for the next run
    delivery_table delivery;
    if (sent_read_delivery(send.id, &delivery) != 0 && is_resource_error(errno))
        return; // it cannot be told who has it: left for the next run
    completion done;
    for (const char *name : send.recipients)
        complete_recipient(send, delivery, name, &done);
    if (done.failures == 0)
        finish_send(send.id);
    report_completed(send.id, done.completed);
    if (done.failures > 0)
        warn("message %lld still not delivered to %d recipients (see tbx status %lld)",
             static_cast<long long>(send.id), done.failures, static_cast<long long>(send.id));
}

static void recover_send(int64_t id) {
    interrupted_send send = {id, {}, {}, {}};
    switch (load_interrupted(&send)) {
    case saved::unknown:
        return;
    case saved::partly:
        cancel_send(id);
        return;
    case saved::complete:
        break;
    }
    const marker_state revoked = sent_marker_look_up(id, "revoked");
    if (revoked == marker_state::unknown)
        return;
    if (revoked == marker_state::present || message_is_expired(send.message, now()))
        (void)remove_incomplete(id); // nobody is to see it any more
    else
        complete_delivery(send);
}

// ---- One message --------------------------------------------------------------------------

static bool is_unmarked(int64_t id) {
    return !sent_marker_exists(id, "incomplete") && !sent_marker_exists(id, "revoking");
}

static void recover_message(int64_t id) {
    if (is_unmarked(id))
        return;
    const unique_fd lock = sent_lock(id, /*nonblocking=*/true);
    if (!lock)
        return; // another run is working on it
    const marker_state incomplete = sent_marker_look_up(id, "incomplete");
    if (incomplete == marker_state::unknown)
        return; // a send is finished before a revocation: it would deliver again
    if (incomplete == marker_state::present)
        recover_send(id);
    if (sent_marker_exists(id, "revoking"))
        (void)sent_finish_revoking(id); // the mark stays for the next run if it fails
}

// ---- Purges that were cut off -------------------------------------------------------------

static void finish_purges() {
    constexpr std::string_view PREFIX = ".deleting-";
    const std::string sent = sent_dir();
    const unique_dir directory(opendir(sent.c_str()));
    if (!directory)
        return;
    while (const dirent *entry = readdir(directory.get())) {
        const std::string_view name = entry->d_name;
        int64_t id = 0;
        if (name.starts_with(PREFIX) && parse_id(name.substr(PREFIX.size()), &id))
            sent_remove_message_dir(xasprintf("%s/%s", sent.c_str(), entry->d_name).c_str(), id);
    }
}

void recover_interrupted() {
    strlist ids;
    if (sent_list_ids(&ids) != 0)
        return;
    for (const char *name : ids) {
        int64_t id = 0;
        if (parse_id(name, &id))
            recover_message(id);
    }
    finish_purges();
}
