#include "user/prompt.h"

#include "user/answer.h"
#include "user/command.h"
#include "user/texts.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

constexpr int64_t MINUTE = 60;
constexpr int64_t UNITS_MAX = 60; // minutes or seconds that a status can hold
constexpr int SECONDS_BASE = 60;
constexpr int UNMARKED_BASE = 192;

int prompt_status(int64_t seconds, bool marked) {
    const int64_t minutes = std::clamp<int64_t>((seconds + MINUTE - 1) / MINUTE, 1, UNITS_MAX);
    if (!marked)
        return static_cast<int>(UNMARKED_BASE + minutes);
    if (seconds <= UNITS_MAX)
        return static_cast<int>(SECONDS_BASE + std::max<int64_t>(seconds, 1));
    return static_cast<int>(minutes);
}

// ---- The text -----------------------------------------------------------------------------

// Returns the longest beginning of `text` that takes at most so many rows; at least one character.
static std::string_view first_rows(std::string_view text, size_t rows, int columns) {
    size_t low = 0; // fits
    size_t high = text.size();
    while (low < high) { // a longer beginning never takes fewer rows
        const size_t middle = low + (high - low + 1) / 2;
        if (rows_of(text.substr(0, middle), columns) <= rows)
            low = middle;
        else
            high = middle - 1;
    }
    while (low > 0 && low < text.size() && (static_cast<unsigned char>(text[low]) & 0xc0) == 0x80)
        low--;
    return text.substr(0, low);
}

// Returns the message in its frame, cut to so many rows if necessary.
static std::string framed(const waiting_message &waiting, size_t rows, int columns) {
    strbuf whole;
    message_banner(waiting.message, &whole);
    if (rows_of(whole.view(), columns) <= rows)
        return std::string(whole.view());
    constexpr size_t OTHER_ROWS = 3; // the headline, what is left, the rule
    message_record cut = waiting.message;
    const size_t title_rows = rows_of(clean_line(cut.title), columns);
    const size_t text_rows = rows > OTHER_ROWS + title_rows ? rows - OTHER_ROWS - title_rows : 1;
    const std::string note =
        xasprintf(_("… all of it with: tellbox show %lld"), static_cast<long long>(waiting.id));
    cut.text = std::string(first_rows(cut.text, text_rows, columns));
    cut.text = cut.text.substr(0, cut.text.find_last_not_of('\n') + 1) + "\n" + note;
    strbuf banner;
    message_banner(cut, &banner);
    return std::string(banner.view());
}

std::string prompt_text(const std::vector<waiting_message> &due, size_t others, int rows,
                        int columns, std::vector<int64_t> *shown) {
    const size_t budget = std::max<size_t>(static_cast<size_t>(rows) * 2 / 3, 1);
    std::string text;
    size_t used = 0;
    for (const waiting_message &message : due) {
        const std::string answer = how_to_answer_sentence(message.id) + "\n";
        const size_t answer_rows = rows_of(answer, columns);
        const size_t room = budget > used + answer_rows ? budget - used - answer_rows : 1;
        std::string one;
        if (shown->empty()) {
            one = framed(message, room, columns);
        } else {
            strbuf banner;
            message_banner(message.message, &banner);
            one = banner.view();
            if (rows_of(one, columns) > room)
                break;
        }
        text += one + answer;
        used += rows_of(one, columns) + answer_rows;
        shown->push_back(message.id);
    }
    const size_t left = others + due.size() - shown->size();
    if (left > 0)
        text += xasprintf(left == 1 ? _("%zu more message is waiting: tellbox\n")
                                    : _("%zu more messages are waiting: tellbox\n"),
                          left);
    return text;
}

// ---- One look -----------------------------------------------------------------------------

namespace {

struct look_result {
    size_t shown = 0;
    bool marked = true;
    int64_t next = 0; // when the next message is due, if known
};

} // namespace

// Finds the messages that are due now, at most `max`, in the order of their numbers; how many more
// there are; and when the first of the others is due.
static void find_due(const own_mailbox &box, int64_t at, int64_t remind, size_t max,
                     std::vector<waiting_message> *due, size_t *others, int64_t *next) {
    std::vector<pending_message> pending;
    if (inbox_pending(box, at, &pending) != 0)
        return; // the next prompt looks again
    for (const pending_message &one : pending) {
        const int64_t time = due_time(one.terminal, one.desktop, channel::terminal, at, remind);
        waiting_message message;
        if (time != 0)
            *next = std::min(*next, time);
        else if (due->size() >= max)
            ++*others;
        else if (inbox_look(box, one.id, at, &message) == waiting_state::waiting)
            due->push_back(std::move(message));
    }
}

static bool print_whole(const std::string &text) {
    return fwrite(text.data(), 1, text.size(), stdout) == text.size() && fflush(stdout) == 0;
}

static look_result look_once(own_mailbox *box, int64_t remind) {
    look_result result;
    const int64_t at = now();
    const terminal_size size = output_size();
    std::vector<waiting_message> due;
    std::vector<int64_t> shown;
    size_t others = 0;
    result.next = at + remind;
    // Each takes four rows at least.
    find_due(*box, at, remind, static_cast<size_t>(size.rows) / 4 + 1, &due, &others, &result.next);
    if (due.empty())
        return result;
    const std::string text = prompt_text(due, others, size.rows, size.columns, &shown);
    if (!print_whole(text))
        return result;
    for (const int64_t id : shown)
        if (answer_shown(box, id, channel::terminal, at, remind) != 0 && errno != ENOENT &&
            errno != EALREADY)
            result.marked = false;
    result.shown = shown.size();
    if (shown.size() < due.size() + others)
        result.next = at; // the next prompt continues
    return result;
}

// Shows what is due. Touches state/.prompt before each look: if the folders are older than that
// file, a shell knows that nothing has changed since. Writing a mark changes a folder, so after
// that it looks once more.
static int look(own_mailbox *box) {
    const int64_t remind = remind_seconds();
    const mailbox_lock lock = mailbox_lock::take(*box);
    bool marked = answer_touch_prompt(box) == 0;
    look_result result = look_once(box, remind);
    marked = marked && result.marked;
    if (marked && result.shown > 0 && result.next > now()) {
        (void)!answer_touch_prompt(box); // if it fails, the next prompt looks again
        const look_result again = look_once(box, remind);
        marked = again.marked;
        result.next = again.next;
    }
    return prompt_status(marked ? result.next - now() : remind, marked);
}

static bool is_silenced() {
    const char *terminal = getenv("TERM");
    const char *wish = getenv("TELLBOX_PROMPT");
    return isatty(STDOUT_FILENO) == 0 || terminal == nullptr || *terminal == '\0' ||
           strcmp(terminal, "dumb") == 0 || (wish != nullptr && strcmp(wish, "off") == 0);
}

int cmd_prompt() {
    own_mailbox box;
    std::string owner;
    if (is_silenced() || own_account(&owner) != 0 ||
        mailbox_open(owner, &box) != mailbox_look::found)
        return prompt_status(MINUTE * UNITS_MAX, /*marked=*/true);
    answer_finish_interrupted(&box);
    return look(&box);
}

int cmd_mailbox() {
    printf("%s\n", mailbox_path(own_account_or_die()).c_str());
    return 0;
}
