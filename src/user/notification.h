// The desktop's notification service. If it is missing, hangs, restarts or lies, only the
// notification is lost.
#pragma once

#include "user/events.h"

#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

constexpr uint64_t BUS_ANSWER_LIMIT_MS = 3000;
// A call that takes longer than the limit is not repeated before this time is over.
constexpr uint64_t NOTIFY_KEPT_MS = 600'000;

// An answer that comes sooner was not meant for what has just appeared.
constexpr int64_t NOTICE_GUARD_MS = 700;

// What a notification says of one message.
struct notice {
    int64_t id = 0;
    std::string summary; // services show it as it is
    std::string body;    // plain text too: it is escaped before it is sent
    // Names of actions and their labels, for every service; the message's number is added to the
    // names before they are sent.
    std::vector<std::pair<std::string, std::string>> actions;
    // More actions, for a service that reports that it shows actions.
    std::vector<std::pair<std::string, std::string>> drawn_actions;
    // Names of those of them that answer: they count only after the guard's time.
    std::vector<std::string> answers;
};

// Returns `text` for the body of a notification, with markup characters escaped.
[[nodiscard]] std::string notification_escape(const std::string &text);

class notifier {
public:
    struct handlers {
        // The user has chosen an action that the message's notification offered; `token` may be
        // empty.
        std::function<void(int64_t id, const std::string &action, const std::string &token)> chosen;
        // The service has accepted the notification.
        std::function<void(int64_t id)> standing;
        // It is no longer there: the user or the service has closed it, or the service is gone.
        std::function<void(int64_t id)> gone;
    };

    explicit notifier(handlers tell) : tell_(std::move(tell)) {}
    notifier(const notifier &) = delete;
    notifier &operator=(const notifier &) = delete;

    // Uses this bus from now on; null: there is none at the moment. The caller keeps the bus until
    // the next call.
    void use(sd_bus *bus);

    // Shows this notification in place of the earlier one.
    void put_up(notice wanted);
    // Closes the notification.
    void take_down();
    // Shows a notification that nobody waits for and that goes by itself. Its actions are ignored.
    void say(const notice &news);
    // The message whose notification is wanted; 0 for none.
    [[nodiscard]] int64_t wanted() const { return wanted_.id; }
    // Whether the service shows the notification of this message.
    [[nodiscard]] bool stands(int64_t id) const { return standing_id_ == id; }

private:
    static int on_owner(sd_bus_message *reply, void *self, sd_bus_error *);
    static int on_owner_changed(sd_bus_message *signal, void *self, sd_bus_error *);
    static int on_signal(sd_bus_message *signal, void *self, sd_bus_error *);
    static int on_capabilities(sd_bus_message *reply, void *self, sd_bus_error *);
    static int on_notified(sd_bus_message *reply, void *self, sd_bus_error *);

    void owner_is(const char *owner);
    void go_on();
    [[nodiscard]] bool ask_capabilities();
    void notify(bool draws_actions);
    void close_number(uint32_t number);
    void take_signal(sd_bus_message *signal);
    void action_invoked(const std::string &name);
    void lost();
    void tell_if_gone(int64_t id) const;

    handlers tell_;
    sd_bus *bus_ = nullptr;
    std::vector<unique_slot> matches_;
    unique_slot owner_query_;
    unique_slot call_;  // the one call that is under way
    std::string owner_; // unique name of the service; empty if there is none
    notice wanted_;
    int64_t tried_id_ = 0;    // the message that the service was last asked to show
    int64_t called_id_ = 0;   // the message of the call that is under way
    int64_t standing_id_ = 0; // the message of `number_`
    uint32_t number_ = 0;     // of the notification that is shown; 0 for none
    int64_t standing_since_ms_ = 0;
    int early_answers_ = 0;            // to the wanted notification, within the guard's time
    std::vector<std::string> offered_; // names of the actions of the last call
    std::string token_;                // of the activation that comes before an action
};
