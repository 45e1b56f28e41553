#include "tbx/recipients.h"

#include "support.h"

#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <functional>

namespace {

// A small office: two people with a login shell, one of them an ordinary member of staff.
private_machine office() {
    return {.passwd = "root:x:0:0:root:/root:/bin/bash\n"
                      "daemon:x:1:1::/:/usr/sbin/nologin\n"
                      "pat:x:1001:1001::/home/pat:/bin/bash\n"
                      "sam:x:1002:1002::/home/sam:/bin/sh\n"
                      "robot:x:1003:1003::/:/usr/sbin/nologin\n",
            .group = "root:x:0:\n"
                     "staff:x:50:pat\n"};
}

// A user session of `uid`, as the login manager writes it.
std::string session_of(const std::string &uid, const std::string &more = "CLASS=user\n") {
    return "UID=" + uid + "\nACTIVE=1\nSTATE=active\nTYPE=tty\n" + more;
}

// What the machine says to `body`, which prints it; the child must end well.
std::string said_on(const private_machine &machine, const std::function<void()> &body) {
    const child_result child = run_on(machine, body);
    EXPECT_EQ(child.exit_status, 0) << child.err;
    return child.out;
}

void print_list(const strlist &list) {
    fputs(joined(list).c_str(), stdout);
}

// The recipients that `text` names there, in one line.
std::string resolved_on(const private_machine &machine, const char *text) {
    return said_on(machine, [text] {
        strlist list;
        recipients_resolve(text, &list);
        print_list(list);
    });
}

// The child in which the recipients that `text` names are resolved, for refusals.
child_result resolve_on(const private_machine &machine, const char *text) {
    return run_on(machine, [text] {
        strlist list;
        recipients_resolve(text, &list);
    });
}

// Makes every look-up fail with EIO, as a broken disk does: the files open, but cannot be read.
void break_account_files() {
    for (const char *path : {"/etc/passwd", "/etc/group"}) {
        std::filesystem::remove(path);
        std::filesystem::create_symlink("/proc/self/mem", path);
    }
}

void use_up_descriptors() {
    const rlimit only_the_standard_three = {3, 3};
    if (setrlimit(RLIMIT_NOFILE, &only_the_standard_three) != 0)
        throw_errno("setrlimit");
}

} // namespace

// ---- The text of --to ---------------------------------------------------------------------

TEST(Recipients, UserNamedTwiceIsOneRecipient) {
    SKIP_UNLESS_ROOT();
    EXPECT_EQ(resolved_on(office(), "pat,pat"), "pat");
}

TEST(Recipients, GroupMemberWhoIsAlsoNamedIsOneRecipient) {
    SKIP_UNLESS_ROOT();
    EXPECT_EQ(resolved_on(office(), "@staff,pat"), "pat");
}

TEST(Recipients, ComeInByteOrderWhateverTheOrderOfTheItems) {
    SKIP_UNLESS_ROOT();
    private_machine machine;
    machine.passwd = "alice:x:1001:1::/:/bin/sh\n"
                     "bob:x:1002:1::/:/bin/sh\n"
                     "Zoe:x:1003:1::/:/bin/sh\n";
    EXPECT_EQ(resolved_on(machine, "bob,alice"), "alice bob");
    EXPECT_EQ(resolved_on(machine, "bob,alice,Zoe"), "Zoe alice bob");
}

TEST(Recipients, EmptyItemsAreSkipped) {
    SKIP_UNLESS_ROOT();
    EXPECT_EQ(resolved_on(office(), ",pat,"), "pat");
    EXPECT_EQ(resolved_on(office(), "sam,,pat"), "pat sam");
}

TEST(Recipients, EmptyTextNamesNobody) {
    SKIP_UNLESS_ROOT();
    EXPECT_EQ(resolved_on(office(), ""), "");
    EXPECT_EQ(resolved_on(office(), ",,"), "");
}

TEST(Recipients, AreAddedToTheNamesThatTheListHolds) {
    SKIP_UNLESS_ROOT();
    EXPECT_EQ(said_on(office(),
                      [] {
                          strlist list;
                          strlist_push_dup(&list, "sam");
                          recipients_resolve("sam,pat", &list);
                          print_list(list);
                      }),
              "pat sam");
}

TEST(Recipients, AreNeverWithoutName) {
    SKIP_UNLESS_ROOT();
    private_machine machine = office();
    machine.passwd += ":x:1004:50::/:/bin/sh\n";
    machine.group = "staff:x:50:,pat,\n";
    EXPECT_EQ(said_on(machine, [] { recipients_count_print("all,@staff"); }), "2\n");
}

TEST(Recipients, AnyAccountCanBeNamedDirectly) {
    SKIP_UNLESS_ROOT();
    EXPECT_EQ(resolved_on(office(), "root,daemon,robot"), "daemon robot root");
}

TEST(Recipients, UserCalledAllStandsForEverybody) {
    SKIP_UNLESS_ROOT();
    private_machine machine = office();
    machine.passwd += "all:x:1004:1::/:/bin/sh\n";
    EXPECT_EQ(resolved_on(machine, "all"), "all pat sam");
}

TEST(Recipients, UserCalledOnlineStandsForThoseLoggedIn) {
    SKIP_UNLESS_ROOT();
    private_machine machine = office();
    machine.passwd += "online:x:1004:1::/:/bin/sh\n";
    machine.sessions["1"] = session_of("1001");
    EXPECT_EQ(resolved_on(machine, "online"), "pat");
}

TEST(Recipients, AllAndOnlineAreComparedExactly) {
    SKIP_UNLESS_ROOT();
    EXPECT_EQ(resolve_on(office(), "All").err, "tbx: no such user: All\n");
    EXPECT_EQ(resolve_on(office(), "ONLINE").err, "tbx: no such user: ONLINE\n");
    EXPECT_EQ(resolve_on(office(), "all ").err, "tbx: no such user: all \n");
}

TEST(Recipients, UnknownUserEndsTheProcess) {
    SKIP_UNLESS_ROOT();
    const child_result child = resolve_on(office(), "pat,nosuch,sam");
    EXPECT_EQ(child.exit_status, 1);
    EXPECT_EQ(child.err, "tbx: no such user: nosuch\n");
    EXPECT_EQ(child.out, "");
}

TEST(Recipients, UnknownGroupEndsTheProcess) {
    SKIP_UNLESS_ROOT();
    const child_result child = resolve_on(office(), "@nosuch");
    EXPECT_EQ(child.exit_status, 1);
    EXPECT_EQ(child.err, "tbx: no such group: nosuch\n");
    EXPECT_EQ(child.out, "");
}

TEST(Recipients, GroupWithoutNameIsUnknown) {
    SKIP_UNLESS_ROOT();
    EXPECT_EQ(resolve_on(office(), "@").err, "tbx: no such group: \n");
}

TEST(Recipients, BlanksBelongToTheName) {
    SKIP_UNLESS_ROOT();
    EXPECT_EQ(resolve_on(office(), "pat, sam").err, "tbx: no such user:  sam\n");
}

TEST(Recipients, LookUpThatFailsIsNotAnUnknownName) {
    SKIP_UNLESS_ROOT();
    for (const std::string item : {"pat", "@staff", "all", "online"}) {
        const child_result child = run_on(office(), [&item] {
            break_account_files();
            strlist list;
            recipients_resolve(item.c_str(), &list);
        });
        EXPECT_EQ(child.exit_status, 1);
        EXPECT_EQ(child.err, "tbx: " + item + ": Input/output error\n");
    }
}

// ---- Their number -------------------------------------------------------------------------

TEST(RecipientsCount, PrintsHowManyAreNamed) {
    SKIP_UNLESS_ROOT();
    EXPECT_EQ(said_on(office(), [] { recipients_count_print("all,pat,root"); }), "3\n");
    EXPECT_EQ(said_on(office(), [] { recipients_count_print(""); }), "0\n");
}

TEST(RecipientsCount, PrintsNothingForAnUnknownName) {
    SKIP_UNLESS_ROOT();
    const child_result child = run_on(office(), [] { recipients_count_print("pat,nosuch"); });
    EXPECT_EQ(child.exit_status, 1);
    EXPECT_EQ(child.out, "");
    EXPECT_EQ(child.err, "tbx: no such user: nosuch\n");
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

// ---- Human users --------------------------------------------------------------------------

TEST(HumanUsers, AreThoseFrom1000To60000WithoutLoginDefs) {
    SKIP_UNLESS_ROOT();
    private_machine machine;
    machine.passwd = "below:x:999:1::/:/bin/sh\n"
                     "lowest:x:1000:1::/:/bin/sh\n"
                     "highest:x:60000:1::/:/bin/sh\n"
                     "above:x:60001:1::/:/bin/sh\n";
    EXPECT_EQ(resolved_on(machine, "all"), "highest lowest");
}

TEST(HumanUsers, RangeIsThatOfLoginDefs) {
    SKIP_UNLESS_ROOT();
    private_machine machine;
    machine.passwd = "below:x:499:1::/:/bin/sh\n"
                     "lowest:x:500:1::/:/bin/sh\n"
                     "highest:x:4294967294:1::/:/bin/sh\n";
    machine.login_defs = "UID_MIN 500\nUID_MAX 4294967294\n";
    EXPECT_EQ(resolved_on(machine, "all"), "highest lowest");
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
                     "i:x:1009:1::/:/bin/nologin2\n";
    EXPECT_EQ(resolved_on(machine, "all"), "h i");
}

TEST(HumanUsers, MissingOrShortShellDoesNotExclude) {
    SKIP_UNLESS_ROOT();
    private_machine machine;
    machine.passwd = "none:x:1001:1::/:\n"
                     "short:x:1002:1::/:sh\n";
    EXPECT_EQ(resolved_on(machine, "all"), "none short");
}

TEST(HumanUsers, AccountListedTwiceCountsOnce) {
    SKIP_UNLESS_ROOT();
    private_machine machine;
    machine.passwd = "pat:x:1001:1::/:/bin/sh\n"
                     "ada:x:1002:1::/:/bin/sh\n"
                     "pat:x:1001:1::/:/bin/sh\n";
    EXPECT_EQ(said_on(machine,
                      [] {
                          strlist list;
                          if (human_users_list(&list))
                              print_list(list);
                      }),
              "ada pat");
}

TEST(HumanUsers, AccountsThatCannotBeReadAreAnErrorNotAnEmptyList) {
    SKIP_UNLESS_ROOT();
    const auto try_to_list = [] {
        strlist list;
        const bool complete = human_users_list(&list);
        printf("%d %s", complete, strerror(errno));
    };
    const auto list_where_files_are_broken = [&] {
        break_account_files();
        try_to_list();
    };
    const auto list_without_descriptors = [&] {
        use_up_descriptors();
        try_to_list();
    };
    EXPECT_EQ(said_on(office(), list_where_files_are_broken), "0 Input/output error");
    EXPECT_EQ(said_on(office(), list_without_descriptors), "0 Too many open files");
}

// ---- Users who are logged in --------------------------------------------------------------

TEST(OnlineUsers, AreHumanUsersWithASessionOnceEach) {
    SKIP_UNLESS_ROOT();
    private_machine machine = office();
    machine.passwd += "ada:x:1004:1::/:/bin/sh\n";
    machine.sessions["2"] = session_of("1002");
    machine.sessions["3"] = session_of("1002");
    machine.sessions["c1"] = session_of("1001");
    EXPECT_EQ(resolved_on(machine, "online"), "pat sam");
}

TEST(OnlineUsers, ClosingSessionStillCounts) {
    SKIP_UNLESS_ROOT();
    private_machine machine = office();
    machine.sessions["2"] = "UID=1001\nCLASS=user\nTYPE=x11\nACTIVE=0\nSTATE=closing\n";
    EXPECT_EQ(resolved_on(machine, "online"), "pat");
}

TEST(OnlineUsers, RootOnAConsoleIsOutOfRange) {
    SKIP_UNLESS_ROOT();
    private_machine machine = office();
    machine.sessions["1"] = session_of("0", "CLASS=user\nTTY=tty1\n");
    EXPECT_EQ(resolved_on(machine, "online"), "");
}

TEST(OnlineUsers, UserWithoutLoginShellIsLeftOutThoughLoggedIn) {
    SKIP_UNLESS_ROOT();
    private_machine machine = office();
    machine.sessions["1"] = session_of("1003");
    EXPECT_EQ(resolved_on(machine, "online"), "");
    EXPECT_EQ(resolved_on(machine, "all"), "pat sam");
    EXPECT_EQ(resolved_on(machine, "robot"), "robot");
}

TEST(OnlineUsers, OtherSessionClassesDoNotCount) {
    SKIP_UNLESS_ROOT();
    private_machine machine = office();
    machine.sessions["1"] = session_of("1001", "CLASS=greeter\n");
    machine.sessions["2"] = session_of("1001", "CLASS=lock-screen\n");
    machine.sessions["3"] = session_of("1001", "CLASS=background\n");
    machine.sessions["4"] = session_of("1001", "");
    EXPECT_EQ(resolved_on(machine, "online"), "");
}

TEST(OnlineUsers, SessionWithoutAccountOrUserIsSkipped) {
    SKIP_UNLESS_ROOT();
    private_machine machine = office();
    machine.sessions["1"] = session_of("1777");
    machine.sessions["2"] = "CLASS=user\n";
    machine.sessions["3"] = "";
    machine.sessions["4"] = session_of("1002");
    EXPECT_EQ(resolved_on(machine, "online"), "sam");
}

TEST(OnlineUsers, NobodyIsThereWhereTheLoginManagerIsMissing) {
    SKIP_UNLESS_ROOT();
    EXPECT_EQ(said_on(office(),
                      [] {
                          std::filesystem::remove_all("/run/systemd");
                          strlist list;
                          recipients_resolve("online", &list);
                          printf("%zu", list.count);
                      }),
              "0");
}

// ---- Groups -------------------------------------------------------------------------------

namespace {

// What group_members_list() makes of `name`: "yes" or "no", and the list.
std::string members_on(const private_machine &machine, const char *name) {
    return said_on(machine, [name] {
        strlist list;
        fputs(group_members_list(name, &list) ? "yes " : "no ", stdout);
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
    EXPECT_EQ(members_on(machine, "staff"), "yes sam pat zoe ann");
}

TEST(GroupMembers, NamesAlreadyInTheListAreSkipped) {
    SKIP_UNLESS_ROOT();
    EXPECT_EQ(said_on(office(),
                      [] {
                          strlist list;
                          strlist_push_dup(&list, "pat");
                          if (group_members_list("staff", &list))
                              print_list(list);
                      }),
              "pat");
}

TEST(GroupMembers, SystemAccountsAreMembersToo) {
    SKIP_UNLESS_ROOT();
    private_machine machine = office();
    machine.passwd += "news:x:9:50::/:/usr/sbin/nologin\n";
    machine.group = "staff:x:50:daemon\n";
    EXPECT_EQ(resolved_on(machine, "@staff"), "daemon news");
}

TEST(GroupMembers, MemberWithoutAccountIsAMember) {
    SKIP_UNLESS_ROOT();
    private_machine machine = office();
    machine.group = "staff:x:50:pat,gone\n";
    EXPECT_EQ(resolved_on(machine, "@staff"), "gone pat");
}

TEST(GroupMembers, EmptyGroupExists) {
    SKIP_UNLESS_ROOT();
    private_machine machine = office();
    machine.group = "empty:x:60:\n";
    EXPECT_EQ(members_on(machine, "empty"), "yes ");
    EXPECT_EQ(resolved_on(machine, "@empty"), "");
}

TEST(GroupMembers, UnknownGroupHasNone) {
    SKIP_UNLESS_ROOT();
    EXPECT_EQ(members_on(office(), "nosuch"), "no ");
}

TEST(GroupMembers, ManyAreEachTakenOnce) {
    SKIP_UNLESS_ROOT();
    private_machine machine = office();
    machine.group = "crowd:x:70:";
    for (int i = 0; i < 5000; i++)
        machine.group += "member" + std::to_string(i % 2500) + ",";
    machine.group += "pat\n";
    EXPECT_EQ(said_on(machine, [] { recipients_count_print("@crowd,@crowd"); }), "2501\n");
}

TEST(GroupMembers, AccountsThatCannotBeReadAreAnErrorNotAShorterList) {
    SKIP_UNLESS_ROOT();
    const child_result child = run_on(office(), [] {
        break_account_files();
        std::filesystem::remove("/etc/group");
        write_file("/etc/group", office().group);
        strlist list;
        recipients_resolve("@staff", &list);
    });
    EXPECT_EQ(child.exit_status, 1);
    EXPECT_EQ(child.err, "tbx: @staff: Input/output error\n");
}

// ---- Accounts -----------------------------------------------------------------------------

TEST(UserLookup, FillsNameAndIdentifiers) {
    SKIP_UNLESS_ROOT();
    private_machine machine;
    machine.passwd = "pat:x:1001:50::/:/bin/sh\n";
    EXPECT_EQ(said_on(machine,
                      [] {
                          resolved_user user;
                          const int found = user_lookup_by_name("pat", &user);
                          printf("%d %s %u %u", found, user.name.c_str(), user.uid, user.gid);
                      }),
              "1 pat 1001 50");
}

TEST(UserLookup, ClearsTheRecordWhenThereIsNoSuchAccount) {
    errno = EMFILE; // of an earlier call
    resolved_user user = {.name = "pat", .uid = 7, .gid = 8};
    EXPECT_EQ(user_lookup_by_name("no such account", &user), 0);
    EXPECT_FALSE(is_resource_error(errno));
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
                          const int found = user_lookup_by_name("pat", &user);
                          printf("%d %d", found, is_resource_error(errno));
                      }),
              "0 1");
}

TEST(UserLookup, FreeZeroesTheRecord) {
    resolved_user user = {.name = "pat", .uid = 7, .gid = 8};
    resolved_user_free(&user);
    EXPECT_EQ(user.name, "");
    EXPECT_EQ(user.uid, 0U);
    EXPECT_EQ(user.gid, 0U);
}
