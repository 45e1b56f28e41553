#include "tbx/recovery.h"

#include "common/core.h"
#include "common/event.h"
#include "common/message.h"
#include "tbx/accounts.h"
#include "tbx/agent.h"
#include "tbx/mailbox.h"
#include "tbx/sent.h"
#include "tbx/withdrawal.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <vector>

// If the mark stays, the next run tries again.
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

// How much of the message was saved before the interruption; unknown when that cannot be read.
static saved load_interrupted(interrupted_send *send) {
    const lookup recipients = sent_read_recipients(send->id, &send->recipients);
    const lookup text = read_stored_file(sent_path(send->id, "msg").c_str(), MESSAGE_FILE_MAX_BYTES,
                                         &send->file_text);
    if (recipients == lookup::failed || text == lookup::failed)
        return saved::unknown;
    const bool is_complete =
        text == lookup::found && send->file_text.len > 0 && send->recipients.count > 0 &&
        message_parse(send->file_text.data, send->file_text.len, &send->message) == 0;
    return is_complete ? saved::complete : saved::partly;
}

// Whether the message is revoked or expired, so that nobody may see it; `failed` when that could
// not be looked up.
static lookup is_withdrawn(const interrupted_send &send) {
    const lookup revoked = sent_marker_look_up(send.id, "revoked");
    if (revoked == lookup::absent && message_is_expired(send.message, now()))
        return lookup::found;
    return revoked;
}

static void cancel_send(int64_t id) {
    // Cancelled even if the time cannot be written: what was not saved cannot be sent.
    (void)sent_marker_write_time(id, "failed");
    if (!remove_incomplete(id))
        return; // recorded once, when it is done
    event_log("CANCELLED", id, /*user=*/nullptr, /*channel=*/nullptr, /*details=*/nullptr,
              /*author=*/nullptr);
    warn("message %lld was interrupted before being saved and has been cancelled",
         static_cast<long long>(id));
}

// ---- What the mailboxes hold --------------------------------------------------------------
// One child for each mailbox looks which of the interrupted messages it holds. So the work grows
// with the recipients and with the missing copies, not with the product of recipients and messages.

struct recipient_mailbox {
    lookup account = lookup::failed;
    resolved_user user;
    std::vector<uint32_t> messages; // the user's places in mailbox_table::copies
    std::vector<copy_state> states; // parallel to it
    int failed_deliveries = 0;
};

struct mailbox_table {
    std::vector<expected_copy> copies; // of the interrupted messages, by identifier
    std::map<std::string, recipient_mailbox, std::less<>> by_user;
};

static void expect_copies(int64_t id, mailbox_table *mailboxes) {
    if (sent_lock(id, /*nonblocking=*/true).state != lock_state::taken)
        return; // it is being sent
    interrupted_send send = {id, {}, {}, {}};
    if (load_interrupted(&send) != saved::complete || is_withdrawn(send) != lookup::absent)
        return;
    const std::string_view text = send.file_text.view();
    const auto place = static_cast<uint32_t>(mailboxes->copies.size());
    mailboxes->copies.push_back({id, text.size(), copy_hash(text)});
    for (const char *name : send.recipients)
        mailboxes->by_user[name].messages.push_back(place);
}

// A single copy is not looked up here: its delivery does that itself.
static void survey(const std::string &name, const mailbox_table &table,
                   recipient_mailbox *mailbox) {
    mailbox->account = user_lookup_by_name(name.c_str(), &mailbox->user);
    if (mailbox->account != lookup::found || mailbox->messages.size() < 2) {
        mailbox->states.assign(mailbox->messages.size(), copy_state::missing);
        return;
    }
    std::vector<expected_copy> expected;
    for (const uint32_t place : mailbox->messages)
        expected.push_back(table.copies[place]);
    mailbox->states = mailbox_survey(mailbox->user, expected);
}

static mailbox_table survey_mailboxes(const std::vector<int64_t> &incomplete) {
    mailbox_table table;
    if (incomplete.size() < 2)
        return table; // each delivery looks itself
    for (const int64_t id : incomplete)
        expect_copies(id, &table);
    for (auto &[name, mailbox] : table.by_user)
        survey(name, table, &mailbox);
    return table;
}

static copy_state known_state(const mailbox_table &table, const recipient_mailbox &mailbox,
                              int64_t id) {
    const auto found = std::ranges::lower_bound(
        mailbox.messages, id, {}, [&table](uint32_t place) { return table.copies[place].id; });
    if (found == mailbox.messages.end() || table.copies[*found].id != id)
        return copy_state::missing; // it was interrupted after the mailboxes were looked at
    return mailbox.states[static_cast<size_t>(found - mailbox.messages.begin())];
}

// ---- Completing the delivery --------------------------------------------------------------

struct completion {
    int completed = 0; // recipients newly delivered to
    int failures = 0;
};

// After so many failures a mailbox is not tried again in this run; the next run continues.
constexpr int FAILED_DELIVERIES_MAX = 16;

static bool deliver_missing(const interrupted_send &send, recipient_mailbox *mailbox) {
    if (mailbox->failed_deliveries >= FAILED_DELIVERIES_MAX)
        return false;
    if (mailbox_deliver(mailbox->user, send.id, send.file_text.view()))
        return true;
    mailbox->failed_deliveries++;
    return false;
}

// Makes sure that the whole copy is in the mailbox. Also for a user who is in the log already: the
// copy may be incomplete.
static bool ensure_copy(const interrupted_send &send, const mailbox_table &table,
                        recipient_mailbox *mailbox) {
    if (mailbox->account != lookup::found)
        return false;
    switch (known_state(table, *mailbox, send.id)) {
    case copy_state::held:
        return true;
    case copy_state::missing:
        return deliver_missing(send, mailbox);
    case copy_state::blocked:
    case copy_state::unknown:
        break;
    }
    return false;
}

static void complete_recipient(const interrupted_send &send, const delivery_table &delivery,
                               const char *name, mailbox_table *table, completion *done) {
    const auto [place, is_new] = table->by_user.try_emplace(name);
    recipient_mailbox &mailbox = place->second;
    if (is_new)
        survey(name, *table, &mailbox);
    if (!ensure_copy(send, *table, &mailbox)) {
        done->failures++;
        return;
    }
    if (delivery_find(delivery, name) >= 0)
        return;
    sent_append_delivery(send.id, name, /*terminals=*/0);
    event_log("DELIVERED", send.id, name, /*channel=*/nullptr, /*details=*/nullptr,
              /*author=*/nullptr);
    agent_start(mailbox.user);
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

// Syncs the copies, then removes the mark. If a sync fails, the mark stays for the next run.
static void finish_send(int64_t id) {
    if (syncfs_path(users_dir().c_str()) == 0 && fsync_path(sent_message_dir(id).c_str()) == 0)
        (void)remove_incomplete(id); // if it stays, the next run tries again
}

static void complete_delivery(const interrupted_send &send, mailbox_table *mailboxes) {
    if (sent_mend_delivery(send.id) != 0)
        return; // the next line would run into the incomplete one: left for the next run
    delivery_table delivery;
    if (sent_read_delivery(send.id, &delivery) == lookup::failed)
        return; // it is unknown who has it: left for the next run
    completion done;
    for (const char *name : send.recipients)
        complete_recipient(send, delivery, name, mailboxes, &done);
    if (done.failures == 0)
        finish_send(send.id);
    report_completed(send.id, done.completed);
    if (done.failures > 0)
        warn("message %lld still not delivered to %d recipients (see tbx status %lld)",
             static_cast<long long>(send.id), done.failures, static_cast<long long>(send.id));
}

static void recover_send(int64_t id, mailbox_table *mailboxes) {
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
    switch (is_withdrawn(send)) {
    case lookup::failed:
        return;
    case lookup::found:
        (void)remove_incomplete(id); // if it stays, the next run tries again
        return;
    case lookup::absent:
        break;
    }
    complete_delivery(send, mailboxes);
}

// ---- One message --------------------------------------------------------------------------

// Finishes what is under way with a message. Returns true when what is left is a revocation that
// can be finished with others.
static bool recover_message(int64_t id, mailbox_table *mailboxes) {
    const message_lock lock = sent_lock(id, /*nonblocking=*/true);
    if (lock.state != lock_state::taken)
        return false; // another run is working on it, or the next run tries again
    const lookup incomplete = sent_marker_look_up(id, "incomplete");
    if (incomplete == lookup::failed)
        return false; // the send must be finished first: it would deliver again
    if (incomplete == lookup::found)
        recover_send(id, mailboxes);
    if (!sent_marker_exists(id, "revoking"))
        return false;
    // No run delivers a message that is marked "revoked", so its copies can be removed without the
    // lock. Without that mark, only the lock keeps other runs away.
    if (sent_marker_exists(id, "revoked"))
        return true;
    (void)sent_finish_revoking(id); // the mark stays for the next run if it fails
    return false;
}

// Finds the messages with a mark, in order. `incomplete` receives those that were being sent.
static void find_interrupted(std::vector<int64_t> *marked, std::vector<int64_t> *incomplete) {
    strlist ids;
    if (sent_list_ids(&ids) != 0)
        return;
    for (const char *name : ids) {
        int64_t id = 0;
        if (!parse_id(name, &id))
            continue;
        const bool is_incomplete = sent_marker_exists(id, "incomplete");
        if (is_incomplete)
            incomplete->push_back(id);
        if (is_incomplete || sent_marker_exists(id, "revoking"))
            marked->push_back(id);
    }
}

static void finish_messages() {
    std::vector<int64_t> marked;
    std::vector<int64_t> incomplete;
    find_interrupted(&marked, &incomplete);
    if (marked.empty())
        return;
    mailbox_table mailboxes = survey_mailboxes(incomplete);
    std::vector<int64_t> revocations;
    for (const int64_t id : marked)
        if (recover_message(id, &mailboxes))
            revocations.push_back(id);
    sent_finish_revocations(revocations);
}

// ---- Purges that were cut off -------------------------------------------------------------

static void finish_purges() {
    constexpr std::string_view PREFIX = ".deleting-";
    const std::string sent = sent_dir();
    const unique_dir directory(opendir(sent.c_str()));
    if (!directory)
        return; // left for the next run
    std::vector<removed_message> messages;
    while (const dirent *entry = next_entry(directory.get())) {
        const std::string_view name = entry->d_name;
        int64_t id = 0;
        if (name.starts_with(PREFIX) && parse_id(name.substr(PREFIX.size()), &id))
            messages.push_back({id, xasprintf("%s/%s", sent.c_str(), entry->d_name)});
    }
    (void)sent_remove_message_dirs(messages); // what stays waits for the next run
}

void recover_interrupted() {
    finish_messages();
    finish_purges();
}
