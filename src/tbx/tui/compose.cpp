#include "tbx/tui/compose.h"

#include "tbx/command.h"
#include "tbx/recipients.h"
#include "tbx/tui/compose_draw.h"
#include "tbx/tui/compose_editor.h"
#include "tbx/tui/compose_form.h"
#include "tbx/tui/compose_tries.h"
#include "tbx/tui/dialog.h"
#include "tbx/tui/job.h"
#include "tbx/tui/screen.h"

#include <string_view>
#include <vector>

// ---- Recipients ---------------------------------------------------------------------------

static std::string_view first_line(std::string_view text) {
    return text.substr(0, text.find('\n'));
}

static std::string counted_recipients(std::string_view count) {
    int64_t recipients = 0;
    if (!parse_id(count, &recipients))
        return "";
    return recipients == 1 ? "1 recipient"
                           : xasprintf("%lld recipients", static_cast<long long>(recipients));
}

static std::string in_red(std::string_view text) {
    return xasprintf("%s%s%s", tui_style.red, std::string(text).c_str(), tui_style.reset);
}

static std::string preview_of(const job_result &result) {
    if (result.status == 0)
        return counted_recipients(first_line(result.output.view()));
    if (result.was_interrupted && result.output.len == 0)
        return in_red("Interrupted.");
    return in_red(first_line(tui_clean(result.output.view())));
}

static void draw(const compose_form &form, tui_screen *page) {
    compose_build(form, page);
    tui_draw(*page);
}

// Finds whom the To field reaches. A child does it, because an error ends the process.
static void compose_recipient_preview(compose_form *form, tui_screen *page) {
    form->preview.clear();
    const std::string &to = form->fields[COMPOSE_TO].value;
    if (to.empty())
        return;
    const auto say_so = [&] {
        if (!tui_update_size() && !form->preview.empty())
            return; // the screen shows it
        form->preview = "Working …";
        compose_scroll(form);
        draw(*form, page);
    };
    form->preview =
        preview_of(tui_run_command([&to] { recipients_count_print(to.c_str()); }, {}, say_so));
}

// ---- Sending ------------------------------------------------------------------------------

static std::vector<std::string> send_arguments(const compose_form &form) {
    const std::string &title = form.fields[COMPOSE_TITLE].value;
    const std::string &expires = form.fields[COMPOSE_EXPIRES].value;
    std::vector<std::string> arguments = {"--to", form.fields[COMPOSE_TO].value};
    if (!title.empty())
        arguments.insert(arguments.end(), {"--title", title});
    if (!expires.empty())
        arguments.insert(arguments.end(), {"--expires", expires});
    return arguments;
}

static void run_send(std::vector<std::string> arguments) {
    std::vector<char *> argv;
    for (std::string &argument : arguments)
        argv.push_back(argument.data());
    argv.push_back(nullptr);
    cmd_send(static_cast<int>(arguments.size()), argv.data());
}

static void add_field(strlist *body, const char *label, const compose_field &field) {
    if (!field.value.empty())
        tui_add_line(body, "%s: %s", label, tui_blank_controls(field.value).c_str());
}

static bool review(const compose_form &form, tui_screen *page) {
    strlist body;
    compose_tell_tries(form.tries, &body);
    tui_add_line(&body, "To: %s (%s)", tui_blank_controls(form.fields[COMPOSE_TO].value).c_str(),
                 form.preview.c_str());
    add_field(&body, "Title", form.fields[COMPOSE_TITLE]);
    add_field(&body, "Expires", form.fields[COMPOSE_EXPIRES]);
    tui_add_line(&body, "Text: %zu bytes", compose_text_bytes(form.text));
    return tui_confirm(page, "Send the message?", body);
}

// Returns true when the message was sent. After a failure the form keeps everything.
static bool compose_send(compose_form *form, tui_screen *page) {
    compose_recipient_preview(form, page);
    if (!review(*form, page))
        return false;
    compose_try attempt = compose_begin_try(*form);
    const job_result result = tui_run_in_box(
        page, "Send the message?", [form] { run_send(send_arguments(*form)); },
        compose_text_joined(form->text));
    const bool was_sent = result.status == 0;
    if (!was_sent)
        form->tries.push_back(std::move(attempt));
    tui_message_box(page, was_sent ? "Message sent" : "Sending result", result);
    return was_sent;
}

// ---- The page -----------------------------------------------------------------------------

static bool may_discard(const compose_form &form, tui_screen *page) {
    if (compose_is_empty(form))
        return true;
    strlist body;
    tui_add_line(&body, "The message you are writing will be lost.");
    return tui_confirm(page, "Discard the message?", body);
}

static void edit(compose_form *form, tui_screen *page, tui_key key, const char *character) {
    const int focus_before = form->focus;
    if (key != KEY_PASTE)
        compose_press(form, key, character);
    else if (!compose_paste(form, tui.input.pasted))
        form->notice = xasprintf("The paste was cut: %d bytes at most.", COMPOSE_FIELD_MAX_BYTES);
    if (focus_before == COMPOSE_TO && form->focus != COMPOSE_TO)
        compose_recipient_preview(form, page);
}

// Tells of a file that the editor left. If the interface is asked to end before it was seen, the
// path is told at the end.
static void tell_of_kept_file(compose_form *form, tui_screen *page, const edit_result &edited) {
    strlist body;
    tui_add_line(&body, "%s",
                 edited.end == edit_end::cut
                     ? "The file is too long: only its beginning was taken."
                     : "The text is as it was: the editor left no file that can be read.");
    tui_add_line(&body, "What it left is kept in %s.", edited.kept.c_str());
    form->edited_path = edited.kept;
    tui_tell(page, "Editor", body);
    if (!quit_requested)
        form->edited_path.clear();
}

static void open_editor(compose_form *form, tui_screen *page) {
    const edit_result edited = compose_edit_external(form);
    if (edited.end == edit_end::not_started)
        form->notice = "No editor could be started.";
    else if (edited.end == edit_end::no_file)
        form->notice = "The editor left no file.";
    else if (!edited.kept.empty())
        tell_of_kept_file(form, page, edited);
}

enum class form_end { open, done, cut_short };

static form_end press(compose_form *form, tui_screen *page, tui_key key, const char *character) {
    const bool is_end_of_paste = key == KEY_PASTE && tui.input.pasted.empty();
    if (key != KEY_TIMEOUT && !is_end_of_paste)
        form->notice.clear();
    if (key == KEY_ERROR)
        return form_end::cut_short; // there is no user any more
    if (key == KEY_ESC)
        return may_discard(*form, page) ? form_end::done : form_end::open;
    if (key == KEY_CTRL_S)
        return compose_send(form, page) ? form_end::done : form_end::open;
    if (key == KEY_CTRL_E)
        open_editor(form, page);
    else
        edit(form, page, key, character);
    return form_end::open;
}

static bool is_text(tui_key key) {
    return key == KEY_CHAR || key == KEY_PASTE;
}

static void draw_scrolled(compose_form *form, tui_screen *page) {
    compose_scroll(form);
    draw(*form, page);
}

// Returns how the form ended.
static form_end run_form(compose_form *form) {
    tui_screen page;
    page.rebuild = [form](tui_screen *below) {
        compose_scroll(form);
        compose_build(*form, below);
    };
    auto end = form_end::open;
    bool follows = false; // whether the fields have been scrolled to the cursor
    while (!quit_requested && end == form_end::open) {
        const bool waits = tui_keys_wait();
        if (!waits)
            draw_scrolled(form, &page);
        tui_character character = {};
        const tui_key key = tui_next_key(character);
        // Scrolling costs the length of a line. Text that was typed ahead moves the cursor in one
        // direction only, so once behind it is enough; every other key can move it back.
        if (waits && !follows && !is_text(key))
            compose_scroll(form);
        end = press(form, &page, key, character);
        follows = !is_text(key);
        if (follows)
            compose_scroll(form);
    }
    return end == form_end::open ? form_end::cut_short : end;
}

compose_rest compose_page() {
    compose_form form;
    if (run_form(&form) == form_end::done)
        return {};
    return {compose_text_joined(form.text), form.edited_path};
}

std::vector<std::string> compose_keep(const compose_rest &rest) {
    std::vector<std::string> said;
    if (!rest.text.empty())
        said.push_back(compose_keep_text(rest.text));
    if (!rest.edited_path.empty())
        said.push_back(xasprintf("what the editor left is kept in %s", rest.edited_path.c_str()));
    return said;
}
