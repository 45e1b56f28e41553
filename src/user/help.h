// The texts of tellbox's help, also used for its manual page and completions.
#pragma once

#include <span>

// A command or a topic: the term and its description, separated by "¦".
using help_table = std::span<const char *const>;

extern const char *const HELP_NAME_LINE;
extern const char *const HELP_DESCRIPTION;
extern const char *const HELP_SEE_ALSO;
extern const help_table HELP_SYNOPSIS; // lines without a description
extern const help_table HELP_COMMANDS;
extern const help_table HELP_PROMPT;
extern const help_table HELP_FILES;
extern const help_table HELP_ENVIRONMENT;
extern const help_table HELP_EXIT_STATUS;
