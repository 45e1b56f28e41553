// Writing the text in the administrator's own editor.
#pragma once

#include "tbx/tui/compose_form.h"

// Gives the terminal to the editor that VISUAL or EDITOR names, as the user who called sudo,
// and takes over what was written. The text stays as it was where that fails.
void compose_edit_external(compose_form *form);
