// Watches the own mailbox for changes.
#pragma once

#include "user/events.h"

#include <sys/inotify.h>

#include <functional>
#include <string>
#include <vector>

class mailbox_watch {
public:
    mailbox_watch(sd_event *loop, std::function<void()> changed);
    mailbox_watch(const mailbox_watch &) = delete;
    mailbox_watch &operator=(const mailbox_watch &) = delete;

    // Watches what exists now: the folders of the mailbox or, while there is no mailbox, the folder
    // in which it will appear. Cheap if nothing has changed. A failure is ignored: the caller looks
    // from time to time anyway.
    void arm(const std::string &owner);

private:
    struct folder {
        std::string path;
        unique_source source;
    };

    static int on_event(sd_event_source *source, const inotify_event *event, void *self);
    void arm_at(const std::vector<std::string> &wanted);
    void forget(sd_event_source *source);
    void watch(const std::string &path);

    sd_event *loop_;
    std::function<void()> tell_changed_;
    std::vector<folder> folders_;
};
