// tellbox list and tellbox show: all messages, and one whole message.
#include "user/command.h"
#include "user/texts.h"

#include "common/width.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>

// ---- What has become of a message ---------------------------------------------------------

static std::string short_time(int64_t time) {
    char date[SHORT_TIME_BYTES];
    format_time_short(time, date);
    return date;
}

// Returns the newer of the two marks.
static const channel_mark &last_mark(const channel_mark &one, const channel_mark &other) {
    return one.kind == mark_kind::none || other.time > one.time ? other : one;
}

static std::string waiting_text(const waiting_message &message) {
    const channel_mark &mark = last_mark(message.terminal, message.desktop);
    switch (mark.kind) {
    case mark_kind::none:
        return _("waiting");
    case mark_kind::shown:
        return xasprintf(_("waiting, shown on %s"), short_time(mark.time).c_str());
    case mark_kind::postponed:
        return xasprintf(_("postponed on %s"), short_time(mark.time).c_str());
    }
    return "";
}

static std::string answered_text(const own_mailbox &box, int64_t id) {
    const answer_record answer = answer_read(box, id);
    switch (answer.state) {
    case answer_state::answered:
        return xasprintf(_("confirmed %s"), answer_moment(answer).c_str());
    case answer_state::not_a_file:
        return xasprintf(_("cannot be answered: acks/%lld is not a regular file"),
                         static_cast<long long>(id));
    case answer_state::none:
        return _("read");
    case answer_state::failed:
        break;
    }
    return "?";
}

// ---- list ---------------------------------------------------------------------------------

constexpr int TEXT_COLUMNS = 40;
constexpr int TEXT_COLUMNS_MAX = 120; // on a wide terminal
constexpr int TEXT_COLUMNS_MIN = 16;  // in less room the state gets a line of its own
constexpr int ID_COLUMNS = 5;
constexpr int DATE_COLUMNS = 12;
constexpr int TEXT_BEGIN = ID_COLUMNS + 1 + DATE_COLUMNS + 1;
constexpr int STATE_GAP = 2; // columns between text and state

// Returns the title, or the first line that is not empty.
static std::string headline(const message_record &message) {
    if (!message.title.empty())
        return message.title;
    std::string_view text = message.text;
    text.remove_prefix(std::min(text.find_first_not_of("\n \t"), text.size()));
    return clean_line(text.substr(0, text.find('\n')));
}

namespace {

struct list_row {
    std::string id;
    std::string date;
    std::string text; // at most TEXT_COLUMNS_MAX columns
    std::string state;
};

// How the rows fit on the screen.
struct list_layout {
    int text_columns = TEXT_COLUMNS;
    bool has_state_line = false; // the state has a line of its own
    int state_indent = 0;
};

} // namespace

static int widest_of(const std::vector<list_row> &rows, std::string list_row::*member) {
    int widest = 0;
    for (const list_row &row : rows)
        widest = std::max(widest, columns_of_text(row.*member));
    return widest;
}

// Gives the text the room that the states leave on the screen. A program that reads the list gets
// the same columns always.
static list_layout layout_of(const std::vector<list_row> &rows) {
    constexpr int STATE_INDENT_MIN = 2;
    constexpr int STATE_INDENT_MAX = ID_COLUMNS + 1;
    list_layout layout;
    if (isatty(STDOUT_FILENO) == 0)
        return layout;
    const int columns = output_size().columns;
    const int state_columns = widest_of(rows, &list_row::state);
    const int room = columns - (TEXT_BEGIN + STATE_GAP + state_columns);
    layout.has_state_line = room < TEXT_COLUMNS_MIN;
    const int wanted = std::max(widest_of(rows, &list_row::text), TEXT_COLUMNS);
    layout.text_columns =
        std::clamp(layout.has_state_line ? columns - TEXT_BEGIN : room, TEXT_COLUMNS_MIN, wanted);
    layout.state_indent = std::clamp(columns - state_columns, STATE_INDENT_MIN, STATE_INDENT_MAX);
    return layout;
}

static void print_row(const list_row &row, const list_layout &layout) {
    const std::string text(first_columns(row.text, layout.text_columns));
    printf("%-*s %-*s %s", ID_COLUMNS, row.id.c_str(), DATE_COLUMNS, row.date.c_str(),
           text.c_str());
    const int gap = layout.text_columns - columns_of_text(text) + STATE_GAP;
    if (layout.has_state_line)
        printf("\n%*s%s\n", layout.state_indent, "", row.state.c_str());
    else
        printf("%*s%s\n", gap, "", row.state.c_str());
}

// The first row is the heading.
static void print_rows(const std::vector<list_row> &rows) {
    const list_layout layout = layout_of(rows);
    for (const list_row &row : rows)
        print_row(row, layout);
}

struct listed_message {
    int64_t id;
    message_record message;
    std::string state;
};

// Fills `listed` with a message in the inbox. What is no message is absent; warns if it failed.
static lookup list_inbox_message(const own_mailbox &box, int64_t id, listed_message *listed) {
    waiting_message message;
    switch (inbox_look(box, id, now(), &message)) {
    case waiting_state::waiting:
        listed->state = waiting_text(message);
        break;
    case waiting_state::expired:
        listed->state = xasprintf(_("expired on %s"), short_time(message.message.expires).c_str());
        break;
    case waiting_state::answered:
        listed->state = answered_text(box, id);
        break;
    case waiting_state::absent:
        return lookup::absent;
    case waiting_state::failed:
        warn_unreadable(id, errno);
        return lookup::failed;
    }
    listed->id = id;
    listed->message = std::move(message.message);
    return lookup::found;
}

// The same with a message that was read.
static lookup list_read_message(const own_mailbox &box, int64_t id, listed_message *listed) {
    const lookup found = message_look_up(box.read, id, &listed->message);
    if (found == lookup::failed)
        warn_unreadable(id, errno);
    listed->id = id;
    listed->state = answered_text(box, id);
    return found;
}

// The same, wherever it is.
static lookup list_message(const own_mailbox &box, int64_t id, listed_message *listed) {
    const lookup found = list_inbox_message(box, id, listed);
    return found == lookup::absent ? list_read_message(box, id, listed) : found;
}

static std::vector<int64_t> ids_or_die(const own_mailbox &box, const unique_fd &folder) {
    std::vector<int64_t> ids;
    if (folder_ids(folder, &ids) != 0)
        die("%s: %s", box.path.c_str(), strerror(errno));
    return ids;
}

static list_row row_of(const listed_message &listed) {
    return {std::to_string(listed.id), short_time(listed.message.date),
            std::string(first_columns(headline(listed.message), TEXT_COLUMNS_MAX)), listed.state};
}

int cmd_list() {
    const own_mailbox box = open_own_mailbox_or_die();
    const std::vector<int64_t> in_inbox = ids_or_die(box, box.inbox);
    const std::vector<int64_t> in_read = ids_or_die(box, box.read);
    std::vector<int64_t> ids;
    std::ranges::set_union(in_inbox, in_read, std::back_inserter(ids));
    std::vector<list_row> rows = {{_("ID"), _("DATE"), _("TEXT"), _("STATE")}};
    bool has_failed = false;
    for (const int64_t id : ids) {
        listed_message listed;
        const lookup found = list_message(box, id, &listed);
        has_failed = has_failed || found == lookup::failed;
        if (found == lookup::found)
            rows.push_back(row_of(listed));
    }
    if (rows.size() > 1)
        print_rows(rows);
    else if (!has_failed)
        print_nothing_waits();
    return has_failed ? 1 : 0;
}

// ---- show ---------------------------------------------------------------------------------

static int show_one(own_mailbox *box, int64_t id) {
    waiting_message message;
    const bool waits = inbox_look(*box, id, now(), &message) == waiting_state::waiting;
    listed_message listed;
    switch (list_message(*box, id, &listed)) {
    case lookup::found:
        break;
    case lookup::absent:
        warn_no_such_message(id);
        return 1;
    case lookup::failed:
        return 1;
    }
    if (show_message(listed.message, waits ? how_to_answer_sentence(id) : listed.state) ==
        shown_in::nowhere)
        return 1;
    if (waits)
        note_shown(box, id);
    return 0;
}

int cmd_show(const arguments &ids) {
    int64_t id = 0;
    if (ids.empty())
        die("%s", _("missing message ID"));
    if (!parse_identifier(ids[0], &id))
        return 1;
    own_mailbox box = open_own_mailbox_or_die();
    return show_one(&box, id);
}
