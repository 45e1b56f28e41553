// Asks the user's service manager for the present environment of the desktop, without waiting.
#pragma once

#include "user/desktop.h"
#include "user/events.h"

#include <functional>

class environment_query {
public:
    using handler = std::function<void(const environment_list &)>;

    // Each question has one answer; the list is empty if there is no answer within the limit.
    environment_query(sd_event *loop, handler answered);
    environment_query(const environment_query &) = delete;
    environment_query &operator=(const environment_query &) = delete;

    // If there is no service manager, any answer of the bus serves: it shows that the bus works.
    //   bus  null: the answer comes before this returns
    void ask(sd_bus *bus);
    [[nodiscard]] bool is_under_way() const { return static_cast<bool>(call_); }
    // No answer is wanted any more.
    void cancel();

private:
    static int on_answer(sd_bus_message *reply, void *self, sd_bus_error *);
    static int on_limit(sd_event_source *, uint64_t, void *self);
    [[nodiscard]] int send(sd_bus *bus);

    sd_event *loop_;
    handler answered_;
    unique_slot call_;
    unique_source limit_;
};
