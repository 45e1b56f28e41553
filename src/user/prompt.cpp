#include "user/prompt.h"

#include "common/characters.h"
#include "user/answer.h"
#include "user/command.h"
#include "user/texts.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <set>

constexpr int64_t MINUTE = 60;
constexpr int64_t UNITS_MAX = 60; // minutes or seconds that a status can hold
constexpr int SECONDS_BASE = 60;
constexpr int UNMARKED_BASE = 192;
constexpr int64_t UNMARKED_MINUTES_MAX = 20;
constexpr int UNMARKED_BLIND = 213;
constexpr int BLIND = 214;
constexpr int64_t SOON_SECONDS = 1; // after a failure: the next prompt looks again

int prompt_status(int64_t seconds, prompt_memory memory) {
    const int64_t minutes = std::clamp<int64_t>((seconds + MINUTE - 1) / MINUTE, 1, UNITS_MAX);
    switch (memory) {
    case prompt_memory::none:
        if (seconds <= UNITS_MAX)
            return static_cast<int>(SECONDS_BASE + std::max<int64_t>(seconds, 1));
        return static_cast<int>(minutes);
    case prompt_memory::shown:
        return static_cast<int>(UNMARKED_BASE + std::min(minutes, UNMARKED_MINUTES_MAX));
    case prompt_memory::blind:
        return BLIND;
    case prompt_memory::shown_blind:
        return UNMARKED_BLIND;
    }
    return BLIND;
}

// ---- The text -----------------------------------------------------------------------------

// Returns the first `end` bytes of `text`, without the beginning of a character that ends later.
static std::string_view whole_characters(std::string_view text, size_t end) {
    while (end > 0 && end < text.size() && is_continuation_byte(text[end]))
        end--;
    return text.substr(0, end);
}

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
    return whole_characters(text, low);
}

static std::string banner_of(const message_record &message) {
    strbuf banner;
    message_banner(message, &banner);
    return std::string(banner.view());
}

// Returns the message with a title that leaves the headline at most so many rows.
static message_record with_short_title(message_record message, size_t rows, int columns) {
    message_record untitled = message;
    untitled.title.clear();
    untitled.text.clear();
    const auto headline_rows = [&](std::string_view title) {
        untitled.title = title;
        const std::string banner = banner_of(untitled);
        return rows_of(banner.substr(0, banner.find('\n')), columns);
    };
    if (headline_rows(message.title) <= rows)
        return message;
    const std::string_view title = message.title;
    size_t low = 0;
    size_t high = title.size();
    while (low < high) { // a longer beginning never takes fewer rows
        const size_t middle = low + (high - low + 1) / 2;
        if (headline_rows(std::string(title.substr(0, middle)) + "…") <= rows)
            low = middle;
        else
            high = middle - 1;
    }
    message.title = std::string(whole_characters(title, low)) + "…";
    return message;
}

// Returns the message in its frame, cut to so many rows if necessary.
static std::string framed(const waiting_message &waiting, size_t rows, int columns) {
    constexpr size_t HEADLINE_ROWS_MAX = 3;
    const size_t headline_rows = std::clamp<size_t>(rows / 3, 1, HEADLINE_ROWS_MAX);
    message_record cut = with_short_title(waiting.message, headline_rows, columns);
    std::string whole = banner_of(cut);
    if (rows_of(whole, columns) <= rows)
        return whole;
    const std::string note =
        xasprintf(_("… all of it with: tellbox show %lld"), static_cast<long long>(waiting.id));
    std::string text = std::move(cut.text);
    cut.text = note;
    const size_t other_rows = rows_of(banner_of(cut), columns);
    const size_t text_rows = rows > other_rows ? rows - other_rows : 1;
    text = first_rows(text, text_rows, columns);
    cut.text = text.substr(0, text.find_last_not_of('\n') + 1) + "\n" + note;
    return banner_of(cut);
}

std::string prompt_text(const std::vector<waiting_message> &due, bool has_more, int rows,
                        int columns, std::vector<int64_t> *shown) {
    const size_t budget = std::max<size_t>(static_cast<size_t>(rows) * 2 / 3, 1);
    std::string text;
    size_t used = 0;
    for (const waiting_message &message : due) {
        const std::string answer = how_to_answer_sentence(message.id) + "\n";
        const size_t answer_rows = rows_of(answer, columns);
        const size_t room = budget > used + answer_rows ? budget - used - answer_rows : 1;
        const std::string one =
            shown->empty() ? framed(message, room, columns) : banner_of(message.message);
        if (!shown->empty() && rows_of(one, columns) > room)
            break;
        text += one + answer;
        used += rows_of(one, columns) + answer_rows;
        shown->push_back(message.id);
    }
    const size_t left = due.size() - shown->size();
    if (has_more)
        text += _("More messages are waiting: tellbox\n");
    else if (left > 0)
        text += xasprintf(plural("%zu more message is waiting: tellbox\n",
                                 "%zu more messages are waiting: tellbox\n", left),
                          left);
    return text;
}

// ---- One look -----------------------------------------------------------------------------

namespace {

// A look for a shell.
struct prompt_look {
    own_mailbox *box;
    mailbox_lock lock;
    int64_t remind;           // seconds
    int64_t shell_showed = 0; // when the shell last showed what could not be marked; 0 for never
    std::set<int64_t> handled = {}; // what cannot be marked: shown now, or silent
};

struct look_result {
    bool has_shown = false;
    bool has_tried_marks = false; // the folder of the marks has changed
    bool is_all_marked = true;
    int64_t next = 0; // when to look again
};

struct due_messages {
    std::vector<waiting_message> first; // in the order of their numbers
    bool has_more = false;
};

} // namespace

static bool is_marked(const prompt_look &look, int64_t id, int64_t at) {
    return answer_shown(look.box, id, channel::terminal, at, look.remind) == 0 || errno == ENOENT ||
           errno == EALREADY;
}

// Whether the message stays silent because this shell has shown it, and it cannot be marked. A
// message that is older than that and can be marked was shown and reminded of, or came back.
static bool is_silent(prompt_look *look, int64_t id, int64_t at, look_result *result) {
    struct stat status = {};
    const int64_t back = look->shell_showed + look->remind;
    const bool is_over = back <= at || look->shell_showed > at; // or the clock was set back
    // The time of the change is that of the delivery, and not for the user to set.
    if (look->shell_showed == 0 || is_over ||
        fstatat(look->box->inbox.get(), std::to_string(id).c_str(), &status, AT_SYMLINK_NOFOLLOW) !=
            0 ||
        status.st_ctim.tv_sec >= look->shell_showed)
        return false;
    result->has_tried_marks = true;
    if (is_marked(*look, id, at))
        return false;
    look->handled.insert(id);
    result->next = std::min(result->next, back);
    return true;
}

// Finds the messages that are due now, at most `max`, whether there are more, and when the first
// of the others is due.
static due_messages find_due(prompt_look *look, int64_t at, size_t max, look_result *result) {
    due_messages due;
    std::vector<pending_message> pending;
    if (inbox_pending(*look->box, at, &pending) != 0)
        result->next = at + SOON_SECONDS;
    for (const pending_message &one : pending) {
        const int64_t time =
            due_time(one.terminal, one.desktop, channel::terminal, at, look->remind);
        if (time != 0) {
            result->next = std::min(result->next, time);
            continue;
        }
        if (due.has_more || look->handled.contains(one.id))
            continue;
        waiting_message message;
        const waiting_state state = inbox_look(*look->box, one.id, at, &message);
        if (state == waiting_state::failed)
            result->next = at + SOON_SECONDS;
        if (state != waiting_state::waiting || is_silent(look, one.id, at, result))
            continue;
        due.has_more = due.first.size() == max;
        if (!due.has_more)
            due.first.push_back(std::move(message));
    }
    return due;
}

// Prints the text. If the terminal does not take it at once, releases the lock: somebody may have
// stopped it, for as long as they like.
static bool print_whole(std::string_view text, mailbox_lock *lock) {
    constexpr size_t PIECE_BYTES = 512;
    while (!text.empty()) {
        pollfd output = {.fd = STDOUT_FILENO, .events = POLLOUT, .revents = 0};
        if (poll(&output, 1, /*timeout=*/0) == 0)
            lock->release();
        const std::string_view piece = text.substr(0, PIECE_BYTES);
        if (write_all(STDOUT_FILENO, piece.data(), piece.size()) != 0)
            return false;
        text.remove_prefix(piece.size());
    }
    return true;
}

static look_result look_once(prompt_look *look) {
    look_result result;
    const int64_t at = now();
    const terminal_size size = output_size();
    std::vector<int64_t> shown;
    result.next = at + look->remind;
    const size_t max = static_cast<size_t>(size.rows) / 4 + 1; // each takes four rows at least
    const due_messages due = find_due(look, at, max, &result);
    if (due.first.empty())
        return result;
    const std::string text = prompt_text(due.first, due.has_more, size.rows, size.columns, &shown);
    if (!print_whole(text, &look->lock)) {
        result.next = at + SOON_SECONDS;
        return result;
    }
    result.has_shown = true;
    result.has_tried_marks = true;
    for (const int64_t id : shown) {
        if (is_marked(*look, id, at))
            continue;
        result.is_all_marked = false;
        look->handled.insert(id);
    }
    if (due.has_more || shown.size() < due.first.size())
        result.next = at; // the next prompt continues
    return result;
}

static prompt_memory memory_of(bool is_touched, bool is_all_marked) {
    if (is_touched)
        return is_all_marked ? prompt_memory::none : prompt_memory::shown;
    return is_all_marked ? prompt_memory::blind : prompt_memory::shown_blind;
}

// Shows what is due. Touches state/.prompt before each look: if the folders are older than that
// file, a shell knows that nothing has changed since. Writing a mark changes a folder, so after
// that it looks once more.
static int look_for_shell(own_mailbox *box, int64_t shell_showed) {
    prompt_look look = {.box = box,
                        .lock = mailbox_lock::take(*box),
                        .remind = remind_seconds(),
                        .shell_showed = shell_showed};
    bool is_touched = answer_touch_prompt(box) == 0;
    look_result result = look_once(&look);
    if (is_touched && result.has_tried_marks && result.next > now()) {
        is_touched = answer_touch_prompt(box) == 0;
        const look_result again = look_once(&look);
        result.is_all_marked = result.is_all_marked && again.is_all_marked;
        result.next = std::min(result.next, again.next);
    }
    return prompt_status(result.next - now(), memory_of(is_touched, result.is_all_marked));
}

// Finds the name and the parent (0 for one out of sight) of a process. Returns false if it cannot
// be determined.
static bool find_process(pid_t process, std::string *name, pid_t *parent) {
    constexpr size_t STAT_MAX_BYTES = 4096;
    strbuf text;
    const std::string path = xasprintf("/proc/%d/stat", static_cast<int>(process));
    if (read_file_limited(path.c_str(), STAT_MAX_BYTES, /*nofollow=*/true, &text) != 0)
        return false;
    // "PROCESS (NAME) STATE PARENT ...": the name can hold parentheses.
    const std::string_view stat = text.view();
    const size_t begin = stat.find('(');
    const size_t end = stat.rfind(") ");
    if (begin == std::string_view::npos || end == std::string_view::npos || end < begin)
        return false;
    name->assign(stat.substr(begin + 1, end - begin - 1));
    const std::string numbers(stat.substr(std::min(end + sizeof(") S"), stat.size())));
    *parent = static_cast<pid_t>(strtol(numbers.c_str(), nullptr, 10));
    return true;
}

// Whether the shell is the one that the file manager mc keeps behind its panels. What this shell
// prints at its prompt is dropped; what the shells print that it starts is seen.
static bool is_shell_behind_panels() {
    std::string name;
    pid_t parent = 0;
    return getenv("MC_SID") != nullptr && find_process(getppid(), &name, &parent) &&
           find_process(parent, &name, &parent) && name == "mc";
}

static bool is_silenced() {
    const char *wish = getenv("TELLBOX_PROMPT");
    return isatty(STDOUT_FILENO) == 0 || is_dumb_terminal() ||
           (wish != nullptr && strcmp(wish, "off") == 0);
}

// Finds the name of the own mailbox. A hook knows it: to look accounts up can take long. The
// mailbox must belong to the user in any case.
static bool find_owner(const arguments &words, std::string *owner) {
    if (words.empty())
        return own_account(owner) == 0;
    *owner = words[0];
    return is_account_folder(*owner);
}

// The words are the name of the mailbox, and when the shell last showed what could not be marked.
int cmd_prompt(const arguments &words) {
    own_mailbox box;
    std::string owner;
    int64_t shell_showed = 0;
    if (is_silenced())
        return prompt_status(MINUTE * UNITS_MAX, prompt_memory::none);
    if (is_shell_behind_panels())
        return prompt_status(MINUTE, prompt_memory::blind);
    if (words.size() > 1 && parse_id(words[1], &shell_showed) == 0)
        return prompt_status(MINUTE, prompt_memory::blind);
    const mailbox_look found =
        find_owner(words, &owner) ? mailbox_open(owner, &box) : mailbox_look::failed;
    switch (found) {
    case mailbox_look::found:
        break;
    case mailbox_look::absent:
        return prompt_status(MINUTE * UNITS_MAX, prompt_memory::none);
    case mailbox_look::failed:
        return prompt_status(MINUTE, prompt_memory::blind);
    }
    answer_finish_interrupted(&box);
    return look_for_shell(&box, shell_showed);
}

int cmd_mailbox() {
    printf("%s\n", mailbox_path(own_account_or_die()).c_str());
    return 0;
}
