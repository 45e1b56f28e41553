#include "user/notification.h"

#include "common/core.h"

#include <algorithm>
#include <cstring>

constexpr char SERVICE[] = "org.freedesktop.Notifications";
constexpr char SERVICE_PATH[] = "/org/freedesktop/Notifications";
constexpr char BUS_SERVICE[] = "org.freedesktop.DBus";
constexpr uint8_t URGENCY_CRITICAL = 2;
constexpr uint8_t URGENCY_NORMAL = 1;
constexpr int32_t NEVER_EXPIRES = 0;
constexpr int32_t SERVICE_S_OWN_TIME = -1;
constexpr uint32_t NO_NUMBER = 0;
constexpr int EARLY_ANSWERS_MAX = 3; // of one notification; more come from no person
constexpr size_t TOKEN_MAX_BYTES = 4096;

std::string notification_escape(const std::string &text) {
    std::string escaped;
    for (const char c : text) {
        if (c == '&')
            escaped += "&amp;";
        else if (c == '<')
            escaped += "&lt;";
        else if (c == '>')
            escaped += "&gt;";
        else
            escaped += c;
    }
    return escaped;
}

static sd_bus_slot **slot_of(unique_slot *slot, sd_bus_slot **place) {
    slot->reset();
    *place = nullptr;
    return place;
}

// Sends a call without waiting. The answer, or an error in its place, comes to `handler`.
static bool send_call(sd_bus *bus, unique_slot *slot, sd_bus_message *call,
                      sd_bus_message_handler_t handler, void *userdata, uint64_t limit_ms) {
    sd_bus_slot *place = nullptr;
    const int result = sd_bus_call_async(bus, slot_of(slot, &place), call, handler, userdata,
                                         limit_ms * USEC_PER_MSEC);
    slot->reset(place);
    return result >= 0;
}

static unique_bus_message new_call(sd_bus *bus, const char *service, const char *path,
                                   const char *interface, const char *method) {
    sd_bus_message *call = nullptr;
    if (sd_bus_message_new_method_call(bus, &call, service, path, interface, method) < 0)
        return nullptr;
    return unique_bus_message(call);
}

// ---- Who the service is -------------------------------------------------------------------

void notifier::use(sd_bus *bus) {
    matches_.clear();
    owner_query_.reset();
    call_.reset();
    owner_.clear();
    called_id_ = 0;
    bus_ = bus;
    lost();
    if (bus_ == nullptr)
        return;
    const auto add_match = [this](const char *rule, sd_bus_message_handler_t handler) {
        sd_bus_slot *slot = nullptr;
        if (sd_bus_add_match_async(bus_, &slot, rule, handler, nullptr, this) >= 0)
            matches_.emplace_back(slot);
    };
    add_match("type='signal',sender='org.freedesktop.DBus',interface='org.freedesktop.DBus',"
              "member='NameOwnerChanged',arg0='org.freedesktop.Notifications'",
              on_owner_changed);
    add_match("type='signal',interface='org.freedesktop.Notifications',"
              "path='/org/freedesktop/Notifications'",
              on_signal);
    const unique_bus_message call =
        new_call(bus_, BUS_SERVICE, "/org/freedesktop/DBus", BUS_SERVICE, "GetNameOwner");
    if (call && sd_bus_message_append(call.get(), "s", SERVICE) >= 0)
        (void)send_call(bus_, &owner_query_, call.get(), on_owner, this,
                        BUS_ANSWER_LIMIT_MS); // the first answer of the service names it too
    go_on();
}

int notifier::on_owner(sd_bus_message *reply, void *self, sd_bus_error *) {
    const char *owner = nullptr;
    auto *service = static_cast<notifier *>(self);
    if (sd_bus_message_is_method_error(reply, nullptr) == 0 &&
        sd_bus_message_read(reply, "s", &owner) >= 0 && service->owner_.empty())
        service->owner_is(owner);
    return 0;
}

int notifier::on_owner_changed(sd_bus_message *signal, void *self, sd_bus_error *) {
    const char *name = nullptr;
    const char *before = nullptr;
    const char *owner = nullptr;
    if (sd_bus_message_read(signal, "sss", &name, &before, &owner) >= 0 &&
        strcmp(name, SERVICE) == 0)
        static_cast<notifier *>(self)->owner_is(owner);
    return 0;
}

// A new service does not know the old service's numbers, and reuses them. The wanted notification
// is shown again. A call that the old service has not answered is dropped; but the first service of
// all may have been started by the call.
void notifier::owner_is(const char *owner) {
    if (owner_ == owner)
        return;
    const bool began = owner_.empty() && call_;
    owner_ = owner;
    if (!began)
        call_.reset();
    lost();
    if (!owner_.empty() && !began)
        go_on();
}

// What stood is gone with its service.
void notifier::lost() {
    const int64_t id = standing_id_;
    number_ = NO_NUMBER;
    standing_id_ = 0;
    token_.clear();
    if (!call_)
        tried_id_ = 0;
    tell_if_gone(id);
}

void notifier::tell_if_gone(int64_t id) const {
    if (id != 0)
        tell_.gone(id);
}

// ---- Putting up and taking down -----------------------------------------------------------

void notifier::put_up(notice wanted) {
    wanted_ = std::move(wanted);
    early_answers_ = 0;
    tried_id_ = 0;
    go_on();
}

void notifier::take_down() {
    wanted_ = {};
    tried_id_ = 0;
    go_on();
}

// Makes the next call towards the wanted notification. There is one call at a time: a service that
// hangs gets no other call before it has answered.
void notifier::go_on() {
    if (bus_ == nullptr || call_)
        return;
    if (number_ != NO_NUMBER && standing_id_ != wanted_.id)
        close_number(number_);
    if (wanted_.id == 0 || tried_id_ == wanted_.id)
        return;
    if (standing_id_ == wanted_.id)
        close_number(number_); // put up anew
    tried_id_ = called_id_ = wanted_.id;
    if (!ask_capabilities())
        call_.reset();
}

bool notifier::ask_capabilities() {
    const unique_bus_message call =
        new_call(bus_, SERVICE, SERVICE_PATH, SERVICE, "GetCapabilities");
    return call && send_call(bus_, &call_, call.get(), on_capabilities, this, BUS_ANSWER_LIMIT_MS);
}

// Whether a list of strings holds this one.
static bool holds(sd_bus_message *reply, const char *wanted) {
    const char *text = nullptr;
    bool found = false;
    if (sd_bus_message_enter_container(reply, 'a', "s") < 0)
        return false;
    while (sd_bus_message_read(reply, "s", &text) > 0)
        found = found || strcmp(text, wanted) == 0;
    return found;
}

int notifier::on_capabilities(sd_bus_message *reply, void *self, sd_bus_error *) {
    auto *service = static_cast<notifier *>(self);
    const unique_slot finished = std::move(service->call_); // in use until we return
    const bool is_missing =
        sd_bus_message_is_method_error(reply, "org.freedesktop.DBus.Error.ServiceUnknown") > 0 ||
        sd_bus_message_is_method_error(reply, "org.freedesktop.DBus.Error.NameHasNoOwner") > 0;
    if (service->wanted_.id != service->called_id_)
        service->go_on(); // the message is gone by now
    else if (!is_missing)
        service->notify(sd_bus_message_is_method_error(reply, nullptr) == 0 &&
                        holds(reply, "actions"));
    return 0;
}

using action_list = std::vector<std::pair<std::string, std::string>>;

// Keys hold the message's number, so that a reused number of a notification can never answer
// another message.
static int append_actions(sd_bus_message *call, int64_t id, const action_list &actions) {
    int result = sd_bus_message_open_container(call, 'a', "s");
    for (const auto &[name, label] : actions)
        if (result >= 0)
            result = sd_bus_message_append(call, "ss", (name + ":" + std::to_string(id)).c_str(),
                                           label.c_str());
    return result < 0 ? result : sd_bus_message_close_container(call);
}

// Makes a call of Notify; empty if that fails.
static unique_bus_message new_notify(sd_bus *bus, const notice &shown, const action_list &actions,
                                     uint8_t urgency, int32_t timeout_ms) {
    unique_bus_message call = new_call(bus, SERVICE, SERVICE_PATH, SERVICE, "Notify");
    if (!call ||
        sd_bus_message_append(call.get(), "susss", "Tellbox", NO_NUMBER, "dialog-information",
                              shown.summary.c_str(), notification_escape(shown.body).c_str()) < 0 ||
        append_actions(call.get(), shown.id, actions) < 0 ||
        sd_bus_message_append(call.get(), "a{sv}i", 1, "urgency", "y", urgency, timeout_ms) < 0)
        return nullptr;
    return call;
}

void notifier::notify(bool draws_actions) {
    action_list actions = wanted_.actions;
    if (draws_actions)
        actions.insert(actions.end(), wanted_.drawn_actions.begin(), wanted_.drawn_actions.end());
    offered_.clear();
    for (const auto &[name, label] : actions)
        offered_.push_back(name);
    const unique_bus_message call =
        new_notify(bus_, wanted_, actions, URGENCY_CRITICAL, NEVER_EXPIRES);
    if (!call || !send_call(bus_, &call_, call.get(), on_notified, this, NOTIFY_KEPT_MS))
        call_.reset();
}

void notifier::say(const notice &news) {
    if (bus_ == nullptr)
        return;
    const unique_bus_message call = new_notify(bus_, news, {}, URGENCY_NORMAL, SERVICE_S_OWN_TIME);
    if (call && sd_bus_message_set_expect_reply(call.get(), 0) >= 0)
        (void)sd_bus_send(bus_, call.get(), nullptr); // only the notification is lost
}

int notifier::on_notified(sd_bus_message *reply, void *self, sd_bus_error *) {
    auto *service = static_cast<notifier *>(self);
    const unique_slot finished = std::move(service->call_); // in use until we return
    const char *sender = sd_bus_message_get_sender(reply);
    uint32_t number = NO_NUMBER;
    if (sd_bus_message_is_method_error(reply, nullptr) == 0 &&
        sd_bus_message_read(reply, "u", &number) >= 0 && number != NO_NUMBER && sender != nullptr &&
        (service->owner_.empty() || service->owner_ == sender)) {
        service->owner_ = sender; // the sender of the answer owns the name
        service->number_ = number;
        service->standing_id_ = service->called_id_;
        service->standing_since_ms_ = monotonic_ms();
        if (service->standing_id_ == service->wanted_.id) {
            service->tried_id_ = service->wanted_.id;
            service->tell_.standing(service->standing_id_);
        }
    }
    service->go_on();
    return 0;
}

void notifier::close_number(uint32_t number) {
    number_ = NO_NUMBER;
    standing_id_ = 0;
    token_.clear();
    const unique_bus_message call =
        new_call(bus_, SERVICE, SERVICE_PATH, SERVICE, "CloseNotification");
    if (!call || sd_bus_message_append(call.get(), "u", number) < 0 ||
        sd_bus_message_set_auto_start(call.get(), 0) < 0 ||
        sd_bus_message_set_expect_reply(call.get(), 0) < 0)
        return;
    (void)sd_bus_send(bus_, call.get(), nullptr); // if it stays, its text is still true
}

// ---- What the user chooses ----------------------------------------------------------------

int notifier::on_signal(sd_bus_message *signal, void *self, sd_bus_error *) {
    auto *service = static_cast<notifier *>(self);
    const char *sender = sd_bus_message_get_sender(signal);
    if (sender != nullptr && !service->owner_.empty() && service->owner_ == sender)
        service->take_signal(signal);
    return 0;
}

// Splits "NAME:ID". Returns false if it is for another message.
static bool split_action(std::string_view key, int64_t id, std::string *name) {
    const size_t colon = key.rfind(':');
    if (colon == std::string_view::npos || key.substr(colon + 1) != std::to_string(id))
        return false;
    *name = key.substr(0, colon);
    return true;
}

void notifier::take_signal(sd_bus_message *signal) {
    const char *member = sd_bus_message_get_member(signal);
    const char *text = nullptr;
    uint32_t number = NO_NUMBER;
    uint32_t reason = 0;
    if (sd_bus_message_has_signature(signal, "us") > 0) {
        if (sd_bus_message_read(signal, "us", &number, &text) < 0 || number != number_ ||
            number == NO_NUMBER)
            return;
        std::string action;
        if (strcmp(member, "ActivationToken") == 0 && strlen(text) <= TOKEN_MAX_BYTES) {
            token_ = text;
        } else if (strcmp(member, "ActionInvoked") == 0 &&
                   split_action(text, standing_id_, &action)) {
            action_invoked(action);
        }
    } else if (strcmp(member, "NotificationClosed") == 0 &&
               sd_bus_message_read(signal, "uu", &number, &reason) >= 0 && number == number_ &&
               number != NO_NUMBER) {
        number_ = NO_NUMBER; // the message still waits
        token_.clear();
        tell_if_gone(std::exchange(standing_id_, 0));
    }
}

void notifier::action_invoked(const std::string &name) {
    const std::string token = std::exchange(token_, {});
    if (std::ranges::find(offered_, name) == offered_.end())
        return;
    const bool is_answer = std::ranges::find(wanted_.answers, name) != wanted_.answers.end();
    if (is_answer && monotonic_ms() - standing_since_ms_ < NOTICE_GUARD_MS) {
        if (++early_answers_ <= EARLY_ANSWERS_MAX) {
            tried_id_ = 0; // services close what was answered: it is put up again
            go_on();
        }
        return;
    }
    tell_.chosen(standing_id_, name, token);
}
