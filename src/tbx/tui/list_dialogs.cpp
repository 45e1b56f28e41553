#include "tbx/tui/list_dialogs.h"

#include "tbx/command.h"
#include "tbx/tui/dialog.h"

// ---- Search -------------------------------------------------------------------------------

bool search_dialog(tui_screen *page, std::string *search_text) {
    const std::optional<std::string> entered =
        tui_prompt(page, "Search", "Show only the messages containing:", *search_text);
    if (!entered)
        return false;
    *search_text = *entered;
    return true;
}

// ---- Delete old messages ------------------------------------------------------------------

static bool confirm_purge(tui_screen *page, const std::string &age) {
    strlist body;
    tui_add_line(&body, "Messages older than %s, with copies and confirmations.",
                 tui_blank_controls(age).c_str());
    tui_add_line(&body, "The events stay in the system log.");
    return tui_confirm(page, "Delete old messages?", body);
}

void purge_dialog(tui_screen *page) {
    const std::optional<std::string> age =
        tui_prompt(page, "Delete old messages",
                   "Delete the messages sent more than (for example 90d, 12h):", "90d");
    if (!age || !confirm_purge(page, *age))
        return;
    tui_run_and_tell(page, "Delete old messages", [&age] { cmd_purge(age->c_str()); });
}

// ---- Keys ---------------------------------------------------------------------------------

static constexpr int KEY_NAME_COLS = 16;

static constexpr struct {
    const char *name;
    const char *description;
} KEYS[] = {
    {"↑ ↓ PgUp PgDn", "move through the list"},
    {"Enter", "open the message: recipients and history"},
    {"n", "write and send a new message"},
    {"r", "revoke the selected message"},
    {"m", "remind whoever has not confirmed"},
    {"p", "delete old messages"},
    {"/", "search the messages by text or title"},
    {"q", "quit"},
};

void keys_dialog(tui_screen *page) {
    strlist body;
    for (const auto &key : KEYS) {
        strbuf line;
        strbuf_append_str(&line, tui_style.key);
        tui_fit(&line, key.name, KEY_NAME_COLS);
        strbuf_printf(&line, "%s%s", tui_style.reset, key.description);
        strlist_push_view(&body, line.view());
    }
    tui_add_line(&body, "%s", "");
    tui_add_line(&body, "The list updates by itself every 3 seconds.");
    tui_add_line(&body, "The complete guide: tbx --help.");
    tui_show_lines(page, "Keys", body);
}
