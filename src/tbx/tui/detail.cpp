#include "tbx/tui/detail.h"

#include "tbx/command.h"
#include "tbx/sent.h"
#include "tbx/status.h"
#include "tbx/tui/dialog.h"
#include "tbx/tui/job.h"
#include "tbx/tui/list.h"
#include "tbx/tui/screen.h"
#include "tbx/user_child.h"

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

enum class detail_tab { recipients, history };

struct detail_page {
    int64_t id = 0;
    message_summary summary;
    std::vector<recipient_line> recipients;
    strlist text_lines;       // the text, wrapped
    strlist history_lines;    // on the History tab only
    bool has_history = false; // false until they are there
    detail_tab tab = detail_tab::recipients;
    int scroll = 0; // first entry of the tab that is shown
    bool needs_reload = true;
    bool is_idle = false; // nobody asked for that reload
    int tick_count = 0;
    std::string loaded_at;
    unsigned changes_seen = tui.screen_changes; // the text is wrapped for the present size
};

// ---- Loading ------------------------------------------------------------------------------

static constexpr int TEXT_SIDE_COLS = 8; // the frame, the bar, and one that stays empty

static void wrap_text(detail_page *state) {
    state->changes_seen = tui.screen_changes;
    strlist_free(&state->text_lines);
    tui_wrap(state->summary.message.text, tui.screen_cols - TEXT_SIDE_COLS, &state->text_lines);
}

// Loads the recipients. If they cannot be read now they stay as they were; the next reload tries
// again.
static void load_recipients(detail_page *state, confirmation_cache *cache) {
    std::vector<recipient_line> lines;
    if (recipient_state_lines(state->id, state->summary.message, cache, &lines) != 0)
        return;
    for (recipient_line &line : lines) {
        line.user = tui_clean(line.user);
        line.text = tui_clean(line.text);
    }
    state->recipients = std::move(lines);
}

// Runs the history command. A reload that nobody asked for covers the page with no box.
static job_result run_history(int64_t id, tui_screen *page, bool is_idle) {
    const tui_job history = [id_text = std::to_string(id)] { cmd_log(id_text.c_str()); };
    return is_idle ? tui_run_command(history, /*input=*/{}, /*waiting=*/{})
                   : tui_run_in_box(page, "History", history, /*input=*/{});
}

// Loads what the history command prints, without its heading; the message of a failure too.
static void load_history(detail_page *state, tui_screen *page, bool is_idle) {
    const job_result result = run_history(state->id, page, is_idle);
    if (result.was_interrupted && is_idle)
        return; // stays as it was; the next reload tries again
    strlist lines;
    const std::string text = tui_clean(result.output.view());
    const size_t heading_end = text.find('\n');
    if (heading_end != std::string::npos)
        tui_split_lines(std::string_view(text).substr(heading_end + 1), &lines);
    if (result.was_interrupted)
        strlist_push_dup(&lines, "Interrupted.");
    state->history_lines = std::move(lines);
    state->has_history = true;
}

static void forget_history(detail_page *state) {
    strlist_free(&state->history_lines);
    state->has_history = false;
}

// Returns false when the message is gone.
static bool load(detail_page *state, tui_screen *page) {
    state->needs_reload = false;
    const bool is_idle = std::exchange(state->is_idle, false);
    user_times_renew();
    confirmation_cache cache(state->id);
    message_summary summary;
    switch (message_summary_load(state->id, &cache, &summary)) {
    case lookup::absent:
        return false;
    case lookup::failed:
        return state->summary.message.id != 0; // stays as it was; the next reload tries again
    case lookup::found:
        break;
    }
    state->summary = std::move(summary);
    load_recipients(state, &cache);
    tui_clean_message(&state->summary.message);
    wrap_text(state);
    if (state->tab == detail_tab::history)
        load_history(state, page, is_idle);
    return true;
}

// ---- State to lines -----------------------------------------------------------------------

static constexpr int OTHER_ROWS = 8;        // the frame's four, the facts, the tabs, two empty ones
static constexpr size_t TEXT_MAX_LINES = 6; // a longer text shows one less, and "…"
static constexpr int USER_HEADING_COLS = 14;
static constexpr int USER_COLS = 13;

static std::string short_time(int64_t seconds) {
    char text[SHORT_TIME_BYTES];
    format_time_short(seconds, text);
    return text;
}

static void append_facts(strlist *lines, const message_summary &summary) {
    const message_record &message = summary.message;
    strbuf line;
    strbuf_printf(&line, " %s%s%s · %s · ", tui_style.bold,
                  message.title.empty() ? "no title" : message.title.c_str(), tui_style.reset,
                  short_time(message.date).c_str());
    strbuf_printf(&line, "from %s", message.from.c_str());
    if (message.expires != 0)
        strbuf_printf(&line, " · %s %s", summary.expired ? "expired on" : "expires on",
                      short_time(message.expires).c_str());
    if (summary.revoked)
        strbuf_printf(&line, " · %srevoked on %s%s", tui_style.red,
                      short_time(summary.revoked_at).c_str(), tui_style.reset);
    strlist_push_view(lines, line.view());
}

static void append_text_line(strlist *lines, const char *text) {
    tui_add_line(lines, " %s│%s %s", tui_style.dim, tui_style.reset, text);
}

static void append_text(strlist *lines, const strlist &text) {
    const bool is_cut = text.count > TEXT_MAX_LINES;
    const size_t shown = is_cut ? TEXT_MAX_LINES - 1 : text.count;
    for (size_t i = 0; i < shown; i++)
        append_text_line(lines, text.items[i]);
    if (is_cut)
        append_text_line(lines, "…");
}

static void append_tabs(strlist *lines, const detail_page &state) {
    const bool is_history = state.tab == detail_tab::history;
    const std::string recipients = xasprintf(" %s (%zu) ", "Recipients", state.recipients.size());
    const message_summary &summary = state.summary;
    strbuf line;
    strbuf_printf(&line, " %s%s%s %s%s%s    ", is_history ? tui_style.dim : tui_style.selection,
                  recipients.c_str(), tui_style.reset,
                  is_history ? tui_style.selection : tui_style.dim, " History ", tui_style.reset);
    tui_confirm_bar(&line, summary.confirmed, summary.delivered, summary.sent);
    strbuf_append_str(&line, "  ");
    tui_counts(&line, summary.confirmed, summary.delivered, summary.sent);
    strlist_push_view(lines, line.view());
}

static void append_recipient_heading(strlist *lines) {
    strbuf line;
    strbuf_printf(&line, " %s", tui_style.heading);
    tui_pad(&line, "USER", USER_HEADING_COLS);
    strbuf_printf(&line, "%s%s", "STATE", tui_style.reset);
    strlist_push_view(lines, line.view());
}

static const char *state_colour(delivery_state state) {
    switch (state) {
    case delivery_state::confirmed:
        return tui_style.green;
    case delivery_state::delivered:
        return tui_style.yellow;
    case delivery_state::sent:
        break;
    }
    return tui_style.red;
}

static void append_recipient(strlist *lines, const recipient_line &recipient) {
    strbuf user;
    tui_fit(&user, recipient.user, USER_COLS);
    tui_add_line(lines, " %s %s%s%s", user.data, state_colour(recipient.state),
                 recipient.text.c_str(), tui_style.reset);
}

static int entry_count(const detail_page &state) {
    return static_cast<int>(state.tab == detail_tab::history ? state.history_lines.count
                                                             : state.recipients.size());
}

// Returns how many entries fit below the other lines; 0 or less on a low screen.
static int visible_entries(const detail_page &state) {
    const size_t text_lines = std::min(state.text_lines.count, TEXT_MAX_LINES);
    const int heading_lines = state.tab == detail_tab::recipients ? 1 : 0;
    return tui.screen_rows - OTHER_ROWS - static_cast<int>(text_lines) - heading_lines;
}

static void append_entries(strlist *lines, const detail_page &state) {
    const int end = std::min(state.scroll + visible_entries(state), entry_count(state));
    for (int entry = state.scroll; entry < end; entry++) {
        const auto at = static_cast<size_t>(entry);
        if (state.tab == detail_tab::history)
            tui_add_line(lines, " %s", state.history_lines.items[at]);
        else
            append_recipient(lines, state.recipients[at]);
    }
    if (state.has_history && entry_count(state) == 0)
        tui_add_line(lines, " %s%s%s", tui_style.grey, "No events in the system log.",
                     tui_style.reset);
}

static void append_labels(tui_screen *page, const detail_page &state) {
    const std::string &title = state.summary.message.title;
    const auto id = static_cast<long long>(state.id);
    const char *const key = tui_style.key;
    const char *const off = tui_style.reset;
    page->title = title.empty() ? xasprintf("Message %lld", id)
                                : xasprintf("Message %lld · %s", id, title.c_str());
    page->status = xasprintf("updated at %s", state.loaded_at.c_str());
    page->footer = xasprintf("%sTab%s %s   %s↑/↓%s %s   %sm%s %s   %sr%s %s   %sEsc%s %s", key, off,
                             "recipients/history", key, off, "scroll", key, off, "remind", key, off,
                             "revoke", key, off, "back");
}

// Adapts to a new size of the screen, and keeps the scroll position within the entries.
static void fit_to_screen(detail_page *state) {
    if (state->changes_seen != tui.screen_changes)
        wrap_text(state);
    const int last_scroll = entry_count(*state) - visible_entries(*state);
    state->scroll = std::max(std::min(state->scroll, last_scroll), 0);
}

static void build(const detail_page &state, tui_screen *page) {
    strlist *lines = &page->lines;
    strlist_free(lines);
    append_labels(page, state);
    append_facts(lines, state.summary);
    append_text(lines, state.text_lines);
    tui_add_line(lines, "%s", "");
    append_tabs(lines, state);
    tui_add_line(lines, "%s", "");
    if (state.tab == detail_tab::recipients)
        append_recipient_heading(lines);
    append_entries(lines, state);
}

// ---- Keys ---------------------------------------------------------------------------------

static constexpr int IDLE_TICKS_MAX = 5; // as on the list

static void idle_tick(detail_page *state) {
    const bool has_changed = state->changes_seen != tui.screen_changes;
    const bool is_time = ++state->tick_count > IDLE_TICKS_MAX;
    state->needs_reload = state->is_idle = has_changed || is_time;
    if (!is_time)
        return;
    state->tick_count = 0;
    state->loaded_at = tui_clock();
}

static void switch_tab(detail_page *state) {
    state->tab =
        state->tab == detail_tab::recipients ? detail_tab::history : detail_tab::recipients;
    state->scroll = 0;
    state->needs_reload = true;
    forget_history(state);
}

static void remind(detail_page *state, tui_screen *page) {
    const message_summary &summary = state->summary;
    if (summary.revoked || summary.expired || summary.delivered == 0)
        return;
    tui_remind_dialog(page, summary);
    state->needs_reload = true;
}

static void revoke(detail_page *state, tui_screen *page) {
    if (state->summary.revoked)
        return;
    tui_revoke_dialog(page, state->summary);
    state->needs_reload = true;
}

// Returns false to go back to the list.
static bool press_letter(detail_page *state, tui_screen *page, std::string_view letter) {
    if (letter == "m")
        remind(state, page);
    else if (letter == "r")
        revoke(state, page);
    return letter != "q";
}

// Returns false to go back to the list.
static bool press(detail_page *state, tui_screen *page, tui_key key, const char *character) {
    switch (key) {
    case KEY_ERROR:
    case KEY_ESC:
        return false;
    case KEY_CHAR:
        return press_letter(state, page, character);
    case KEY_TIMEOUT:
        idle_tick(state);
        break;
    case KEY_TAB:
    case KEY_BACKTAB:
        switch_tab(state);
        break;
    case KEY_UP:
        state->scroll--;
        break;
    case KEY_DOWN:
        state->scroll++;
        break;
    case KEY_PGUP:
        state->scroll -= visible_entries(*state);
        break;
    case KEY_PGDN:
        state->scroll += visible_entries(*state);
        break;
    case KEY_NONE:
    case KEY_RIGHT:
    case KEY_LEFT:
    case KEY_HOME:
    case KEY_END:
    case KEY_ENTER:
    case KEY_BACKSPACE:
    case KEY_DELETE:
    case KEY_CTRL_E:
    case KEY_CTRL_S:
    case KEY_PASTE:
        break;
    }
    return true;
}

// ---- The page -----------------------------------------------------------------------------

void detail_view(int64_t id) {
    detail_page state;
    state.id = id;
    state.loaded_at = tui_clock();
    tui_screen page;
    page.rebuild = [&state](tui_screen *below) {
        fit_to_screen(&state);
        build(state, below);
    };
    while (!quit_requested) {
        if (state.needs_reload && !load(&state, &page))
            return;
        fit_to_screen(&state);
        if (!tui_keys_wait()) {
            build(state, &page);
            tui_draw(page);
        }
        tui_character character = {};
        const tui_key key = tui_next_key(character);
        if (!press(&state, &page, key, character))
            return;
    }
}
