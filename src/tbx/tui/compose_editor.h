// The text of the form as a file: for the administrator's own editor, or to be kept.
#pragma once

#include "tbx/tui/compose_form.h"

#include <string>

// Gives the terminal to the editor that VISUAL or EDITOR names, as the user who called sudo, and
// reads back what was written. Returns false when no editor could be started; then the text is
// unchanged.
[[nodiscard]] bool compose_edit_external(compose_form *form);

// Writes the text into a new file that only the user who called sudo and root can read. Returns
// its path; empty, with errno, when it could not be written.
[[nodiscard]] std::string compose_keep_text(const compose_text &text);
