#include "tbx/tui/compose.h"

#include "tbx/command.h"
#include "tbx/recipients.h"
#include "tbx/tui/compose_draw.h"
#include "tbx/tui/compose_editor.h"
#include "tbx/tui/compose_form.h"
#include "tbx/tui/dialog.h"
#include "tbx/tui/job.h"
#include "tbx/tui/screen.h"

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

// Asks whom the To field reaches. A child does it, because what is wrong ends the process.
static void compose_recipient_preview(compose_form *form) {
    form->preview.clear();
    const std::string &to = form->fields[COMPOSE_TO].value;
    if (to.empty())
        return;
    const tui_job job = {recipients_count_print, to, {}};
    strbuf output;
    if (tui_run_command(job, {}, &output) == 0)
        form->preview = counted_recipients(first_line(output.view()));
    else
        form->preview =
            xasprintf("%s%s%s", tui_style.red,
                      std::string(first_line(tui_clean(output.view()))).c_str(), tui_style.reset);
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

static void add_field(strlist *body, const char *label, const compose_field &field) {
    if (!field.value.empty())
        tui_add_line(body, "%s: %s", label, tui_blank_controls(field.value).c_str());
}

static bool review(const compose_form &form, tui_screen *page) {
    strlist body;
    tui_add_line(&body, "To: %s (%s)", tui_blank_controls(form.fields[COMPOSE_TO].value).c_str(),
                 form.preview.c_str());
    add_field(&body, "Title", form.fields[COMPOSE_TITLE]);
    add_field(&body, "Expires", form.fields[COMPOSE_EXPIRES]);
    tui_add_line(&body, "Text: %zu bytes", compose_text_bytes(form.text));
    return tui_confirm(page, "Send the message?", body);
}

// True when the message was sent. Whatever went wrong, the form keeps everything.
static bool compose_send(compose_form *form, tui_screen *page) {
    compose_recipient_preview(form);
    compose_build(form, page);
    if (!review(*form, page))
        return false;
    const tui_job job = {nullptr, "", send_arguments(*form)};
    strbuf output;
    const bool was_sent = tui_run_command(job, compose_text_joined(form->text), &output) == 0;
    tui_message_box(page, was_sent ? "Message sent" : "Sending result", output.view());
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

static void edit(compose_form *form, tui_key key, const char *character) {
    const int focus_before = form->focus;
    compose_press(form, key, character);
    if (focus_before == COMPOSE_TO && form->focus != COMPOSE_TO)
        compose_recipient_preview(form);
}

// False when the form is done with.
static bool press(compose_form *form, tui_screen *page, tui_key key, const char *character) {
    if (key == KEY_ERROR)
        return false; // nobody is left to write
    if (key == KEY_ESC)
        return !may_discard(*form, page);
    if (key == KEY_CTRL_S)
        return !compose_send(form, page);
    if (key == KEY_CTRL_E)
        compose_edit_external(form);
    else
        edit(form, key, character);
    return true;
}

void compose_page() {
    compose_form form;
    tui_screen page;
    page.rebuild = [&form](tui_screen *below) { compose_build(&form, below); };
    while (!quit_requested) {
        compose_build(&form, &page);
        tui_draw(page);
        tui_character character = {};
        const tui_key key = tui_next_key(character);
        if (!press(&form, &page, key, character))
            return;
    }
}
