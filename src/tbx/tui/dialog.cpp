#include "tbx/tui/dialog.h"

#include "common/child.h"
#include "tbx/command.h"

#include <algorithm>

// ---- The box ------------------------------------------------------------------------------

static constexpr int BOX_MIN_COLS = 60;
static constexpr int BOX_SIDE_COLS = 6;  // "│  " and "  │"
static constexpr int BOX_OTHER_ROWS = 5; // two borders, two empty lines, the button line
static constexpr int BOX_CORNER_COLS = 2;
static constexpr int BOX_TITLE_COLS = 3;   // "─ " and " " around the title
static constexpr int BOX_SMALL_MARGIN = 2; // on a screen too small for the box
static constexpr int BOX_SMALL_COLS = 8;   // then it is so much narrower than the screen

struct box_place {
    int margin;
    int width;
};

// Returns the place of a box whose content is `content_cols` wide.
static box_place place_box(int content_cols) {
    const int width = std::max(BOX_MIN_COLS, content_cols + BOX_SIDE_COLS);
    if (tui.screen_cols - BOX_SMALL_COLS + 1 <= width)
        return {BOX_SMALL_MARGIN, std::max(tui.screen_cols - BOX_SMALL_COLS, BOX_SIDE_COLS)};
    return {(tui_body_cols() - width) / 2, width};
}

int tui_box_max_cols() {
    return std::max(tui.screen_cols - BOX_SMALL_COLS - BOX_SIDE_COLS, 0);
}

static int widest(const strlist &lines) {
    int columns = 0;
    for (const char *line : lines)
        columns = std::max(columns, tui_line_columns(line));
    return columns;
}

static void begin_box_line(strbuf *line, const box_place &place) {
    tui_repeat(line, " ", place.margin);
    strbuf_append_str(line, tui_style.bold);
}

static void append_box_top(strbuf *line, const box_place &place, std::string_view title) {
    const int inner = place.width - BOX_CORNER_COLS;
    begin_box_line(line, place);
    strbuf_append_str(line, "┌─ ");
    const int title_cols = tui_cut(line, title, inner - BOX_TITLE_COLS);
    strbuf_append_str(line, " ");
    tui_repeat(line, "─", inner - BOX_TITLE_COLS - title_cols);
    strbuf_printf(line, "┐%s", tui_style.reset);
}

static void append_box_content(strbuf *line, const box_place &place, std::string_view text) {
    begin_box_line(line, place);
    strbuf_printf(line, "│%s  ", tui_style.reset);
    tui_fit(line, text, place.width - BOX_SIDE_COLS);
    strbuf_printf(line, "  %s│%s", tui_style.bold, tui_style.reset);
}

static void append_box_bottom(strbuf *line, const box_place &place) {
    begin_box_line(line, place);
    strbuf_append_str(line, "└");
    tui_repeat(line, "─", place.width - BOX_CORNER_COLS);
    strbuf_printf(line, "┘%s", tui_style.reset);
}

static void replace_line(strlist *lines, size_t at, const strbuf &line) {
    while (lines->count <= at)
        strlist_push_dup(lines, "");
    free(lines->items[at]);
    lines->items[at] = xstrdup(line.data).release();
}

void tui_overlay_box(strlist *lines, std::string_view title, const strlist &body,
                     std::string_view button_line) {
    const box_place place = place_box(widest(body));
    const int free_rows = tui_body_rows() - static_cast<int>(body.count) - BOX_OTHER_ROWS;
    auto row = static_cast<size_t>(std::max(free_rows / 2, 1));
    const auto paint = [&](auto append_line, auto... text) {
        strbuf line;
        append_line(&line, place, text...);
        replace_line(lines, row++, line);
    };
    paint(append_box_top, title);
    paint(append_box_content, std::string_view());
    for (const char *text : body)
        paint(append_box_content, std::string_view(text));
    paint(append_box_content, std::string_view());
    paint(append_box_content, button_line);
    paint(append_box_bottom);
}

static void copy_lines(const strlist &from, strlist *to) {
    for (const char *line : from)
        strlist_push_dup(to, line);
}

static tui_screen with_box(const tui_screen &page, std::string_view title, const strlist &body,
                           std::string_view button_line, std::string_view footer) {
    tui_screen copy;
    copy_lines(page.lines, &copy.lines);
    copy.title = page.title;
    copy.status = page.status;
    copy.footer = footer;
    tui_overlay_box(&copy.lines, title, body, button_line);
    return copy;
}

// ---- Dialogs ------------------------------------------------------------------------------

// What a dialog shows, and whether the screen shows it.
struct dialog {
    tui_screen *page;
    std::string title;
    std::string button_line;
    std::string footer;
    strlist body;
    bool is_drawn = false;
    unsigned changes_seen = tui.screen_changes; // the page is built for the present size
    int64_t guarded_until_ms = 0;               // on the monotonic clock: until then no key counts
};

// Builds the page below before its dialog: waiting keys may have delayed that.
static dialog over(tui_screen *page, const std::string &title) {
    if (page->rebuild)
        page->rebuild(page);
    return {.page = page, .title = title, .button_line = "", .footer = "", .body = {}};
}

// If the size of the screen has changed, builds the page below again.
static void follow_size(dialog *shown) {
    if (shown->changes_seen == tui.screen_changes)
        return;
    shown->changes_seen = tui.screen_changes;
    shown->is_drawn = false;
    if (shown->page->rebuild)
        shown->page->rebuild(shown->page);
}

// Draws the dialog if the screen does not show it. Returns whether it did.
static bool draw_dialog(dialog *shown) {
    follow_size(shown);
    if (shown->is_drawn)
        return false;
    tui_draw(with_box(*shown->page, shown->title, shown->body, shown->button_line, shown->footer));
    shown->is_drawn = true;
    return true;
}

// ---- Keys that were not meant -------------------------------------------------------------
// A question must not be answered, nor a result dismissed, by what was typed for something else:
// typed ahead on a slow line, or pasted in pieces.

// A key that was ignored has others after it: for so long no key counts.
static constexpr int STRAY_KEY_MS = 200;

static void guard(dialog *shown, int ms) {
    shown->guarded_until_ms = std::max(shown->guarded_until_ms, monotonic_ms() + ms);
}

static void ignore_key(dialog *shown) {
    guard(shown, std::min(STRAY_KEY_MS, tui.rules->guard_ms));
}

// Draws the dialog if the screen does not show it. For a moment no key counts then.
static void draw_guarded(dialog *shown) {
    if (!draw_dialog(shown))
        return;
    tui_await_shown();
    guard(shown, tui.rules->guard_ms);
}

// Returns the next key that was meant for the dialog. KEY_TIMEOUT for every other one: pasted,
// pressed too early, or one of several that came at once.
static tui_key next_meant_key(dialog *shown, tui_character &character) {
    draw_guarded(shown);
    const tui_key key = tui_next_key(character);
    if (key == KEY_TIMEOUT || key == KEY_ERROR)
        return key;
    if (key != KEY_PASTE && monotonic_ms() >= shown->guarded_until_ms && !tui_more_follows())
        return key;
    ignore_key(shown);
    return KEY_TIMEOUT;
}

// ---- Asking -------------------------------------------------------------------------------

static bool is_cancelled(tui_key key) {
    return quit_requested || key == KEY_ERROR || key == KEY_ESC;
}

static constexpr size_t PROMPT_MAX_BYTES = 199; // a longer value takes no more characters
static constexpr int PROMPT_FRAME_COLS = 5;     // "[ ", the cursor mark, " ]"

static void paste_into_prompt(std::string *value, std::string_view pasted) {
    if (value->size() <= PROMPT_MAX_BYTES)
        value->append(tui_beginning(pasted, PROMPT_MAX_BYTES + 1 - value->size()));
}

static void edit_prompt(std::string *value, tui_key key, std::string_view character) {
    if (key == KEY_BACKSPACE)
        value->resize(tui_previous_character(*value, value->size()));
    else if (key == KEY_CHAR && value->size() <= PROMPT_MAX_BYTES)
        value->append(character);
    else if (key == KEY_PASTE)
        paste_into_prompt(value, tui_on_one_line(tui.input.pasted));
}

// Returns the text of the field. Of a value that is wider than the widest box, only the end.
static std::string prompt_field(const std::string &value) {
    const int room = std::max(tui_box_max_cols() - PROMPT_FRAME_COLS, 0);
    const std::string_view shown = tui_window(value, columns_of_text(value) - room, room);
    return xasprintf("[ %s%s ]", tui_blank_controls(shown).c_str(),
                     tui_style.colour_on ? "\033[7m \033[0m" : "_");
}

static strlist prompt_body(std::string_view prompt, const std::string &value) {
    strlist body;
    tui_split_lines(prompt, &body);
    strlist_push_dup(&body, "");
    strlist_push_dup(&body, prompt_field(value).c_str());
    return body;
}

std::optional<std::string> tui_prompt(tui_screen *page, const std::string &title,
                                      std::string_view prompt, const std::string &initial) {
    dialog shown = over(page, title);
    shown.footer = xasprintf("%sEnter%s %s   %sEsc%s %s", tui_style.key, tui_style.reset, "confirm",
                             tui_style.key, tui_style.reset, "cancel");
    std::string value = initial;
    while (true) {
        if (!tui_keys_wait()) {
            shown.body = prompt_body(prompt, value);
            shown.is_drawn = false;
            draw_dialog(&shown);
        }
        tui_character character = {};
        const tui_key key = tui_next_key(character);
        if (is_cancelled(key))
            return std::nullopt;
        if (key == KEY_ENTER)
            return value;
        edit_prompt(&value, key, character);
    }
}

static std::string confirm_buttons() {
    return xasprintf("%s y  %s %s     %s n  %s %s", tui_style.selection, "Confirm", tui_style.reset,
                     tui_style.dim, "Cancel", tui_style.reset);
}

static std::string confirm_footer() {
    return xasprintf("%sy%s %s   %sn%s %s %sEsc%s %s", tui_style.key, tui_style.reset, "confirm",
                     tui_style.key, tui_style.reset, "or", tui_style.key, tui_style.reset,
                     "cancel");
}

bool tui_confirm(tui_screen *page, const std::string &title, const strlist &body) {
    dialog shown = over(page, title);
    shown.button_line = confirm_buttons();
    shown.footer = confirm_footer();
    copy_lines(body, &shown.body);
    tui_drop_input();
    while (true) {
        tui_character character = {};
        const tui_key key = next_meant_key(&shown, character);
        if (is_cancelled(key))
            return false;
        const char letter = key == KEY_CHAR ? character[0] : '\0';
        if (letter == 'y' || letter == 'Y')
            return true;
        if (letter == 'n' || letter == 'N')
            return false;
        if (key != KEY_TIMEOUT)
            ignore_key(&shown);
    }
}

// ---- Showing ------------------------------------------------------------------------------

static constexpr const char *ANY_KEY = "any key to continue";

void tui_show_lines(tui_screen *page, const std::string &title, const strlist &body) {
    dialog shown = over(page, title);
    shown.button_line = shown.footer = ANY_KEY;
    copy_lines(body, &shown.body);
    tui_key key = KEY_TIMEOUT;
    while ((key == KEY_TIMEOUT || key == KEY_PASTE) && !quit_requested) {
        tui_character character = {};
        draw_dialog(&shown);
        key = tui_next_key(character);
    }
}

// ---- Running commands ---------------------------------------------------------------------

job_result tui_run_in_box(tui_screen *page, const std::string &title, const tui_job &job,
                          std::string_view input) {
    dialog shown = over(page, title);
    strlist_push_dup(&shown.body, "Working …");
    const auto say_so = [&shown] {
        tui_update_size();
        draw_dialog(&shown);
    };
    return tui_run_command(job, input, say_so);
}

void tui_tell(tui_screen *page, const std::string &title, const strlist &body) {
    dialog shown = over(page, title);
    shown.button_line = shown.footer = ANY_KEY;
    copy_lines(body, &shown.body);
    tui_drop_input();
    tui_character character = {};
    while (!quit_requested && next_meant_key(&shown, character) == KEY_TIMEOUT) {
    }
}

void tui_message_box(tui_screen *page, const std::string &title, const job_result &result) {
    strlist body;
    tui_split_lines(tui_clean(result.output.view()), &body);
    if (body.count == 0)
        strlist_push_dup(&body, result.was_interrupted ? "Interrupted." : "Done.");
    tui_tell(page, title, body);
}

void tui_run_and_tell(tui_screen *page, const std::string &title, const tui_job &job) {
    tui_message_box(page, title, tui_run_in_box(page, title, job, /*input=*/{}));
}

// ---- Acting on one message ----------------------------------------------------------------

static tui_job on_message(void (*command)(const char *), int64_t id) {
    return [=] { command(std::to_string(id).c_str()); };
}

void tui_remind_dialog(tui_screen *page, const message_summary &summary) {
    const int64_t id = summary.message.id;
    const std::string title = xasprintf("Remind message %lld?", static_cast<long long>(id));
    strlist body;
    if (summary.delivered == 1)
        tui_add_line(&body, "1 recipient has not confirmed yet.");
    else
        tui_add_line(&body, "%d recipients have not confirmed yet.", summary.delivered);
    tui_add_line(&body, "%s", "");
    tui_add_line(&body, "They are asked again now: at the next prompt");
    tui_add_line(&body, "and with the dialog on the desktop.");
    if (tui_confirm(page, title, body))
        tui_run_and_tell(page, title, on_message(cmd_remind, id));
}

void tui_revoke_dialog(tui_screen *page, const message_summary &summary) {
    const int64_t id = summary.message.id;
    const std::string &name = summary.message.title;
    const std::string title = xasprintf("Revoke message %lld?", static_cast<long long>(id));
    strbuf counts;
    summary_text(summary, &counts);
    strlist body;
    tui_add_line(&body, "«%s» · %s", name.empty() ? "no title" : tui_clean(name).c_str(),
                 counts.data);
    tui_add_line(&body, "%s", "");
    tui_add_line(&body, "Whoever has not seen it yet will not see it;");
    tui_add_line(&body, "open dialogs and questions close by themselves.");
    if (tui_confirm(page, title, body))
        tui_run_and_tell(page, title, on_message(cmd_revoke, id));
}
