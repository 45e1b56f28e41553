// Which message is shown next on the desktop, and when.
#pragma once

#include "user/inbox.h"
#include "user/retry.h"

#include <map>
#include <optional>

constexpr uint64_t NEVER_MS = UINT64_MAX;

class agenda {
public:
    struct choice {
        std::optional<waiting_message> next; // to be shown now
        uint64_t look_again_ms = NEVER_MS;   // until another one is due, or may be tried again
    };

    // Chooses the first message that is due and may be tried. Counts those that are due. Nothing
    // is chosen if the mailbox cannot be read.
    //   now_ms  of the clock of retries()
    [[nodiscard]] choice choose(const own_mailbox &box, int64_t remind_seconds, uint64_t now_ms);
    // There is no mailbox: its first message will be a delivery.
    void found_no_mailbox();

    // The message was shown at `moment`, but its mark cannot be written.
    void remember_shown(int64_t id, int64_t moment) { remembered_[id] = moment; }
    // `tbx` has sent its signal. If it delivered no message, it reminds of one: then those are due
    // that are only remembered as shown, because there is no mark that it could remove.
    void news();

    // The message on the screen is dealt with.
    void next_place() { done_++; }
    // "place() of total()" messages that are due. "1 of 1" if none is: the user may ask for one.
    [[nodiscard]] size_t place() const;
    [[nodiscard]] size_t total() const;

    [[nodiscard]] retry_plan &retries() { return retries_; }

private:
    void take_news(const std::vector<pending_message> &pending);
    void forget_gone(const std::vector<pending_message> &pending);
    [[nodiscard]] int64_t due_at(const pending_message &pending, int64_t remind_seconds) const;

    retry_plan retries_;
    std::map<int64_t, int64_t> remembered_; // message to moment
    bool has_news_ = false;
    bool has_looked_ = false;
    bool awaits_signal_ = false; // of the newest message
    int64_t newest_ = 0;         // the highest identifier that was ever pending
    size_t done_ = 0;            // messages dealt with since none was due
    size_t total_ = 0;
};
