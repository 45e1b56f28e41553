// What the window needs of the toolkit's C interface: accessible names, the first frame, and
// X11, where a window says by itself that it takes no focus and stays above the others.
#pragma once

#include <gtk/gtk.h>

#include <functional>

// The name that screen readers say.
void set_accessible_name(GtkWidget *widget, const char *name);
// What they say after it, when the widget gets the focus.
void set_accessible_description(GtkWidget *widget, const char *description);

// Calls `action` once, when the window's first frame has been drawn. The window is realized.
void after_first_frame(GtkWindow *window, std::function<void()> action);

// Whether the user has asked for this window elsewhere: the desktop handed a token on in the
// environment. The toolkit keeps it, and uses it when the window is presented.
bool is_activated_by_user(GtkWindow *window);

// Before the window is shown: on X11 it gets no focus from its appearance alone. Elsewhere that is
// the compositor's business. The window is realized.
void take_no_focus(GtkWindow *window);

// After the window was shown: on X11 it is kept above the others.
void keep_above(GtkWindow *window);

// Whether Alt, Control or the system key is held down: somebody gives a command by keyboard.
bool is_command_key_down(GtkWindow *window);
