// Looking up accounts and groups. An account that does not exist and a directory service that does
// not answer give different results.
#pragma once

#include "common/core.h"

#include <grp.h>
#include <pwd.h>
#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

// An account, as the mailbox operations need it.
struct resolved_user {
    std::string name;
    uint32_t uid = 0;
    uint32_t gid = 0; // primary group
};

// Looks the account up now and fills `out`, which is zeroed unless it is found. For `failed`,
// errno says why.
[[nodiscard]] lookup user_lookup_by_name(const char *name, resolved_user *out);
[[nodiscard]] lookup user_lookup_by_uid(uint32_t uid, resolved_user *out);
void resolved_user_free(resolved_user *out); // releases the name and zeroes the record

// Lists the groups of a user's processes, the primary one included. Returns 0, or -1 with errno.
[[nodiscard]] int user_groups_list(const resolved_user &user, std::vector<gid_t> *groups);

// Calls `visit` for every account of the system. Returns 0, or -1 with errno when they cannot all
// be read: a part must never be taken for all accounts.
[[nodiscard]] int for_each_account(const std::function<void(const passwd &)> &visit);

// Looks the group up and appends its members in the order of its entry, then the accounts whose
// primary group it is, each once. After `failed`, errno says why, and `list` may hold some of them.
[[nodiscard]] lookup group_members_list(const char *name, strlist *list);

// Appends every human user: a UID within UID_MIN and UID_MAX, and a shell that does not end in
// "nologin" or "false". Sorts the list. Returns 0, or -1 with errno when they cannot all be read.
[[nodiscard]] int human_users_list(strlist *list);

// Reads the number for `key` from /etc/login.defs (the last line counts), or `fallback` if there is
// none. Returns 0, or -1 with errno when the file could not be read.
[[nodiscard]] int login_defs_look_up(const char *key, int64_t fallback, int64_t *number);
// The same, but returns `fallback` also when the file could not be read.
[[nodiscard]] int64_t login_defs_number(const char *key, int64_t fallback);
// Returns the number from the text of such a file.
[[nodiscard]] int64_t login_defs_parse(std::string_view text, const char *key, int64_t fallback);

// Whether the store can keep the name, as the name of a directory and as one word of a line. It
// cannot keep an empty name, ".", "..", or a name with '/' or white space.
[[nodiscard]] bool is_storable_name(std::string_view name);

// Adds names to a list that holds each name once. Nothing else may change the list.
class name_set {
public:
    explicit name_set(strlist *list) : list_(list) { seen_.insert(list->begin(), list->end()); }

    // Appends the name and returns true, unless the list holds it already.
    bool add(const char *name) {
        if (seen_.contains(name))
            return false;
        strlist_push_dup(list_, name);
        seen_.insert(list_->items[list_->count - 1]);
        return true;
    }

private:
    strlist *list_;
    std::unordered_set<std::string_view> seen_; // they point into the list
};
