// From the text of --to to names, and from a name to the account that mailboxes work with.
#pragma once

#include "common/core.h"

#include <cstdint>
#include <string>
#include <string_view>

// An account as the mailbox operations take it.
struct resolved_user {
    std::string name;
    uint32_t uid = 0;
    uint32_t gid = 0; // primary group
};

// Looks the account up now. Returns 1 and fills `out`; or 0, with errno telling a missing
// account (0, ENOENT and the like) from a look-up that failed (is_resource_error()).
[[nodiscard]] int user_lookup_by_name(const char *name, resolved_user *out);
void resolved_user_free(resolved_user *out); // releases the name and zeroes the record

// Appends the recipients that `text` names ("pat,@staff,all,online"), each once, and sorts the
// list. An unknown user or group ends the process: "no such user: %s", "no such group: %s"; a
// look-up that failed, "%s: %s" with the item.
void recipients_resolve(const char *text, strlist *list);

// Prints how many recipients `text` names, "%zu\n". Ends the process as recipients_resolve.
void recipients_count_print(const char *text);

// The number that /etc/login.defs gives for `key` (the last line counts), or `fallback`.
[[nodiscard]] int64_t login_defs_number(const char *key, int64_t fallback);
// The same, from the text of such a file.
[[nodiscard]] int64_t login_defs_parse(std::string_view text, const char *key, int64_t fallback);

// Appends every human user: a UID within UID_MIN and UID_MAX, and a shell that does not end
// in "nologin" or "false". Sorts the list. False, with errno of a resource error, when the
// accounts cannot all be read.
[[nodiscard]] bool human_users_list(strlist *list);

// Appends every human user with a login session of class "user". Sorts the list. False as
// human_users_list.
[[nodiscard]] bool online_users_list(strlist *list);

// Appends the identifiers of all login sessions; none where there is no login manager. False,
// with errno, when it could not be asked for want of resources.
[[nodiscard]] bool login_sessions_list(strlist *list);

// Appends the members of the Unix group, and those whose primary group it is, unsorted.
// False, with errno as user_lookup_by_name, when there is no such group or a look-up failed.
[[nodiscard]] bool group_members_list(const char *name, strlist *list);
