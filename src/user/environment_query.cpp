#include "user/environment_query.h"

#include "user/notification.h"

#include <cerrno>
#include <utility>

environment_query::environment_query(sd_event *loop, handler answered)
    : loop_(loop), answered_(std::move(answered)) {}

static int new_question(sd_bus *bus, sd_bus_message **message) {
    if (!has_service_manager())
        return sd_bus_message_new_method_call(bus, message, "org.freedesktop.DBus",
                                              "/org/freedesktop/DBus", "org.freedesktop.DBus",
                                              "GetId");
    const int result = sd_bus_message_new_method_call(bus, message, "org.freedesktop.systemd1",
                                                      "/org/freedesktop/systemd1",
                                                      "org.freedesktop.DBus.Properties", "Get");
    if (result < 0)
        return result;
    return sd_bus_message_append(*message, "ss", "org.freedesktop.systemd1.Manager", "Environment");
}

int environment_query::send(sd_bus *bus) {
    if (bus == nullptr)
        return -ENOTCONN;
    sd_bus_message *message = nullptr;
    sd_bus_slot *slot = nullptr;
    int result = new_question(bus, &message);
    const unique_bus_message call(message);
    if (result >= 0)
        result = sd_bus_call_async(bus, &slot, message, on_answer, this, UINT64_MAX);
    call_.reset(slot);
    // The bus's own limits begin only with its first answer.
    if (result >= 0)
        result = set_timer(loop_, &limit_, BUS_ANSWER_LIMIT_MS, on_limit, this);
    return result;
}

void environment_query::ask(sd_bus *bus) {
    cancel();
    if (send(bus) >= 0)
        return;
    cancel();
    answered_({});
}

void environment_query::cancel() {
    call_.reset();
    limit_.reset();
}

int environment_query::on_limit(sd_event_source *, uint64_t, void *self) {
    auto *asking = static_cast<environment_query *>(self);
    asking->call_.reset();
    asking->answered_({});
    return 0;
}

// Returns the list of strings in a variant; empty for any other answer.
static environment_list read_environment(sd_bus_message *reply) {
    environment_list found;
    const char *variable = nullptr;
    if (sd_bus_message_enter_container(reply, 'v', "as") < 0 ||
        sd_bus_message_enter_container(reply, 'a', "s") < 0)
        return found;
    while (sd_bus_message_read(reply, "s", &variable) > 0)
        found.emplace_back(variable);
    return found;
}

int environment_query::on_answer(sd_bus_message *reply, void *self, sd_bus_error *) {
    auto *asking = static_cast<environment_query *>(self);
    const unique_slot finished = std::move(asking->call_); // in use until we return
    asking->limit_.reset();
    const bool has_answer =
        has_service_manager() && sd_bus_message_is_method_error(reply, nullptr) == 0;
    asking->answered_(has_answer ? read_environment(reply) : environment_list());
    return 0;
}
