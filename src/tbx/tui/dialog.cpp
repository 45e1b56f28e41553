#include "tbx/tui/dialog.h"

#include "common/style.h"
#include "tbx/command.h"
#include "tbx/tui/job.h"

#include <algorithm>

// ---- The box ------------------------------------------------------------------------------

static constexpr int BOX_MIN_COLS = 60;
static constexpr int BOX_SIDE_COLS = 6;  // "│  " and "  │"
static constexpr int BOX_OTHER_ROWS = 5; // two borders, two empty lines, the button line
static constexpr int BOX_CORNER_COLS = 2;
static constexpr int BOX_TITLE_COLS = 3;   // "─ " and " " around the title
static constexpr int BOX_SMALL_MARGIN = 2; // on a screen that the box does not fit into
static constexpr int BOX_SMALL_COLS = 8;   // how much narrower than the screen it is then

struct box_place {
    int margin;
    int width;
};

// Where a box with content `content_cols` wide stands.
static box_place place_box(int content_cols) {
    const int width = std::max(BOX_MIN_COLS, content_cols + BOX_SIDE_COLS);
    if (tui.screen_cols - BOX_SMALL_COLS + 1 <= width)
        return {BOX_SMALL_MARGIN, std::max(tui.screen_cols - BOX_SMALL_COLS, BOX_SIDE_COLS)};
    return {(tui_body_cols() - width) / 2, width};
}

static int widest(const strlist &lines) {
    size_t columns = 0;
    for (const char *line : lines)
        columns = std::max(columns, text_display_width(line));
    return static_cast<int>(columns);
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

bool tui_draw_with_box(const tui_screen &page, std::string_view title, const strlist &body,
                       std::string_view button_line, std::string_view footer) {
    return tui_draw(with_box(page, title, body, button_line, footer));
}

// ---- Asking -------------------------------------------------------------------------------

// What a dialog shows, and whether the screen shows it.
struct dialog {
    tui_screen *page;
    std::string title;
    std::string button_line;
    std::string footer;
    strlist body;
    bool is_drawn = false;
    bool is_drawn_first = true; // also when the key that answers it has been typed already
    unsigned changes_seen = tui.screen_changes; // the page is built for the present size
};

static bool draw_dialog(const dialog &shown) {
    const tui_screen screen =
        with_box(*shown.page, shown.title, shown.body, shown.button_line, shown.footer);
    if (!shown.is_drawn_first)
        return tui_draw(screen);
    tui_show(screen);
    return true;
}

// Draws the dialog where the screen does not show it, and waits for a key. On a screen of
// another size the page below is another one, too.
static tui_key show_and_wait(dialog *shown, tui_character &character) {
    if (shown->changes_seen != tui.screen_changes) {
        shown->changes_seen = tui.screen_changes;
        shown->is_drawn = false;
        if (shown->page->rebuild)
            shown->page->rebuild(shown->page);
    }
    if (!shown->is_drawn)
        shown->is_drawn = draw_dialog(*shown);
    return tui_next_key(character);
}

static bool is_cancelled(tui_key key) {
    return quit_requested || key == KEY_ERROR || key == KEY_ESC;
}

static constexpr size_t PROMPT_MAX_BYTES = 199; // a longer value takes no more characters
static constexpr int PROMPT_FRAME_COLS = 5;     // "[ ", the cursor mark, " ]"

static void edit_prompt(std::string *value, tui_key key, const char *character) {
    if (key == KEY_BACKSPACE)
        value->resize(tui_previous_character(*value, value->size()));
    else if (key == KEY_CHAR && value->size() <= PROMPT_MAX_BYTES)
        value->append(character);
}

// The field: the end of a value that is wider than the widest box.
static std::string prompt_field(const std::string &value) {
    const int room =
        std::max(tui.screen_cols - BOX_SMALL_COLS - BOX_SIDE_COLS - PROMPT_FRAME_COLS, 0);
    const std::string_view shown = tui_window(value, tui_columns(value) - room, room);
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
    dialog shown = {page, title, /*button_line=*/"", /*footer=*/"", {}};
    shown.footer = xasprintf("%sEnter%s %s   %sEsc%s %s", tui_style.key, tui_style.reset, "confirm",
                             tui_style.key, tui_style.reset, "cancel");
    shown.is_drawn_first = false; // or pasted text would be drawn character by character
    std::string value = initial;
    while (true) {
        shown.body = prompt_body(prompt, value);
        shown.is_drawn = false;
        tui_character character = {};
        const tui_key key = show_and_wait(&shown, character);
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
    dialog shown = {page, title, confirm_buttons(), confirm_footer(), {}};
    copy_lines(body, &shown.body);
    while (true) {
        tui_character character = {};
        const tui_key key = show_and_wait(&shown, character);
        if (is_cancelled(key))
            return false;
        const char letter = key == KEY_CHAR ? character[0] : '\0';
        if (letter == 'y' || letter == 'Y')
            return true;
        if (letter == 'n' || letter == 'N')
            return false;
    }
}

// ---- Showing ------------------------------------------------------------------------------

static constexpr const char *ANY_KEY = "any key to continue";

void tui_show_lines(tui_screen *page, const std::string &title, const strlist &body) {
    dialog shown = {page, title, ANY_KEY, ANY_KEY, {}};
    copy_lines(body, &shown.body);
    tui_character character = {};
    while (show_and_wait(&shown, character) == KEY_TIMEOUT && !quit_requested) {
    }
}

void tui_message_box(tui_screen *page, const std::string &title, std::string_view output) {
    strlist body;
    tui_split_lines(tui_clean(output), &body);
    if (body.count == 0)
        strlist_push_dup(&body, "Done.");
    tui_show_lines(page, title, body);
}

// ---- Acting on one message ----------------------------------------------------------------

static void run_on_message(tui_screen *page, const std::string &title,
                           void (*command)(const char *), int64_t id) {
    const tui_job job = {command, std::to_string(id), {}};
    strbuf output;
    static_cast<void>(tui_run_command(job, {}, &output)); // what it printed tells how it went
    tui_message_box(page, title, output.view());
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
        run_on_message(page, title, cmd_remind, id);
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
        run_on_message(page, title, cmd_revoke, id);
}
