// What the form's earlier sends have done although they failed: the store knows, not what they
// printed.
#pragma once

#include "common/core.h"
#include "tbx/tui/compose_form.h"

#include <vector>

// Notes what is in the store, and what would be added by sending the form now.
[[nodiscard]] compose_try compose_begin_try(const compose_form &form);

// Appends whom the messages of the earlier tries have reached; nothing if they created none.
void compose_tell_tries(const std::vector<compose_try> &tries, strlist *body);
