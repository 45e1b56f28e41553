// Watches the user's login sessions: the agent lives as long as there is a desktop.
#pragma once

#include "user/events.h"

#include <systemd/sd-login.h>

#include <functional>
#include <string>
#include <vector>

struct login_monitor_closer {
    void operator()(sd_login_monitor *monitor) const { sd_login_monitor_unref(monitor); }
};

class session_watch {
public:
    // `changed` is called when some session of this machine has changed.
    session_watch(sd_event *loop, std::function<void()> changed);
    session_watch(const session_watch &) = delete;
    session_watch &operator=(const session_watch &) = delete;

    // Where there is no login manager, or it cannot be watched, nothing is reported.
    void start();

    enum class state { unchanged, changed, none_left };
    // Looks at the user's graphical sessions, and compares them with the last look. Without a
    // service manager, or if the login manager does not answer, they are unchanged.
    [[nodiscard]] state look();

private:
    static int on_event(sd_event_source *, int, uint32_t, void *self);

    sd_event *loop_;
    std::function<void()> tell_changed_;
    std::unique_ptr<sd_login_monitor, login_monitor_closer> monitor_;
    unique_source source_;
    std::vector<std::string> known_; // sessions at the last look
};
