#include "tbx/recipients.h"

#include <grp.h>
#include <pwd.h>
#include <systemd/sd-login.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <unordered_set>

constexpr const char *LOGIN_DEFS = "/etc/login.defs";
constexpr size_t LOGIN_DEFS_MAX_BYTES = 1'048'576;
constexpr int64_t UID_MIN_DEFAULT = 1000;
constexpr int64_t UID_MAX_DEFAULT = 60'000;

namespace {

// Adds names to a list that holds each name once. The list must not change otherwise.
class name_set {
public:
    explicit name_set(strlist *list) : list_(list) { seen_.insert(list->begin(), list->end()); }

    void add(const char *name) {
        if (seen_.contains(name))
            return;
        strlist_push_dup(list_, name);
        seen_.insert(list_->items[list_->count - 1]);
    }

private:
    strlist *list_;
    std::unordered_set<std::string_view> seen_; // the list's own strings
};

} // namespace

// ---- Accounts -----------------------------------------------------------------------------

int user_lookup_by_name(const char *name, resolved_user *out) {
    resolved_user_free(out);
    errno = 0;
    const passwd *account = getpwnam(name);
    if (!account)
        return 0;
    *out = {.name = account->pw_name, .uid = account->pw_uid, .gid = account->pw_gid};
    return 1;
}

void resolved_user_free(resolved_user *out) {
    *out = {};
}

// Calls `visit` for every account. False, with errno, when they cannot all be read: some of
// the accounts must never pass for all of them.
template <typename Visit> static bool for_each_account(Visit visit) {
    errno = 0;
    setpwent(); // reports its failure here only: the next getpwent would find a plain end
    int error = errno;
    while (!is_resource_error(error)) {
        errno = 0;
        const passwd *account = getpwent();
        if (!account) {
            error = errno;
            break;
        }
        visit(*account);
    }
    endpwent();
    errno = error;
    return !is_resource_error(error);
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
    while (!text.empty()) {
        const size_t line_end = std::min(text.find('\n'), text.size());
        const std::string line(text.substr(0, line_end));
        result = defined_number(line, key).value_or(result);
        text.remove_prefix(std::min(line_end + 1, text.size()));
    }
    return result;
}

int64_t login_defs_number(const char *key, int64_t fallback) {
    strbuf text;
    if (read_file_limited(LOGIN_DEFS, LOGIN_DEFS_MAX_BYTES, /*nofollow=*/false, &text) != 0)
        return fallback;
    return login_defs_parse(text.view(), key, fallback);
}

// By suffix on purpose: the directory of "nologin" and "false" differs between systems.
static bool is_login_shell(const char *shell) {
    const std::string_view path = shell ? shell : "";
    return !path.ends_with("nologin") && !path.ends_with("false");
}

bool human_users_list(strlist *list) {
    errno = 0;
    const int64_t uid_min = login_defs_number("UID_MIN", UID_MIN_DEFAULT);
    const int64_t uid_max = login_defs_number("UID_MAX", UID_MAX_DEFAULT);
    if (is_resource_error(errno))
        return false; // the defaults could name other people
    name_set names(list);
    const bool complete = for_each_account([&](const passwd &account) {
        const int64_t uid = account.pw_uid;
        if (uid >= uid_min && uid <= uid_max && is_login_shell(account.pw_shell))
            names.add(account.pw_name);
    });
    if (!complete)
        return false;
    strlist_sort(list);
    return true;
}

// ---- Login sessions -----------------------------------------------------------------------

// Whether a call to the login manager failed for want of resources: errno says so then. Any
// other failure means that there is no such session, or no login manager.
static bool lacked_resources(int result) {
    errno = result < 0 ? -result : 0;
    return is_resource_error(errno);
}

bool login_sessions_list(strlist *list) {
    char **identifiers = nullptr;
    const int count = sd_get_sessions(&identifiers);
    const std::unique_ptr<char *[], free_deleter> array(identifiers);
    for (int i = 0; i < count; i++) // never, after a failure
        strlist_push(list, owned_cstring(identifiers[i]));
    return !lacked_resources(count);
}

// Finds whose session of class "user" it is: greeters, lock screens and background services have
// sessions too. Nobody's when it is another one, or has ended meanwhile. False, with errno, when
// it could not be read for want of resources.
static bool session_user(const char *session, std::optional<uid_t> *user) {
    char *text = nullptr;
    int result = sd_session_get_class(session, &text);
    const owned_cstring session_class(text);
    if (result >= 0 && strcmp(session_class.get(), "user") == 0) {
        uid_t uid = 0;
        result = sd_session_get_uid(session, &uid);
        if (result >= 0)
            *user = uid;
        else if (result == -EIO)
            result = -ENODATA; // it names no user: the file itself has just been read
    }
    return !lacked_resources(result);
}

bool online_users_list(strlist *list) {
    strlist sessions;
    strlist humans;
    if (!login_sessions_list(&sessions) || !human_users_list(&humans))
        return false;
    const std::unordered_set<std::string_view> is_human(humans.begin(), humans.end());

    name_set names(list);
    for (const char *session : sessions) {
        std::optional<uid_t> uid;
        if (!session_user(session, &uid))
            return false;
        if (!uid)
            continue;
        errno = 0;
        const passwd *account = getpwuid(*uid);
        if (!account && is_resource_error(errno))
            return false;
        if (account && is_human.contains(account->pw_name))
            names.add(account->pw_name);
    }
    strlist_sort(list);
    return true;
}

// ---- Groups -------------------------------------------------------------------------------

bool group_members_list(const char *name, strlist *list) {
    errno = 0;
    const group *found = getgrnam(name);
    if (!found)
        return false;
    name_set names(list);
    for (char **member = found->gr_mem; *member; member++)
        names.add(*member);
    const gid_t gid = found->gr_gid;
    return for_each_account([&](const passwd &account) {
        if (account.pw_gid == gid)
            names.add(account.pw_name);
    });
}

// ---- From text to names -------------------------------------------------------------------

static bool named_user_list(const char *name, strlist *list) {
    resolved_user user;
    if (!user_lookup_by_name(name, &user))
        return false;
    strlist_push_dup(list, name);
    return true;
}

// Appends the names that one item stands for, or ends the process.
static void expand_item(const char *item, strlist *list) {
    const bool is_group = item[0] == '@';
    bool found = false;
    if (strcmp(item, "all") == 0)
        found = human_users_list(list);
    else if (strcmp(item, "online") == 0)
        found = online_users_list(list);
    else
        found = is_group ? group_members_list(item + 1, list) : named_user_list(item, list);
    if (found)
        return;
    if (is_resource_error(errno)) // says nothing about the user or group
        die("%s: %s", item, strerror(errno));
    if (is_group)
        die("no such group: %s", item + 1);
    die("no such user: %s", item);
}

void recipients_resolve(const char *text, strlist *list) {
    std::string items = text;
    name_set names(list);
    char *rest = nullptr;
    for (char *item = strtok_r(items.data(), ",", &rest); item;
         item = strtok_r(nullptr, ",", &rest)) {
        strlist expanded;
        expand_item(item, &expanded);
        for (const char *name : expanded)
            if (*name != '\0')
                names.add(name);
    }
    strlist_sort(list);
}

void recipients_count_print(const char *text) {
    strlist list;
    recipients_resolve(text, &list);
    printf("%zu\n", list.count);
}
