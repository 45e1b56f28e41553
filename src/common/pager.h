// Finding a pager, and showing text through it.
#pragma once

#include <cstdio>
#include <functional>
#include <string>

// Returns the shell command of the pager: PAGER, otherwise "less" if it is installed. Empty when
// there is none.
[[nodiscard]] std::string pager_command();

// Runs `command`, lets `print` write to it and waits for its end. Until then this process ignores
// SIGINT and SIGQUIT, so that only the pager gets them. A pager that ends early is no failure.
// Returns false when the command could not be run, or could not be given the whole text.
[[nodiscard]] bool pager_show(const std::string &command, const std::function<void(FILE *)> &print);
