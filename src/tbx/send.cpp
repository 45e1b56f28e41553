#include "tbx/command.h"

#include "common/core.h"
#include "common/event.h"
#include "common/message.h"
#include "tbx/accounts.h"
#include "tbx/agent.h"
#include "tbx/mailbox.h"
#include "tbx/recipients.h"
#include "tbx/sent.h"
#include "tbx/terminal.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>

constexpr size_t INPUT_MAX_BYTES = 67'108'864;
constexpr int TEXT_MAX_BYTES = 65'536;

// What the arguments ask for.
struct send_request {
    const char *to = nullptr; // recipient text
    std::string title;
    int64_t expires = 0;        // seconds since the epoch; 0 means never
    const char *file = nullptr; // holds the text, when no words do
    bool has_words = false;
    std::string text;
};

// ---- Expiry -------------------------------------------------------------------------------

constexpr size_t DATE_OUTPUT_MAX_BYTES = 64;

// In the child: the system's date program parses the date. It must not read standard input, which
// may hold the text of the message.
[[noreturn]] static void exec_date(const char *value, const unique_fd &output) {
    (void)signal(SIGPIPE, SIG_DFL); // cannot fail: the signal exists
    if (dup2(output.get(), STDOUT_FILENO) < 0)
        _exit(127);
    const unique_fd null(open("/dev/null", O_RDWR | O_CLOEXEC));
    if (null) {
        (void)dup2(null.get(), STDIN_FILENO);  // if it fails: date reads nothing there
        (void)dup2(null.get(), STDERR_FILENO); // if it fails: its error is shown, no harm
    }
    execlp("date", "date", "-d", value, "+%s", nullptr);
    _exit(127);
}

// Reads at most DATE_OUTPUT_MAX_BYTES; anything after that is ignored.
static bool read_date_output(const unique_fd &from_date, std::string *output) {
    char text[DATE_OUTPUT_MAX_BYTES];
    while (output->size() < sizeof text) {
        const ssize_t got = read(from_date.get(), text, sizeof text - output->size());
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            return got == 0;
        output->append(text, static_cast<size_t>(got));
    }
    return true;
}

// Whether the child ended by itself with status 0.
static bool child_succeeded(pid_t child) {
    int status = 0;
    while (waitpid(child, &status, 0) < 0)
        if (errno != EINTR)
            return false;
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// Parses a date as people write it into seconds since the epoch. Returns false when it is not a
// date.
static bool parse_date(const char *value, int64_t *seconds) {
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0)
        return false;
    unique_fd read_end(fds[0]);
    unique_fd write_end(fds[1]);
    (void)fflush(stdout); // an error is reported at the end of the run
    const pid_t child = fork();
    if (child < 0)
        return false;
    if (child == 0)
        exec_date(value, write_end);
    write_end.reset();
    std::string output;
    const bool was_read = read_date_output(read_end, &output);
    read_end.reset();
    const bool succeeded = child_succeeded(child);
    output.erase(std::min(output.find('\n'), output.size()));
    return succeeded && was_read && parse_id(std::string_view(output), seconds) != 0;
}

// Parses "2h" or a date into seconds since the epoch. Ends the process if it is malformed, too
// large or past.
static int64_t parse_expiry_or_die(const char *value) {
    int64_t duration = 0;
    int64_t expires = 0;
    const bool valid = parse_duration(value, &duration)
                           ? !__builtin_add_overflow(now(), duration, &expires)
                           : parse_date(value, &expires);
    if (!valid || expires > ID_MAX)
        die("invalid expiry: %s", value);
    if (now() >= expires)
        die("the expiry is already in the past");
    return expires;
}

// ---- Arguments ----------------------------------------------------------------------------

static bool is_option_with_value(const char *argument) {
    for (const char *option : {"--to", "--title", "--expires", "--file"})
        if (strcmp(argument, option) == 0)
            return true;
    return false;
}

static void apply_option(const char *option, const char *value, send_request *request) {
    if (strcmp(option, "--to") == 0)
        request->to = value;
    else if (strcmp(option, "--title") == 0)
        request->title = value;
    else if (strcmp(option, "--expires") == 0)
        request->expires = parse_expiry_or_die(value);
    else
        request->file = value;
}

static void require_to(const send_request &request) {
    if (request.to == nullptr)
        die("missing --to");
}

static void join_words(int count, char **words, send_request *request) {
    request->has_words = count > 0;
    for (int i = 0; i < count; i++) {
        if (i > 0)
            request->text += ' ';
        request->text += words[i];
    }
}

// Parses the options. Everything from the first word that is no option, or after "--", is text.
static void parse_arguments(int argc, char **argv, send_request *request) {
    int next = 0;
    while (next < argc && is_option_with_value(argv[next])) {
        if (next + 1 == argc || *argv[next + 1] == '\0')
            die("missing value for %s", argv[next]);
        apply_option(argv[next], argv[next + 1], request);
        next += 2;
    }
    if (next < argc) {
        const bool ends_options = strcmp(argv[next], "--") == 0;
        if (!ends_options && argv[next][0] == '-' && argv[next][1] != '\0')
            die("unknown option: %s", argv[next]);
        require_to(*request);
        next += ends_options ? 1 : 0;
        join_words(argc - next, argv + next, request);
    }
    require_to(*request);
}

static void read_text(send_request *request) {
    strbuf input;
    if (request->file != nullptr) {
        if (read_file_limited(request->file, INPUT_MAX_BYTES, /*nofollow=*/false, &input) != 0)
            die("%s: %s", request->file, strerror(errno));
    } else {
        // A read error ends the text.
        (void)read_fd_limited(STDIN_FILENO, INPUT_MAX_BYTES, &input);
    }
    request->text = input.view();
}

// ---- Checks -------------------------------------------------------------------------------

static std::string cleaned(std::string_view text) {
    strbuf clean;
    sanitize_text(text.data(), text.size(), &clean);
    return std::string(clean.view());
}

// Without the final newline, which is added when the text is stored.
static std::string cleaned_text(std::string_view text) {
    return cleaned(text.substr(0, text.find_last_not_of('\n') + 1));
}

std::string send_stored_text(std::string_view text) {
    return cleaned_text(text) + "\n";
}

std::string send_stored_title(std::string_view title) {
    std::string stored = cleaned(title);
    for (char &c : stored)
        if (c == '\t' || c == '\n')
            c = ' ';
    return stored;
}

static void clean_request(send_request *request) {
    request->text = cleaned_text(request->text);
    request->title = send_stored_title(request->title);
}

static void check_text(const std::string &text) {
    if (text.find_first_not_of(" \t\n\v\f\r") == std::string::npos)
        die("empty message");
    if (text.size() > TEXT_MAX_BYTES)
        die("message too long: %zu bytes (at most %d)", text.size(), TEXT_MAX_BYTES);
}

static message_record make_record(const send_request &request, int64_t id) {
    return {id, current_author(), now(), request.title, request.expires, request.text + "\n"};
}

// Refuses files that could be written but would be too long to be read. The message file is
// measured with the longest identifier, since the real one is not known before something is
// written.
static void check_file_sizes(const send_request &request, const strlist &recipients) {
    strbuf file_text;
    message_format(make_record(request, ID_MAX), &file_text);
    if (file_text.len > MESSAGE_FILE_MAX_BYTES)
        die("message too long: %zu bytes (at most %d)", file_text.len,
            static_cast<int>(MESSAGE_FILE_MAX_BYTES));
    const std::string lines = strlist_lines(recipients);
    if (lines.size() > RECIPIENTS_MAX_BYTES)
        die("too many recipients: %zu bytes (at most %d)", lines.size(),
            static_cast<int>(RECIPIENTS_MAX_BYTES));
}

// ---- Saving -------------------------------------------------------------------------------

// A message that is being sent.
struct outgoing {
    int64_t id;
    strbuf file_text; // the message file
    strbuf banner;
    strlist recipients;
    std::string failed; // " NAME" for each recipient who was not reached
    size_t failures = 0;
};

[[noreturn]] static void die_of_message_dir(int64_t id) {
    const int error = errno;
    die("%s: %s", sent_message_dir(id).c_str(), strerror(error));
}

static void write_or_die(int64_t id, const char *name, std::string_view contents) {
    if (write_file_atomic(sent_path(id, name).c_str(), contents.data(), contents.size(), 0600) != 0)
        die_of_message_dir(id);
}

// Syncs the reference copy. If that fails, removes it, so that the next command cancels the send
// that is reported as failed here.
static void sync_saved_or_die(int64_t id) {
    if (fsync_path(sent_path(id, "incomplete").c_str()) == 0 &&
        fsync_path(sent_message_dir(id).c_str()) == 0 && fsync_path(sent_dir().c_str()) == 0)
        return;
    const int error = errno;
    (void)unlink(sent_path(id, "msg").c_str()); // if it stays, the message is delivered after all
    errno = error;
    die_of_message_dir(id);
}

static void save_message(const send_request &request, outgoing *out) {
    const message_record record = make_record(request, out->id);
    message_format(record, &out->file_text);
    terminal_banner_build(record, &out->banner);
    write_or_die(out->id, "msg", out->file_text.view());
    write_or_die(out->id, "recipients", strlist_lines(out->recipients));
    sync_saved_or_die(out->id);
}

// ---- Delivering ---------------------------------------------------------------------------

// Writes the banner to the user's terminals. Returns how many took it.
static int write_to_terminals(uint32_t uid, const strbuf &banner) {
    strlist terminals;
    user_terminals_list(uid, &terminals);
    return terminals_write(terminals, uid, banner.view());
}

static bool deliver_to(const char *name, const outgoing &out) {
    resolved_user user;
    if (user_lookup_by_name(name, &user) != lookup::found ||
        !mailbox_deliver(user, out.id, out.file_text.view()))
        return false;
    const int terminals = write_to_terminals(user.uid, out.banner);
    agent_start(user);
    sent_append_delivery(out.id, name, terminals);
    event_log("DELIVERED", out.id, name, /*channel=*/nullptr, std::to_string(terminals).c_str(),
              /*author=*/nullptr);
    return true;
}

static void note_failure(const char *name, outgoing *out) {
    out->failed.append(" ").append(name);
    out->failures++;
    event_log("NOT_DELIVERED", out->id, name, /*channel=*/nullptr, /*details=*/nullptr,
              /*author=*/nullptr);
}

static void deliver_to_all(outgoing *out) {
    for (const char *name : out->recipients) {
        if (has_marker_or_die(out->id, "revoked"))
            return;
        if (!deliver_to(name, *out))
            note_failure(name, out);
    }
}

static void log_sent(const outgoing &out) {
    std::string names = strlist_lines(out.recipients);
    names.pop_back();
    std::replace(names.begin(), names.end(), '\n', ' ');
    event_log("SENT", out.id, /*user=*/nullptr, /*channel=*/nullptr, names.c_str(),
              current_author());
}

// ---- Reporting ----------------------------------------------------------------------------

[[noreturn]] static void report_failures(const outgoing &out) {
    const auto id = static_cast<long long>(out.id);
    printf("Message %lld delivered to %zu of %zu recipients.\n", id,
           out.recipients.count - out.failures, out.recipients.count);
    die("message %lld not delivered to:%s (see the log; the next tbx command will retry)", id,
        out.failed.c_str());
}

// Syncs the copies, then removes the mark of the unfinished send.
static void complete_or_die(int64_t id) {
    const std::string dir = sent_message_dir(id);
    if (syncfs_path(users_dir().c_str()) != 0 || fsync_path(dir.c_str()) != 0 ||
        unlink(sent_path(id, "incomplete").c_str()) != 0 || fsync_path(dir.c_str()) != 0)
        die_of_message_dir(id);
}

static void report_success(const outgoing &out) {
    const auto id = static_cast<long long>(out.id);
    if (has_marker_or_die(out.id, "revoked"))
        printf("Message %lld revoked while sending: delivery stopped.\n", id);
    else if (out.recipients.count == 1)
        printf("Message %lld sent to 1 user.\n", id);
    else
        printf("Message %lld sent to %zu users.\n", id, out.recipients.count);
}

// ---- The command --------------------------------------------------------------------------

void cmd_send(int argc, char **argv) {
    send_request request;
    parse_arguments(argc, argv, &request);
    if (!request.has_words)
        read_text(&request);
    clean_request(&request);
    check_text(request.text);
    outgoing out = {};
    recipients_resolve(request.to, &out.recipients);
    if (out.recipients.count == 0)
        die("no recipients");
    check_file_sizes(request, out.recipients);

    // Nothing has been written up to here.
    out.id = sent_allocate_id();
    const message_lock lock = sent_lock(out.id, /*nonblocking=*/false); // held until the end
    // Without the mark nothing may be saved: no later run would finish or cancel it.
    if (lock.state != lock_state::taken || sent_marker_create(out.id, "incomplete") != 0)
        die_of_message_dir(out.id);
    save_message(request, &out);

    deliver_to_all(&out);
    log_sent(out);
    if (out.failures > 0)
        report_failures(out);
    complete_or_die(out.id);
    report_success(out);
}
