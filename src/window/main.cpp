// tellbox-window: shows one message and tells what the user answers.
//
// Standard input: "N of M\n" and the message's file text. Standard output: "shown\n" at the first
// frame, then "read\n" or "later\n", and status 0. Any other end is no answer.
#include "common/core.h"
#include "common/environment.h"
#include "common/texts.h"
#include "window/content.h"
#include "window/window.h"

#include <glibmm/init.h>
#include <glibmm/main.h>
#include <gtk/gtk.h>
#include <gtkmm/init.h>

#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <cstring>

static void read_content(window_content *content) {
    strbuf input;
    if (read_fd_limited(STDIN_FILENO, WINDOW_INPUT_MAX_BYTES + 1, &input) != 0)
        die("cannot read standard input: %s", strerror(errno));
    // A message that is cut would be confirmed without its end.
    if (input.len > WINDOW_INPUT_MAX_BYTES)
        die("standard input is too long for a message");
    if (!content_parse(input.view(), content))
        die("standard input holds no message");
}

static void start_toolkit() {
    g_set_prgname("tellbox-window");
    g_set_application_name("Tellbox");
    // Drawing without the graphics processor shows a small window sooner, with a quarter of the
    // memory.
    (void)g_setenv("GSK_RENDERER", "cairo", /*overwrite=*/FALSE); // without it, it is only slower
    // The toolkit sets the locale. If this library set it, the program would end when there is no
    // such locale.
    Glib::set_init_to_users_preferred_locale(false);
    Gtk::init_gtkmm_internals();
    if (!gtk_init_check())
        die("cannot open the display");
}

// Keeps standard output for the answers only: output of the toolkit's libraries goes to standard
// error.
static unique_fd take_standard_output() {
    unique_fd answers(fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
    if (!answers || dup2(STDERR_FILENO, STDOUT_FILENO) < 0)
        die("cannot use standard output: %s", strerror(errno));
    return answers;
}

// Writes a word to the program that opened the window. It may have ended.
static void tell(int answers, const char *word) {
    const std::string line = std::string(word) + "\n";
    if (write_all(answers, line.data(), line.size()) != 0)
        die("cannot write to standard output: %s", strerror(errno));
}

int main() {
    init_environment("tellbox-window");
    init_texts();
    (void)signal(SIGPIPE, SIG_IGN); // cannot fail: the signal exists
    install_out_of_memory_handler();
    window_content content;
    read_content(&content);
    const unique_fd answers = take_standard_output();
    start_toolkit();

    const auto loop = Glib::MainLoop::create();
    message_window window(content, [&loop, &answers](const char *word) {
        tell(answers.get(), word);
        if (strcmp(word, "shown") != 0)
            loop->quit();
    });
    // Closes the window when the program that opened it ends: nobody could read an answer.
    Glib::signal_io().connect(
        [](Glib::IOCondition) -> bool { die("nobody listens to standard output"); }, answers.get(),
        Glib::IOCondition::IO_ERR | Glib::IOCondition::IO_HUP);
    window.open();
    loop->run();
    return 0;
}
