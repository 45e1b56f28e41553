// The text of --to. The first part of the input is the text, the second the number of the account
// look-up that fails, if it is a number; the third selects its error. Accounts, groups and sessions
// are those below, whatever machine this runs on.
#include "fuzz.h"
#include "tbx/recipients.h"

#include <grp.h>
#include <pwd.h>
#include <systemd/sd-login.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <set>

// ---- The machine --------------------------------------------------------------------------

struct account {
    const char *name;
    uid_t uid;
    gid_t gid;
    const char *shell;
};

static constexpr account ACCOUNTS[] = {
    {"root", 0, 0, "/bin/bash"},         {"mail", 8, 8, "/usr/sbin/nologin"},
    {"pat", 1001, 1001, "/bin/bash"},    {"sam", 1002, 50, "/bin/sh"},
    {"robot", 1003, 50, "/bin/false"},   {"all", 1004, 1004, "/bin/sh"},
    {"@crew", 1005, 1005, "/bin/sh"},    {"pat", 1006, 1006, "/bin/sh"},
    {"nobody", 65534, 65534, "/bin/sh"}, {"john smith", 1007, 50, "/bin/sh"},
    {"..", 1008, 1008, "/bin/sh"},       {"a/b", 1009, 1009, "/bin/sh"},
};
static constexpr std::string_view HUMANS[] = {"pat", "sam", "all", "@crew"};

struct unix_group {
    const char *name;
    gid_t gid;
    std::vector<const char *> members;
};

// "gone" has no account; the name of a member may be empty in a broken group file.
static const unix_group GROUPS[] = {
    {"staff", 50, {"pat", "gone", "pat"}}, {"crew", 60, {"", "root"}}, {"empty", 70, {}}};

// The last is of somebody without an account.
static constexpr struct {
    const char *session;
    const char *kind;
    uid_t uid;
} SESSIONS[] = {{"1", "user", 1002}, {"2", "greeter", 1001}, {"3", "user", 0},
                {"4", "user", 1003}, {"5", "user", 1002},    {"6", "user", 4000}};

static int64_t lookups_left = 0; // before one fails
static constexpr int FAILURES[] = {EIO,     EMFILE, EAGAIN, ECONNREFUSED, ETIMEDOUT,
                                   EUCLEAN, ESTALE, EPERM,  EACCES};
static int failure = 0; // that of the look-up that fails
static bool has_failed = false;
static size_t next_account = 0;

// Whether this look-up fails.
static bool fails() {
    if (--lookups_left != 0)
        return false;
    has_failed = true;
    return true;
}

static passwd *passwd_of(const account *found) {
    static passwd entry;
    if (found == std::end(ACCOUNTS))
        return nullptr;
    entry = {};
    entry.pw_name = const_cast<char *>(found->name);
    entry.pw_uid = found->uid;
    entry.pw_gid = found->gid;
    entry.pw_shell = const_cast<char *>(found->shell);
    return &entry;
}

// Gives an entry out as the functions that fill their caller's do.
template <class Entry> static int give(const Entry *found, Entry *storage, Entry **result) {
    *result = found != nullptr ? storage : nullptr;
    if (found != nullptr)
        *storage = *found;
    return 0;
}

extern "C" {
int getpwnam_r(const char *name, passwd *storage, char *, size_t, passwd **result) {
    *result = nullptr;
    if (fails())
        return failure;
    return give(passwd_of(std::ranges::find(ACCOUNTS, std::string_view(name), &account::name)),
                storage, result);
}
int getpwuid_r(uid_t uid, passwd *storage, char *, size_t, passwd **result) {
    *result = nullptr;
    if (fails())
        return failure;
    return give(passwd_of(std::ranges::find(ACCOUNTS, uid, &account::uid)), storage, result);
}
void setpwent() {
    next_account = 0;
}
passwd *getpwent() {
    if (fails()) {
        errno = failure;
        return nullptr;
    }
    return passwd_of(std::min(std::begin(ACCOUNTS) + next_account++, std::end(ACCOUNTS)));
}
void endpwent() {}
int getgrnam_r(const char *name, group *storage, char *, size_t, group **result) {
    static group entry;
    static std::vector<char *> members;
    *result = nullptr;
    if (fails())
        return failure;
    const auto *found = std::ranges::find(GROUPS, std::string_view(name), &unix_group::name);
    if (found == std::end(GROUPS))
        return 0;
    members.clear();
    for (const char *member : found->members)
        members.push_back(const_cast<char *>(member));
    members.push_back(nullptr);
    entry = {};
    entry.gr_gid = found->gid;
    entry.gr_mem = members.data();
    return give(&entry, storage, result);
}
int sd_get_sessions(char ***sessions) {
    *sessions = static_cast<char **>(calloc(std::size(SESSIONS) + 1, sizeof(char *)));
    for (size_t i = 0; i < std::size(SESSIONS); i++)
        (*sessions)[i] = strdup(SESSIONS[i].session);
    return static_cast<int>(std::size(SESSIONS));
}
int sd_session_get_class(const char *session, char **kind) {
    *kind = strdup(SESSIONS[session[0] - '1'].kind);
    return 0;
}
int sd_session_get_uid(const char *session, uid_t *uid) {
    *uid = SESSIONS[session[0] - '1'].uid;
    return 0;
}
}

// ---- What the text must stand for ---------------------------------------------------------

struct resolution {
    std::set<std::string> names;
    std::string error; // empty where there is none
};

static bool is_account(std::string_view name) {
    return std::ranges::find(ACCOUNTS, name, &account::name) != std::end(ACCOUNTS);
}

static bool can_be_kept(std::string_view name) {
    return name != "john smith" && name != ".." && name != "a/b";
}

static void add_group(std::string_view name, resolution *result) {
    const auto *found = std::ranges::find(GROUPS, name, &unix_group::name);
    if (found == std::end(GROUPS)) {
        result->error = "no such group: " + std::string(name);
        return;
    }
    result->names.insert(found->members.begin(), found->members.end());
    for (const account &one : ACCOUNTS)
        if (one.gid == found->gid)
            result->names.insert(one.name);
}

static void add_item(std::string_view item, resolution *result) {
    if (item == "all")
        result->names.insert(std::begin(HUMANS), std::end(HUMANS));
    else if (item == "online")
        result->names.insert("sam");
    else if (item.starts_with('@'))
        add_group(item.substr(1), result);
    else if (is_account(item) && can_be_kept(item))
        result->names.emplace(item);
    else if (is_account(item))
        result->error = "cannot keep the name: " + std::string(item);
    else
        result->error = "no such user: " + std::string(item);
}

static resolution resolve_by_the_rules(std::string_view text) {
    resolution result;
    while (!text.empty() && result.error.empty()) {
        const std::string_view item = text.substr(0, text.find(','));
        if (!item.empty())
            add_item(item, &result);
        text.remove_prefix(std::min(item.size() + 1, text.size()));
    }
    result.names.erase("");
    std::erase_if(result.names, [](const std::string &name) { return !can_be_kept(name); });
    return result;
}

void fuzz_one(std::string_view input) {
    const auto parts = parts_of(input, 3);
    const std::string text(up_to_nul(parts[0]));
    failure = FAILURES[static_cast<size_t>(decimal(parts[2]).value_or(0)) % std::size(FAILURES)];
    lookups_left = decimal(parts[1]).value_or(0);
    has_failed = false;

    strlist list;
    const auto message = message_at_end([&] { recipients_resolve(text.c_str(), &list); });
    const resolution expected = resolve_by_the_rules(text);
    if (has_failed) { // who was not found may well exist: never less than everybody
        CHECK(message && message->ends_with(std::string(": ") + strerror(failure) + "\n"));
    } else if (!expected.error.empty()) {
        CHECK(message == "tbx: " + expected.error + "\n");
    } else {
        CHECK(!message);
        CHECK(std::ranges::equal(items_of(list), expected.names));
    }
}
