#include "tbx/tui/compose_tries.h"

#include "tbx/command.h"
#include "tbx/sent.h"
#include "tbx/status.h"
#include "tbx/tui/dialog.h"
#include "tbx/tui/text.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>

// ---- Which messages -----------------------------------------------------------------------

// Reads the identifiers of all messages, ascending. Returns false when the store cannot be read.
static bool read_ids(std::vector<int64_t> *ids) {
    strlist texts;
    if (sent_list_ids(&texts) != 0 && lookup_of_error(errno) == lookup::failed)
        return false;
    for (const char *text : texts) {
        int64_t id = 0;
        if (parse_id(text, &id))
            ids->push_back(id);
    }
    return true;
}

compose_try compose_begin_try(const compose_form &form) {
    compose_try attempt;
    (void)read_ids(&attempt.ids_before); // without them the contents of each message decide
    attempt.title = send_stored_title(form.fields[COMPOSE_TITLE].value);
    attempt.text = send_stored_text(compose_text_joined(form.text));
    return attempt;
}

static bool came_after(int64_t id, const compose_try &attempt) {
    return !std::ranges::binary_search(attempt.ids_before, id);
}

static bool came_after_any(int64_t id, const std::vector<compose_try> &tries) {
    return std::ranges::any_of(tries, [id](const auto &each) { return came_after(id, each); });
}

static bool is_of_any(const message_record &message, const std::vector<compose_try> &tries) {
    return message.from == current_author() && std::ranges::any_of(tries, [&](const auto &each) {
               return came_after(message.id, each) && message.title == each.title &&
                      message.text == each.text;
           });
}

// ---- What became of them ------------------------------------------------------------------

static std::string what_became_of(const message_summary &summary) {
    const int reached = summary.confirmed + summary.delivered;
    const int total = reached + summary.sent;
    std::string sentence = xasprintf("Message %lld was already sent to %d of %d recipient%s",
                                     static_cast<long long>(summary.message.id), reached, total,
                                     total == 1 ? "" : "s");
    if (summary.revoked)
        sentence += " and has been revoked since";
    else if (summary.expired)
        sentence += " and has expired since";
    else if (reached < total &&
             sent_marker_look_up(summary.message.id, "incomplete") != lookup::absent)
        sentence += "; the others are tried again by themselves";
    return sentence + ".";
}

// Appends what became of a message, if one of the tries created it.
static void tell(int64_t id, const std::vector<compose_try> &tries, strlist *body) {
    message_summary summary;
    confirmation_cache cache(id);
    const lookup loaded = message_summary_load(id, &cache, &summary);
    if (loaded == lookup::failed)
        tui_wrap(xasprintf("Message %lld may be an earlier try of this one; it cannot be read now.",
                           static_cast<long long>(id)),
                 tui_box_max_cols(), body);
    else if (loaded == lookup::found && is_of_any(summary.message, tries))
        tui_wrap(what_became_of(summary), tui_box_max_cols(), body);
}

void compose_tell_tries(const std::vector<compose_try> &tries, strlist *body) {
    if (tries.empty())
        return;
    std::vector<int64_t> ids;
    if (!read_ids(&ids))
        tui_wrap("It is not known whether an earlier try was sent: the store cannot be read now.",
                 tui_box_max_cols(), body);
    for (const int64_t id : ids)
        if (came_after_any(id, tries))
            tell(id, tries, body);
    if (body->count > 0)
        strlist_push_dup(body, "");
}
