// Prevents accidental answers: a user who types or clicks elsewhere must not answer a window that
// has just appeared.
#pragma once

#include <cstdint>
#include <optional>

// How long a person needs to notice what has appeared on the screen.
constexpr int64_t GUARD_MS = 700;

// Times are milliseconds of a monotonic clock.
class accident_guard {
public:
    void first_frame(int64_t now) { first_frame_ = now; }
    // The window got the keyboard's focus.
    void focused(int64_t now) { quiet_since_ = now; }
    // The user types: a character arrived that is no answer.
    void typed(int64_t now) { quiet_since_ = now; }

    [[nodiscard]] bool allows(int64_t now) const {
        return first_frame_ && now - *first_frame_ >= GUARD_MS;
    }
    [[nodiscard]] bool allows_keys(int64_t now) const {
        return allows(now) && (!quiet_since_ || now - *quiet_since_ >= GUARD_MS);
    }

private:
    std::optional<int64_t> first_frame_;
    std::optional<int64_t> quiet_since_;
};
