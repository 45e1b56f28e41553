#include "user/sessions.h"

#include "user/desktop.h"

#include <unistd.h>

#include <utility>

session_watch::session_watch(sd_event *loop, std::function<void()> changed)
    : loop_(loop), tell_changed_(std::move(changed)) {}

void session_watch::start() {
    sd_login_monitor *monitor = nullptr;
    if (!has_service_manager() || sd_login_monitor_new("session", &monitor) < 0)
        return;
    monitor_.reset(monitor);
    const int events = sd_login_monitor_get_events(monitor);
    sd_event_source *source = nullptr;
    if (events >= 0 && sd_event_add_io(loop_, &source, sd_login_monitor_get_fd(monitor),
                                       static_cast<uint32_t>(events), on_event, this) >= 0)
        source_.reset(source);
}

int session_watch::on_event(sd_event_source *, int, uint32_t, void *self) {
    auto *watching = static_cast<session_watch *>(self);
    (void)sd_login_monitor_flush(watching->monitor_.get()); // the next look finds what happened
    watching->tell_changed_();
    return 0;
}

session_watch::state session_watch::look() {
    if (!has_service_manager())
        return state::unchanged;
    std::vector<std::string> found;
    if (!desktop_sessions(geteuid(), &found))
        return state::unchanged;
    if (found.empty())
        return state::none_left;
    return std::exchange(known_, found) == found ? state::unchanged : state::changed;
}
