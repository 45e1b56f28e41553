#include "window/native.h"

#ifdef GDK_WINDOWING_X11
#include <X11/Xlib.h>
#include <gdk/x11/gdkx.h>
#endif

#include <memory>
#include <utility>

void set_accessible_name(GtkWidget *widget, const char *name) {
    gtk_accessible_update_property(GTK_ACCESSIBLE(widget), GTK_ACCESSIBLE_PROPERTY_LABEL, name, -1);
}

void set_accessible_description(GtkWidget *widget, const char *description) {
    gtk_accessible_update_property(GTK_ACCESSIBLE(widget), GTK_ACCESSIBLE_PROPERTY_DESCRIPTION,
                                   description, -1);
}

// ---- The first frame ----------------------------------------------------------------------

struct frame_waiter {
    gulong handler = 0;
    std::function<void()> action;
};

static void on_after_paint(GdkFrameClock *clock, gpointer data) {
    auto *waiter = static_cast<frame_waiter *>(data);
    const std::function<void()> action = std::move(waiter->action);
    g_signal_handler_disconnect(clock, waiter->handler); // frees the waiter
    action();
}

static void free_waiter(gpointer data, GClosure *) {
    delete static_cast<frame_waiter *>(data);
}

void after_first_frame(GtkWindow *window, std::function<void()> action) {
    auto waiter = std::make_unique<frame_waiter>();
    waiter->action = std::move(action);
    frame_waiter *data = waiter.release(); // owned by the connection
    data->handler =
        g_signal_connect_data(gtk_widget_get_frame_clock(GTK_WIDGET(window)), "after-paint",
                              G_CALLBACK(on_after_paint), data, free_waiter, G_CONNECT_DEFAULT);
}

bool is_command_key_down(GtkWindow *window) {
    GdkSurface *surface = gtk_native_get_surface(GTK_NATIVE(window));
    GdkSeat *seat = gdk_display_get_default_seat(gdk_surface_get_display(surface));
    GdkDevice *pointer = seat != nullptr ? gdk_seat_get_pointer(seat) : nullptr;
    if (pointer == nullptr)
        return false;
    GdkModifierType state = {};
    gdk_surface_get_device_position(surface, pointer, nullptr, nullptr, &state);
    return (state & (GDK_ALT_MASK | GDK_CONTROL_MASK | GDK_SUPER_MASK | GDK_META_MASK)) != 0;
}

bool is_activated_by_user(GtkWindow *window) {
    GdkDisplay *display = gtk_widget_get_display(GTK_WIDGET(window));
// This is deprecated, but newer versions have no replacement.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    const char *token = gdk_display_get_startup_notification_id(display);
#pragma GCC diagnostic pop
    return token != nullptr && *token != '\0';
}

// ---- X11 ----------------------------------------------------------------------------------

#ifdef GDK_WINDOWING_X11

static bool is_on_x11(GtkWindow *window) {
    return GDK_IS_X11_SURFACE(gtk_native_get_surface(GTK_NATIVE(window)));
}

void take_no_focus(GtkWindow *window) {
    if (!is_on_x11(window))
        return;
    GdkSurface *surface = gtk_native_get_surface(GTK_NATIVE(window));
    gdk_x11_surface_set_user_time(GDK_X11_SURFACE(surface), 0);
}

// The state of a visible window is changed by the window manager. The request is a message to the
// root window.
void keep_above(GtkWindow *window) {
    constexpr long ADD_STATE = 1;
    constexpr long FROM_APPLICATION = 1;
    if (!is_on_x11(window))
        return;
    GdkSurface *surface = gtk_native_get_surface(GTK_NATIVE(window));
    GdkDisplay *display = gdk_surface_get_display(surface);
    XEvent request = {};
    request.xclient.type = ClientMessage;
    request.xclient.window = gdk_x11_surface_get_xid(surface);
    request.xclient.message_type = gdk_x11_get_xatom_by_name_for_display(display, "_NET_WM_STATE");
    request.xclient.format = 32;
    request.xclient.data.l[0] = ADD_STATE;
    request.xclient.data.l[1] =
        static_cast<long>(gdk_x11_get_xatom_by_name_for_display(display, "_NET_WM_STATE_ABOVE"));
    request.xclient.data.l[3] = FROM_APPLICATION;
    Display *server = gdk_x11_display_get_xdisplay(display);
    XSendEvent(server, DefaultRootWindow(server), False,
               SubstructureRedirectMask | SubstructureNotifyMask, &request);
    XFlush(server);
}

#else

void take_no_focus(GtkWindow *) {}
void keep_above(GtkWindow *) {}

#endif
