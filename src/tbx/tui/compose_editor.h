// The text of the form as a file: for the administrator's own editor, or to be kept.
#pragma once

#include "tbx/tui/compose_form.h"

#include <string>
#include <string_view>

enum class edit_end {
    taken,       // the text is what the editor left
    not_started, // no editor could be started; the text is unchanged
    no_file,     // the editor left no file; the text is unchanged
    not_read,    // what it left is no plain file of its user, or could not be read: it is kept, the
                 // text is unchanged
    cut,         // what it left is too long: it is kept, the text is its beginning
};

struct edit_result {
    edit_end end = edit_end::not_started;
    std::string kept; // path of the file that is kept; empty for none
};

// Gives the terminal to the editor that VISUAL or EDITOR names, as the user who called sudo, and
// reads back what was written.
[[nodiscard]] edit_result compose_edit_external(compose_form *form);

// Writes the text into a new file in /tmp, else in /var/tmp, that only root and the user who called
// sudo can read. If that user cannot be found at once, only root can. Returns a message: where it
// is, or why it could not be written.
[[nodiscard]] std::string compose_keep_text(std::string_view text);
