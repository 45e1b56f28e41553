#include "tbx/recipients.h"

#include "common/message.h"
#include "tbx/accounts.h"

#include <systemd/sd-login.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

// ---- Login sessions -----------------------------------------------------------------------

// Classifies the result of a call to the login manager's library. A session that has ended, or that
// has no such value, is `absent`.
static lookup lookup_of_result(int result) {
    if (result >= 0)
        return lookup::found;
    errno = -result;
    return result == -ENOENT || result == -ENXIO || result == -ENODATA ? lookup::absent
                                                                       : lookup::failed;
}

int login_sessions_list(strlist *list) {
    char **identifiers = nullptr;
    const int count = sd_get_sessions(&identifiers);
    const std::unique_ptr<char *[], free_deleter> array(identifiers);
    for (int i = 0; i < count; i++) // no iteration after a failure
        strlist_push(list, owned_cstring(identifiers[i]));
    return lookup_of_result(count) == lookup::failed ? -1 : 0;
}

// Finds the user of a session of class "user"; greeters, lock screens and background services have
// sessions of other classes. Returns `absent` for those, and for a session that names no user or
// has ended.
static lookup session_user(const char *session, uid_t *user) {
    char *text = nullptr;
    const lookup found = lookup_of_result(sd_session_get_class(session, &text));
    const owned_cstring session_class(text);
    if (found != lookup::found)
        return found;
    if (strcmp(session_class.get(), "user") != 0)
        return lookup::absent;
    const int result = sd_session_get_uid(session, user);
    // EIO: the file, which has just been read, names no user.
    return result == -EIO ? lookup::absent : lookup_of_result(result);
}

// Finds the name of the session's user, if that is an ordinary one with an account.
static lookup session_user_name(const char *session, resolved_user *user) {
    uid_t uid = 0;
    const lookup found = session_user(session, &uid);
    return found == lookup::found ? user_lookup_by_uid(uid, user) : found;
}

int online_users_list(strlist *list) {
    strlist sessions;
    strlist humans;
    if (login_sessions_list(&sessions) != 0 || human_users_list(&humans) != 0)
        return -1;
    const std::unordered_set<std::string_view> is_human(humans.begin(), humans.end());

    name_set names(list);
    for (const char *session : sessions) {
        resolved_user user;
        const lookup found = session_user_name(session, &user);
        if (found == lookup::failed)
            return -1;
        if (found == lookup::found && is_human.contains(user.name))
            names.add(user.name.c_str());
    }
    strlist_sort(list);
    return 0;
}

// ---- From text to names -------------------------------------------------------------------

enum class item_kind { all, online, group, user };

static item_kind kind_of(const char *item) {
    if (strcmp(item, "all") == 0)
        return item_kind::all;
    if (strcmp(item, "online") == 0)
        return item_kind::online;
    return item[0] == '@' ? item_kind::group : item_kind::user;
}

static lookup named_user_list(const char *name, strlist *list) {
    resolved_user user;
    const lookup found = user_lookup_by_name(name, &user);
    if (found == lookup::found)
        strlist_push_dup(list, name);
    return found;
}

static lookup item_look_up(item_kind kind, const char *item, strlist *list) {
    switch (kind) {
    case item_kind::all:
        return human_users_list(list) == 0 ? lookup::found : lookup::failed;
    case item_kind::online:
        return online_users_list(list) == 0 ? lookup::found : lookup::failed;
    case item_kind::group:
        return group_members_list(item + 1, list);
    case item_kind::user:
        break;
    }
    return named_user_list(item, list);
}

// Appends the names that one item stands for, or ends the process.
static void expand_item(item_kind kind, const char *item, strlist *list) {
    switch (item_look_up(kind, item, list)) {
    case lookup::found:
        return;
    case lookup::failed:
        die("%s: %s", item, strerror(errno));
    case lookup::absent:
        break;
    }
    if (kind == item_kind::group)
        die("no such group: %s", item + 1);
    die("no such user: %s", item);
}

// Returns a name as it is shown: on one line, without control characters.
static std::string shown_name(const char *name) {
    std::string on_one_line = name;
    std::ranges::replace_if(
        on_one_line, [](char c) { return c >= '\t' && c <= '\r'; }, ' ');
    strbuf cleaned;
    sanitize_text(on_one_line.data(), on_one_line.size(), &cleaned);
    return std::string(cleaned.view());
}

// Resolves the text; `unstorable` receives the names that are left out, each once.
static void resolve(const char *text, strlist *list, strlist *unstorable) {
    std::string items = text;
    name_set names(list);
    name_set left_out(unstorable);
    char *rest = nullptr;
    for (char *item = strtok_r(items.data(), ",", &rest); item != nullptr;
         item = strtok_r(nullptr, ",", &rest)) {
        const item_kind kind = kind_of(item);
        strlist expanded;
        expand_item(kind, item, &expanded);
        for (const char *name : expanded) {
            if (is_storable_name(name))
                names.add(name);
            else if (kind == item_kind::user)
                die("cannot keep the name: %s", shown_name(name).c_str());
            else if (*name != '\0')
                left_out.add(name);
        }
    }
    strlist_sort(list);
}

void recipients_resolve(const char *text, strlist *list) {
    strlist unstorable;
    resolve(text, list, &unstorable);
    for (const char *name : unstorable)
        warn("cannot keep the name: %s", shown_name(name).c_str());
}

void recipients_count_print(const char *text) {
    strlist list;
    strlist unstorable;
    resolve(text, &list, &unstorable);
    printf("%zu\n", list.count);
}
