// The form for a new message as a page.
#pragma once

#include "tbx/tui/compose_form.h"
#include "tbx/tui/screen.h"

// Scrolls so that the cursor is visible on a screen of the present size.
void compose_scroll(compose_form *form);

// Builds the page of a form. compose_scroll() must have been called.
void compose_build(const compose_form &form, tui_screen *page);
