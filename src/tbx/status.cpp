#include "tbx/status.h"

#include "common/characters.h"
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

// Reads the recipients and the delivery log. A missing file counts as empty. Returns 0, or -1 with
// errno.
static int read_recipients(int64_t id, strlist *recipients, delivery_table *delivery) {
    const bool failed = sent_read_recipients(id, recipients) == lookup::failed ||
                        sent_read_delivery(id, delivery) == lookup::failed;
    return failed ? -1 : 0;
}

// Counts the recipients in each state. Returns 0, or -1 with errno when a state could not be read.
static int count_recipients(int64_t id, const strlist &recipients, const delivery_table &delivery,
                            confirmation_cache *cache, message_summary *summary) {
    for (const char *user : recipients) {
        recipient_status status;
        if (recipient_state(user, id, delivery, summary->message, summary->revoked_at, cache,
                            &status) != 0)
            return -1;
        count_state(status.state, summary);
    }
    return 0;
}

// Loads the summary of a message that is not marked failed.
static lookup load_saved_summary(int64_t id, confirmation_cache *cache, message_summary *summary) {
    const lookup message = message_look_up(sent_path(id, "msg").c_str(), &summary->message);
    if (message != lookup::found)
        return message;
    summary->message.id = id; // the directory's name counts, not the file's header
    strlist recipients;
    delivery_table delivery;
    const lookup revoked = sent_marker_look_up(id, "revoked");
    if (revoked == lookup::failed || read_recipients(id, &recipients, &delivery) != 0)
        return lookup::failed;
    if (recipients.count == 0)
        return lookup::absent;
    summary->revoked = revoked == lookup::found;
    if (summary->revoked && sent_revocation_time(id, &summary->revoked_at) != 0)
        return lookup::failed;
    summary->expired = message_is_expired(summary->message, now());
    return count_recipients(id, recipients, delivery, cache, summary) == 0 ? lookup::found
                                                                           : lookup::failed;
}

lookup message_summary_load(int64_t id, confirmation_cache *cache, message_summary *summary) {
    *summary = {};
    switch (sent_marker_look_up(id, "failed")) {
    case lookup::found:
        return lookup::absent;
    case lookup::failed:
        return lookup::failed;
    case lookup::absent:
        break;
    }
    return load_saved_summary(id, cache, summary);
}

std::string message_marks(const message_summary &summary, const char *style, const char *reset) {
    std::string marks;
    if (summary.revoked)
        marks += xasprintf("%s[revoked] %s", style, reset);
    if (summary.expired)
        marks += xasprintf("%s[expired] %s", style, reset);
    return marks;
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
    std::string text = message_marks(summary);
    const std::string_view whole = summary.message.text;
    text += whole.substr(0, whole.find_first_of(LINE_ENDS));

    strbuf line;
    strbuf_printf(&line, "%-5s %-12s ", name, date);
    append_text_column(&line, text);
    strbuf_append_str(&line, "  ");
    summary_text(summary, &line);
    printf("%s\n", line.data);
}

// Prints the line of one message, nothing if it is absent. Returns `failed` with errno when
// something of it could not be read.
static lookup print_message(const char *name, confirmation_cache *cache) {
    int64_t id = 0;
    if (!parse_id(name, &id))
        return lookup::absent;
    const lookup cancelled = sent_marker_look_up(id, "failed");
    if (cancelled == lookup::failed)
        return lookup::failed;
    if (cancelled == lookup::found) {
        printf("%-5s %-12s %s\n", name, "-", "[send cancelled: interrupted before it was saved]");
        return lookup::found;
    }
    message_summary summary;
    const lookup loaded = load_saved_summary(id, cache, &summary);
    if (loaded == lookup::found)
        print_summary_line(name, summary);
    return loaded;
}

// Lists the identifiers of all messages; none if there is no store.
static void list_ids_or_die(strlist *ids) {
    const std::string sent = sent_dir();
    const lookup store = directory_look_up(sent.c_str());
    if (store == lookup::failed || (store == lookup::found && sent_list_ids(ids) != 0))
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
    confirmation_cache cache;
    for (const char *name : ids)
        if (print_message(name, &cache) == lookup::failed) {
            const int error = errno;
            die("%s/%s: %s", sent_dir().c_str(), name, strerror(error));
        }
}

// ---- status -------------------------------------------------------------------------------

// What is the same for every recipient of a message.
struct message_state {
    int64_t id;
    bool revoked;
    bool expired;
    bool incomplete;
    int64_t revoked_at;
    delivery_table delivery;
};

// Returns 0, or -1 with errno when a marker could not be looked up or read.
static int look_up_markers(message_state *state) {
    const lookup revoked = sent_marker_look_up(state->id, "revoked");
    if (revoked == lookup::failed)
        return -1;
    const lookup incomplete = sent_marker_look_up(state->id, "incomplete");
    if (incomplete == lookup::failed)
        return -1;
    state->revoked = revoked == lookup::found;
    state->incomplete = incomplete == lookup::found;
    return state->revoked ? sent_revocation_time(state->id, &state->revoked_at) : 0;
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

// Reads nothing: the cache has the user's mailbox, which was read for the state.
static std::string postponed_text(const char *user, int64_t id, confirmation_cache *cache) {
    const confirmation_list *list = cache->find(user);
    const confirmation_entry *entry = list != nullptr ? confirmation_find(*list, id) : nullptr;
    if (entry == nullptr || entry->shown == 0)
        return "";
    char date[SHORT_TIME_BYTES];
    format_time_short(entry->shown, date);
    return xasprintf(", postponed on %s", date);
}

static std::string delivered_text(const char *user, const recipient_status &status,
                                  const message_state &message, confirmation_cache *cache) {
    if (message.revoked)
        return "delivered, not confirmed (revoked)";
    if (status.late)
        return "delivered, not confirmed (expired; confirmation arrived after the expiry)";
    if (message.expired)
        return "delivered, not confirmed (expired)";
    return "delivered" + terminals_text(user, message.delivery) +
           postponed_text(user, message.id, cache);
}

static std::string undelivered_text(const message_state &message) {
    return message.incomplete ? "sent, not delivered: the copy could not be written (see the log; "
                                "the next tbx command will retry)"
                              : "sent, not delivered";
}

static std::string state_text(const char *user, const recipient_status &status,
                              const message_state &message, confirmation_cache *cache) {
    switch (status.state) {
    case delivery_state::confirmed:
        return confirmed_text(status);
    case delivery_state::delivered:
        return delivered_text(user, status, message, cache);
    case delivery_state::sent:
        break;
    }
    return undelivered_text(message);
}

int recipient_state_lines(int64_t id, const message_record &message, confirmation_cache *cache,
                          std::vector<recipient_line> *lines) {
    strlist recipients;
    message_state state = {id, false, message_is_expired(message, now()), false, 0, {}};
    if (read_recipients(id, &recipients, &state.delivery) != 0 || look_up_markers(&state) != 0)
        return -1;
    for (const char *user : recipients) {
        recipient_status status;
        if (recipient_state(user, id, state.delivery, message, state.revoked_at, cache, &status) !=
            0)
            return -1;
        lines->push_back({user, status.state, state_text(user, status, state, cache)});
    }
    return 0;
}

std::vector<recipient_line> recipient_state_lines_or_die(int64_t id,
                                                         const message_record &message) {
    std::vector<recipient_line> lines;
    confirmation_cache cache(id);
    if (recipient_state_lines(id, message, &cache, &lines) != 0) {
        const int error = errno;
        die("%s: %s", sent_message_dir(id).c_str(), strerror(error));
    }
    return lines;
}

static int64_t revocation_time_or_die(int64_t id) {
    int64_t time = 0;
    if (sent_revocation_time(id, &time) != 0) {
        const int error = errno;
        die("%s: %s", sent_path(id, "revoked").c_str(), strerror(error));
    }
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
    std::string_view line;
    while (next_line(&text, &line))
        printf("  │ %.*s\n", static_cast<int>(line.size()), line.data());
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
