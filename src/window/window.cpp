#include "window/window.h"

#include "window/native.h"

#include <gdk/gdkkeysyms.h>
#include <gdkmm/display.h>
#include <gdkmm/monitor.h>
#include <glib.h>
#include <gtkmm/adjustment.h>
#include <gtkmm/eventcontrollerkey.h>
#include <gtkmm/eventcontrollerlegacy.h>
#include <pangomm/attributes.h>
#include <pangomm/attrlist.h>
#include <pangomm/context.h>
#include <pangomm/fontmetrics.h>
#include <pangomm/layout.h>

#include <algorithm>
#include <utility>

constexpr int SPACING = 12;
constexpr int LINE_CHARACTERS = 72;        // of the window's width
constexpr int WINDOW_LINES = 20;           // of its height
constexpr int TITLE_LINES = 4;             // of a very long title; the rest can be scrolled to
constexpr int SENDER_MAX_CHARACTERS = 256; // longer than any account name
constexpr int DESCRIPTION_MAX_CHARACTERS = 4000;
constexpr const char *HEADING = N_("Message from the administrator");

static int64_t now_ms() {
    return g_get_monotonic_time() / 1000;
}

// Returns when an event happened: earlier than now if this process was delayed. Displays stamp
// events with the low bits of the same clock; a stamp that cannot be right counts as now.
static int64_t moment_of(guint32 stamp) {
    constexpr guint32 OLDEST_MS = 60'000;
    const int64_t present = now_ms();
    const guint32 age = static_cast<guint32>(present) - stamp;
    return stamp != 0 && age <= OLDEST_MS ? present - age : present;
}

// ---- What is on it ------------------------------------------------------------------------

message_window::message_window(const window_content &content, report tell)
    : tell_(std::move(tell)) {
    property_accessible_role() = Gtk::Accessible::Role::ALERT_DIALOG;
    build(content);
    watch_keys();
    watch_pointer();
    property_is_active().signal_changed().connect(
        sigc::mem_fun(*this, &message_window::on_focus_change));
    signal_close_request().connect(sigc::mem_fun(*this, &message_window::on_close), false);
}

static std::string window_title(const window_content &content) {
    std::string title = _(HEADING);
    if (content.total > 1)
        title += " · " + xasprintf(_("%zu of %zu"), content.place, content.total);
    return title;
}

static Pango::FontMetrics font_metrics(Gtk::Widget *widget) {
    const auto context = widget->get_pango_context();
    return context->get_metrics(context->get_font_description());
}

static int line_height(Gtk::Widget *widget) {
    return font_metrics(widget).get_height() / PANGO_SCALE;
}

// Sets a size at which the text is easy to read in the user's font, at most that of the screen.
static void set_readable_size(Gtk::Window *window) {
    const int character = font_metrics(window).get_approximate_char_width() / PANGO_SCALE;
    int width = character * LINE_CHARACTERS;
    int height = line_height(window) * WINDOW_LINES;
    const auto monitors = window->get_display()->get_monitors();
    const auto monitor = std::dynamic_pointer_cast<Gdk::Monitor>(monitors->get_object(0));
    if (monitor) {
        Gdk::Rectangle screen;
        monitor->get_geometry(screen);
        width = std::min(width, screen.get_width() * 9 / 10);
        height = std::min(height, screen.get_height() * 3 / 4);
    }
    window->set_default_size(width, height);
}

void message_window::build(const window_content &content) {
    set_title(window_title(content));
    set_accessible_name(Gtk::Widget::gobj(), window_title(content).c_str());
    set_readable_size(this);
    build_header(content);
    build_text(content.text);
    build_buttons(content.expires);
    everything_.append(header_);
    everything_.append(text_scroll_);
    everything_.append(footer_);
    set_child(everything_);
    set_focus(text_);
}

static void show_in_label(Gtk::Label *label, const std::string &text) {
    label->set_text(broken_for_display(text)); // text, never markup
    Pango::AttrList attributes;
    auto no_hyphens = Pango::Attribute::create_attr_insert_hyphens(false);
    attributes.insert(no_hyphens);
    label->set_attributes(attributes);
    label->set_xalign(0);
    label->set_wrap(true);
    label->set_wrap_mode(Pango::WrapMode::WORD_CHAR);
}

void message_window::build_header(const window_content &content) {
    show_in_label(&title_, content.title.empty() ? _(HEADING) : content.title);
    title_.add_css_class("title-2");
    title_scroll_.set_policy(Gtk::PolicyType::NEVER, Gtk::PolicyType::AUTOMATIC);
    title_scroll_.set_propagate_natural_height();
    title_scroll_.set_max_content_height(line_height(this) * TITLE_LINES);
    title_scroll_.set_child(title_);
    set_accessible_name(GTK_WIDGET(title_scroll_.gobj()), _("Title"));
    const auto adjustment = title_scroll_.get_vadjustment();
    adjustment->signal_changed().connect([this, adjustment = adjustment.get()] {
        // The title can get the focus only if there is something to scroll.
        title_scroll_.set_can_focus(adjustment->get_upper() > adjustment->get_page_size());
    });
    title_scroll_.set_can_focus(false);
    const Glib::ustring sender = Glib::ustring(content.from).substr(0, SENDER_MAX_CHARACTERS);
    show_in_label(&from_, xasprintf(_("From %s · %s"), sender.c_str(), content.date.c_str()));
    header_.set_margin(SPACING);
    header_.set_spacing(SPACING / 2);
    header_.append(title_scroll_);
    header_.append(from_);
}

// Breaks the lines that are too long. The newlines are invisible: they end a line on the screen but
// are not copied.
static void break_lines(Gtk::TextBuffer *buffer, const std::string &text) {
    const auto hidden = buffer->create_tag();
    hidden->property_invisible() = true;
    int inserted = 0;
    for (const size_t position : display_breaks(text)) {
        const auto place = buffer->get_iter_at_offset(static_cast<int>(position) + inserted++);
        buffer->insert_with_tag(place, "\n", hidden);
    }
}

void message_window::build_text(const std::string &text) {
    const auto buffer = text_.get_buffer();
    buffer->set_text(text);
    break_lines(buffer.get(), text);
    const auto as_it_is = buffer->create_tag();
    as_it_is->property_insert_hyphens() = false; // a hyphen would look like part of the text
    buffer->apply_tag(as_it_is, buffer->begin(), buffer->end());
    buffer->place_cursor(buffer->begin());
    text_.set_editable(false);
    text_.set_accepts_tab(false); // Tab goes to the buttons
    text_.set_wrap_mode(Gtk::WrapMode::WORD_CHAR);
    text_.set_left_margin(SPACING);
    text_.set_right_margin(SPACING);
    text_.set_top_margin(SPACING / 2);
    text_.set_bottom_margin(SPACING / 2);
    set_accessible_name(GTK_WIDGET(text_.gobj()), _("Message"));
    set_accessible_description(GTK_WIDGET(text_.gobj()),
                               Glib::ustring(text).substr(0, DESCRIPTION_MAX_CHARACTERS).c_str());
    text_scroll_.set_policy(Gtk::PolicyType::NEVER, Gtk::PolicyType::AUTOMATIC);
    text_scroll_.set_has_frame(true);
    text_scroll_.set_vexpand(true);
    text_scroll_.set_margin_start(SPACING);
    text_scroll_.set_margin_end(SPACING);
    text_scroll_.set_child(text_);
    set_accessible_name(GTK_WIDGET(text_scroll_.gobj()), _("Text of the message"));
}

void message_window::build_buttons(const std::string &expires) {
    show_in_label(&expires_, xasprintf(_("Expires on %s"), expires.c_str()));
    expires_.set_visible(!expires.empty());
    later_.signal_clicked().connect([this] { answer("later"); });
    read_.signal_clicked().connect([this] { answer("read"); });
    buttons_.set_halign(Gtk::Align::END);
    buttons_.set_spacing(SPACING);
    buttons_.append(later_);
    buttons_.append(read_);
    footer_.set_margin(SPACING);
    footer_.set_spacing(SPACING);
    footer_.append(expires_);
    footer_.append(buttons_);
}

// ---- Showing it ---------------------------------------------------------------------------

void message_window::open() {
    Gtk::Widget::realize();
    after_first_frame(Gtk::Window::gobj(), [this] { on_first_frame(); });
    if (is_activated_by_user(Gtk::Window::gobj())) {
        present();
    } else {
        take_no_focus(Gtk::Window::gobj());
        set_visible(true);
    }
    keep_above(Gtk::Window::gobj());
}

void message_window::on_first_frame() {
    guard_.first_frame(now_ms());
    tell_("shown");
}

// A user who returns begins at the text: screen readers read it again, and no button has the focus.
void message_window::on_focus_change() {
    if (!property_is_active().get_value())
        return;
    guard_.focused(now_ms());
    text_.grab_focus();
}

// ---- Keys and clicks ----------------------------------------------------------------------

void message_window::watch_keys() {
    const auto early = Gtk::EventControllerKey::create();
    early->set_propagation_phase(Gtk::PropagationPhase::CAPTURE);
    early->signal_key_pressed().connect(
        [this, keys = early.get()](guint key, guint, Gdk::ModifierType state) {
            return on_key_early(key, state, moment_of(keys->get_current_event_time()));
        },
        false);
    early->signal_key_released().connect([this](guint key, guint, Gdk::ModifierType) {
        if (key == swallowed_key_)
            swallowed_key_ = 0;
    });
    add_controller(early);
    const auto late = Gtk::EventControllerKey::create();
    late->set_propagation_phase(Gtk::PropagationPhase::BUBBLE);
    late->signal_key_pressed().connect(
        [this](guint key, guint, Gdk::ModifierType) { return on_key_late(key); }, false);
    add_controller(late);
}

// Whether the key types a character. Not blanks and Enter: these press buttons.
static bool is_typing(guint key, Gdk::ModifierType state) {
    using Gdk::ModifierType;
    const bool is_command =
        (state & (ModifierType::CONTROL_MASK | ModifierType::ALT_MASK)) != ModifierType{};
    return !is_command && gdk_keyval_to_unicode(key) > ' ' && key != GDK_KEY_Delete;
}

// Called before any widget gets the key. Returns true to swallow it.
bool message_window::on_key_early(guint key, Gdk::ModifierType state, int64_t moment) {
    if (!guard_.allows_keys(moment) || key == swallowed_key_) {
        swallowed_key_ = key;
        return true;
    }
    if (is_typing(key, state))
        guard_.typed(moment);
    return false;
}

// Called after every widget, so that Escape closes an open menu first.
bool message_window::on_key_late(guint key) {
    if (key != GDK_KEY_Escape)
        return false;
    answer("later");
    return true;
}

// A press that began before the window was visible must not reach a button.
void message_window::watch_pointer() {
    const auto presses = Gtk::EventControllerLegacy::create();
    presses->set_propagation_phase(Gtk::PropagationPhase::CAPTURE);
    presses->signal_event().connect(
        [this](const Glib::RefPtr<const Gdk::Event> &event) {
            const auto type = event->get_event_type();
            const bool is_press =
                type == Gdk::Event::Type::BUTTON_PRESS || type == Gdk::Event::Type::TOUCH_BEGIN;
            return is_press && !guard_.allows(moment_of(event->get_time()));
        },
        false);
    add_controller(presses);
}

bool message_window::on_close() {
    if (!is_command_key_down(Gtk::Window::gobj()) || guard_.allows_keys(now_ms()))
        answer("later");
    return true; // the program that opened it ends the process
}

void message_window::answer(const char *word) {
    if (answered_ || !guard_.allows(now_ms()))
        return;
    answered_ = true;
    tell_(word);
}
