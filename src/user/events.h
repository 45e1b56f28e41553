// Owners for objects of the event loop and the bus, and timers.
#pragma once

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <cstdint>
#include <ctime>
#include <memory>

struct loop_releaser {
    void operator()(sd_event *loop) const { sd_event_unref(loop); }
};
struct source_releaser {
    void operator()(sd_event_source *source) const { sd_event_source_disable_unref(source); }
};
struct slot_releaser {
    void operator()(sd_bus_slot *slot) const { sd_bus_slot_unref(slot); }
};
struct bus_closer {
    // Does not wait for the bus: what could not be sent at once is lost.
    void operator()(sd_bus *bus) const { sd_bus_close_unref(bus); }
};
struct bus_message_releaser {
    void operator()(sd_bus_message *message) const { sd_bus_message_unref(message); }
};

using unique_loop = std::unique_ptr<sd_event, loop_releaser>;
using unique_source = std::unique_ptr<sd_event_source, source_releaser>;
using unique_slot = std::unique_ptr<sd_bus_slot, slot_releaser>;
using unique_bus = std::unique_ptr<sd_bus, bus_closer>;
using unique_bus_message = std::unique_ptr<sd_bus_message, bus_message_releaser>;

constexpr uint64_t USEC_PER_MSEC = 1000;

// The time of a clock in milliseconds.
[[nodiscard]] inline uint64_t clock_ms(clockid_t clock) {
    timespec time = {};
    (void)clock_gettime(clock, &time); // cannot fail: the clock exists
    return static_cast<uint64_t>(time.tv_sec) * 1000 +
           static_cast<uint64_t>(time.tv_nsec) / 1'000'000;
}

// Calls `handler` once, `milliseconds` from now; an earlier setting of the timer is cancelled. The
// timer can be early or late by a millisecond. Returns 0, or a negative errno.
//   clock  CLOCK_MONOTONIC stands still while the machine sleeps, CLOCK_BOOTTIME does not
[[nodiscard]] inline int set_timer(sd_event *loop, unique_source *timer, uint64_t milliseconds,
                                   sd_event_time_handler_t handler, void *userdata,
                                   clockid_t clock = CLOCK_MONOTONIC) {
    sd_event_source *source = nullptr;
    const int result = sd_event_add_time_relative(
        loop, &source, clock, milliseconds * USEC_PER_MSEC, USEC_PER_MSEC, handler, userdata);
    timer->reset(source);
    return result;
}
