#include "tbx/status.h"

#include "tbx/command.h"

#include <cerrno>
#include <cstring>

// ---- Summary ------------------------------------------------------------------------------

static void count_state(delivery_state state, message_summary *summary) {
    switch (state) {
    case delivery_state::confirmed:
        summary->confirmed++;
        break;
    case delivery_state::delivered:
        summary->delivered++;
        break;
    case delivery_state::sent:
        summary->sent++;
        break;
    }
}

// Who the recipients are and who of them has the message. False, with errno, when that could
// not be read for want of resources; a missing or foreign file otherwise names nobody.
static bool read_recipients(int64_t id, strlist *recipients, delivery_table *delivery) {
    if (sent_read_recipients(id, recipients) != 0 && is_resource_error(errno))
        return false;
    return sent_read_delivery(id, delivery) == 0 || !is_resource_error(errno);
}

// False when a state could not be read.
static bool count_recipients(int64_t id, const strlist &recipients, const delivery_table &delivery,
                             message_summary *summary) {
    for (const char *user : recipients) {
        recipient_status status;
        if (!recipient_state(user, id, delivery, summary->message, summary->revoked_at, &status))
            return false;
        count_state(status.state, summary);
    }
    return true;
}

// The summary of a message that is not marked failed.
static bool load_saved_summary(int64_t id, message_summary *summary) {
    if (message_load(sent_path(id, "msg").c_str(), &summary->message) != 0)
        return false;
    summary->message.id = id; // where it stands decides, not what it says
    strlist recipients;
    delivery_table delivery;
    const marker_state revoked = sent_marker_look_up(id, "revoked");
    if (!read_recipients(id, &recipients, &delivery) || recipients.count == 0 ||
        revoked == marker_state::unknown)
        return false;
    summary->revoked = revoked == marker_state::present;
    if (summary->revoked)
        summary->revoked_at = sent_revocation_time(id);
    if (summary->revoked_at < 0)
        return false;
    summary->expired = message_is_expired(summary->message, now());
    return count_recipients(id, recipients, delivery, summary);
}

bool message_summary_load(int64_t id, message_summary *summary) {
    *summary = {};
    return sent_marker_look_up(id, "failed") == marker_state::absent &&
           load_saved_summary(id, summary);
}

static void append_count(strbuf *out, int count, const char *word, bool *is_first) {
    if (count == 0)
        return;
    strbuf_printf(out, "%s%d %s", *is_first ? "" : " · ", count, word);
    *is_first = false;
}

void summary_text(const message_summary &summary, strbuf *out) {
    if (summary.delivered == 0 && summary.sent == 0) {
        strbuf_printf(out, "all confirmed (%d)", summary.confirmed);
        return;
    }
    bool is_first = true;
    append_count(out, summary.confirmed, "confirmed", &is_first);
    append_count(out, summary.delivered, "delivered", &is_first);
    append_count(out, summary.sent, "sent", &is_first);
}

// ---- list ---------------------------------------------------------------------------------

constexpr size_t TEXT_COLUMNS = 40;

static bool is_continuation_byte(char c) {
    return (static_cast<unsigned char>(c) & 0xc0) == 0x80;
}

// Appends at most TEXT_COLUMNS characters of `text`, padded with blanks to that width.
static void append_text_column(strbuf *out, std::string_view text) {
    size_t columns = 0;
    size_t end = 0;
    for (; end < text.size(); end++) {
        if (is_continuation_byte(text[end]))
            continue;
        if (columns == TEXT_COLUMNS)
            break;
        columns++;
    }
    strbuf_append_view(out, text.substr(0, end));
    for (; columns < TEXT_COLUMNS; columns++)
        strbuf_append_char(out, ' ');
}

static void print_heading() {
    strbuf line;
    strbuf_printf(&line, "%-5s %-12s ", "ID", "DATE");
    append_text_column(&line, "TEXT");
    printf("%s  %s\n", line.data, "RECIPIENTS");
}

// A NUL byte, which only a damaged copy holds, would end the whole line.
static constexpr std::string_view LINE_ENDS("\n\0", 2);

static void print_summary_line(const char *name, const message_summary &summary) {
    char date[SHORT_TIME_BYTES];
    format_time_short(summary.message.date, date);
    std::string text;
    if (summary.revoked)
        text += "[revoked] ";
    if (summary.expired)
        text += "[expired] ";
    const std::string_view whole = summary.message.text;
    text += whole.substr(0, whole.find_first_of(LINE_ENDS));

    strbuf line;
    strbuf_printf(&line, "%-5s %-12s ", name, date);
    append_text_column(&line, text);
    strbuf_append_str(&line, "  ");
    summary_text(summary, &line);
    printf("%s\n", line.data);
}

static void print_message(const char *name) {
    int64_t id = 0;
    if (!parse_id(name, &id))
        return;
    message_summary summary;
    const marker_state failed = sent_marker_look_up(id, "failed");
    if (failed == marker_state::present)
        printf("%-5s %-12s %s\n", name, "-", "[send cancelled: interrupted before it was saved]");
    else if (failed == marker_state::absent && load_saved_summary(id, &summary))
        print_summary_line(name, summary);
}

// The identifiers of all messages; none where there is no store.
static void list_ids_or_die(strlist *ids) {
    const std::string sent = sent_dir();
    errno = 0;
    const bool has_store = is_directory(sent.c_str()) != 0;
    if ((has_store && sent_list_ids(ids) != 0) || (!has_store && is_resource_error(errno)))
        die("%s: %s", sent.c_str(), strerror(errno));
}

void cmd_list() {
    strlist ids;
    list_ids_or_die(&ids);
    if (ids.count == 0) {
        printf("No messages sent.\n");
        return;
    }
    print_heading();
    for (const char *name : ids)
        print_message(name);
}

// ---- status -------------------------------------------------------------------------------

// What is the same for every recipient of a message.
struct message_state {
    int64_t id;
    bool revoked;
    bool expired;
    bool incomplete;
    delivery_table delivery;
};

// False, with errno, when a marker could not be looked up.
static bool look_up_markers(message_state *state) {
    const marker_state revoked = sent_marker_look_up(state->id, "revoked");
    if (revoked == marker_state::unknown)
        return false;
    const marker_state incomplete = sent_marker_look_up(state->id, "incomplete");
    state->revoked = revoked == marker_state::present;
    state->incomplete = incomplete == marker_state::present;
    return incomplete != marker_state::unknown;
}

// The channel comes from the user's own file: cleaned before it is shown.
static std::string confirmed_text(const recipient_status &status) {
    strbuf channel;
    sanitize_text(status.detail.data(), status.detail.size(), &channel);
    char date[SHORT_TIME_BYTES];
    format_time_short(status.time, date);
    return xasprintf("confirmed on %s (%s)", date, channel.len > 0 ? channel.data : "?");
}

static std::string terminals_text(const char *user, const delivery_table &delivery) {
    const ptrdiff_t place = delivery_find(delivery, user);
    int64_t count = 0;
    if (place < 0 || !parse_id(delivery.terminals[static_cast<size_t>(place)], &count) ||
        count == 0)
        return "";
    if (count == 1)
        return ", written to 1 terminal";
    return xasprintf(", written to %lld terminals", static_cast<long long>(count));
}

static std::string postponed_text(const char *user, int64_t id) {
    const confirmation_entry *entry = recipient_confirmation(user, id);
    if (entry == nullptr || entry->shown == 0)
        return "";
    char date[SHORT_TIME_BYTES];
    format_time_short(entry->shown, date);
    return xasprintf(", postponed on %s", date);
}

static std::string delivered_text(const char *user, const recipient_status &status,
                                  const message_state &message) {
    if (message.revoked)
        return "delivered, not confirmed (revoked)";
    if (status.late)
        return "delivered, not confirmed (expired; confirmation arrived after the expiry)";
    if (message.expired)
        return "delivered, not confirmed (expired)";
    return "delivered" + terminals_text(user, message.delivery) + postponed_text(user, message.id);
}

static std::string undelivered_text(const message_state &message) {
    return message.incomplete ? "sent, not delivered: the copy could not be written (see the log; "
                                "the next tbx command will retry)"
                              : "sent, not delivered";
}

static std::string state_text(const char *user, const recipient_status &status,
                              const message_state &message) {
    switch (status.state) {
    case delivery_state::confirmed:
        return confirmed_text(status);
    case delivery_state::delivered:
        return delivered_text(user, status, message);
    case delivery_state::sent:
        break;
    }
    return undelivered_text(message);
}

bool recipient_state_lines(int64_t id, const message_record &message,
                           std::vector<recipient_line> *lines) {
    strlist recipients;
    message_state state = {id, false, message_is_expired(message, now()), false, {}};
    if (!read_recipients(id, &recipients, &state.delivery) || !look_up_markers(&state))
        return false;
    const int64_t cutoff = state.revoked ? sent_revocation_time(id) : 0;
    if (cutoff < 0)
        return false;
    recipient_state_ask_only(id);
    for (const char *user : recipients) {
        recipient_status status;
        if (!recipient_state(user, id, state.delivery, message, cutoff, &status))
            return false;
        lines->push_back({user, status.state, state_text(user, status, state)});
    }
    return true;
}

std::vector<recipient_line> recipient_state_lines_or_die(int64_t id,
                                                         const message_record &message) {
    std::vector<recipient_line> lines;
    if (!recipient_state_lines(id, message, &lines)) {
        const int error = errno;
        die("%s: %s", sent_message_dir(id).c_str(), strerror(error));
    }
    return lines;
}

static int64_t revocation_time_or_die(int64_t id) {
    const int64_t time = sent_revocation_time(id);
    const int error = errno;
    if (time < 0)
        die("%s: %s", sent_path(id, "revoked").c_str(), strerror(error));
    return time;
}

static void print_facts(int64_t id, const message_record &message) {
    strbuf headline;
    message_headline(message, &headline);
    printf("Message %lld · %s · from %s\n", static_cast<long long>(id), headline.data,
           message.from.c_str());
    if (has_marker_or_die(id, "revoked")) {
        char date[SHORT_TIME_BYTES];
        format_time_short(revocation_time_or_die(id), date);
        printf("REVOKED on %s\n", date);
    }
    if (message_is_expired(message, now()))
        printf("EXPIRED\n");
}

static void print_text(std::string_view text) {
    while (!text.empty()) {
        const std::string_view line = text.substr(0, text.find('\n'));
        printf("  │ %.*s\n", static_cast<int>(line.size()), line.data());
        text.remove_prefix(line.size() < text.size() ? line.size() + 1 : line.size());
    }
    printf("\n");
}

void cmd_status(const char *id_text) {
    const int64_t id = parse_message_id(id_text);
    const message_record message = load_message_or_die(id, id_text);
    if (has_marker_or_die(id, "failed"))
        die("message %lld was cancelled: sending was interrupted before it was saved",
            static_cast<long long>(id));
    const std::vector<recipient_line> lines = recipient_state_lines_or_die(id, message);

    print_facts(id, message);
    print_text(message.text);
    printf("%-16s %s\n", "USER", "STATE");
    for (const recipient_line &line : lines)
        printf("%-16s %s\n", line.user.c_str(), line.text.c_str());
}
