#include "tbx/history.h"

#include "common/core.h"
#include "common/environment.h"
#include "common/event.h"
#include "common/message.h"
#include "tbx/accounts.h"
#include "tbx/command.h"
#include "tbx/sent.h"

#include <unistd.h>

#include <algorithm>
#include <cstring>

constexpr uint64_t USEC_PER_SEC = 1'000'000;
// Large enough for a long list of recipients from a compressed journal; small enough that a forged
// record does not fill the memory.
constexpr size_t FIELD_MAX_BYTES = 2 * RECIPIENTS_MAX_BYTES;

struct journal_closer {
    void operator()(sd_journal *journal) const { sd_journal_close(journal); }
};
using unique_journal = std::unique_ptr<sd_journal, journal_closer>;

std::string journal_field(sd_journal *journal, const char *name) {
    const void *data = nullptr;
    size_t length = 0;
    if (sd_journal_get_data(journal, name, &data, &length) < 0)
        return "";
    // The journal's own limit applies only to what it decompresses.
    std::string_view field(static_cast<const char *>(data), std::min(length, FIELD_MAX_BYTES));
    field.remove_prefix(std::min(field.size(), strlen(name) + 1)); // "NAME="
    return std::string(field);
}

// ---- One record ---------------------------------------------------------------------------

struct history_record {
    std::string event;
    std::string user;
    std::string channel;
    std::string details;
    std::string author;
    std::string message; // the sentence that the writer put there
    std::string uid;     // of the writer, as the journal itself recorded it
};

static history_record read_record(sd_journal *journal) {
    return {journal_field(journal, "TBX_EVENT"),   journal_field(journal, "TBX_USER"),
            journal_field(journal, "TBX_CHANNEL"), journal_field(journal, "TBX_DETAILS"),
            journal_field(journal, "TBX_AUTHOR"),  journal_field(journal, "MESSAGE"),
            journal_field(journal, "_UID")};
}

static bool is_user_side(const std::string &event) {
    return event == "POSTPONED" || event == "CONFIRMED" || event == "CONFIRMATION_FAILED";
}

// Finds the UID that should have written such a record: that of the user it is about, or the
// administrator's. Returns `absent` when there is no such user. A name that the store cannot keep
// is not looked up.
static lookup expected_writer(const history_record &record, int64_t *uid) {
    *uid = test_mode() ? getuid() : 0;
    if (!is_user_side(record.event))
        return lookup::found;
    if (!is_storable_name(record.user))
        return lookup::absent;
    resolved_user user;
    const lookup found = user_lookup_by_name(record.user.c_str(), &user);
    *uid = user.uid;
    return found;
}

// Whether the record's writer is the expected one. Returns `failed` when that could not be looked
// up: the record is not trusted then.
static lookup trust_in(const history_record &record) {
    int64_t expected = 0;
    const lookup known = expected_writer(record, &expected);
    int64_t writer = 0;
    if (known != lookup::found)
        return known;
    return parse_id(record.uid, &writer) && writer == expected ? lookup::found : lookup::absent;
}

static void append_stamp(sd_journal *journal, strbuf *line) {
    uint64_t usec = 0;
    if (sd_journal_get_realtime_usec(journal, &usec) < 0)
        usec = 0;
    const auto seconds = static_cast<time_t>(usec / USEC_PER_SEC);
    char stamp[SHORT_TIME_BYTES];
    struct tm local = {};
    if (localtime_r(&seconds, &local) == nullptr ||
        strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &local) == 0)
        snprintf(stamp, sizeof stamp, "?");
    strbuf_printf(line, "%s  ", stamp);
}

// Makes the sentence from the fields and ignores the record's own sentence, so that it is the same
// whichever program wrote it.
static void append_sentence(const history_record &record, int64_t id, strbuf *line) {
    if (!event_describe(record.event.c_str(), id, record.user.c_str(), record.channel.c_str(),
                        record.details.c_str(), record.author.c_str(), line))
        strbuf_append_str(line, record.message.c_str());
}

// Prints a record as one line without control characters.
static void print_cleaned(strbuf *line) {
    std::replace(line->data, line->data + line->len, '\n', ' ');
    strbuf cleaned;
    sanitize_text(line->data, line->len, &cleaned);
    strbuf_append_char(&cleaned, '\n');
    fwrite(cleaned.data, 1, cleaned.len, stdout);
}

// Returns 0, or the errno that kept the writer from being looked up.
static int print_record(sd_journal *journal, int64_t id) {
    const history_record record = read_record(journal);
    strbuf line;
    append_stamp(journal, &line);
    const lookup trust = trust_in(record);
    const int error = trust == lookup::failed ? errno : 0;
    if (trust != lookup::found)
        strbuf_printf(&line, "[not trustworthy: written by UID %s] ",
                      record.uid.empty() ? "?" : record.uid.c_str());
    append_sentence(record, id, &line);
    print_cleaned(&line);
    return error;
}

// ---- The command --------------------------------------------------------------------------

static unique_journal open_journal() {
    sd_journal *journal = nullptr;
    if (sd_journal_open(&journal, 0) < 0)
        return {};
    return unique_journal(journal);
}

// Returns the time one second before the message was sent, or the largest time if the date is too
// large.
static uint64_t start_usec(int64_t date) {
    uint64_t usec = 0;
    if (date < 1)
        return 0;
    if (__builtin_mul_overflow(static_cast<uint64_t>(date - 1), USEC_PER_SEC, &usec))
        return UINT64_MAX;
    return usec;
}

// Narrows the journal to this message, from one second before it was sent.
static bool select_message(sd_journal *journal, const message_record &message, int64_t id) {
    const std::string match = xasprintf("TBX_MESSAGE=%lld", static_cast<long long>(id));
    const uint64_t start = start_usec(message.date);
    return sd_journal_set_data_threshold(journal, FIELD_MAX_BYTES) >= 0 &&
           sd_journal_add_match(journal, "SYSLOG_IDENTIFIER=tbx", 0) >= 0 &&
           sd_journal_add_match(journal, match.c_str(), 0) >= 0 &&
           sd_journal_seek_realtime_usec(journal, start) >= 0;
}

static void print_heading(int64_t id, const message_record &message) {
    strbuf headline;
    message_headline(message, &headline);
    printf("Message %lld · %s\n", static_cast<long long>(id), headline.data);
    (void)fflush(stdout); // an error is reported at the end of the run
}

void cmd_log(const char *id_text) {
    const int64_t id = parse_message_id(id_text);
    const message_record message = load_message_or_die(id, id_text);
    print_heading(id, message);
    const unique_journal journal = open_journal();
    if (!journal || !select_message(journal.get(), message, id))
        return;
    int error = 0;
    int more = 0;
    while ((more = sd_journal_next(journal.get())) > 0) {
        const int record_error = print_record(journal.get(), id);
        error = error == 0 ? record_error : error;
    }
    if (more < 0)
        die("the journal could not be read to its end: %s", strerror(-more));
    if (error != 0)
        die("some writers could not be looked up: %s", strerror(error));
}
