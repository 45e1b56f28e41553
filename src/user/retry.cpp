#include "user/retry.h"

#include <algorithm>

void retry_plan::pause::begin(uint64_t now_ms) {
    length_ms = std::clamp(length_ms * 2, RETRY_FIRST_MS, RETRY_LONGEST_MS);
    until_ms = now_ms + length_ms;
}

uint64_t retry_plan::pause::left_ms(uint64_t now_ms) const {
    return until_ms > now_ms ? until_ms - now_ms : 0;
}

void retry_plan::window_failed(int64_t id, uint64_t now_ms) {
    of_message_[id].begin(now_ms);
    if (last_failed_ != 0 && last_failed_ != id)
        of_all_.begin(now_ms);
    last_failed_ = id;
}

void retry_plan::display_failed(uint64_t now_ms) {
    of_all_.begin(now_ms);
}

void retry_plan::succeeded(int64_t id) {
    of_message_.erase(id);
    of_all_ = {};
    last_failed_ = 0;
}

void retry_plan::try_at_once() {
    of_all_.until_ms = 0;
    for (auto &[id, own] : of_message_)
        own.until_ms = 0;
}

void retry_plan::forget(const std::function<bool(int64_t)> &is_gone) {
    std::erase_if(of_message_, [&is_gone](const auto &entry) { return is_gone(entry.first); });
}

uint64_t retry_plan::wait_ms(int64_t id, uint64_t now_ms) const {
    const auto own = of_message_.find(id);
    const uint64_t left = of_all_.left_ms(now_ms);
    return own == of_message_.end() ? left : std::max(left, own->second.left_ms(now_ms));
}
