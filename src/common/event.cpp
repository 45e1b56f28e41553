#include "common/event.h"

#define SD_JOURNAL_SUPPRESS_LOCATION // the location in a record is part of its fixed form
#include <syslog.h>
#include <systemd/sd-journal.h>

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <span>

constexpr const char *JOURNAL_SOCKET = "/run/systemd/journal/socket";

// ---- The sentence -------------------------------------------------------------------------

namespace {

// The sentence of an event; "{name}" is replaced by an input.
struct event_sentence {
    std::string_view event;
    std::string_view text;
    std::string_view text_without_details = text;
    std::string_view text_for_one = text; // used when the details are "1"
};

struct event_input {
    std::string_view name;
    std::string_view value;
};

} // namespace

constexpr event_sentence SENTENCES[] = {
    {.event = "SENT", .text = "message {id} sent by {author} to: {details}"},
    {.event = "DELIVERED",
     .text = "message {id} delivered to {user} (terminals written: {details})",
     .text_without_details = "message {id} delivered to {user} (recovery)"},
    {.event = "NOT_DELIVERED", .text = "message {id}: ERROR, copy for {user} not written"},
    {.event = "CANCELLED",
     .text = "message {id}: sending interrupted before it was saved, cancelled"},
    {.event = "RECOVERED",
     .text = "message {id}: delivery completed for {details} recipients after an interruption",
     .text_for_one = "message {id}: delivery completed for 1 recipient after an interruption"},
    {.event = "DELETED", .text = "message {id} deleted by {author} (older than {details})"},
    {.event = "REMINDED",
     .text = "message {id}: {details} recipients reminded by {author}",
     .text_for_one = "message {id}: 1 recipient reminded by {author}"},
    {.event = "REVOKED", .text = "message {id} revoked by {author}"},
    {.event = "POSTPONED", .text = "user {user}: postponed message {id} ({channel})"},
    {.event = "CONFIRMED", .text = "user {user}: confirmed reading message {id} ({channel})"},
    {.event = "CONFIRMATION_FAILED",
     .text = "user {user}: ERROR, confirmation of message {id} not recorded ({channel}): {details}",
     .text_without_details = "user {user}: ERROR, confirmation of message {id} not recorded "
                             "({channel}): unknown error"},
};

static constexpr std::string_view INPUT_NAMES[] = {"id", "user", "channel", "details", "author"};

// Whether every "{name}" in the text is closed and names an input.
static constexpr bool names_inputs_only(std::string_view text) {
    for (size_t open = text.find('{'); open != text.npos; open = text.find('{')) {
        const size_t close = text.find('}', open);
        if (close == text.npos ||
            std::ranges::find(INPUT_NAMES, text.substr(open + 1, close - open - 1)) ==
                std::end(INPUT_NAMES))
            return false;
        text.remove_prefix(close + 1);
    }
    return true;
}

static_assert(std::ranges::all_of(SENTENCES, [](const event_sentence &sentence) {
    return names_inputs_only(sentence.text) && names_inputs_only(sentence.text_without_details) &&
           names_inputs_only(sentence.text_for_one);
}));

static std::string_view input_value(std::span<const event_input> inputs, std::string_view name) {
    return std::ranges::find(inputs, name, &event_input::name)->value;
}

static void append_filled_in(std::string_view text, std::span<const event_input> inputs,
                             strbuf *out) {
    for (size_t open = text.find('{'); open != text.npos; open = text.find('{')) {
        const size_t close = text.find('}', open);
        strbuf_append_view(out, text.substr(0, open));
        strbuf_append_view(out, input_value(inputs, text.substr(open + 1, close - open - 1)));
        text.remove_prefix(close + 1);
    }
    strbuf_append_view(out, text);
}

static std::string_view wording(const event_sentence &sentence, std::string_view details) {
    if (details.empty())
        return sentence.text_without_details;
    return details == "1" ? sentence.text_for_one : sentence.text;
}

bool event_describe(const char *event, int64_t message, const char *user, const char *channel,
                    const char *details, const char *author, strbuf *out) {
    const std::string_view name = event;
    const auto *sentence = std::ranges::find(SENTENCES, name, &event_sentence::event);
    if (sentence == std::end(SENTENCES))
        return false;
    const std::string id = std::to_string(message);
    const event_input inputs[] = {
        {"id", id}, {"user", user}, {"channel", channel}, {"details", details}, {"author", author}};
    append_filled_in(wording(*sentence, details), inputs, out);
    return true;
}

// ---- The record ---------------------------------------------------------------------------

namespace {

// No text is null.
struct event_record {
    const char *event;
    int64_t message;
    const char *user;
    const char *channel;
    const char *details;
    const char *author;
    const char *sentence;
};

} // namespace

// Returns a negative error number when the journal did not take the record.
static int send_to_journal(const event_record &record) {
    if (!path_exists(JOURNAL_SOCKET)) // the library returns success without a journal
        return -ENOENT;
    return sd_journal_send_with_location(
        "CODE_FILE=src/event", "CODE_LINE=75", "event", "MESSAGE=%s", record.sentence,
        "SYSLOG_IDENTIFIER=tbx", "PRIORITY=%d", LOG_INFO, "TBX_EVENT=%s", record.event,
        "TBX_MESSAGE=%lld", static_cast<long long>(record.message), "TBX_USER=%s", record.user,
        "TBX_CHANNEL=%s", record.channel, "TBX_DETAILS=%s", record.details, "TBX_AUTHOR=%s",
        record.author, nullptr);
}

static void send_to_system_log(const char *sentence) {
    openlog("tbx", /*option=*/0, LOG_USER);
    syslog(LOG_INFO, "%s", sentence);
    closelog();
}

static const char *text_or_empty(const char *text) {
    return text ? text : "";
}

static std::string on_one_line(const char *text) {
    std::string line = text_or_empty(text);
    std::ranges::replace(line, '\n', ' ');
    return line;
}

void event_log(const char *event, int64_t message, const char *user, const char *channel,
               const char *details, const char *author) {
    const std::string details_line = on_one_line(details);
    event_record record = {.event = event,
                           .message = message,
                           .user = text_or_empty(user),
                           .channel = text_or_empty(channel),
                           .details = details_line.c_str(),
                           .author = text_or_empty(author),
                           .sentence = event};
    strbuf sentence;
    if (event_describe(event, message, record.user, record.channel, record.details, record.author,
                       &sentence))
        record.sentence = sentence.data;
    if (send_to_journal(record) < 0)
        send_to_system_log(record.sentence);
}
