// The history of one message, read back from the journal.
#pragma once

#include <string>
#include <systemd/sd-journal.h>

// Returns a copy of field `name` of the journal's current entry, empty when absent.
[[nodiscard]] std::string journal_field(sd_journal *journal, const char *name);
