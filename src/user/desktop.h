// The user's desktop: whether there is one, its environment, and whether its display answers.
#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>
#include <vector>

using environment_list = std::vector<std::string>; // "NAME=VALUE"

// Whether this user has a service manager of their own, which knows the desktop's environment.
// Never in test mode.
[[nodiscard]] bool has_service_manager();

// Finds the user's graphical sessions that are not closing, sorted; those of login screens are left
// out. Returns false if the login manager cannot be asked.
[[nodiscard]] bool desktop_sessions(uid_t uid, std::vector<std::string> *found);

// Whether the user has a graphical session that is not closing. A login screen does not count.
// Returns true if the login manager cannot be asked.
[[nodiscard]] bool has_desktop_session(uid_t uid);

// Whether the account belongs to the system and not to a person. Login screens run as such
// accounts.
[[nodiscard]] bool is_system_account(uid_t uid);

[[nodiscard]] environment_list own_environment();
// Returns the environment that a process was started with; empty if it cannot be read.
[[nodiscard]] environment_list environment_of(pid_t pid);

// The value of a variable; empty if it is not set.
[[nodiscard]] std::string_view environment_get(const environment_list &environment,
                                               std::string_view name);
void environment_set(environment_list *environment, std::string_view name, std::string_view value);
void environment_unset(environment_list *environment, std::string_view name);

// Whether the environment names a display whose server takes connections. A display on another
// machine is not tried and counts.
[[nodiscard]] bool display_answers(const environment_list &environment);

// Returns the environment for a window: our own, overridden by that of the service manager. Our own
// display is used only if the manager's does not answer. Variables that were meant for another
// process, such as activation tokens, are removed.
[[nodiscard]] environment_list window_environment(const environment_list &own,
                                                  const environment_list &manager);
