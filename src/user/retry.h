// When a message that could not be shown is tried again.
#pragma once

#include <cstdint>
#include <functional>
#include <map>

constexpr uint64_t RETRY_FIRST_MS = 10'000;
constexpr uint64_t RETRY_LONGEST_MS = 3'600'000;

// Times are milliseconds of one clock. Each message has a pause of its own, so that one that ends
// its window holds up no other; each failure doubles it. If the next message fails too, or there is
// no display, the cause is not the message: then all of them wait.
class retry_plan {
public:
    void window_failed(int64_t id, uint64_t now_ms);
    void display_failed(uint64_t now_ms);
    void succeeded(int64_t id);
    // Something has changed: everything may be tried now. The next pauses are no shorter for it.
    void try_at_once();
    // Forgets the messages of which this returns true.
    void forget(const std::function<bool(int64_t)> &is_gone);

    // Returns how long to wait before this message is tried; 0: not at all.
    [[nodiscard]] uint64_t wait_ms(int64_t id, uint64_t now_ms) const;
    // Whether this message was tried already, as far as is known, and could not be shown.
    [[nodiscard]] bool is_retry(int64_t id) const {
        return of_all_.length_ms != 0 || of_message_.contains(id);
    }

private:
    struct pause {
        uint64_t length_ms = 0;
        uint64_t until_ms = 0;
        void begin(uint64_t now_ms);
        [[nodiscard]] uint64_t left_ms(uint64_t now_ms) const;
    };

    pause of_all_;
    std::map<int64_t, pause> of_message_;
    int64_t last_failed_ = 0; // the message whose window failed last; 0 after a success
};
