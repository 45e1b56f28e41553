// The page on which a message is written and sent.
#pragma once

#include <string>

// Runs the form until the message is sent or abandoned. If the interface is asked to end meanwhile,
// or the terminal is gone, keeps the text in a file. Returns a message about that, to be printed
// once the terminal is restored; empty if there is none.
[[nodiscard]] std::string compose_page();
