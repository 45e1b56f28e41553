// The first page: the messages that were sent, newest first. All other pages open from it.
#pragma once

#include "common/core.h"
#include "tbx/status.h"

#include <string>
#include <vector>

// Runs the interface until the user leaves it. Returns false and leaves the terminal unchanged when
// it cannot start.
[[nodiscard]] bool tui_run();

struct message_list {
    std::vector<message_summary> rows; // in the order shown; texts cleaned
    std::string loaded_at;             // local time, "%H:%M:%S"
};

// Returns the time of day, as "updated at" shows it.
[[nodiscard]] std::string tui_clock();

// Makes what came from the store safe to show.
void tui_clean_message(message_record *message);

// Reads the messages again: those whose text or title contains `search_text`, all if it is empty. A
// message that cannot be read stays as it was before; if it was not in the list, it is left out.
void message_list_load(message_list *list, const std::string &search_text);

// Appends the body lines of the page: heading, the rows from `top` on, legend.
void message_list_render(strlist *lines, const message_list &list, int selected, int top,
                         const std::string &search_text);
