// Turns the text of --to into the names of recipients.
#pragma once

#include "common/core.h"

// Appends the recipients that `text` names ("pat,@staff,all,online"), each once, and sorts the
// list. Ends the process when an item names nobody ("no such user: %s", "no such group: %s"), when
// it names a user whose name the store cannot keep ("cannot keep the name: %s"), and when it could
// not be looked up ("%s: %s" with the item). Names from a group, "all" or "online" that cannot be
// kept are left out, with a warning for each.
void recipients_resolve(const char *text, strlist *list);

// Prints how many recipients `text` names, "%zu\n", without warnings. Ends the process as
// recipients_resolve() does.
void recipients_count_print(const char *text);

// Appends every human user with a login session of class "user". Sorts the list. Returns 0, or
// -1 with errno when the accounts or sessions cannot all be read.
[[nodiscard]] int online_users_list(strlist *list);

// Appends the identifiers of all login sessions; none if there is no login manager. Returns 0, or
// -1 with errno when it could not be asked.
[[nodiscard]] int login_sessions_list(strlist *list);
