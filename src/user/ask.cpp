// tellbox alone, on a terminal: asks about each waiting message in turn.
#include "user/command.h"
#include "user/question.h"
#include "user/texts.h"

#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace {

// What became of one message.
enum class asked_state { done, failed, stopped };

} // namespace

// A descriptor that becomes readable when something changes in the mailbox; empty if there is none,
// and then the question looks every second.
static unique_fd watch_mailbox(const own_mailbox &box) {
    constexpr uint32_t CHANGES = IN_CREATE | IN_DELETE | IN_MOVED_TO | IN_MOVED_FROM;
    unique_fd watch(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    if (!watch)
        return watch;
    for (const char *folder : {"inbox", "acks"})
        // Without it the question notices a change a second later.
        (void)inotify_add_watch(watch.get(), mailbox_path(box.owner, folder).c_str(), CHANGES);
    return watch;
}

// Looks at a message again. A mailbox that is gone holds no message; if it cannot be opened, the
// look has failed.
static waiting_state look_again(own_mailbox *box, int64_t id, waiting_message *message) {
    switch (reopen_mailbox(box)) {
    case mailbox_look::found:
        return inbox_look(*box, id, now(), message);
    case mailbox_look::absent:
        return waiting_state::absent;
    case mailbox_look::failed:
        break;
    }
    return waiting_state::failed;
}

// Whether the message has stopped waiting. A look that fails counts as no.
static bool is_over(own_mailbox *box, int64_t id) {
    waiting_message message;
    const waiting_state state = look_again(box, id, &message);
    return state != waiting_state::waiting && state != waiting_state::failed;
}

// Prints why a message stopped waiting while it was on the screen. Returns false if that cannot be
// determined.
static bool tell_what_happened(own_mailbox *box, int64_t id) {
    waiting_message message;
    const waiting_state state = look_again(box, id, &message);
    const int error = errno;
    const answer_record answer = answer_read(*box, id);
    const auto number = static_cast<long long>(id);
    if (answer.state == answer_state::answered) {
        printf(_("Message %lld was confirmed %s.\n"), number, answer_moment(answer).c_str());
    } else if (answer.state == answer_state::not_a_file) {
        warn_not_a_file(*box, id);
    } else if (state == waiting_state::expired) {
        printf(_("Message %lld has expired.\n"), number);
    } else if (state == waiting_state::absent) {
        printf(_("Message %lld has been withdrawn.\n"), number);
    } else {
        warn_unreadable(id, error);
        return false;
    }
    return true;
}

static asked_state act_on(reply answer, own_mailbox *box, int64_t id) {
    switch (answer) {
    case reply::read:
        return confirm_and_tell(box, id) == 0 ? asked_state::done : asked_state::failed;
    case reply::later:
        return postpone_and_tell(box, id) == 0 ? asked_state::done : asked_state::failed;
    case reply::dropped:
        return tell_what_happened(box, id) ? asked_state::done : asked_state::failed;
    case reply::unseen:
        warn("%s: %s", _("standard output"), strerror(errno));
        break;
    case reply::quit:
    case reply::aborted:
        break;
    }
    return asked_state::stopped;
}

static asked_state ask_about(own_mailbox *box, const waiting_message &message, bool *aborted) {
    const shown_in place = show_message(message.message, "");
    if (place == shown_in::nowhere) {
        *aborted = true;
        return asked_state::stopped;
    }
    note_shown(box, message.id);
    // A pager leaves part of the message on the screen, or nothing.
    const std::string headline = message_headline_of(message.message);
    if (place == shown_in::pager)
        printf("%s\n", headline.c_str());
    const unique_fd watch = watch_mailbox(*box);
    const reply answer = ask_question({.text = _("I have read it [r]   Later [l]   Quit [q]"),
                                       .subject = headline,
                                       .takes_lines = is_dumb_terminal(),
                                       .is_over = [&] { return is_over(box, message.id); },
                                       .watched = watch.get()});
    *aborted = answer == reply::aborted || answer == reply::unseen;
    return act_on(answer, box, message.id);
}

// Finds the first waiting message after `last`. So messages that arrive meanwhile are asked about
// too. Names what cannot be read or answered, sets `status` to 1 then, and goes on.
static bool next_waiting(own_mailbox *box, int64_t last, waiting_message *next, int *status) {
    std::vector<int64_t> ids;
    const mailbox_look look = reopen_mailbox(box);
    if (look == mailbox_look::absent)
        return false;
    if (look == mailbox_look::failed || folder_ids(box->inbox, &ids) != 0)
        die("%s: %s", box->path.c_str(), strerror(errno));
    return std::ranges::any_of(ids, [&](int64_t id) {
        if (id <= last)
            return false;
        const waiting_state state = inbox_look(*box, id, now(), next);
        if (state == waiting_state::failed) {
            warn_unreadable(id, errno);
            *status = 1;
        } else if (state == waiting_state::answered &&
                   answer_read(*box, id).state == answer_state::not_a_file) {
            warn_not_a_file(*box, id);
            *status = 1;
        }
        return state == waiting_state::waiting;
    });
}

static int ask_in_turn(own_mailbox *box) {
    int status = 0;
    bool aborted = false;
    bool any = false;
    waiting_message message;
    while (next_waiting(box, message.id, &message, &status)) {
        if (any)
            printf("\n");
        any = true;
        const asked_state state = ask_about(box, message, &aborted);
        status |= state == asked_state::failed || aborted ? 1 : 0;
        if (is_asked_to_end())
            return 1;
        if (state == asked_state::stopped)
            return status;
    }
    if (!any && status == 0)
        print_nothing_waits();
    return status;
}

int cmd_ask() {
    if (!is_on_terminal())
        return cmd_list();
    own_mailbox box = open_own_mailbox_or_die();
    if (!box.folder) {
        print_nothing_waits();
        return 0;
    }
    return ask_in_turn(&box);
}
