#include "tbx/tui/list.h"

#include "tbx/sent.h"
#include "tbx/tui/compose.h"
#include "tbx/tui/detail.h"
#include "tbx/tui/dialog.h"
#include "tbx/tui/list_dialogs.h"
#include "tbx/tui/screen.h"
#include "tbx/user_child.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

// ---- Loading ------------------------------------------------------------------------------

std::string tui_clock() {
    char text[16];
    const time_t seconds = now();
    struct tm local = {};
    if (localtime_r(&seconds, &local) == nullptr ||
        strftime(text, sizeof text, "%H:%M:%S", &local) == 0)
        return "?";
    return text;
}

void tui_clean_message(message_record *message) {
    message->from = tui_clean(message->from);
    message->title = tui_clean(message->title);
    message->text = tui_clean(message->text);
}

// Ignores the case of ASCII letters.
static bool contains(const std::string &text, const std::string &sought) {
    return strcasestr(text.c_str(), sought.c_str()) != nullptr;
}

static bool is_wanted(const message_record &message, const std::string &search_text) {
    return search_text.empty() || contains(message.text, search_text) ||
           contains(message.title, search_text);
}

// Loads the summary of a message; one that cannot be read now stays as it was shown before.
static lookup load_row(int64_t id, const std::vector<message_summary> &old_rows,
                       confirmation_cache *cache, message_summary *summary) {
    const lookup loaded = message_summary_load(id, cache, summary);
    if (loaded == lookup::failed) {
        const auto old = std::ranges::find(
            old_rows, id, [](const message_summary &row) { return row.message.id; });
        if (old == old_rows.end())
            return lookup::failed;
        *summary = *old;
        return lookup::found;
    }
    tui_clean_message(&summary->message);
    return loaded;
}

void message_list_load(message_list *list, const std::string &search_text) {
    list->loaded_at = tui_clock();
    user_times_renew();
    strlist ids;
    if (sent_list_ids(&ids) != 0 && lookup_of_error(errno) == lookup::failed)
        return; // the next reload tries again
    const std::vector<message_summary> old_rows = std::exchange(list->rows, {});
    confirmation_cache cache;
    for (size_t i = ids.count; i > 0 && !quit_requested; i--) {
        int64_t id = 0;
        message_summary summary;
        if (!parse_id(ids.items[i - 1], &id))
            continue;
        const lookup loaded = load_row(id, old_rows, &cache, &summary);
        if (loaded == lookup::found && is_wanted(summary.message, search_text))
            list->rows.push_back(std::move(summary));
    }
}

// ---- State to lines -----------------------------------------------------------------------

static constexpr int OTHER_ROWS = 7;      // everything on the screen that is no message row
static constexpr int WIDE_COLS = 106;     // from here on the recipients are spelled out
static constexpr int FIXED_COLS = 37;     // what stands beside the message and the recipients
static constexpr int RECIPIENTS_COLS = 7; // five of its own, "12/20", and two of the frame's
static constexpr int RECIPIENTS_WIDE_COLS = 44;
static constexpr int MESSAGE_MIN_COLS = 10;

static int page_rows() {
    return tui.screen_rows - OTHER_ROWS;
}

static bool is_wide() {
    return tui.screen_cols - 4 >= WIDE_COLS;
}

static int message_cols() {
    const int recipients = is_wide() ? RECIPIENTS_WIDE_COLS : RECIPIENTS_COLS;
    return std::max(tui.screen_cols - FIXED_COLS - recipients, MESSAGE_MIN_COLS);
}

static void push_line(strlist *lines, const strbuf &line) {
    strlist_push_view(lines, line.view());
}

static void render_heading(strlist *lines) {
    strbuf line;
    strbuf_printf(&line, " %s%3s  %-11s  ", tui_style.heading, "ID", "DATE");
    tui_pad(&line, "MESSAGE", message_cols());
    strbuf_printf(&line, "  %s%s", "RECIPIENTS", tui_style.reset);
    push_line(lines, line);
}

// Returns the columns for the message in its row. A long identifier moves everything behind it:
// from five digits on the message makes room, or "100%" would not fit.
static int message_cols(const message_summary &row) {
    static constexpr int ID_ROOM_COLS = 4;
    const int id_cols = columns_of_text(std::to_string(row.message.id));
    const int excess = is_wide() ? 0 : std::max(id_cols - ID_ROOM_COLS, 0);
    return std::max(message_cols() - excess, MESSAGE_MIN_COLS);
}

static void append_message(strbuf *line, const message_summary &row) {
    strbuf text;
    strbuf_append_view(&text, message_marks(row, tui_style.grey, tui_style.reset));
    if (!row.message.title.empty())
        strbuf_printf(&text, "%s%s%s · ", tui_style.bold, row.message.title.c_str(),
                      tui_style.reset);
    const std::string_view first_line = row.message.text;
    strbuf_append_view(&text, first_line.substr(0, first_line.find('\n')));
    tui_fit(line, text.view(), message_cols(row));
}

// Returns how many have confirmed, in the columns that the line leaves. A number is never cut: that
// would be another number.
static std::string short_recipients(const message_summary &row, int columns) {
    const int64_t total = int64_t{row.confirmed} + row.delivered + row.sent;
    std::string text = xasprintf("%d/%lld", row.confirmed, static_cast<long long>(total));
    if (columns_of_text(text) > columns)
        text = xasprintf(
            "%lld%%", static_cast<long long>(row.confirmed * 100LL / std::max<int64_t>(total, 1)));
    return columns_of_text(text) <= columns ? text : "";
}

static void append_recipients(strbuf *line, const message_summary &row) {
    if (is_wide())
        tui_counts(line, row.confirmed, row.delivered, row.sent);
    else
        strbuf_append_str(
            line, short_recipients(row, tui_body_cols() - tui_line_columns(line->view())).c_str());
}

static void append_row(strbuf *line, const message_summary &row, bool is_selected) {
    char date[SHORT_TIME_BYTES];
    format_time_short(row.message.date, date);
    strbuf_printf(line, "%s%3s  %-11s  ", is_selected ? ">" : " ",
                  std::to_string(row.message.id).c_str(), date);
    append_message(line, row);
    strbuf_append_str(line, "  ");
    tui_confirm_bar(line, row.confirmed, row.delivered, row.sent);
    strbuf_append_str(line, "  ");
    append_recipients(line, row);
}

// Shows the line in the selection style only, over the whole width.
static void highlight(strbuf *line) {
    const std::string plain = tui_without_styles(line->view());
    strbuf_reset(line);
    strbuf_append_str(line, tui_style.selection);
    tui_pad(line, plain, tui_body_cols());
    strbuf_append_str(line, tui_style.reset);
}

static void render_rows(strlist *lines, const message_list &list, int selected, int top) {
    const int end = std::min(static_cast<int>(list.rows.size()), top + page_rows());
    for (int row = top; row < end; row++) {
        strbuf line;
        append_row(&line, list.rows[static_cast<size_t>(row)], row == selected);
        if (row == selected && tui_style.colour_on)
            highlight(&line);
        push_line(lines, line);
    }
}

static void render_legend(strlist *lines, const std::string &search_text) {
    strbuf line;
    strbuf_printf(&line, "%s█%s %s", tui_style.green, tui_style.reset, "confirmed");
    strbuf_printf(&line, "   %s▒%s %s", tui_style.yellow, tui_style.reset, "delivered");
    strbuf_printf(&line, "   %s░%s %s", tui_style.red, tui_style.reset, "sent");
    if (!search_text.empty())
        strbuf_printf(&line, "      %ssearch: «%s» (Esc to clear)%s", tui_style.grey,
                      tui_blank_controls(search_text).c_str(), tui_style.reset);
    push_line(lines, line);
}

void message_list_render(strlist *lines, const message_list &list, int selected, int top,
                         const std::string &search_text) {
    render_heading(lines);
    if (list.rows.empty())
        tui_add_line(lines, "   %s%s%s", tui_style.grey,
                     search_text.empty() ? "No messages sent."
                                         : "No message contains the search text.",
                     tui_style.reset);
    else
        render_rows(lines, list, selected, top);
    while (static_cast<int>(lines->count) < tui_body_rows() - 1)
        strlist_push_dup(lines, "");
    render_legend(lines, search_text);
}

// ---- The page -----------------------------------------------------------------------------

// The list is read again after so many idle ticks and one more.
static constexpr int IDLE_TICKS_MAX = 5;

struct list_page {
    message_list list;
    std::string search_text; // empty: no filter
    int selected = 0;
    int top = 0;
    int tick_count = 0;  // idle ticks since the list was last read because of them
    compose_rest unsent; // kept once the terminal is restored
};

static int row_count(const list_page &state) {
    return static_cast<int>(state.list.rows.size());
}

static void reload(list_page *state) {
    message_list_load(&state->list, state->search_text);
}

static void clamp_view(list_page *state) {
    const int rows = row_count(*state);
    const int page = page_rows();
    if (rows > 0)
        state->selected = std::min(state->selected, rows - 1);
    state->top = std::min(state->top, state->selected);
    if (page > 0 && state->top + page <= state->selected)
        state->top = state->selected - page + 1;
}

static std::string list_footer() {
    const char *const key = tui_style.key;
    const char *const off = tui_style.reset;
    return xasprintf("%sEnter%s %s   %sn%s %s   %sr%s %s   %sm%s %s   %sp%s %s   %s/%s %s   "
                     "%s?%s %s   %sq%s %s",
                     key, off, "open", key, off, "new", key, off, "revoke", key, off, "remind", key,
                     off, "purge", key, off, "search", key, off, "keys", key, off, "quit");
}

static void build(const list_page &state, tui_screen *page) {
    page->title = "Tellbox · sent messages";
    page->status = xasprintf("updated at %s", state.list.loaded_at.c_str());
    page->footer = list_footer();
    strlist_free(&page->lines);
    message_list_render(&page->lines, state.list, state.selected, state.top, state.search_text);
}

// ---- Keys ---------------------------------------------------------------------------------

static const message_summary *selected_message(const list_page &state) {
    const bool has_rows = state.selected < row_count(state);
    return has_rows ? &state.list.rows[static_cast<size_t>(state.selected)] : nullptr;
}

static void move_selection(list_page *state, int rows) {
    if (row_count(*state) > 0)
        state->selected = std::clamp(state->selected + rows, 0, row_count(*state) - 1);
}

static void idle_tick(list_page *state) {
    if (++state->tick_count <= IDLE_TICKS_MAX)
        return;
    state->tick_count = 0;
    reload(state);
}

static void open_selected(list_page *state) {
    const message_summary *message = selected_message(*state);
    if (message == nullptr)
        return;
    detail_view(message->message.id);
    reload(state);
}

static void revoke_selected(list_page *state, tui_screen *page) {
    const message_summary *message = selected_message(*state);
    if (message == nullptr || message->revoked)
        return;
    tui_revoke_dialog(page, *message);
    reload(state);
}

static void remind_selected(list_page *state, tui_screen *page) {
    const message_summary *message = selected_message(*state);
    if (message == nullptr || message->revoked || message->expired || message->delivered == 0)
        return;
    tui_remind_dialog(page, *message);
    reload(state);
}

static void search(list_page *state, tui_screen *page) {
    if (!search_dialog(page, &state->search_text))
        return;
    state->selected = 0;
    reload(state);
}

static void clear_search(list_page *state) {
    if (state->search_text.empty())
        return;
    state->search_text.clear();
    reload(state);
}

// Returns false to leave the interface.
static bool press_letter(list_page *state, tui_screen *page, std::string_view letter) {
    if (letter == "q" || letter == "Q")
        return false;
    if (letter == "n") {
        state->unsent = compose_page();
        reload(state);
    } else if (letter == "r") {
        revoke_selected(state, page);
    } else if (letter == "m") {
        remind_selected(state, page);
    } else if (letter == "p") {
        purge_dialog(page);
        reload(state);
    } else if (letter == "/") {
        search(state, page);
    } else if (letter == "?") {
        keys_dialog(page);
    }
    return true;
}

// Returns false to leave the interface.
static bool press(list_page *state, tui_screen *page, tui_key key, const char *character) {
    switch (key) {
    case KEY_ERROR:
        return false;
    case KEY_CHAR:
        return press_letter(state, page, character);
    case KEY_TIMEOUT:
        idle_tick(state);
        break;
    case KEY_UP:
        move_selection(state, -1);
        break;
    case KEY_DOWN:
        move_selection(state, 1);
        break;
    case KEY_PGUP:
        move_selection(state, -page_rows());
        break;
    case KEY_PGDN:
        move_selection(state, page_rows());
        break;
    case KEY_HOME:
        state->selected = 0;
        break;
    case KEY_END:
        state->selected = std::max(row_count(*state) - 1, 0);
        break;
    case KEY_ENTER:
        open_selected(state);
        break;
    case KEY_ESC:
        clear_search(state);
        break;
    case KEY_NONE:
    case KEY_RIGHT:
    case KEY_LEFT:
    case KEY_TAB:
    case KEY_BACKTAB:
    case KEY_BACKSPACE:
    case KEY_DELETE:
    case KEY_CTRL_E:
    case KEY_CTRL_S:
    case KEY_PASTE:
        break;
    }
    return true;
}

// ---- The interface ------------------------------------------------------------------------

// Whether the list would be a broken frame: the interface ends then.
static bool screen_is_too_small() {
    return tui.screen_rows < TUI_MIN_ROWS || tui.screen_cols < TUI_MIN_COLS;
}

// Returns what a form has left.
static compose_rest run_list() {
    list_page state;
    reload(&state);
    tui_screen page;
    page.rebuild = [&state](tui_screen *below) {
        clamp_view(&state); // the size may have changed
        build(state, below);
    };
    while (!quit_requested && !screen_is_too_small()) {
        clamp_view(&state);
        if (!tui_keys_wait()) {
            build(state, &page);
            tui_draw(page);
        }
        tui_character character = {};
        const tui_key key = tui_next_key(character);
        if (!press(&state, &page, key, character))
            break;
    }
    return state.unsent;
}

bool tui_run() {
    if (!tui_start())
        return false;
    const compose_rest unsent = run_list();
    tui_end();
    for (const std::string &line : compose_keep(unsent))
        if (!tui_output_is_stuck(STDERR_FILENO))
            warn("%s", line.c_str());
    return true;
}
