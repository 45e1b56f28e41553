#include "tbx/confirmation.h"

#include "tbx/mailbox.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <span>
#include <unordered_map>

constexpr size_t REPORT_MAX_BYTES = 4'194'304;
constexpr size_t IDENTIFIERS_MAX_BYTES = 4'194'304;
constexpr size_t IDENTIFIER_MAX_DIGITS = 23;
constexpr size_t ACK_MAX_BYTES = 200;

// ---- The parent's side --------------------------------------------------------------------

int mailbox_read_confirmations(const resolved_user &user, const strlist &ids,
                               confirmation_list *list) {
    return mailbox_read_confirmations(user, strlist_lines(ids), list);
}

int mailbox_read_confirmations(const resolved_user &user, std::string_view id_lines,
                               confirmation_list *list) {
    confirmation_list_free(list);
    if (id_lines.empty())
        return 0;
    const mailbox_state found = mailbox_look_up(user);
    if (found != mailbox_state::found)
        return found == mailbox_state::failed ? -1 : 0;
    std::string mailbox = mailbox_dir(user);
    strbuf report;
    const child_end result =
        run_as_user(user, mailbox_report_confirmations, mailbox.data(), &id_lines, &report,
                    REPORT_MAX_BYTES, MAILBOX_TIMEOUT_SECONDS);
    if (result.outcome == child_outcome::done)
        confirmation_parse(report.view(), list);
    return result.outcome == child_outcome::failed ? -1 : 0;
}

// Identifiers are consecutive: hashed as they are they would fill one long run of slots, and every
// miss would walk to its end. So only groups of eight are adjacent.
static uint32_t hash_of(int64_t id) {
    constexpr unsigned ROW_BITS = 3;
    constexpr uint64_t GOLDEN_RATIO = 0x9e37'79b9'7f4a'7c15;
    const auto number = static_cast<uint64_t>(id);
    const uint64_t row = (number >> ROW_BITS) * GOLDEN_RATIO >> 32;
    return static_cast<uint32_t>(row << ROW_BITS | (number & ((1U << ROW_BITS) - 1)));
}

static ptrdiff_t place_of(const confirmation_list &list, int64_t id) {
    return list.by_id.find(hash_of(id), [&](size_t place) { return list.entries[place].id == id; });
}

const confirmation_entry *confirmation_find(const confirmation_list &list, int64_t id) {
    const ptrdiff_t place = place_of(list, id);
    return place < 0 ? nullptr : &list.entries[static_cast<size_t>(place)];
}

void confirmation_list_free(confirmation_list *list) {
    list->entries.clear();
    list->by_id.clear();
}

static confirmation_entry *find_or_add(confirmation_list *list, int64_t id) {
    const ptrdiff_t place = place_of(*list, id);
    if (place >= 0)
        return &list->entries[static_cast<size_t>(place)];
    list->by_id.add(hash_of(id), list->entries.size());
    list->entries.push_back({id, std::nullopt, 0});
    return &list->entries.back();
}

// Parses one report line: "LETTER ID REST".
static void parse_report_line(std::string_view line, confirmation_list *list) {
    if (line.size() < 3 || line[1] != ' ')
        return;
    const size_t id_end = line.find(' ', 2);
    int64_t id = 0;
    if (id_end == std::string_view::npos || !parse_id(line.substr(2, id_end - 2), &id))
        return;
    const std::string_view rest = line.substr(id_end + 1);
    confirmation_entry *entry = find_or_add(list, id);
    int64_t seconds = 0;
    if (line[0] == 'A' && !entry->ack)
        entry->ack = rest;
    else if (line[0] == 'S' && parse_id(rest, &seconds))
        entry->shown = std::max(entry->shown, seconds);
}

void confirmation_parse(std::string_view output, confirmation_list *list) {
    std::string_view line;
    while (next_line(&output, &line))
        parse_report_line(line, list);
}

// ---- The child's side, as the user --------------------------------------------------------

// The files that a mailbox can hold of one message.
constexpr unsigned ACK = 1;
constexpr unsigned SHOWN_ON_TERMINAL = 2;
constexpr unsigned SHOWN_ON_DESKTOP = 4;

struct file_kind {
    unsigned kind;
    std::string_view suffix; // after the identifier
};

constexpr file_kind ACK_FILES[] = {{ACK, ""}};
constexpr file_kind SHOWN_FILES[] = {{SHOWN_ON_TERMINAL, ".term"}, {SHOWN_ON_DESKTOP, ".gui"}};

// The files that the folders hold of each identifier. If a folder cannot be listed, or holds too
// many entries to list, its kinds are marked as unlisted, and these files are opened by name.
struct mailbox_files {
    std::unordered_map<std::string, unsigned, string_hash, std::equal_to<>> by_id;
    unsigned unlisted = 0;

    [[nodiscard]] bool may_hold_any() const { return unlisted != 0 || !by_id.empty(); }
    [[nodiscard]] unsigned kinds_of(std::string_view id) const {
        const auto found = by_id.find(id);
        return unlisted | (found == by_id.end() ? 0 : found->second);
    }
};

static void note_file(std::string_view name, std::span<const file_kind> kinds,
                      mailbox_files *files) {
    if (name.starts_with('.'))
        return; // ".", ".." and hidden files: no identifier
    for (const file_kind &file : kinds)
        if (name.ends_with(file.suffix))
            files->by_id[std::string(name.substr(0, name.size() - file.suffix.size()))] |=
                file.kind;
}

// Returns false when the folder could not be listed to its end.
static bool list_folder(const char *folder, std::span<const file_kind> kinds, size_t entries_max,
                        mailbox_files *files) {
    const unique_dir directory(opendir(folder));
    if (!directory)
        return errno == ENOENT; // a missing folder is an empty one
    size_t entries = 0;
    while (const dirent *entry = next_entry(directory.get())) {
        if (++entries > entries_max)
            return false;
        note_file(entry->d_name, kinds, files);
    }
    return errno == 0;
}

// Lists the folders of the mailbox, which is the working directory, to look for `ids` identifiers.
// For a single one nothing is listed: its files are opened by name.
static mailbox_files list_mailbox(size_t ids) {
    constexpr size_t DOTS = 2; // "." and ".." are entries too
    mailbox_files files;
    if (ids == 1) {
        files.unlisted = ACK | SHOWN_ON_TERMINAL | SHOWN_ON_DESKTOP;
        return files;
    }
    if (!list_folder("acks", ACK_FILES, ids + DOTS, &files))
        files.unlisted |= ACK;
    if (!list_folder("state", SHOWN_FILES, 2 * ids + DOTS, &files))
        files.unlisted |= SHOWN_ON_TERMINAL | SHOWN_ON_DESKTOP;
    return files;
}

// Appends "A ID TEXT" when there is a confirmation. A named pipe in its place does not block;
// anything but a regular file is skipped.
static void report_ack(const std::string &id, strbuf *report) {
    const unique_fd fd(open(("acks/" + id).c_str(), O_RDONLY | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
    struct stat status = {};
    if (!fd || fstat(fd.get(), &status) != 0 || !S_ISREG(status.st_mode))
        return;
    char text[ACK_MAX_BYTES + 1];
    const ssize_t got = read(fd.get(), text, ACK_MAX_BYTES);
    if (got < 0)
        return;
    text[got] = '\0';
    const std::string_view line(text); // up to a NUL byte, like every text
    strbuf_printf(report, "A %s ", id.c_str());
    strbuf_append_view(report, line.substr(0, line.find('\n')));
    strbuf_append_char(report, '\n');
}

static int64_t shown_time(const std::string &id, const char *suffix) {
    const std::string path = "state/" + id + suffix;
    struct stat status = {};
    return stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) ? status.st_mtime : 0;
}

// Appends "S ID SECONDS" when the message has been shown.
static void report_shown(const std::string &id, unsigned kinds, strbuf *report) {
    int64_t shown = 0;
    if ((kinds & SHOWN_ON_TERMINAL) != 0)
        shown = shown_time(id, ".term");
    if ((kinds & SHOWN_ON_DESKTOP) != 0)
        shown = std::max(shown, shown_time(id, ".gui"));
    if (shown != 0)
        strbuf_printf(report, "S %s %lld\n", id.c_str(), static_cast<long long>(shown));
}

static bool is_identifier_line(std::string_view line) {
    return !line.empty() && line.size() <= IDENTIFIER_MAX_DIGITS &&
           line.find_first_not_of("0123456789") == std::string_view::npos;
}

// Writes the report so far, so that a long one does not fill the memory. If the parent has stopped
// reading, SIGPIPE ends the child.
static void flush_report(strbuf *report) {
    if (write_all(STDOUT_FILENO, report->view().data(), report->len) != 0)
        _exit(0);
    strbuf_reset(report);
}

static void report_files(const std::string &id, unsigned kinds, strbuf *report) {
    if ((kinds & ACK) != 0)
        report_ack(id, report);
    report_shown(id, kinds, report);
}

// Looks only at files that exist. So the work grows with the mailbox, not with the number of
// messages ever sent.
static void report_identifiers(std::string_view lines) {
    constexpr size_t REPORT_FLUSH_BYTES = 65'536;
    const mailbox_files files =
        list_mailbox(static_cast<size_t>(std::count(lines.begin(), lines.end(), '\n')));
    strbuf report;
    std::string_view id;
    while (files.may_hold_any() && next_line(&lines, &id)) {
        const unsigned kinds = files.kinds_of(id);
        if (kinds != 0 && is_identifier_line(id))
            report_files(std::string(id), kinds, &report);
        if (report.len >= REPORT_FLUSH_BYTES)
            flush_report(&report);
    }
    flush_report(&report);
}

int mailbox_report_confirmations(void *argument) {
    const char *mailbox = static_cast<const char *>(argument);
    strbuf identifiers;
    if (chdir(mailbox) != 0 ||
        read_fd_limited(STDIN_FILENO, IDENTIFIERS_MAX_BYTES, &identifiers) != 0)
        return 0;
    report_identifiers(identifiers.view());
    return 0;
}
