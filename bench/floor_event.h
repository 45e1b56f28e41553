// What the floors tell the journal, and ask of login sessions and terminals.
#pragma once

#include "floor.h"

#define SD_JOURNAL_SUPPRESS_LOCATION // the location in a record is part of its fixed form
#include <systemd/sd-journal.h>

constexpr const char *AUTHOR = "root";

struct event {
    const char *name;
    const char *message;
    const char *user;
    const char *sentence;
    const char *details;
    const char *author;
};

void record(const event &told); // one journal record

// Appends the user's line to the delivery log of the message in `dir`.
void append_delivery(const std::string &dir, const account &user, int terminals);

// Asks every session for its owner, and those of the user for their type.
void look_through_sessions(const account &user);

// The history of one message as the journal has it, printed. Returns the number of records.
int print_history(const std::string &id, int64_t since_seconds);
