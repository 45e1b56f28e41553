// The history of one message, read back from the journal.
#pragma once

#include <string>
#include <systemd/sd-journal.h>

// A copy of the value of field `name` in the journal's current entry, empty when absent.
[[nodiscard]] std::string journal_field(sd_journal *journal, const char *name);
