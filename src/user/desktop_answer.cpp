#include "user/desktop_answer.h"

#include "common/core.h"
#include "common/event.h"
#include "user/answer.h"
#include "user/texts.h"

#include <cerrno>
#include <cstring>

using kind = answer_outcome::kind;

static answer_outcome failed_because(const char *reason) {
    return {kind::failed, reason};
}

static answer_outcome postpone(own_mailbox *box, int64_t id) {
    if (answer_postpone(box, id, channel::desktop) == 0 || errno == EALREADY || errno == ENOENT)
        return {}; // answered elsewhere or withdrawn: nothing is left to put off
    return failed_because(strerror(errno));
}

static answer_outcome confirm(own_mailbox *box, int64_t id) {
    const confirmation result = answer_confirm(box, id, channel::desktop);
    switch (result.result) {
    case confirm_result::confirmed:
    case confirm_result::already:
        return {};
    case confirm_result::withdrawn:
        return {kind::withdrawn, {}};
    case confirm_result::not_a_file:
        return failed_because(_("something else stands in its place"));
    case confirm_result::failed:
        break;
    }
    return failed_because(strerror(result.error));
}

// The mailbox cannot be opened. A mailbox that is gone took the message along.
static answer_outcome without_mailbox(const std::string &owner, int64_t id, desktop_answer given,
                                      bool is_gone, const char *reason) {
    if (is_gone)
        return {given == desktop_answer::read ? kind::withdrawn : kind::recorded, {}};
    if (given == desktop_answer::read)
        event_log("CONFIRMATION_FAILED", id, owner.c_str(), channel_name(channel::desktop), reason,
                  /*author=*/nullptr);
    return failed_because(reason);
}

static answer_outcome record(const std::string &owner, int64_t id, desktop_answer given) {
    own_mailbox box;
    const mailbox_look look = mailbox_open(owner, &box);
    if (look != mailbox_look::found)
        return without_mailbox(owner, id, given, look == mailbox_look::absent, strerror(errno));
    [[maybe_unused]] const mailbox_lock lock = mailbox_lock::take(box, /*patience_ms=*/0);
    return given == desktop_answer::later ? postpone(&box, id) : confirm(&box, id);
}

answer_outcome record_answer(const std::string &owner, int64_t id, desktop_answer given) {
    answer_outcome outcome = record(owner, id, given);
    if (outcome.what == kind::failed)
        warn(_("the answer to message %lld could not be saved: %s"), static_cast<long long>(id),
             outcome.reason.c_str());
    return outcome;
}
