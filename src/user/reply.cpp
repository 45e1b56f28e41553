// tellbox read and tellbox later: the two answers from the command line.
#include "user/command.h"
#include "user/texts.h"

#include <cerrno>
#include <cstring>

// Answers one message and tells the user.
using answer_function = int (*)(own_mailbox *box, int64_t id);

// Whether there is such a message to answer. If not, prints a diagnostic. A message that was
// answered already counts: the answer function says so.
static bool is_answerable(const own_mailbox &box, int64_t id, bool expired_too) {
    waiting_message message;
    const waiting_state state = inbox_look(box, id, now(), &message);
    switch (state) {
    case waiting_state::waiting:
    case waiting_state::answered:
        return true;
    case waiting_state::expired:
        if (!expired_too)
            warn(_("message %lld has expired"), static_cast<long long>(id));
        return expired_too;
    case waiting_state::absent:
        break;
    case waiting_state::failed:
        warn_unreadable(id, errno);
        return false;
    }
    if (answer_read(box, id).state != answer_state::none)
        return true;
    warn_no_such_message(id);
    return false;
}

static int answer_each(own_mailbox *box, const arguments &ids, answer_function answer,
                       bool expired_too) {
    int status = 0;
    for (const std::string &text : ids) {
        int64_t id = 0;
        const bool answered = parse_identifier(text, &id) && is_answerable(*box, id, expired_too) &&
                              answer(box, id) == 0;
        status |= answered ? 0 : 1;
    }
    return status;
}

static void warn_several(const std::vector<waiting_message> &waiting) {
    std::string ids;
    for (const waiting_message &message : waiting)
        ids += (ids.empty() ? "" : ", ") + std::to_string(message.id);
    warn(_("several messages are waiting, say which one: %s"), ids.c_str());
}

// Answers the one message that waits, unless the user has never seen it: then it is shown.
static int answer_the_one(own_mailbox *box, answer_function answer) {
    std::vector<waiting_message> waiting;
    if (inbox_waiting(*box, now(), &waiting) != 0)
        die("%s: %s", box->path.c_str(), strerror(errno));
    if (waiting.empty()) {
        print_nothing_waits();
        return 1;
    }
    if (waiting.size() > 1) {
        warn_several(waiting);
        return 1;
    }
    const waiting_message &one = waiting.front();
    if (one.terminal.kind != mark_kind::none || one.desktop.kind != mark_kind::none)
        return answer(box, one.id);
    if (show_message(one.message, how_to_answer_sentence(one.id)) != shown_in::nowhere)
        note_shown(box, one.id);
    return 1;
}

int cmd_read(const arguments &ids) {
    own_mailbox box = open_own_mailbox_or_die();
    if (ids.empty())
        return answer_the_one(&box, confirm_and_tell);
    return answer_each(&box, ids, confirm_and_tell, /*expired_too=*/true);
}

int cmd_later(const arguments &ids) {
    own_mailbox box = open_own_mailbox_or_die();
    if (ids.empty())
        return answer_the_one(&box, postpone_and_tell);
    return answer_each(&box, ids, postpone_and_tell, /*expired_too=*/false);
}
