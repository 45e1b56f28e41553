// What the floors do in mailboxes: the calls of the children, made as the user.
#pragma once

#include "floor.h"

// The mailbox directory, made and handed over where it is missing, and the copy in it.
void deliver_copy(const char *var, const account &user, const std::string &id,
                  std::string_view text);

// Removes the copy and the shown-marks, and looks whether the copy is gone.
void withdraw_copy(const char *var, const account &user, const std::string &id);

// Removes the shown-marks, and looks whether they are gone.
void reset_shown(const char *var, const account &user, const std::string &id);

// Removes every file of the message.
void purge_files(const char *var, const account &user, const std::string &id);

// Reads what a user's mailbox records of one message.
void read_marks(const char *var, const char *name, const std::string &id);

// Reads what a user's mailbox records of the messages `ids` (one on each line).
void read_mailbox(const char *var, const char *name, std::string_view ids);

std::string joined(const std::vector<std::string> &names, char separator); // behind each
