// The guide's texts, and nothing but texts. In the tables whose items have a term and a
// description, "¦" stands between the two; split_term() takes them apart.
#pragma once

#include <span>

using guide_table = std::span<const char *const>;

extern const guide_table GUIDE_SYNOPSIS; // whole lines, without a description
extern const guide_table GUIDE_COMMANDS;
extern const guide_table GUIDE_SEND_OPTIONS;
extern const guide_table GUIDE_EXAMPLES;
extern const guide_table GUIDE_FILES;
extern const guide_table GUIDE_ENVIRONMENT;
extern const guide_table GUIDE_EXIT_STATUS;

extern const char *const MANUAL_NAME_LINE;
extern const char *const GUIDE_NAME_LINE; // shorter, for a narrow screen
extern const char *const GUIDE_DESCRIPTION;
extern const char *const GUIDE_SEE_ALSO;
extern const char *const GUIDE_INFO_FOOTER;
