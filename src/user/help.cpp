#include "user/help.h"

#include "common/style.h"
#include "user/command.h"
#include "user/texts.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

const char *const HELP_NAME_LINE =
    N_("tellbox — reads and confirms the messages of the administrator");

const char *const HELP_DESCRIPTION = N_(
    "Messages of the administrator wait in your mailbox until you say that you have read them. "
    "They come at the prompt of your shells and in a window on your desktop, and come back after "
    "a while (30 minutes, if the administrator sets nothing else) until you do.");

const char *const HELP_SEE_ALSO =
    N_("tbx(1), and the user manual in /usr/local/share/doc/tellbox/User Manual.html");

static constexpr const char *SYNOPSIS[] = {
    "tellbox",
    "tellbox list",
    "tellbox show ID",
    "tellbox read [ID...]",
    "tellbox later [ID...]",
    "tellbox hook SHELL",
    "tellbox version",
};

static constexpr const char *COMMANDS[] = {
    N_("(no command)¦Asks about each waiting message in turn: r for «I have read it», l for "
       "«Later», q to quit. Without a terminal, the list."),
    N_("list¦Your messages, the newest last, with what has become of each."),
    N_("show ID¦One message, whole."),
    N_("read [ID...]¦«I have read it». Without ID the one message that is waiting, if you have "
       "seen it."),
    N_("later [ID...]¦«Later»: the message comes back. Without ID the one message that is waiting, "
       "if you have seen it."),
    N_("hook SHELL¦What a shell evaluates to show messages at its prompt: bash, zsh or fish."),
    N_("version, --version¦Shows the Tellbox version."),
    N_("help, --help, -h¦Shows this help."),
};

static constexpr const char *PROMPT[] = {
    N_("bash, in ~/.bashrc¦eval \"$(tellbox hook bash)\""),
    N_("zsh, in ~/.zshrc¦eval \"$(tellbox hook zsh)\""),
    N_("fish, in ~/.config/fish/config.fish¦tellbox hook fish | source"),
    N_("every shell of the machine¦Login shells and fish load it by themselves, bash and zsh once "
       "root "
       "has run: /usr/local/lib/tellbox/tellbox-user shells on"),
};

static constexpr const char *FILES[] = {
    N_("/var/lib/tellbox/users/USER/¦Your mailbox."),
    N_("/etc/tellbox/tellbox.conf¦Configuration: minutes before a message comes back."),
    N_("/etc/profile.d/tellbox.sh¦Loads the hook in login shells."),
    N_("~/.hushlogin¦If it exists, shells without a hook show nothing at login."),
};

static constexpr const char *ENVIRONMENT[] = {
    N_("TELLBOX_PROMPT¦If set to off, nothing is shown at the prompt."),
    N_("PAGER¦Pager for messages that are longer than the screen (default: less)."),
    N_("NO_COLOR¦If set, disables colours."),
};

static constexpr const char *EXIT_STATUS[] = {
    N_("0¦Completed successfully."),
    N_("1¦Error: the error message, starting with «tellbox:», says which. Or nothing was waiting "
       "for «read» and «later»."),
};

const help_table HELP_SYNOPSIS = SYNOPSIS;
const help_table HELP_COMMANDS = COMMANDS;
const help_table HELP_PROMPT = PROMPT;
const help_table HELP_FILES = FILES;
const help_table HELP_ENVIRONMENT = ENVIRONMENT;
const help_table HELP_EXIT_STATUS = EXIT_STATUS;

// ---- Printing -----------------------------------------------------------------------------

constexpr int COLUMNS_MIN = 40;
constexpr int COLUMNS_MAX = 100;

static void print_wrapped(const char *text, int width, int indent) {
    strlist lines;
    wrap_words(text, width, indent, &lines);
    for (const char *line : lines)
        printf("%s\n", line);
}

static void print_section(const char *name) {
    printf("\n%s%s%s\n", style.bold, name, style.reset);
}

static void print_table(const char *section, help_table items, int width) {
    print_section(section);
    std::string term;
    std::string description;
    for (const char *item : items) {
        split_term(_(item), &term, &description);
        printf("  %s%s%s\n", style.green, term.c_str(), style.reset);
        print_wrapped(description.c_str(), width, 6);
    }
}

int cmd_help() {
    const bool on_screen = is_on_terminal();
    const int width = on_screen ? std::clamp(output_size().columns, COLUMNS_MIN, COLUMNS_MAX) : 80;
    styles_set(on_screen && !is_dumb_terminal() && getenv("NO_COLOR") == nullptr);
    print_wrapped(_(HELP_NAME_LINE), width, 0);
    printf("\n");
    print_wrapped(_(HELP_DESCRIPTION), width, 0);
    print_table(_("Commands"), HELP_COMMANDS, width);
    print_table(_("At the prompt"), HELP_PROMPT, width);
    print_table(_("Environment"), HELP_ENVIRONMENT, width);
    return 0;
}
