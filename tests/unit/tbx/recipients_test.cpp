#include "tbx/recipients.h"

#include "accounts_support.h"

#include <gmock/gmock.h>

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

namespace {

// A user session of `uid`, as the login manager writes it.
std::string session_of(const std::string &uid, const std::string &more = "CLASS=user\n") {
    return "UID=" + uid + "\nACTIVE=1\nSTATE=active\nTYPE=tty\n" + more;
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
    EXPECT_EQ(resolved_on(office(), "online,pat"), "pat");
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
    EXPECT_EQ(resolve_on(office(), " pat").err, "tbx: no such user:  pat\n");
}

TEST(Recipients, NothingButACommaSeparatesThemAndNoNumberNamesThem) {
    SKIP_UNLESS_ROOT();
    EXPECT_EQ(resolve_on(office(), "pat;sam").err, "tbx: no such user: pat;sam\n");
    EXPECT_EQ(resolve_on(office(), "1001").err, "tbx: no such user: 1001\n");
    EXPECT_EQ(resolve_on(office(), "@@staff").err, "tbx: no such group: @staff\n");
}

TEST(Recipients, FirstItemThatIsUnknownIsTheOneReported) {
    SKIP_UNLESS_ROOT();
    EXPECT_EQ(resolve_on(office(), "neither,@nosuch").err, "tbx: no such user: neither\n");
    EXPECT_EQ(resolve_on(office(), "@nosuch,neither").err, "tbx: no such group: nosuch\n");
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

// ---- Groups -------------------------------------------------------------------------------

TEST(GroupRecipients, AreItsMembersInByteOrder) {
    SKIP_UNLESS_ROOT();
    private_machine machine = office();
    machine.passwd += "news:x:9:50::/:/usr/sbin/nologin\n";
    machine.group = "staff:x:50:pat,gone\n";
    EXPECT_EQ(resolved_on(machine, "@staff"), "gone news pat");
}

TEST(GroupRecipients, OfAnEmptyGroupAreNone) {
    SKIP_UNLESS_ROOT();
    private_machine machine = office();
    machine.group = "empty:x:60:\n";
    EXPECT_EQ(resolved_on(machine, "@empty"), "");
}

TEST(GroupRecipients, AreEachTakenOnceAlsoWhereTheyAreMany) {
    SKIP_UNLESS_ROOT();
    private_machine machine = office();
    machine.group = "crowd:x:70:";
    for (int i = 0; i < 5000; i++)
        machine.group += "member" + std::to_string(i % 2500) + ",";
    machine.group += "pat\n";
    EXPECT_EQ(said_on(machine, [] { recipients_count_print("@crowd,@crowd"); }), "2501\n");
}

TEST(GroupRecipients, AccountsThatCannotBeReadAreAnErrorNotAShorterList) {
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

// ---- Names that the store cannot keep -----------------------------------------------------

namespace {

// The office with accounts, members of staff, whose names no directory or line can hold.
private_machine office_with_strange_names() {
    private_machine machine = office();
    machine.passwd += "john smith:x:1005:50::/:/bin/sh\n"
                      "a/b:x:1006:50::/:/bin/sh\n"
                      "..:x:1007:50::/:/bin/sh\n";
    machine.group = "staff:x:50:pat,john smith\n";
    return machine;
}

std::vector<std::string> lines_of(std::string_view text) {
    std::vector<std::string> lines;
    std::string_view line;
    while (next_line(&text, &line))
        lines.emplace_back(line);
    return lines;
}

} // namespace

TEST(UnstorableRecipients, AreRefusedWhereTheyAreNamed) {
    SKIP_UNLESS_ROOT();
    for (const std::string name : {"john smith", "a/b", ".."}) {
        const child_result child =
            resolve_on(office_with_strange_names(), ("pat," + name + ",nosuch").c_str());
        EXPECT_EQ(child.exit_status, 1);
        EXPECT_EQ(child.err, "tbx: cannot keep the name: " + name + "\n");
    }
}

TEST(UnstorableRecipients, AreLeftOutOfGroupsWithOneWarningEach) {
    SKIP_UNLESS_ROOT();
    for (const char *text : {"@staff", "all", "@staff,all,@staff"}) {
        const child_result child = run_on(office_with_strange_names(), [text] {
            strlist list;
            recipients_resolve(text, &list);
            for (const char *name : list)
                printf("%s|", name);
        });
        EXPECT_EQ(child.exit_status, 0);
        EXPECT_EQ(child.out.substr(0, 4), "pat|") << text;
        EXPECT_THAT(lines_of(child.err),
                    testing::UnorderedElementsAre("tbx: cannot keep the name: john smith",
                                                  "tbx: cannot keep the name: a/b",
                                                  "tbx: cannot keep the name: .."))
            << text;
    }
}

TEST(UnstorableRecipients, AreLeftOutOfThoseWhoAreLoggedIn) {
    SKIP_UNLESS_ROOT();
    private_machine machine = office_with_strange_names();
    machine.sessions["1"] = session_of("1005");
    machine.sessions["2"] = session_of("1002");
    const child_result child = run_on(machine, [] {
        strlist list;
        recipients_resolve("online", &list);
        print_list(list);
    });
    EXPECT_EQ(child.out, "sam");
    EXPECT_EQ(child.err, "tbx: cannot keep the name: john smith\n");
}

TEST(UnstorableRecipients, AreShownOnOneLineAndUnableToDriveTheTerminal) {
    SKIP_UNLESS_ROOT();
    private_machine machine = office();
    machine.group = "staff:x:50:pat,a\x1b[31m b\tc\n";
    const child_result child = resolve_on(machine, "@staff");
    EXPECT_EQ(child.exit_status, 0);
    EXPECT_EQ(child.err, "tbx: cannot keep the name: a b c\n");
}

TEST(UnstorableRecipients, AreNotCounted) {
    SKIP_UNLESS_ROOT();
    const child_result child =
        run_on(office_with_strange_names(), [] { recipients_count_print("@staff"); });
    EXPECT_EQ(child.out, "1\n");
    EXPECT_EQ(child.err, "");
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

TEST(OnlineUsers, TypeAndStateOfTheirSessionDoNotMatter) {
    SKIP_UNLESS_ROOT();
    private_machine machine = office();
    for (const char *type :
         {"TYPE=tty\n", "TYPE=x11\n", "TYPE=wayland\n", "TYPE=unspecified\n", ""})
        for (const char *state : {"STATE=active\n", "STATE=online\n", "STATE=closing\n", ""}) {
            machine.sessions["2"] = std::string("UID=1001\nCLASS=user\nACTIVE=0\n") + type + state;
            EXPECT_EQ(resolved_on(machine, "online"), "pat") << type << state;
        }
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
    machine.sessions["4"] = session_of("1001", "CLASS=manager\n");
    machine.sessions["5"] = session_of("1001", "");
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
