// What the window needs of the toolkit's C interface: accessible names, the first frame, and X11,
// on which the window itself asks for no focus and for staying above the others.
#pragma once

#include <gtk/gtk.h>

#include <functional>

// Sets the name that screen readers say.
void set_accessible_name(GtkWidget *widget, const char *name);
// Sets what they say after the name, when the widget gets the focus.
void set_accessible_description(GtkWidget *widget, const char *description);

// Calls `action` once, when the window's first frame has been drawn. The window must be realized.
void after_first_frame(GtkWindow *window, std::function<void()> action);

// Whether the user asked for this window in another program: then the desktop passed a token in the
// environment. The toolkit keeps it, and uses it when the window is presented.
bool is_activated_by_user(GtkWindow *window);

// Called before the window is shown. On X11 the window then gets no focus just because it appears;
// elsewhere the compositor decides that. The window must be realized.
void take_no_focus(GtkWindow *window);

// Called after the window was shown. On X11 keeps it above the others.
void keep_above(GtkWindow *window);

// Whether Alt, Control or the system key is held down: the user types a keyboard command.
bool is_command_key_down(GtkWindow *window);
