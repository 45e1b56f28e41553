#include "tbx/recipient_state.h"

#include "tbx/accounts.h"

#include <utility>

confirmation_cache::confirmation_cache(int64_t only_id)
    : id_lines_(std::to_string(only_id) + "\n") {}

int confirmation_cache::read(const char *user, confirmation_list *list) {
    resolved_user account;
    const lookup found = user_lookup_by_name(user, &account);
    if (found != lookup::found)
        return found == lookup::absent ? 0 : -1;
    if (!id_lines_) {
        strlist ids;
        if (sent_list_ids(&ids) != 0) // a part must not be taken for all
            return -1;
        id_lines_ = strlist_lines(ids);
    }
    return mailbox_read_confirmations(account, *id_lines_, list);
}

const confirmation_list *confirmation_cache::find(const char *user) {
    const auto known = users_.find(std::string_view(user));
    if (known != users_.end())
        return &known->second;
    confirmation_list list;
    if (read(user, &list) != 0)
        return nullptr;
    return &(users_[user] = std::move(list));
}

// Splits "SECONDS DETAIL"; a time that is no number counts as 0.
static void split_ack(std::string_view ack, recipient_status *out) {
    const size_t blank = ack.find(' ');
    if (!parse_id(ack.substr(0, blank), &out->time))
        out->time = 0;
    if (blank != std::string_view::npos)
        out->detail = ack.substr(blank + 1);
}

// Changes the state of a recipient who has the message by the confirmation in the mailbox.
static void apply_ack(std::string_view ack, const message_record &message, int64_t cutoff,
                      recipient_status *out) {
    recipient_status confirmed;
    split_ack(ack, &confirmed);
    if (message.expires != 0 && message.expires < confirmed.time) {
        out->late = true;
        return;
    }
    if (cutoff != 0 && cutoff < confirmed.time)
        return;
    confirmed.state = delivery_state::confirmed;
    *out = std::move(confirmed);
}

int recipient_state(const char *user, int64_t id, const delivery_table &delivery,
                    const message_record &message, int64_t cutoff, confirmation_cache *cache,
                    recipient_status *out) {
    *out = {};
    if (delivery_find(delivery, user) < 0)
        return 0;
    out->state = delivery_state::delivered;
    const confirmation_list *list = cache->find(user);
    if (list == nullptr)
        return -1;
    const confirmation_entry *entry = confirmation_find(*list, id);
    if (entry != nullptr && entry->ack)
        apply_ack(*entry->ack, message, cutoff, out);
    return 0;
}
