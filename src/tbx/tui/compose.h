// The page on which a message is written and sent.
#pragma once

#include <string>

// Runs the form until the message is sent or abandoned. When the interface is asked to end
// meanwhile, or its terminal is gone, the text is kept in a file. Returns what is to be said of
// that once the terminal is restored; empty for nothing.
[[nodiscard]] std::string compose_page();
