#include "tbx/withdrawal.h"

#include "tbx/accounts.h"
#include "tbx/mailbox.h"
#include "tbx/sent.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <map>

// ---- Many messages, one child for each user -----------------------------------------------

// A message that is being removed from the mailboxes.
struct withdrawal {
    int64_t id;
    bool complete = true; // false when a user's files could not be removed
};

using mailbox_operation = void (*)(const resolved_user &user, const std::vector<int64_t> &ids,
                                   std::vector<size_t> *done);

// The messages of each user. There are far fewer users than pairs of user and message.
class withdrawal_list {
public:
    explicit withdrawal_list(mailbox_operation operation) : operation_(operation) {}

    // Adds a message and its recipients.
    void add(int64_t id, const strlist &recipients) {
        messages_.push_back({id});
        for (const char *name : recipients)
            places_[name].push_back(messages_.size() - 1);
        pairs_ += recipients.count;
    }
    // Whether the list is so long that it should be carried out before more is added.
    [[nodiscard]] bool is_full() const { return pairs_ >= PAIRS_MAX; }

    // Carries the operation out in every mailbox. Returns the result for each message, in the order
    // in which they were added.
    [[nodiscard]] const std::vector<withdrawal> &carry_out() {
        for (const auto &[name, places] : places_)
            carry_out_for(name, places);
        return messages_;
    }

private:
    static constexpr size_t PAIRS_MAX = 1'000'000; // of a message and a recipient: 8 bytes each

    void carry_out_for(const std::string &name, const std::vector<size_t> &places) {
        resolved_user user;
        const lookup found = user_lookup_by_name(name.c_str(), &user);
        if (found == lookup::absent)
            return; // the user is gone: nobody can see the message
        std::vector<size_t> done;
        if (found == lookup::found)
            operation_(user, ids_of(places), &done);
        std::vector<bool> is_done(places.size(), false);
        for (const size_t place : done)
            is_done[place] = true;
        for (size_t i = 0; i < places.size(); i++)
            if (!is_done[i])
                messages_[places[i]].complete = false;
    }

    [[nodiscard]] std::vector<int64_t> ids_of(const std::vector<size_t> &places) const {
        std::vector<int64_t> ids;
        ids.reserve(places.size());
        for (const size_t place : places)
            ids.push_back(messages_[place].id);
        return ids;
    }

    mailbox_operation operation_;
    std::vector<withdrawal> messages_;
    std::map<std::string, std::vector<size_t>, std::less<>> places_; // in messages_, by user
    size_t pairs_ = 0;
};

// ---- Revocations --------------------------------------------------------------------------

static void remove_revoking(int64_t id) {
    (void)unlink(sent_path(id, "revoking").c_str()); // if it stays, the next run tries again
}

bool sent_finish_revoking(int64_t id) {
    strlist recipients;
    if (sent_read_recipients(id, &recipients) == lookup::failed)
        return false;
    withdrawal_list list(mailbox_withdraw_all);
    list.add(id, recipients);
    if (!list.carry_out().front().complete)
        return false;
    remove_revoking(id);
    return true;
}

static void finish(withdrawal_list *list) {
    for (const withdrawal &message : list->carry_out()) {
        if (!message.complete)
            continue;
        const message_lock lock = sent_lock(message.id, /*nonblocking=*/true);
        if (lock.state == lock_state::taken)
            remove_revoking(message.id);
    }
    *list = withdrawal_list(mailbox_withdraw_all);
}

void sent_finish_revocations(const std::vector<int64_t> &ids) {
    withdrawal_list list(mailbox_withdraw_all);
    for (const int64_t id : ids) {
        strlist recipients;
        if (sent_read_recipients(id, &recipients) == lookup::failed)
            continue;
        list.add(id, recipients);
        if (list.is_full())
            finish(&list);
    }
    finish(&list);
}

// ---- Purges -------------------------------------------------------------------------------

// Removes the files of a directory (one level; it holds nothing but files) and the directory. What
// cannot be removed makes rmdir fail, and is tried again by a later run.
static void remove_directory(const char *dir) {
    unique_fd fd(open(dir, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (fd) {
        const unique_dir directory(fdopendir(fd.get()));
        if (!directory)
            return;                     // no memory
        const int place = fd.release(); // owned by `directory` from here on
        while (const dirent *entry = next_entry(directory.get()))
            if (strcmp(entry->d_name, ".") != 0 && strcmp(entry->d_name, "..") != 0)
                (void)unlinkat(place, entry->d_name, 0);
    }
    (void)rmdir(dir);
}

// Removes the directories of messages that are gone from every mailbox. `dirs` belong to the list's
// messages, in the same order. Returns how many stay.
static size_t finish(withdrawal_list *list, std::vector<const char *> *dirs) {
    const std::vector<withdrawal> &messages = list->carry_out();
    size_t left = 0;
    for (size_t i = 0; i < messages.size(); i++) {
        if (messages[i].complete)
            remove_directory((*dirs)[i]);
        else
            left++;
    }
    *list = withdrawal_list(mailbox_purge_all);
    dirs->clear();
    return left;
}

size_t sent_remove_message_dirs(const std::vector<removed_message> &messages) {
    withdrawal_list list(mailbox_purge_all);
    std::vector<const char *> dirs;
    size_t left = 0;
    for (const removed_message &message : messages) {
        strlist recipients;
        if (sent_read_recipients_in(message.dir.c_str(), &recipients) == lookup::failed) {
            left++;
            continue;
        }
        list.add(message.id, recipients);
        dirs.push_back(message.dir.c_str());
        if (list.is_full())
            left += finish(&list, &dirs);
    }
    return left + finish(&list, &dirs);
}

size_t sent_remove_message_dir(const char *dir, int64_t id) {
    return sent_remove_message_dirs({{id, dir}});
}
