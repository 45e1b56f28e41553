#include "tbx/command.h"

#include "common/core.h"
#include "common/event.h"
#include "common/message.h"
#include "tbx/accounts.h"
#include "tbx/agent.h"
#include "tbx/mailbox.h"
#include "tbx/sent.h"
#include "tbx/status.h"

#include <algorithm>

static message_record load_due_message(int64_t id, const char *id_text) {
    message_record message = load_message_or_die(id, id_text);
    if (has_marker_or_die(id, "revoked"))
        die("message %lld has been revoked: nobody to remind", static_cast<long long>(id));
    if (message_is_expired(message, now()))
        die("message %lld has expired: nobody to remind", static_cast<long long>(id));
    return message;
}

// Whether the user will be shown the message again.
static bool remind_user(const std::string &name, int64_t id) {
    resolved_user user;
    if (user_lookup_by_name(name.c_str(), &user) != lookup::found || !mailbox_reset_shown(user, id))
        return false;
    agent_start(user);
    return true;
}

static bool is_confirmed(const recipient_line &line) {
    return line.state == delivery_state::confirmed;
}

static void report(int64_t id, int reminded, const std::vector<recipient_line> &lines) {
    const bool all_confirmed =
        !lines.empty() && std::all_of(lines.begin(), lines.end(), is_confirmed);
    if (reminded == 1)
        printf("Message %lld: 1 recipient reminded.\n", static_cast<long long>(id));
    else if (reminded == 0 && all_confirmed)
        printf("Message %lld: everyone has already confirmed, nobody to remind.\n",
               static_cast<long long>(id));
    else
        printf("Message %lld: %d recipients reminded.\n", static_cast<long long>(id), reminded);
}

void cmd_remind(const char *id_text) {
    const int64_t id = parse_message_id(id_text);
    const message_record message = load_due_message(id, id_text);
    const std::vector<recipient_line> lines = recipient_state_lines_or_die(id, message);

    int reminded = 0;
    for (const recipient_line &line : lines)
        if (line.state == delivery_state::delivered && remind_user(line.user, id))
            reminded++;
    event_log("REMINDED", id, /*user=*/nullptr, /*channel=*/nullptr,
              std::to_string(reminded).c_str(), current_author());
    report(id, reminded, lines);
}
