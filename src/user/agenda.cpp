#include "user/agenda.h"

#include <algorithm>

constexpr uint64_t MSEC_PER_SEC = 1000;
constexpr size_t COUNTED_MAX = 1000; // messages that are opened to see whether they wait

void agenda::news() {
    has_news_ = true;
    retries_.try_at_once();
}

void agenda::found_no_mailbox() {
    has_looked_ = true;
    has_news_ = false;
}

// The delivery may have been seen before its signal came: that signal is no reminder either.
void agenda::take_news(const std::vector<pending_message> &pending) {
    const int64_t newest = pending.empty() ? 0 : pending.back().id;
    const bool has_delivery = newest > newest_ && has_looked_;
    const bool has_news = std::exchange(has_news_, false);
    if (has_news && !has_delivery && !awaits_signal_)
        remembered_.clear();
    if (has_news || has_delivery)
        awaits_signal_ = has_delivery && !has_news;
    newest_ = std::max(newest, newest_);
    has_looked_ = true;
}

void agenda::forget_gone(const std::vector<pending_message> &pending) {
    const auto is_gone = [&pending](int64_t id) {
        return !std::ranges::binary_search(pending, id, {}, &pending_message::id);
    };
    std::erase_if(remembered_, [&is_gone](const auto &mark) { return is_gone(mark.first); });
    retries_.forget(is_gone);
}

// Returns when the message is due on the desktop; 0 for now.
int64_t agenda::due_at(const pending_message &pending, int64_t remind_seconds) const {
    channel_mark desktop = pending.desktop;
    const auto remembered = remembered_.find(pending.id);
    if (desktop.kind == mark_kind::none && remembered != remembered_.end())
        desktop = {mark_kind::shown, remembered->second};
    return due_time(pending.terminal, desktop, channel::desktop, now(), remind_seconds);
}

agenda::choice agenda::choose(const own_mailbox &box, int64_t remind_seconds, uint64_t now_ms) {
    std::vector<pending_message> pending;
    choice chosen;
    if (inbox_pending(box, now(), &pending) != 0)
        return chosen;
    take_news(pending);
    forget_gone(pending);
    size_t due = 0;
    for (const pending_message &candidate : pending) {
        const int64_t at = due_at(candidate, remind_seconds);
        const uint64_t pause = retries_.wait_ms(candidate.id, now_ms);
        waiting_message found;
        if (at > 0) {
            const auto left = static_cast<uint64_t>(std::max<int64_t>(at - now(), 0));
            chosen.look_again_ms = std::min(chosen.look_again_ms, left * MSEC_PER_SEC);
            continue;
        }
        if (due < COUNTED_MAX &&
            inbox_look(box, candidate.id, now(), &found) != waiting_state::waiting)
            continue;
        due++;
        if (pause > 0)
            chosen.look_again_ms = std::min(chosen.look_again_ms, pause);
        else if (!chosen.next && due <= COUNTED_MAX)
            chosen.next = std::move(found);
    }
    if (due == 0)
        done_ = 0;
    total_ = done_ + due;
    return chosen;
}

size_t agenda::place() const {
    return std::min(done_ + 1, total());
}

size_t agenda::total() const {
    return std::max<size_t>(total_, 1);
}
