#include "user/watch.h"

#include "common/core.h"
#include "common/environment.h"
#include "user/inbox.h"

#include <algorithm>

constexpr uint32_t EVENTS = IN_CREATE | IN_CLOSE_WRITE | IN_MOVE | IN_DELETE | IN_DELETE_SELF |
                            IN_MOVE_SELF | IN_ONLYDIR | IN_DONT_FOLLOW;
// After these events the watched folder is gone; one of the same name is another folder.
constexpr uint32_t LOST_EVENTS = IN_IGNORED | IN_DELETE_SELF | IN_MOVE_SELF | IN_UNMOUNT;

constexpr int ROUNDS_MAX = 5; // other programs may make and remove folders all the time

mailbox_watch::mailbox_watch(sd_event *loop, std::function<void()> changed)
    : loop_(loop), tell_changed_(std::move(changed)) {}

static std::vector<std::string> wanted_folders(const std::string &owner) {
    const std::string mailbox = mailbox_path(owner);
    if (is_directory(mailbox.c_str()) != 0)
        return {mailbox, mailbox + "/inbox", mailbox + "/acks", mailbox + "/state"};
    const std::string users = xasprintf("%s/users", var_dir());
    return {is_directory(users.c_str()) != 0 ? users : var_dir()};
}

// A folder can appear between the look for it and the watch on its parent. So this looks again
// until nothing is new.
void mailbox_watch::arm(const std::string &owner) {
    std::vector<std::string> wanted = wanted_folders(owner);
    std::vector<std::string> armed;
    for (int round = 0; round < ROUNDS_MAX && armed != wanted; round++) {
        armed = std::move(wanted);
        arm_at(armed);
        wanted = wanted_folders(owner);
    }
}

void mailbox_watch::arm_at(const std::vector<std::string> &wanted) {
    std::erase_if(folders_, [&wanted](const folder &watched) {
        return std::ranges::find(wanted, watched.path) == wanted.end();
    });
    for (const std::string &path : wanted)
        if (std::ranges::find(folders_, path, &folder::path) == folders_.end())
            watch(path);
}

void mailbox_watch::watch(const std::string &path) {
    sd_event_source *source = nullptr;
    if (sd_event_add_inotify(loop_, &source, path.c_str(), EVENTS, on_event, this) >= 0)
        folders_.push_back({path, unique_source(source)});
}

void mailbox_watch::forget(sd_event_source *source) {
    std::erase_if(folders_,
                  [source](const folder &watched) { return watched.source.get() == source; });
}

int mailbox_watch::on_event(sd_event_source *source, const inotify_event *event, void *self) {
    auto *watching = static_cast<mailbox_watch *>(self);
    if ((event->mask & LOST_EVENTS) != 0)
        watching->forget(source);
    watching->tell_changed_();
    return 0;
}
