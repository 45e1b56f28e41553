// The dialog: one message and two answers.
#pragma once

#include "common/texts.h"
#include "window/content.h"
#include "window/guard.h"

#include <gtkmm/box.h>
#include <gtkmm/button.h>
#include <gtkmm/label.h>
#include <gtkmm/scrolledwindow.h>
#include <gtkmm/textview.h>
#include <gtkmm/window.h>

#include <functional>

class message_window : public Gtk::Window {
public:
    // Called with the words for the program that opened the window: "shown", then "read" or
    // "later".
    using report = std::function<void(const char *word)>;

    message_window(const window_content &content, report tell);

    // Shows the window. It takes the focus only if the user has asked for it.
    void open();

private:
    void build(const window_content &content);
    void build_header(const window_content &content);
    void build_text(const std::string &text);
    void build_buttons(const std::string &expires);
    void watch_keys();
    void watch_pointer();

    void on_first_frame();
    void on_focus_change();
    bool on_key_early(guint key, Gdk::ModifierType state, int64_t moment);
    bool on_key_late(guint key);
    bool on_close();
    void answer(const char *word);

    report tell_;
    accident_guard guard_;
    bool answered_ = false;
    guint swallowed_key_ = 0; // still held down, so that its repetitions are swallowed too

    Gtk::Box everything_{Gtk::Orientation::VERTICAL};
    Gtk::Box header_{Gtk::Orientation::VERTICAL};
    Gtk::ScrolledWindow title_scroll_;
    Gtk::Label title_;
    Gtk::Label from_;
    Gtk::ScrolledWindow text_scroll_;
    Gtk::TextView text_;
    Gtk::Box footer_{Gtk::Orientation::VERTICAL};
    Gtk::Label expires_;
    Gtk::Box buttons_{Gtk::Orientation::HORIZONTAL};
    Gtk::Button later_{_("Later")};
    Gtk::Button read_{_("I have read it")};
};
