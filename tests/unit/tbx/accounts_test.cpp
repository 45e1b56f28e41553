#include "tbx/accounts.h"

#include "accounts_support.h"

#include <dlfcn.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>
#include <vector>

namespace {

const char *text_of(lookup found) {
    switch (found) {
    case lookup::found:
        return "found";
    case lookup::absent:
        return "absent";
    case lookup::failed:
        break;
    }
    return "failed";
}

} // namespace

// ---- Accounts -----------------------------------------------------------------------------

TEST(UserLookup, FillsNameAndIdentifiers) {
    SKIP_UNLESS_ROOT();
    private_machine machine;
    machine.passwd = "pat:x:1001:50::/:/bin/sh\n";
    EXPECT_EQ(said_on(machine,
                      [] {
                          resolved_user user;
                          const lookup found = user_lookup_by_name("pat", &user);
                          printf("%s %s %u %u", text_of(found), user.name.c_str(), user.uid,
                                 user.gid);
                      }),
              "found pat 1001 50");
}

TEST(UserLookup, ClearsTheRecordWhenThereIsNoSuchAccount) {
    errno = EMFILE; // of an earlier call
    resolved_user user = {.name = "pat", .uid = 7, .gid = 8};
    EXPECT_EQ(user_lookup_by_name("no such account", &user), lookup::absent);
    EXPECT_EQ(user.name, "");
    EXPECT_EQ(user.uid, 0U);
    EXPECT_EQ(user.gid, 0U);
}

TEST(UserLookup, TellsAFailedLookUpFromAMissingAccount) {
    SKIP_UNLESS_ROOT();
    EXPECT_EQ(said_on(office(),
                      [] {
                          use_up_descriptors();
                          resolved_user user;
                          const lookup found = user_lookup_by_name("pat", &user);
                          printf("%s %s", text_of(found), strerror(errno));
                      }),
              "failed Too many open files");
}

TEST(UserLookup, FindsAnAccountWhoseEntryIsLong) {
    SKIP_UNLESS_ROOT();
    private_machine machine;
    machine.passwd = "pat:x:1001:50:" + std::string(100'000, 'x') + ":/:/bin/sh\n";
    EXPECT_EQ(said_on(machine,
                      [] {
                          resolved_user user;
                          const lookup by_name = user_lookup_by_name("pat", &user);
                          const lookup by_uid = user_lookup_by_uid(1001, &user);
                          printf("%s %s %s", text_of(by_name), text_of(by_uid), user.name.c_str());
                      }),
              "found found pat");
}

TEST(UserLookup, FreeZeroesTheRecord) {
    resolved_user user = {.name = "pat", .uid = 7, .gid = 8};
    resolved_user_free(&user);
    EXPECT_EQ(user.name, "");
    EXPECT_EQ(user.uid, 0U);
    EXPECT_EQ(user.gid, 0U);
}

// ---- What a service answers ---------------------------------------------------------------
// The system's functions are replaced by a service that answers as the tests say.

namespace {

std::optional<int> answer; // an errno, 0 for "no such entry"; none: the system answers
int walk_error = 0;        // that setpwent() or getpwent() leaves
bool fails_at_once = false;
int entries_before_error = 0;

// All that a directory service that is down, or in doubt, has been seen to answer.
constexpr int FAILURES[] = {EIO,    EMFILE, ENFILE,       ENOMEM,    EAGAIN,   EACCES,
                            EPERM,  ESTALE, EUCLEAN,      ETIMEDOUT, ENOTCONN, EINTR,
                            EINVAL, EBADF,  ECONNREFUSED, ERANGE,    ENOTDIR,  EHOSTUNREACH};

template <class Function> Function real(const char *name) {
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

} // namespace

extern "C" {
int getpwnam_r(const char *name, passwd *storage, char *text, size_t bytes, passwd **result) {
    if (!answer)
        return real<decltype(&getpwnam_r)>("getpwnam_r")(name, storage, text, bytes, result);
    *result = nullptr;
    return *answer;
}
int getpwuid_r(uid_t uid, passwd *storage, char *text, size_t bytes, passwd **result) {
    if (!answer)
        return real<decltype(&getpwuid_r)>("getpwuid_r")(uid, storage, text, bytes, result);
    *result = nullptr;
    return *answer;
}
int getgrnam_r(const char *name, group *storage, char *text, size_t bytes, group **result) {
    if (!answer)
        return real<decltype(&getgrnam_r)>("getgrnam_r")(name, storage, text, bytes, result);
    *result = nullptr;
    return *answer;
}
void setpwent() {
    real<decltype(&setpwent)>("setpwent")();
    if (walk_error != 0 && fails_at_once)
        errno = walk_error;
}
passwd *getpwent() {
    if (walk_error == 0 || entries_before_error-- > 0)
        return real<decltype(&getpwent)>("getpwent")();
    errno = walk_error;
    return nullptr;
}
}

namespace {

// The three look-ups one after the other, in one line.
std::string looked_up() {
    resolved_user user;
    strlist list;
    std::string line = text_of(user_lookup_by_name("root", &user));
    line += std::string(" ") + text_of(user_lookup_by_uid(0, &user));
    return line + " " + text_of(group_members_list("root", &list));
}

} // namespace

TEST(LookUpOfAccounts, IsAbsentForWhatSaysThatThereIsNone) {
    for (const int error : {0, ENOENT, ESRCH}) {
        answer = error;
        EXPECT_EQ(looked_up(), "absent absent absent") << strerror(error);
    }
    answer.reset();
}

TEST(LookUpOfAccounts, FailsForEverythingElseAndLeavesTheError) {
    for (const int error : FAILURES) {
        answer = error;
        errno = 0;
        EXPECT_EQ(looked_up(), "failed failed failed");
        EXPECT_EQ(errno, error) << strerror(error);
    }
    answer.reset();
}

TEST(LookUpOfAccounts, WalkThatFailsIsNotAWalkThatEnded) {
    SKIP_UNLESS_ROOT();
    for (const int error : FAILURES)
        for (const bool at_once : {true, false}) {
            const auto walk = [error, at_once] {
                walk_error = error;
                fails_at_once = at_once;
                entries_before_error = 3;
                const int result = for_each_account([](const passwd &) {});
                printf("%d %s", result, strerror(errno));
            };
            EXPECT_EQ(said_on(office(), walk), std::string("-1 ") + strerror(error)) << at_once;
        }
}

TEST(LookUpOfAccounts, WalkEndsWhereTheSystemSaysThatThereAreNoMore) {
    SKIP_UNLESS_ROOT();
    for (const int error : {ENOENT, ESRCH}) {
        const auto walk = [error] {
            walk_error = error;
            entries_before_error = 3;
            int accounts = 0;
            const int result = for_each_account([&](const passwd &) { accounts++; });
            printf("%d %d", result, accounts);
        };
        EXPECT_EQ(said_on(office(), walk), "0 3");
    }
}

// ---- The groups of a user -----------------------------------------------------------------

namespace {

std::string groups_on(const private_machine &machine, const resolved_user &user) {
    return said_on(machine, [&user] {
        std::vector<gid_t> groups;
        if (user_groups_list(user, &groups) != 0)
            throw_errno("user_groups_list");
        std::sort(groups.begin(), groups.end());
        for (const gid_t group : groups)
            printf("%u ", group);
    });
}

} // namespace

TEST(UserGroups, AreThePrimaryOneAndThoseThatNameTheUser) {
    SKIP_UNLESS_ROOT();
    EXPECT_EQ(groups_on(office(), {"pat", 1001, 1001}), "50 1001 ");
    EXPECT_EQ(groups_on(office(), {"sam", 1002, 50}), "50 ");
    EXPECT_EQ(groups_on(office(), {"nobody of that name", 4000, 7}), "7 ");
}

TEST(UserGroups, MayBeMany) {
    SKIP_UNLESS_ROOT();
    private_machine machine = office();
    std::string expected;
    for (int i = 2000; i < 2500; i++) {
        machine.group += xasprintf("group%d:x:%d:sam,pat\n", i, i);
        expected += std::to_string(i) + " ";
    }
    EXPECT_EQ(groups_on(machine, {"pat", 1001, 1001}), "50 1001 " + expected);
}

// ---- Groups -------------------------------------------------------------------------------

namespace {

// What group_members_list() makes of `name`, and the list.
std::string members_on(const private_machine &machine, const char *name) {
    return said_on(machine, [name] {
        strlist list;
        fputs(text_of(group_members_list(name, &list)), stdout);
        fputs(" ", stdout);
        print_list(list);
    });
}

} // namespace

TEST(GroupMembers, AreTheListedOnesThenThoseOfThePrimaryGroup) {
    SKIP_UNLESS_ROOT();
    private_machine machine;
    machine.passwd = "zoe:x:1001:50::/:/bin/sh\n"
                     "pat:x:1002:50::/:/bin/sh\n"
                     "ann:x:1003:50::/:/bin/sh\n"
                     "bob:x:1004:51::/:/bin/sh\n";
    machine.group = "staff:x:50:sam,pat,sam\n";
    EXPECT_EQ(members_on(machine, "staff"), "found sam pat zoe ann");
}

TEST(GroupMembers, NamesAlreadyInTheListAreSkipped) {
    SKIP_UNLESS_ROOT();
    EXPECT_EQ(said_on(office(),
                      [] {
                          strlist list;
                          strlist_push_dup(&list, "pat");
                          if (group_members_list("staff", &list) == lookup::found)
                              print_list(list);
                      }),
              "pat");
}

TEST(GroupMembers, SystemAccountsAreMembersToo) {
    SKIP_UNLESS_ROOT();
    private_machine machine = office();
    machine.passwd += "news:x:9:50::/:/usr/sbin/nologin\n";
    machine.group = "staff:x:50:daemon\n";
    EXPECT_EQ(members_on(machine, "staff"), "found daemon news");
}

TEST(GroupMembers, MemberWithoutAccountIsAMember) {
    SKIP_UNLESS_ROOT();
    private_machine machine = office();
    machine.group = "staff:x:50:pat,gone\n";
    EXPECT_EQ(members_on(machine, "staff"), "found pat gone");
}

TEST(GroupMembers, EmptyGroupExists) {
    SKIP_UNLESS_ROOT();
    private_machine machine = office();
    machine.group = "empty:x:60:\n";
    EXPECT_EQ(members_on(machine, "empty"), "found ");
}

TEST(GroupMembers, UnknownGroupHasNone) {
    SKIP_UNLESS_ROOT();
    EXPECT_EQ(members_on(office(), "nosuch"), "absent ");
}

TEST(GroupMembers, AccountsThatCannotBeReadAreAFailureNotAShorterList) {
    SKIP_UNLESS_ROOT();
    const auto list_where_accounts_are_broken = [] {
        break_account_files();
        std::filesystem::remove("/etc/group");
        write_file("/etc/group", office().group);
        strlist list;
        const lookup found = group_members_list("staff", &list);
        printf("%s %s", text_of(found), strerror(errno));
    };
    EXPECT_EQ(said_on(office(), list_where_accounts_are_broken), "failed Input/output error");
}

TEST(GroupMembers, GroupThatCannotBeLookedUpIsAFailure) {
    SKIP_UNLESS_ROOT();
    const auto list_without_descriptors = [] {
        use_up_descriptors();
        strlist list;
        const lookup found = group_members_list("staff", &list);
        printf("%s %s", text_of(found), strerror(errno));
    };
    EXPECT_EQ(said_on(office(), list_without_descriptors), "failed Too many open files");
}

// ---- Human users --------------------------------------------------------------------------

namespace {

std::string humans_on(const private_machine &machine) {
    return said_on(machine, [] {
        strlist list;
        if (human_users_list(&list) != 0)
            throw_errno("human_users_list");
        print_list(list);
    });
}

} // namespace

TEST(HumanUsers, AreThoseFrom1000To60000WithoutLoginDefs) {
    SKIP_UNLESS_ROOT();
    private_machine machine;
    machine.passwd = "below:x:999:1::/:/bin/sh\n"
                     "lowest:x:1000:1::/:/bin/sh\n"
                     "highest:x:60000:1::/:/bin/sh\n"
                     "above:x:60001:1::/:/bin/sh\n";
    EXPECT_EQ(humans_on(machine), "highest lowest");
}

TEST(HumanUsers, RangeIsThatOfLoginDefs) {
    SKIP_UNLESS_ROOT();
    private_machine machine;
    machine.passwd = "below:x:499:1::/:/bin/sh\n"
                     "lowest:x:500:1::/:/bin/sh\n"
                     "highest:x:4294967294:1::/:/bin/sh\n";
    machine.login_defs = "UID_MIN 500\nUID_MAX 4294967294\n";
    EXPECT_EQ(humans_on(machine), "highest lowest");
}

TEST(HumanUsers, ShellThatEndsInNologinOrFalseExcludes) {
    SKIP_UNLESS_ROOT();
    private_machine machine;
    machine.passwd = "a:x:1001:1::/:/usr/sbin/nologin\n"
                     "b:x:1002:1::/:/sbin/nologin\n"
                     "c:x:1003:1::/:/bin/false\n"
                     "d:x:1004:1::/:/usr/bin/false\n"
                     "e:x:1005:1::/:/opt/mynologin\n"
                     "f:x:1006:1::/:nologin\n"
                     "g:x:1007:1::/:false\n"
                     "h:x:1008:1::/:/bin/falsehood\n"
                     "i:x:1009:1::/:/bin/nologin2\n"
                     "j:x:1010:1::/:/opt/untrue-false\n"
                     "k:x:1011:1::/:/usr/sbin/nologin \n";
    EXPECT_EQ(humans_on(machine), "h i k");
}

TEST(HumanUsers, MissingOrShortShellDoesNotExclude) {
    SKIP_UNLESS_ROOT();
    private_machine machine;
    machine.passwd = "none:x:1001:1::/:\n"
                     "short:x:1002:1::/:sh\n"
                     "shorter:x:1003:1::/:alse\n"
                     "tail:x:1004:1::/:login\n";
    EXPECT_EQ(humans_on(machine), "none short shorter tail");
}

TEST(HumanUsers, AccountListedTwiceCountsOnce) {
    SKIP_UNLESS_ROOT();
    private_machine machine;
    machine.passwd = "pat:x:1001:1::/:/bin/sh\n"
                     "ada:x:1002:1::/:/bin/sh\n"
                     "pat:x:1001:1::/:/bin/sh\n";
    EXPECT_EQ(humans_on(machine), "ada pat");
}

TEST(HumanUsers, AccountsThatCannotBeReadAreAnErrorNotAnEmptyList) {
    SKIP_UNLESS_ROOT();
    const auto try_to_list = [] {
        strlist list;
        const int result = human_users_list(&list);
        printf("%d %s", result, strerror(errno));
    };
    const auto list_where_files_are_broken = [&] {
        break_account_files();
        try_to_list();
    };
    const auto list_without_descriptors = [&] {
        use_up_descriptors();
        try_to_list();
    };
    EXPECT_EQ(said_on(office(), list_where_files_are_broken), "-1 Input/output error");
    EXPECT_EQ(said_on(office(), list_without_descriptors), "-1 Too many open files");
}

// ---- login.defs ---------------------------------------------------------------------------

TEST(LoginDefs, NumberOfTheKeyCounts) {
    EXPECT_EQ(login_defs_parse("UID_MAX 70000\nUID_MIN\t\t 500 # people\n", "UID_MIN", 1), 500);
}

TEST(LoginDefs, MissingKeyGivesTheFallback) {
    EXPECT_EQ(login_defs_parse("", "UID_MIN", 1000), 1000);
    EXPECT_EQ(login_defs_parse("UID_MAX 70000\n", "UID_MIN", 1000), 1000);
}

TEST(LoginDefs, LastLineOfTheKeyWins) {
    EXPECT_EQ(login_defs_parse("UID_MIN 500\nUID_MIN 700\nUID_MIN many\n", "UID_MIN", 1), 700);
}

TEST(LoginDefs, LastLineMayLackItsNewline) {
    EXPECT_EQ(login_defs_parse("UID_MAX 5\nUID_MIN 500", "UID_MIN", 1), 500);
}

TEST(LoginDefs, CommentedLineIsIgnored) {
    EXPECT_EQ(login_defs_parse("#UID_MIN 500\n# UID_MIN 500\n", "UID_MIN", 1000), 1000);
}

TEST(LoginDefs, LineWithoutNumberIsIgnored) {
    EXPECT_EQ(login_defs_parse("UID_MIN\n700\nUID_MIN x5\nUID_MIN=5\n", "UID_MIN", 1000), 1000);
}

TEST(LoginDefs, KeyIsComparedExactly) {
    EXPECT_EQ(login_defs_parse("SYS_UID_MIN 100\nuid_min 5\nUID_MINIMUM 7\n", "UID_MIN", 1000),
              1000);
}

TEST(LoginDefs, NumberIsDecimalAndMayBeSignedOrIndented) {
    EXPECT_EQ(login_defs_parse("  UID_MIN 0100\n", "UID_MIN", 1), 100);
    EXPECT_EQ(login_defs_parse("UID_MIN -5\n", "UID_MIN", 1), -5);
    EXPECT_EQ(login_defs_parse("UID_MIN 500max\n", "UID_MIN", 1), 500);
}

TEST(LoginDefs, NumberBeyondSixtyFourBitsIsTheLargest) {
    EXPECT_EQ(login_defs_parse("UID_MAX 99999999999999999999\n", "UID_MAX", 1), INT64_MAX);
}

TEST(LoginDefs, LineThatIsOneLongWordIsIgnored) {
    EXPECT_EQ(login_defs_parse(std::string(5000, 'U') + "\nUID_MIN 500\n", "UID_MIN", 1), 500);
}

TEST(LoginDefs, LineAfterNulBytesStillCounts) {
    using namespace std::string_view_literals;
    EXPECT_EQ(login_defs_parse("\0\0UID_MIN 1\nUID_MIN 500\n"sv, "UID_MIN", 1000), 500);
}

namespace {

std::string uid_min_on(const private_machine &machine) {
    return said_on(machine, [] {
        printf("%lld", static_cast<long long>(login_defs_number("UID_MIN", 1000)));
    });
}

constexpr size_t MEBIBYTE = 1'048'576;

// A setting in a file of `size` bytes.
std::string login_defs_of_size(size_t size) {
    const std::string setting = "UID_MIN 500\n";
    return setting + std::string(size - setting.size(), '\n');
}

} // namespace

TEST(LoginDefs, FileIsReadFromEtc) {
    SKIP_UNLESS_ROOT();
    private_machine machine;
    machine.login_defs = "UID_MIN 500\n";
    EXPECT_EQ(uid_min_on(machine), "500");
}

TEST(LoginDefs, MissingFileGivesTheFallback) {
    SKIP_UNLESS_ROOT();
    EXPECT_EQ(uid_min_on(private_machine()), "1000");
}

TEST(LoginDefs, FileOfOneMebibyteIsReadAndALargerOneIsNot) {
    SKIP_UNLESS_ROOT();
    private_machine machine;
    machine.login_defs = login_defs_of_size(MEBIBYTE);
    EXPECT_EQ(uid_min_on(machine), "500");
    machine.login_defs = login_defs_of_size(MEBIBYTE + 1);
    EXPECT_EQ(uid_min_on(machine), "1000");
}

TEST(LoginDefs, WhatIsNoFileGivesTheFallback) {
    SKIP_UNLESS_ROOT();
    EXPECT_EQ(said_on(private_machine(),
                      [] {
                          if (mkfifo("/etc/login.defs", 0600) != 0)
                              throw_errno("mkfifo");
                          printf("%d", static_cast<int>(login_defs_number("UID_MIN", 1000)));
                      }),
              "1000");
}

TEST(LoginDefs, FileThatCannotBeReadIsAFailureNotAFallback) {
    SKIP_UNLESS_ROOT();
    private_machine machine;
    machine.login_defs = "UID_MIN 500\n";
    const auto look_up = [] {
        make_unreadable("/etc/login.defs");
        int64_t number = -1;
        const int result = login_defs_look_up("UID_MIN", 1000, &number);
        printf("%d %s, ", result, strerror(errno));
        strlist list;
        const int humans = human_users_list(&list);
        printf("%d %s, ", humans, strerror(errno));
        printf("%lld", static_cast<long long>(login_defs_number("UID_MIN", 1000)));
    };
    EXPECT_EQ(said_on(machine, look_up), "-1 Input/output error, -1 Input/output error, 1000");
}

TEST(LoginDefs, LinkIsFollowedAndADanglingOneIsNoFile) {
    SKIP_UNLESS_ROOT();
    EXPECT_EQ(said_on(private_machine(),
                      [] {
                          std::filesystem::create_symlink("defs", "/etc/login.defs");
                          int64_t number = -1;
                          const int missing = login_defs_look_up("UID_MIN", 1000, &number);
                          printf("%d %d, ", missing, static_cast<int>(number));
                          write_file("/etc/defs", "UID_MIN 500\n");
                          const int found = login_defs_look_up("UID_MIN", 1000, &number);
                          printf("%d %d", found, static_cast<int>(number));
                      }),
              "0 1000, 0 500");
}

// ---- Names that can be kept ---------------------------------------------------------------

TEST(StorableName, IsOneWordThatNamesADirectory) {
    for (const char *name : {"pat", "a", "...", ".pat", "..pat", "sam-o'hara", "m\xc3\xbcller",
                             "DOMAIN\\pat", "pat@example.org", "-rf", "7"})
        EXPECT_TRUE(is_storable_name(name)) << name;
}

TEST(StorableName, HasNoWhiteCharacter) {
    for (const char *white : {" ", "\t", "\n", "\v", "\f", "\r"})
        for (const std::string &name : {std::string(white), "john" + std::string(white) + "smith",
                                        white + std::string("pat"), "pat" + std::string(white)})
            EXPECT_FALSE(is_storable_name(name)) << name;
}

TEST(StorableName, LeadsNowhereElse) {
    for (const char *name : {"", ".", "..", "/", "a/b", "/pat", "pat/", "../pat"})
        EXPECT_FALSE(is_storable_name(name)) << name;
}

TEST(StorableName, MayBeLongerThanAFolderCanBeNamed) {
    EXPECT_TRUE(
        is_storable_name(std::string(256, 'x'))); // nobody is delivered to, and that is told
}
