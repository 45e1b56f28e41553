// The dialogs that belong to the list alone.
#pragma once

#include "tbx/tui/screen.h"

#include <string>

// Asks for the text to search for. True when it was confirmed, with `search_text` replaced.
[[nodiscard]] bool search_dialog(tui_screen *page, std::string *search_text);

// Asks for an age, and deletes what is older.
void purge_dialog(tui_screen *page);

// Tells the keys of the list.
void keys_dialog(tui_screen *page);
