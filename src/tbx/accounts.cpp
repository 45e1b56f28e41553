#include "tbx/accounts.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>

constexpr const char *LOGIN_DEFS = "/etc/login.defs";
constexpr size_t LOGIN_DEFS_MAX_BYTES = 1'048'576;
constexpr int64_t UID_MIN_DEFAULT = 1000;
constexpr int64_t UID_MAX_DEFAULT = 60'000;

// ---- Asking the system --------------------------------------------------------------------

// If there is no such entry, a service sets no errno, ENOENT or ESRCH. Any other errno means that
// it could not look.
static bool means_no_entry(int error) {
    return error == 0 || error == ENOENT || error == ESRCH;
}

// Calls `ask(buffer, size, &entry)`, a function like getpwnam_r, with a buffer that grows until
// the entry fits.
template <class Entry, class Ask>
static lookup ask_for_entry(const Ask &ask, std::vector<char> *buffer, const Entry **entry) {
    constexpr size_t FIRST_BYTES = 4096;
    constexpr size_t MAX_BYTES = 268'435'456;
    for (size_t bytes = FIRST_BYTES;; bytes *= 4) {
        buffer->resize(bytes);
        Entry *result = nullptr;
        const int error = ask(buffer->data(), buffer->size(), &result);
        *entry = result;
        if (result != nullptr)
            return lookup::found;
        if (error == ERANGE && bytes < MAX_BYTES)
            continue;
        errno = error;
        return means_no_entry(error) ? lookup::absent : lookup::failed;
    }
}

template <class Ask> static lookup look_up_account(const Ask &ask, resolved_user *out) {
    resolved_user_free(out);
    std::vector<char> buffer;
    passwd storage = {};
    const passwd *account = nullptr;
    const lookup found = ask_for_entry(
        [&](char *text, size_t bytes, passwd **entry) { return ask(&storage, text, bytes, entry); },
        &buffer, &account);
    if (found == lookup::found)
        *out = {.name = account->pw_name, .uid = account->pw_uid, .gid = account->pw_gid};
    return found;
}

lookup user_lookup_by_name(const char *name, resolved_user *out) {
    return look_up_account(
        [name](passwd *storage, char *text, size_t bytes, passwd **entry) {
            return getpwnam_r(name, storage, text, bytes, entry);
        },
        out);
}

lookup user_lookup_by_uid(uint32_t uid, resolved_user *out) {
    return look_up_account(
        [uid](passwd *storage, char *text, size_t bytes, passwd **entry) {
            return getpwuid_r(uid, storage, text, bytes, entry);
        },
        out);
}

void resolved_user_free(resolved_user *out) {
    *out = {};
}

int user_groups_list(const resolved_user &user, std::vector<gid_t> *groups) {
    constexpr int FIRST_GROUPS = 64;
    groups->resize(FIRST_GROUPS);
    while (true) {
        auto count = static_cast<int>(groups->size());
        if (getgrouplist(user.name.c_str(), user.gid, groups->data(), &count) >= 0) {
            groups->resize(static_cast<size_t>(count));
            return 0;
        }
        if (static_cast<size_t>(count) <= groups->size())
            return -1; // not because the buffer was too small
        groups->resize(static_cast<size_t>(count));
    }
}

// Calls `call` and returns the errno that it sets, 0 for none. For functions that report a failure
// only through errno.
template <class Call> static int error_left_by(const Call &call) {
    errno = 0;
    call();
    return errno;
}

int for_each_account(const std::function<void(const passwd &)> &visit) {
    // Only setpwent() reports that a service does not answer: the next getpwent() returns a normal
    // end.
    int error = error_left_by(setpwent);
    while (means_no_entry(error)) {
        const passwd *account = nullptr;
        error = error_left_by([&] { account = getpwent(); });
        if (account == nullptr)
            break;
        visit(*account);
        error = 0;
    }
    endpwent();
    errno = error;
    return means_no_entry(error) ? 0 : -1;
}

// ---- Groups -------------------------------------------------------------------------------

lookup group_members_list(const char *name, strlist *list) {
    std::vector<char> buffer;
    group storage = {};
    const group *entry = nullptr;
    const lookup found = ask_for_entry(
        [&](char *text, size_t bytes, group **result) {
            return getgrnam_r(name, &storage, text, bytes, result);
        },
        &buffer, &entry);
    if (found != lookup::found)
        return found;
    name_set names(list);
    for (char **member = entry->gr_mem; *member != nullptr; member++)
        names.add(*member);
    const gid_t gid = entry->gr_gid;
    const int walked = for_each_account([&](const passwd &account) {
        if (account.pw_gid == gid)
            names.add(account.pw_name);
    });
    return walked == 0 ? lookup::found : lookup::failed;
}

// ---- Human users --------------------------------------------------------------------------

// The number that one line of login.defs, "WORD NUMBER ...", gives for `key`.
static std::optional<int64_t> defined_number(const std::string &line, const char *key) {
    char word[64];
    int word_end = 0;
    if (sscanf(line.c_str(), "%63s%n", word, &word_end) != 1 || strcmp(word, key) != 0)
        return std::nullopt;
    const char *number_text = line.c_str() + word_end;
    char *number_end = nullptr;
    const int64_t number = strtoll(number_text, &number_end, 10);
    return number_end != number_text ? std::optional(number) : std::nullopt;
}

int64_t login_defs_parse(std::string_view text, const char *key, int64_t fallback) {
    int64_t result = fallback;
    std::string_view line;
    while (next_line(&text, &line))
        result = defined_number(std::string(line), key).value_or(result);
    return result;
}

int login_defs_look_up(const char *key, int64_t fallback, int64_t *number) {
    *number = fallback;
    strbuf text;
    if (read_file_limited(LOGIN_DEFS, LOGIN_DEFS_MAX_BYTES, /*nofollow=*/false, &text) == 0)
        *number = login_defs_parse(text.view(), key, fallback);
    else if (errno != EINVAL && errno != EFBIG && lookup_of_error(errno) == lookup::failed)
        return -1;
    return 0;
}

int64_t login_defs_number(const char *key, int64_t fallback) {
    int64_t number = fallback;
    return login_defs_look_up(key, fallback, &number) == 0 ? number : fallback;
}

// Compares suffixes on purpose: the directory of "nologin" and "false" differs between systems.
static bool is_login_shell(const char *shell) {
    const std::string_view path = shell != nullptr ? shell : "";
    return !path.ends_with("nologin") && !path.ends_with("false");
}

int human_users_list(strlist *list) {
    int64_t uid_min = 0;
    int64_t uid_max = 0;
    // The defaults could select other users than the file that could not be read.
    if (login_defs_look_up("UID_MIN", UID_MIN_DEFAULT, &uid_min) != 0 ||
        login_defs_look_up("UID_MAX", UID_MAX_DEFAULT, &uid_max) != 0)
        return -1;
    name_set names(list);
    const int walked = for_each_account([&](const passwd &account) {
        const int64_t uid = account.pw_uid;
        if (uid >= uid_min && uid <= uid_max && is_login_shell(account.pw_shell))
            names.add(account.pw_name);
    });
    if (walked != 0)
        return -1;
    strlist_sort(list);
    return 0;
}

// ---- Names --------------------------------------------------------------------------------

bool is_storable_name(std::string_view name) {
    return !name.empty() && name != "." && name != ".." &&
           name.find_first_of(" \t\n\v\f\r/") == std::string_view::npos;
}
