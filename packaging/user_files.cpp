// Prints what is installed beside the recipients' program, made from the program's own tables.
//
//   tellbox-user-files KIND [DATE]
//
//   man DATE           the manual page of tellbox, in the language of the environment
//   bash, zsh, fish    the completions
//   profile            /etc/profile.d/tellbox.sh
//   fish-hook          the hook in fish's vendor folder
#include "common/environment.h"
#include "common/style.h"
#include "common/texts.h"
#include "roff.h"
#include "user/help.h"
#include "user/shell.h"

#include <cstdio>
#include <cstring>
#include <vector>

static constexpr const char *PROGRAM = "/usr/local/lib/tellbox/tellbox-user";

static std::vector<const char *> translated(help_table items) {
    std::vector<const char *> texts;
    texts.reserve(items.size());
    for (const char *item : items)
        texts.push_back(_(item));
    return texts;
}

// In the language of the environment, as the program itself.
static void print_man_page(const char *date) {
    printf(".TH TELLBOX 1 %s \"tellbox " TBX_VERSION "\" \"%s\"\n", date,
           roff_text(_("tellbox manual")).c_str());
    printf(".nh\n.ad l\n");
    roff_print_name(_("NAME"), _(HELP_NAME_LINE));
    roff_print_synopsis(_("SYNOPSIS"), HELP_SYNOPSIS);
    roff_print_section(_("DESCRIPTION"));
    roff_print_text(_(HELP_DESCRIPTION));
    roff_print_table(_("COMMANDS"), translated(HELP_COMMANDS));
    roff_print_table(_("AT THE PROMPT"), translated(HELP_PROMPT));
    roff_print_table(_("FILES"), translated(HELP_FILES));
    roff_print_table(_("ENVIRONMENT"), translated(HELP_ENVIRONMENT));
    roff_print_table(_("EXIT STATUS"), translated(HELP_EXIT_STATUS));
    roff_print_section(_("SEE ALSO"));
    roff_print_text(_(HELP_SEE_ALSO));
}

// ---- Completions --------------------------------------------------------------------------

// Which messages are offered behind a command.
enum class offered { none, all, waiting };

struct completed_command {
    std::string name;
    std::string purpose; // the first sentence of its description
    offered messages = offered::none;
};

// The commands that have a name; of several, the first.
static std::vector<completed_command> completed_commands() {
    std::vector<completed_command> commands;
    for (const char *item : HELP_COMMANDS) {
        completed_command command;
        std::string term;
        split_term(item, &term, &command.purpose);
        if (term.starts_with('('))
            continue;
        command.name = term.substr(0, term.find_first_of(" ,"));
        if (term.find("ID") != std::string::npos) // "ID..." are answered
            command.messages =
                term.find("...") != std::string::npos ? offered::waiting : offered::all;
        command.purpose = command.purpose.substr(0, command.purpose.find_first_of(".,:"));
        commands.push_back(std::move(command));
    }
    return commands;
}

static std::string joined_names(const char *separator) {
    std::string names;
    for (const completed_command &command : completed_commands())
        names += (names.empty() ? "" : separator) + command.name;
    return names;
}

static std::string names_with(offered messages, const char *separator) {
    std::string names;
    for (const completed_command &command : completed_commands())
        if (command.messages == messages)
            names += (names.empty() ? "" : separator) + command.name;
    return names;
}

// Lines of "tellbox list": of every message, and of those that can be answered.
static constexpr const char *EVERY_LINE = "^([0-9]+) .*$";
static constexpr const char *WAITING_LINE =
    "^([0-9]+) .*  (waiting|waiting, shown on [0-9/: ]+|postponed on [0-9/: ]+)$";

static void print_bash_completion() {
    printf("# Completion of tellbox in bash; loaded by the package bash-completion when it is "
           "first\n# needed.\n"
           "_tellbox() {\n"
           "    local cur prev words cword line\n"
           "    _init_completion || return\n"
           "    if ((cword == 1)); then\n"
           "        mapfile -t COMPREPLY < <(compgen -W '%s' -- \"$cur\")\n"
           "        return\n"
           "    fi\n"
           "    case ${words[1]} in\n"
           "    %s) line='%s' ;;\n"
           "    %s) line='%s' ;;\n",
           joined_names(" ").c_str(), names_with(offered::all, " | ").c_str(), EVERY_LINE,
           names_with(offered::waiting, " | ").c_str(), WAITING_LINE);
    printf("    hook)\n"
           "        ((cword > 2)) || mapfile -t COMPREPLY < <(compgen -W 'bash zsh fish' -- "
           "\"$cur\")\n"
           "        return\n"
           "        ;;\n"
           "    *) return ;;\n"
           "    esac\n"
           "    mapfile -t COMPREPLY < <(compgen -W \\\n"
           "        \"$(LC_ALL=C tellbox list 2>/dev/null | sed -En \"s#$line#\\1#p\")\" -- "
           "\"$cur\")\n"
           "}\n\n"
           "complete -F _tellbox tellbox\n");
}

static void print_zsh_completion() {
    printf("#compdef tellbox\n# Completion of tellbox in zsh.\n\n"
           "_tellbox() {\n"
           "  local -a commands=(\n");
    for (const completed_command &command : completed_commands())
        printf("    %s\n", shell_word(command.name + ":" + command.purpose).c_str());
    printf("  )\n"
           "  if ((CURRENT == 2)); then\n"
           "    _describe -t commands command commands\n"
           "    return\n"
           "  fi\n"
           "  local line\n"
           "  case $words[2] in\n"
           "    %s) line='%s' ;;\n"
           "    %s) line='%s' ;;\n",
           names_with(offered::all, "|").c_str(), EVERY_LINE,
           names_with(offered::waiting, "|").c_str(), WAITING_LINE);
    printf("    hook)\n"
           "      ((CURRENT > 3)) || _values shell bash zsh fish\n"
           "      return\n"
           "      ;;\n"
           "    *)\n"
           "      _message 'no more arguments'\n"
           "      return\n"
           "      ;;\n"
           "  esac\n"
           "  local -a messages\n"
           "  messages=(${(f)\"$(LC_ALL=C tellbox list 2>/dev/null | sed -En "
           "\"s#$line#\\\\1#p\")\"})\n"
           "  _wanted -V messages expl message compadd -a messages\n"
           "}\n\n"
           "_tellbox \"$@\"\n");
}

static void print_fish_messages(offered messages, const char *line) {
    printf("complete -c tellbox -n '__fish_seen_subcommand_from %s' -k -a "
           "'(__tellbox_messages \\'%s\\')'\n",
           names_with(messages, " ").c_str(), line);
}

static void print_fish_completion() {
    printf("# Completion of tellbox in fish.\n\n"
           "function __tellbox_messages\n"
           "    LC_ALL=C tellbox list 2>/dev/null | string replace -rf -- $argv[1] '$1'\n"
           "end\n\n"
           "complete -c tellbox -f\n");
    for (const completed_command &command : completed_commands())
        printf("complete -c tellbox -n __fish_is_first_token -a %s -d %s\n", command.name.c_str(),
               shell_word(command.purpose).c_str());
    printf("\n");
    print_fish_messages(offered::all, EVERY_LINE);
    print_fish_messages(offered::waiting, WAITING_LINE);
    printf("complete -c tellbox -n '__fish_seen_subcommand_from hook' -a 'bash zsh fish'\n");
}

// ---- Hooks --------------------------------------------------------------------------------

static void print_profile() {
    printf("%s", profile_text(PROGRAM).c_str());
}

static void print_fish_hook() {
    const hook_place place = {.program = PROGRAM, .mailbox = "", .environment = "TBX_TEST= "};
    printf("%s", hook_text("fish", place).c_str());
}

struct file_kind {
    const char *name;
    void (*print)();
};

static constexpr file_kind KINDS[] = {
    {"bash", print_bash_completion}, {"zsh", print_zsh_completion},
    {"fish", print_fish_completion}, {"profile", print_profile},
    {"fish-hook", print_fish_hook},
};

static bool print_kind(const char *name) {
    for (const file_kind &kind : KINDS) {
        if (strcmp(kind.name, name) != 0)
            continue;
        kind.print();
        return true;
    }
    return false;
}

int main(int argc, char **argv) {
    init_environment("tellbox-user-files");
    init_texts();
    if (argc == 3 && strcmp(argv[1], "man") == 0) {
        print_man_page(argv[2]);
    } else if (argc != 2 || !print_kind(argv[1])) {
        fprintf(stderr, "usage: tellbox-user-files man DATE|bash|zsh|fish|profile|fish-hook\n");
        return 1;
    }
    return fflush(stdout) == 0 && ferror(stdout) == 0 ? 0 : 1;
}
