// The form for a new message as a page.
#pragma once

#include "tbx/tui/compose_form.h"
#include "tbx/tui/screen.h"

// Moves the view so that the cursor is in it, and builds the page.
void compose_build(compose_form *form, tui_screen *page);
