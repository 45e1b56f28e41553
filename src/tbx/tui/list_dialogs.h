// The dialogs that belong to the list alone.
#pragma once

#include "tbx/tui/screen.h"

#include <string>

// Asks for the text to search for. Replaces `search_text` and returns true when it was confirmed.
[[nodiscard]] bool search_dialog(tui_screen *page, std::string *search_text);

// Asks for an age, and deletes older messages.
void purge_dialog(tui_screen *page);

// Shows the keys of the list.
void keys_dialog(tui_screen *page);
