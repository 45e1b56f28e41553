#include "user/command.h"

#include "common/characters.h"
#include "common/pager.h"
#include "user/texts.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

// ---- The own mailbox ----------------------------------------------------------------------

std::string own_account_or_die() {
    std::string name;
    if (own_account(&name) == 0)
        return name;
    const auto uid = static_cast<unsigned>(geteuid());
    if (errno == ENOENT)
        die(_("UID %u has no account"), uid);
    die(_("the account of UID %u: %s"), uid, strerror(errno));
}

own_mailbox open_own_mailbox_or_die() {
    own_mailbox box;
    const std::string owner = own_account_or_die();
    switch (mailbox_open(owner, &box)) {
    case mailbox_look::found:
        break;
    case mailbox_look::absent:
        return box;
    case mailbox_look::failed:
        if (errno == EPERM)
            die(_("%s belongs to another user"), box.path.c_str());
        die("%s: %s", box.path.c_str(), strerror(errno));
    }
    answer_finish_interrupted(&box);
    const mailbox_lock lock = mailbox_lock::take(box, /*patience_ms=*/0);
    answer_remove_leftovers(box, lock);
    return box;
}

mailbox_look reopen_mailbox(own_mailbox *box) {
    own_mailbox again;
    const mailbox_look look = mailbox_open(box->owner, &again);
    if (look == mailbox_look::found)
        *box = std::move(again);
    return look;
}

// ---- Identifiers --------------------------------------------------------------------------

bool parse_identifier(const std::string &argument, int64_t *id) {
    if (parse_id(argument, id) && *id > 0)
        return true;
    warn(_("no such message: %s"), clean_line(argument).c_str());
    return false;
}

// ---- Sentences ----------------------------------------------------------------------------

static long long printable(int64_t id) {
    return static_cast<long long>(id);
}

std::string answer_moment(const answer_record &answer) {
    char date[SHORT_TIME_BYTES];
    format_time_short(answer.time, date);
    const char *where = answer.channel.empty() ? "?" : answer.channel.c_str();
    return xasprintf(_("on %s (%s)"), answer.time == 0 ? "?" : date, where);
}

std::string already_confirmed_sentence(int64_t id, const answer_record &answer) {
    return xasprintf(_("Message %lld was already confirmed %s."), printable(id),
                     answer_moment(answer).c_str());
}

std::string how_to_answer_sentence(int64_t id) {
    return xasprintf(_("Answer with: tellbox   or: tellbox read %lld · tellbox later %lld"),
                     printable(id), printable(id));
}

std::string remind_period(int64_t seconds) {
    const int64_t minutes = seconds / 60;
    return xasprintf(plural("%lld minute", "%lld minutes", static_cast<unsigned long>(minutes)),
                     printable(minutes));
}

void print_nothing_waits() {
    printf("%s\n", _("No message is waiting."));
}

void warn_no_such_message(int64_t id) {
    warn(_("no such message: %lld"), printable(id));
}

void warn_withdrawn(int64_t id) {
    warn(_("message %lld has been withdrawn"), printable(id));
}

void warn_unreadable(int64_t id, int error) {
    warn(_("message %lld cannot be read: %s"), printable(id), strerror(error));
}

void warn_unreadable_answer(int64_t id, int error) {
    warn(_("the answer to message %lld cannot be read: %s"), printable(id), strerror(error));
}

void warn_not_a_file(const own_mailbox &box, int64_t id) {
    const std::string path = mailbox_path(box.owner, "acks/" + std::to_string(id));
    warn(_("message %lld cannot be answered while %s is not a regular file"), printable(id),
         path.c_str());
}

// ---- Answering ----------------------------------------------------------------------------

int confirm_and_tell(own_mailbox *box, int64_t id) {
    const mailbox_lock lock = mailbox_lock::take(*box);
    const confirmation outcome = answer_confirm(box, id, channel::terminal);
    switch (outcome.result) {
    case confirm_result::confirmed:
        printf(_("Message %lld confirmed.\n"), printable(id));
        return 0;
    case confirm_result::already:
        printf("%s\n", already_confirmed_sentence(id, outcome.answer).c_str());
        return 0;
    case confirm_result::not_a_file:
        warn_not_a_file(*box, id);
        break;
    case confirm_result::withdrawn:
        warn_withdrawn(id);
        break;
    case confirm_result::failed:
        if (outcome.answer.state == answer_state::failed)
            warn_unreadable_answer(id, outcome.error);
        else
            warn(_("message %lld could not be confirmed and stays waiting: %s"), printable(id),
                 strerror(outcome.error));
        break;
    }
    return 1;
}

// Says why an answered message cannot be postponed.
static void warn_answered(const own_mailbox &box, int64_t id) {
    const answer_record answer = answer_read(box, id);
    const int error = errno;
    switch (answer.state) {
    case answer_state::answered:
        warn(_("message %lld was already confirmed %s"), printable(id),
             answer_moment(answer).c_str());
        break;
    case answer_state::not_a_file:
        warn_not_a_file(box, id);
        break;
    case answer_state::none: // removed meanwhile, with the message
        warn_withdrawn(id);
        break;
    case answer_state::failed:
        warn_unreadable_answer(id, error);
        break;
    }
}

int postpone_and_tell(own_mailbox *box, int64_t id) {
    const mailbox_lock lock = mailbox_lock::take(*box);
    if (answer_postpone(box, id, channel::terminal) == 0) {
        printf(_("Message %lld postponed: it comes back in %s.\n"), printable(id),
               remind_period(remind_seconds()).c_str());
        return 0;
    }
    if (errno == EALREADY)
        warn_answered(*box, id);
    else if (errno == ENOENT)
        warn_withdrawn(id);
    else
        warn(_("message %lld could not be postponed: %s"), printable(id), strerror(errno));
    return 1;
}

void note_shown(own_mailbox *box, int64_t id) {
    if (isatty(STDOUT_FILENO) == 0)
        return;
    const mailbox_lock lock = mailbox_lock::take(*box);
    (void)answer_shown(box, id, channel::terminal, now(), remind_seconds()); // shown once more
}

// ---- The terminal -------------------------------------------------------------------------

terminal_size output_size() {
    winsize size = {};
    terminal_size result;
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_row > 0 && size.ws_col > 0)
        result = {size.ws_row, size.ws_col};
    return result;
}

bool is_on_terminal() {
    return isatty(STDIN_FILENO) != 0 && isatty(STDOUT_FILENO) != 0;
}

bool is_dumb_terminal() {
    const char *terminal = getenv("TERM");
    return terminal == nullptr || *terminal == '\0' || strcmp(terminal, "dumb") == 0;
}

// Columns of the character that `text` begins with. Everything from U+0800 on counts as wide, but
// the dashes of a headline: too many rows are better than too few.
static size_t columns_of(std::string_view text, size_t column) {
    constexpr size_t TAB_STOP = 8;
    if (text.front() == '\t')
        return TAB_STOP - column % TAB_STOP;
    return static_cast<unsigned char>(text.front()) >= 0xe0 && !text.starts_with("─") ? 2 : 1;
}

size_t rows_of(std::string_view text, int columns) {
    const auto width = static_cast<size_t>(std::max(columns, 2));
    size_t rows = 0;
    size_t column = 0;
    for (size_t at = 0; at < text.size(); at++) {
        if (text[at] == '\n') {
            rows++;
            column = 0;
        } else if (!is_continuation_byte(text[at])) {
            const size_t wide = columns_of(text.substr(at), column);
            if (column + wide > width) {
                rows++;
                column = 0;
            }
            column += wide;
        }
    }
    return rows + (column > 0 ? 1 : 0);
}

// A text that fits into the stream's buffer counts as written by fwrite() even if the terminal did
// not take it: only the stream's error tells.
static bool is_written(const std::string &text) {
    return fwrite(text.data(), 1, text.size(), stdout) == text.size() && fflush(stdout) == 0 &&
           ferror(stdout) == 0;
}

static std::string banner_of(const message_record &message) {
    strbuf banner;
    message_banner(message, &banner);
    return std::string(banner.view());
}

std::string message_headline_of(const message_record &message) {
    const std::string banner = banner_of(message);
    return banner.substr(0, banner.find('\n'));
}

shown_in show_message(const message_record &message, const std::string &footer) {
    const std::string text = banner_of(message) + (footer.empty() ? "" : footer + "\n");
    const terminal_size size = output_size();
    if (is_on_terminal() && !is_dumb_terminal() &&
        rows_of(text, size.columns) >= static_cast<size_t>(size.rows)) {
        const std::string pager = pager_command();
        const auto print = [&](FILE *stream) { fputs(text.c_str(), stream); };
        if (!pager.empty() && pager_show(pager, print))
            return shown_in::pager;
    }
    return is_written(text) ? shown_in::screen : shown_in::nowhere;
}
