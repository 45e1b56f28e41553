// The paths of the system's files, test mode, and the configuration file.
#pragma once

#include <cstddef>
#include <cstdint>

// Sets the program name, the paths and test mode from the process environment. Called once, before
// anything else. TBX_VAR, TBX_LIB and TBX_CONF are ignored unless TBX_TEST is set and not empty: an
// ordinary run never uses other directories.
void init_environment(const char *progname);

[[nodiscard]] const char *var_dir();   // state directory, "/var/lib/tellbox"
[[nodiscard]] const char *lib_dir();   // user-side program's directory, "/usr/local/lib/tellbox"
[[nodiscard]] const char *conf_path(); // "/etc/tellbox/tellbox.conf"
[[nodiscard]] bool test_mode();

constexpr size_t CONFIG_MAX_BYTES = 65'536;

// The settings of the recipients' programs, which use the same file; 1 to 999999 each.
struct config {
    int64_t remind_minutes = 30; // TBX_REMIND_MINUTES
    int64_t agent_poll = 60;     // TBX_AGENT_POLL
};

// Fills `settings` with the defaults and what the configuration file sets. A file that is
// missing, unreadable or over CONFIG_MAX_BYTES leaves the defaults; nothing is reported.
void load_config(config *settings);

// Applies the valid lines of `text` to `settings`; every other line is ignored.
void parse_config_text(const char *text, config *settings);
