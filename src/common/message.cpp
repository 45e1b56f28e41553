#include "common/message.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

// ---- File text ----------------------------------------------------------------------------

void message_format(const message_record &rec, strbuf *buf) {
    strbuf_printf(buf, "format: 1\nid: %lld\nfrom: %s\ndate: %lld\ntitle: %s\nexpires: ",
                  static_cast<long long>(rec.id), rec.from.c_str(),
                  static_cast<long long>(rec.date), rec.title.c_str());
    if (rec.expires != 0)
        strbuf_printf(buf, "%lld", static_cast<long long>(rec.expires));
    strbuf_append_str(buf, "\n\n");
    strbuf_append_view(buf, rec.text);
}

struct header_line {
    std::string_view key;
    std::string_view value;
};

// Splits "KEY: VALUE", or "KEY:" with an empty value. Returns false for any other line.
static bool split_header(std::string_view line, header_line *out) {
    const size_t colon = line.find(": ");
    if (colon != std::string_view::npos) {
        *out = {line.substr(0, colon), line.substr(colon + 2)};
        return true;
    }
    if (line.empty() || line.back() != ':')
        return false;
    *out = {line.substr(0, line.size() - 1), {}};
    return true;
}

static void apply_header(const header_line &header, message_record *rec, bool *has_date) {
    if (header.key == "id") {
        (void)!parse_id(header.value, &rec->id); // a malformed number leaves it unchanged
    } else if (header.key == "from") {
        rec->from = header.value;
    } else if (header.key == "date") {
        *has_date = parse_id(header.value, &rec->date) != 0; // the last date line counts
    } else if (header.key == "title") {
        rec->title = header.value;
    } else if (header.key == "expires") {
        if (!parse_id(header.value, &rec->expires))
            rec->expires = 0;
    }
}

int message_parse(const char *data, size_t len, message_record *rec) {
    *rec = {};
    bool has_date = false;
    std::string_view rest(data, len);
    while (!rest.empty()) {
        const size_t end = rest.find('\n');
        const std::string_view line = rest.substr(0, end);
        rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
        if (line.empty()) {
            rec->text = rest;
            break;
        }
        header_line header;
        if (split_header(line, &header))
            apply_header(header, rec, &has_date);
    }
    if (has_date)
        return 0;
    message_free(rec);
    errno = EINVAL;
    return -1;
}

int message_load(const char *path, message_record *rec) {
    strbuf text;
    if (read_file_limited(path, MESSAGE_FILE_MAX_BYTES, /*nofollow=*/true, &text) != 0) {
        message_free(rec);
        return -1;
    }
    return message_parse(text.view().data(), text.len, rec);
}

lookup message_look_up(const char *path, message_record *rec) {
    message_free(rec);
    strbuf text;
    const lookup found = read_stored_file(path, MESSAGE_FILE_MAX_BYTES, &text);
    if (found != lookup::found)
        return found;
    return message_parse(text.view().data(), text.len, rec) == 0 ? lookup::found : lookup::absent;
}

void message_free(message_record *rec) {
    const int saved = errno;
    *rec = {};
    errno = saved;
}

bool message_is_expired(const message_record &rec, int64_t now) {
    return rec.expires != 0 && rec.expires <= now;
}

void message_headline(const message_record &rec, strbuf *buf) {
    char date[SHORT_TIME_BYTES];
    format_time_short(rec.date, date);
    if (rec.title.empty())
        strbuf_append_str(buf, date);
    else
        strbuf_printf(buf, "%s · %s", rec.title.c_str(), date);
}

// ---- Cleaning -----------------------------------------------------------------------------

constexpr char ESCAPE = '\x1b';
constexpr char BELL = '\x07';
constexpr unsigned char DELETE = 0x7f;
constexpr char C1_LEAD = '\xc2'; // with 0x80 to 0x9f, a C1 control in UTF-8

static bool is_csi_parameter(char c) {
    return (c >= '0' && c <= '9') || c == ';' || c == '?';
}

// Returns the length of the control sequence (ESC [ parameters final) at the start of `line`, or 0.
static size_t csi_length(std::string_view line) {
    if (line.size() < 3 || line[0] != ESCAPE || line[1] != '[')
        return 0;
    size_t end = 2;
    while (end < line.size() && is_csi_parameter(line[end]))
        end++;
    const bool has_final = end < line.size() && line[end] >= 0x40 && line[end] <= 0x7e;
    return has_final ? end + 1 : 0;
}

// Returns the length of the operating-system command (ESC ] ... BEL) at the start of `line`, or 0.
static size_t osc_length(std::string_view line) {
    if (line.size() < 2 || line[0] != ESCAPE || line[1] != ']')
        return 0;
    const size_t bell = line.find(BELL, 2);
    return bell == std::string_view::npos ? 0 : bell + 1;
}

// Appends `line` without the sequences that `sequence_length` recognises.
static void append_without(std::string_view line, size_t (*sequence_length)(std::string_view),
                           std::string *out) {
    while (true) {
        const size_t escape = line.find(ESCAPE);
        out->append(line.substr(0, escape));
        if (escape == std::string_view::npos)
            return;
        line.remove_prefix(escape);
        const size_t sequence = sequence_length(line);
        if (sequence == 0)
            out->push_back(ESCAPE); // kept for now: the next pass drops it
        line.remove_prefix(sequence == 0 ? 1 : sequence);
    }
}

// Appends `line` without operating-system commands. Such a command ends in BEL, so the text after
// the last BEL is not searched.
static void append_without_osc(std::string_view line, std::string *out) {
    const size_t last_bell = line.rfind(BELL);
    const size_t searched = last_bell == std::string_view::npos ? 0 : last_bell + 1;
    append_without(line.substr(0, searched), osc_length, out);
    out->append(line.substr(searched));
}

// Returns the text without escape sequences. A sequence never continues past a line end.
static std::string remove_escape_sequences(std::string_view text) {
    std::string result;
    result.reserve(text.size());
    while (true) {
        const size_t end = text.find('\n');
        std::string without_csi;
        append_without(text.substr(0, end), csi_length, &without_csi);
        append_without_osc(without_csi, &result);
        if (end == std::string_view::npos)
            return result;
        result.push_back('\n');
        text.remove_prefix(end + 1);
    }
}

static bool is_dropped_control(unsigned char c) {
    return (c < ' ' && c != '\t' && c != '\n') || c == DELETE;
}

// Appends `text` without control bytes and C1 pairs. A byte is compared with the last byte of the
// output, not of the input: two bytes with a dropped byte between them cannot become a new pair.
static void append_without_controls(std::string_view text, strbuf *buf) {
    const size_t start = buf->len;
    strbuf_reserve(buf, text.size());
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (is_dropped_control(byte))
            continue;
        if (byte >= 0x80 && byte <= 0x9f && buf->len > start && buf->data[buf->len - 1] == C1_LEAD)
            buf->len--;
        else
            buf->data[buf->len++] = c;
    }
    buf->data[buf->len] = '\0';
}

void sanitize_text(const char *data, size_t len, strbuf *buf) {
    const std::string_view text(data, len);
    if (text.find(ESCAPE) == std::string_view::npos)
        append_without_controls(text, buf);
    else
        append_without_controls(remove_escape_sequences(text), buf);
}

// ---- Bytes that are no characters ---------------------------------------------------------

constexpr std::string_view REPLACEMENT = "\xef\xbf\xbd"; // U+FFFD

// The length of a character in bytes, and the range of its second byte. The range excludes overlong
// forms, surrogates and codes beyond Unicode.
struct utf8_form {
    size_t length;
    unsigned char second_min;
    unsigned char second_max;
};

static utf8_form form_of(unsigned char lead) {
    if (lead < 0x80)
        return {1, 0, 0};
    if (lead >= 0xc2 && lead <= 0xdf)
        return {2, 0x80, 0xbf};
    if (lead >= 0xe0 && lead <= 0xef)
        return {3, static_cast<unsigned char>(lead == 0xe0 ? 0xa0 : 0x80),
                static_cast<unsigned char>(lead == 0xed ? 0x9f : 0xbf)};
    if (lead >= 0xf0 && lead <= 0xf4)
        return {4, static_cast<unsigned char>(lead == 0xf0 ? 0x90 : 0x80),
                static_cast<unsigned char>(lead == 0xf4 ? 0x8f : 0xbf)};
    return {0, 0, 0};
}

// Returns the length in bytes of the character at the start of `text`, 0 if it is not valid.
static size_t character_length(std::string_view text) {
    const utf8_form form = form_of(static_cast<unsigned char>(text[0]));
    if (form.length > text.size())
        return 0;
    for (size_t i = 1; i < form.length; i++) {
        const auto byte = static_cast<unsigned char>(text[i]);
        const unsigned char min = i == 1 ? form.second_min : 0x80;
        const unsigned char max = i == 1 ? form.second_max : 0xbf;
        if (byte < min || byte > max)
            return 0;
    }
    return form.length;
}

void repair_utf8(std::string_view text, strbuf *buf) {
    strbuf_reserve(buf, text.size());
    while (!text.empty()) {
        const size_t length = character_length(text);
        strbuf_append_view(buf, length == 0 ? REPLACEMENT : text.substr(0, length));
        text.remove_prefix(std::max<size_t>(length, 1));
    }
}

// ---- Text for a screen --------------------------------------------------------------------

std::string clean_text(std::string_view text) {
    strbuf clean;
    sanitize_text(text.data(), text.size(), &clean);
    strbuf repaired;
    repair_utf8(clean.view(), &repaired);
    return std::string(repaired.view());
}

std::string clean_line(std::string_view text) {
    std::string line = clean_text(text);
    std::ranges::replace_if(
        line, [](char c) { return c == '\n' || c == '\t'; }, ' ');
    return line;
}

constexpr size_t BANNER_RULE_COLUMNS = 40;

void message_banner(const message_record &rec, strbuf *buf) {
    strbuf_append_str(buf, "── Tellbox · Message from the administrator · ");
    message_headline(rec, buf);
    strbuf_append_str(buf, " ──\n");
    strbuf_append_view(buf,
                       std::string_view(rec.text).substr(0, rec.text.find_last_not_of('\n') + 1));
    strbuf_append_str(buf, "\n");
    for (size_t column = 0; column < BANNER_RULE_COLUMNS; column++)
        strbuf_append_str(buf, "─");
    strbuf_append_str(buf, "\n");
}
