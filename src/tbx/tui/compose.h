// The page on which a message is written and sent.
#pragma once

#include <string>
#include <vector>

// What is left of a form when the interface is asked to end, or the terminal is gone.
struct compose_rest {
    std::string text;        // neither sent nor discarded: to be kept; empty for none
    std::string edited_path; // of a file that the editor left and nobody was told of
};

// Runs the form until the message is sent or abandoned, and nothing is left.
[[nodiscard]] compose_rest compose_page();

// Keeps the rest in files. Returns a line for each, to be shown. Call it once the terminal is
// restored: it may take a moment.
[[nodiscard]] std::vector<std::string> compose_keep(const compose_rest &rest);
