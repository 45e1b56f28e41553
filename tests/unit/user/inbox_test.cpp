#include "user_support.h"

using testing::ElementsAre;

namespace {

std::vector<int64_t> waiting_ids(const tried_mailbox &mailbox) {
    std::vector<waiting_message> waiting;
    EXPECT_EQ(inbox_waiting(mailbox.open(), now(), &waiting), 0);
    std::vector<int64_t> ids;
    for (const waiting_message &message : waiting)
        ids.push_back(message.id);
    return ids;
}

waiting_state look(const tried_mailbox &mailbox, int64_t id) {
    waiting_message message;
    return inbox_look(mailbox.open(), id, now(), &message);
}

// ---- The account --------------------------------------------------------------------------

const private_machine TWO_NAMES = {.passwd = "root:x:0:0:root:/root:/bin/bash\n"
                                             "admin:x:0:0::/root:/bin/bash\n"
                                             "pat:x:1001:1001::/home/pat:/bin/bash\n"};

// The account that is found with these two variables.
std::string account_with(const char *logname, const char *user) {
    return run_on(TWO_NAMES,
                  [&] {
                      const environment_variable first("LOGNAME", logname);
                      const environment_variable second("USER", user);
                      std::string name;
                      printf("%s", own_account(&name) == 0 ? name.c_str() : strerror(errno));
                  })
        .out;
}

TEST(OwnAccount, IsTheFirstOfTheUidUnlessAVariableNamesAnother) {
    SKIP_UNLESS_ROOT();
    EXPECT_EQ(account_with(nullptr, nullptr), "root");
    EXPECT_EQ(account_with("admin", nullptr), "admin");
    EXPECT_EQ(account_with(nullptr, "admin"), "admin");
}

TEST(OwnAccount, DoesNotBelieveANameWithAnotherUid) {
    SKIP_UNLESS_ROOT();
    EXPECT_EQ(account_with("pat", "admin"), "admin");
    EXPECT_EQ(account_with("pat", "nobody-here"), "root");
    EXPECT_EQ(account_with("../root", ""), "root");
}

TEST(OwnAccount, IsMissingForAUidThatHasNone) {
    SKIP_UNLESS_ROOT();
    const child_result child = run_on({.passwd = ""}, [] {
        std::string name;
        return own_account(&name) == -1 && errno == ENOENT ? 0 : 1;
    });
    EXPECT_EQ(child.exit_status, 0);
}

TEST(OwnAccount, IsRefusedIfItsNameCanBeNoFoldersName) {
    SKIP_UNLESS_ROOT();
    for (const std::string name : {".", "..", "a/b"}) {
        const child_result child = run_on({.passwd = name + ":x:0:0::/root:/bin/bash\n"}, [] {
            std::string found;
            return own_account(&found) == -1 && errno == EINVAL ? 0 : 1;
        });
        EXPECT_EQ(child.exit_status, 0) << name;
    }
}

// ---- The mailbox --------------------------------------------------------------------------

TEST(MailboxOpen, TellsAMissingMailboxFromOneThatCannotBeOpened) {
    const tried_mailbox mailbox;
    own_mailbox box;
    EXPECT_EQ(mailbox_open("nobody", &box), mailbox_look::absent);
    std::filesystem::create_symlink(mailbox.owner, mailbox.path("users/linked"));
    EXPECT_EQ(mailbox_open("linked", &box), mailbox_look::failed);
    EXPECT_EQ(box.path, mailbox_path("linked"));
}

TEST(MailboxOpen, RefusesAFolderThatIsALinkAndNamesIt) {
    const tried_mailbox mailbox;
    std::filesystem::remove(mailbox.file("acks"));
    std::filesystem::create_symlink("read", mailbox.file("acks"));
    own_mailbox box;
    EXPECT_EQ(mailbox_open(mailbox.owner, &box), mailbox_look::failed);
    EXPECT_EQ(box.path, mailbox_path(mailbox.owner, "acks"));
}

TEST(MailboxOpen, RefusesAMailboxOfSomebodyElse) {
    SKIP_UNLESS_ROOT();
    const tried_mailbox mailbox;
    give_file_to(mailbox.file(""), PAT_UID);
    own_mailbox box;
    EXPECT_EQ(mailbox_open(mailbox.owner, &box), mailbox_look::failed);
    EXPECT_EQ(errno, EPERM);
}

TEST(MailboxOpen, TakesMissingFoldersForEmptyOnes) {
    const tried_mailbox mailbox;
    for (const char *folder : {"inbox", "read", "acks", "state"})
        std::filesystem::remove(mailbox.file(folder));
    EXPECT_THAT(waiting_ids(mailbox), ElementsAre());
}

// ---- What waits ---------------------------------------------------------------------------

TEST(Waiting, IsWhatIsNeitherAnsweredNorExpiredInTheOrderOfTheNumbers) {
    const tried_mailbox mailbox;
    for (const int64_t id : {10, 9, 100, 7})
        mailbox.put_message(id);
    mailbox.put_message(8, "Late\n", now());
    mailbox.put("acks/7", "1790000000 desktop\n");
    EXPECT_THAT(waiting_ids(mailbox), ElementsAre(9, 10, 100));
    EXPECT_EQ(look(mailbox, 7), waiting_state::answered);
    EXPECT_EQ(look(mailbox, 8), waiting_state::expired);
    EXPECT_EQ(look(mailbox, 11), waiting_state::absent);
}

TEST(Waiting, NothingIsThatHasAnythingAtItsAnswersPlace) {
    const tried_mailbox mailbox;
    mailbox.put_message(7);
    std::filesystem::create_symlink("nowhere", mailbox.file("acks/7"));
    EXPECT_THAT(waiting_ids(mailbox), ElementsAre());
}

TEST(Waiting, NoLinkPipeFolderHugeFileOrNonsenseIs) {
    const tried_mailbox mailbox;
    mailbox.put_message(1);
    std::filesystem::create_symlink("1", mailbox.file("inbox/2"));
    make_fifo(mailbox.file("inbox/3"));
    std::filesystem::create_directory(mailbox.file("inbox/4"));
    mailbox.put("inbox/5", "date: 5\n\n" + std::string(MESSAGE_FILE_MAX_BYTES, 'x'));
    mailbox.put("inbox/6", "no date");
    mailbox.put("inbox/007", "date: 5\n\nHello\n");
    mailbox.put("inbox/0", "date: 5\n\nHello\n");
    mailbox.put("inbox/8.tmp", "date: 5\n\nHello\n");
    EXPECT_THAT(waiting_ids(mailbox), ElementsAre(1));
}

TEST(Waiting, AMessageIsKnownByItsFileAndCleanBeforeItIsShown) {
    const tried_mailbox mailbox;
    mailbox.put("inbox/12", "id: 99\nfrom: a\tb\ndate: 5\ntitle: \x1b[31mred\xff\n\nx\x1b]0;t\x07"
                            "y\xc2\x85\xe2\x82z\n");
    waiting_message message;
    ASSERT_EQ(inbox_look(mailbox.open(), 12, now(), &message), waiting_state::waiting);
    EXPECT_EQ(message.message.id, 12);
    EXPECT_EQ(message.message.from, "a b");
    EXPECT_EQ(message.message.title, "red\xef\xbf\xbd");
    EXPECT_EQ(message.message.text, "xy\xef\xbf\xbd\xef\xbf\xbdz\n");
}

TEST(Waiting, IsAskedOfOneMessageAsOfAll) {
    const tried_mailbox mailbox;
    mailbox.put_message(3);
    mailbox.put("state/3.gui", "postponed\n");
    waiting_message message;
    ASSERT_EQ(inbox_look(mailbox.open(), 3, now(), &message), waiting_state::waiting);
    EXPECT_EQ(message.desktop.kind, mark_kind::postponed);
    EXPECT_EQ(message.terminal.kind, mark_kind::none);
    std::vector<pending_message> pending;
    ASSERT_EQ(inbox_pending(mailbox.open(), now(), &pending), 0);
    ASSERT_EQ(pending.size(), 1U);
    EXPECT_EQ(pending[0].desktop.kind, mark_kind::postponed);
}

TEST(Waiting, IsNotKnownIfAFolderCannotBeRead) {
    const tried_mailbox mailbox;
    mailbox.put_message(3);
    constexpr int NOT_OPEN = 1'000'000;
    std::vector<pending_message> pending;
    std::vector<waiting_message> waiting;
    waiting_message message;
    own_mailbox box = mailbox.open();
    box.acks.reset(NOT_OPEN);
    EXPECT_EQ(inbox_pending(box, now(), &pending), -1);
    EXPECT_EQ(inbox_waiting(box, now(), &waiting), -1);
    EXPECT_EQ(inbox_look(box, 3, now(), &message), waiting_state::failed);
    box = mailbox.open();
    box.inbox.reset(NOT_OPEN);
    EXPECT_EQ(inbox_pending(box, now(), &pending), -1);
    EXPECT_EQ(inbox_waiting(box, now(), &waiting), -1);
    EXPECT_EQ(inbox_look(box, 3, now(), &message), waiting_state::failed);
}

TEST(Waiting, IsNotKnownIfAFolderIsReadInPartOnly) {
    const tried_mailbox mailbox;
    mailbox.put_message(3);
    const own_mailbox box = mailbox.open();
    const child_result child = run_in_child([&box] {
        refuse_call(SYS_getdents64, EIO);
        std::vector<int64_t> ids;
        const int result = folder_ids(box.inbox, &ids);
        printf("%d %s", result, strerror(errno));
    });
    EXPECT_EQ(child.out, "-1 Input/output error");
}

// ---- Answers ------------------------------------------------------------------------------

TEST(Answer, IsTheFirstLineOfItsFile) {
    const tried_mailbox mailbox;
    mailbox.put("acks/7", "1790000000 desk\x1b[1mtop\nmore\n");
    const answer_record answer = answer_read(mailbox.open(), 7);
    EXPECT_EQ(answer.state, answer_state::answered);
    EXPECT_EQ(answer.time, 1'790'000'000);
    EXPECT_EQ(answer.channel, "desktop");
}

TEST(Answer, IsOneEvenIfItsFileIsEmptyOrNonsense) {
    EXPECT_EQ(answer_parse("").state, answer_state::answered);
    EXPECT_EQ(answer_parse("yesterday terminal").time, 0);
    EXPECT_EQ(answer_parse("yesterday terminal").channel, "terminal");
    EXPECT_EQ(answer_parse("12").channel, "");
}

TEST(Answer, IsNoneIfNoRegularFileStandsThere) {
    const tried_mailbox mailbox;
    make_fifo(mailbox.file("acks/1"));
    std::filesystem::create_directory(mailbox.file("acks/2"));
    std::filesystem::create_symlink("/etc/passwd", mailbox.file("acks/3"));
    for (const int64_t id : {1, 2, 3})
        EXPECT_EQ(answer_read(mailbox.open(), id).state, answer_state::not_a_file) << id;
    EXPECT_EQ(answer_read(mailbox.open(), 4).state, answer_state::none);
}

// ---- Due ----------------------------------------------------------------------------------

TEST(Due, AMessageIsThatWasNotShownOnThisChannelLately) {
    const int64_t at = 1'000'000;
    const channel_mark none;
    const channel_mark shown = {mark_kind::shown, at - 60};
    const auto on = [&](const channel_mark &terminal, const channel_mark &desktop) {
        return due_time(terminal, desktop, channel::terminal, at, HALF_AN_HOUR);
    };
    EXPECT_EQ(on(none, none), 0);
    EXPECT_EQ(on(shown, none), at - 60 + HALF_AN_HOUR);
    EXPECT_EQ(on(none, shown), 0);
    EXPECT_EQ(due_time(none, shown, channel::desktop, at, HALF_AN_HOUR), at - 60 + HALF_AN_HOUR);
}

TEST(Due, AMessageIsNotThatWasPostponedOnEitherChannelLately) {
    const int64_t at = 1'000'000;
    const channel_mark none;
    const channel_mark postponed = {mark_kind::postponed, at - 60};
    for (const channel where : {channel::terminal, channel::desktop}) {
        EXPECT_EQ(due_time(postponed, none, where, at, HALF_AN_HOUR), at - 60 + HALF_AN_HOUR);
        EXPECT_EQ(due_time(none, postponed, where, at, HALF_AN_HOUR), at - 60 + HALF_AN_HOUR);
    }
}

TEST(Due, AMessageIsAgainAtTheVeryEndOfTheTime) {
    const channel_mark shown = {mark_kind::shown, 1000};
    EXPECT_EQ(due_time(shown, {}, channel::terminal, 1000 + HALF_AN_HOUR, HALF_AN_HOUR), 0);
    EXPECT_NE(due_time(shown, {}, channel::terminal, 999 + HALF_AN_HOUR, HALF_AN_HOUR), 0);
}

TEST(Mark, CountsByItsTimeAndIsMissingIfItIsFromTheFutureOrNoFile) {
    const tried_mailbox mailbox;
    mailbox.put("state/1.term", "shown\n");
    mailbox.age("state/1.term", -500);
    mailbox.put("state/2.term", "postponed\n");
    mailbox.age("state/2.term", 100);
    std::filesystem::create_symlink("1.term", mailbox.file("state/3.term"));
    const own_mailbox box = mailbox.open();
    const int64_t at = now();
    EXPECT_EQ(mark_read(box, 1, channel::terminal, at).kind, mark_kind::shown);
    EXPECT_LE(mark_read(box, 1, channel::terminal, at).time, at - 500);
    EXPECT_EQ(mark_read(box, 2, channel::terminal, at).kind, mark_kind::none);
    EXPECT_EQ(mark_read(box, 3, channel::terminal, at).kind, mark_kind::none);
    EXPECT_EQ(mark_read(box, 1, channel::desktop, at).kind, mark_kind::none);
}

} // namespace
