#include "tbx/mailbox.h"

#include "mailbox_support.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <vector>

namespace {

const std::string COPY = "format: 1\nid: 7\ndate: 5\n\nHello\n";

// A mailbox, and the operations on it as root carries them out on a real machine.
struct tried_mailbox : real_mailbox {
    void put_everything() const {
        make_folders();
        for (const char *name : {"inbox/7", "read/7", "acks/7", "state/7.term", "state/7.gui",
                                 "inbox/8", "read/8", "acks/8", "state/8.term", "state/8.gui"})
            put(name, "text");
    }
    // Makes the mailbox a link to a directory of pat's that holds the file.
    void put_elsewhere(const std::string &name) const {
        write_file(state_path("elsewhere/" + name), "kept");
        for (std::filesystem::path path = name; !path.empty(); path = path.parent_path())
            give_file_to(state_path("elsewhere/" + path.string()), PAT_UID);
        give_file_to(state_path("elsewhere"), PAT_UID);
        std::filesystem::create_symlink("../elsewhere", file());
    }
    // The files in the folders, in order.
    [[nodiscard]] std::string files() const {
        std::vector<std::string> names;
        for (const auto &entry : std::filesystem::recursive_directory_iterator(file()))
            if (!entry.is_directory())
                names.push_back(std::filesystem::relative(entry.path(), file()));
        std::sort(names.begin(), names.end());
        std::string line;
        for (const std::string &name : names)
            line += (line.empty() ? "" : " ") + name;
        return line;
    }

    // Runs the operation on that machine; true and false come back as what they are.
    template <typename Operation> [[nodiscard]] bool says(Operation operation) const {
        const child_result child = run_for_real(*this, machine_of_pat_and_sam(),
                                                [&operation] { return operation() ? 10 : 20; });
        EXPECT_TRUE(child.exit_status == 10 || child.exit_status == 20) << child.err;
        EXPECT_EQ(child.out + child.err, ""); // no operation prints anything
        return child.exit_status == 10;
    }
    [[nodiscard]] bool deliver(const std::string &text = COPY) const {
        return says([&text] { return mailbox_deliver(PAT, 7, text); });
    }
    [[nodiscard]] bool withdraw() const {
        return says([] { return mailbox_withdraw(PAT, 7); });
    }
    [[nodiscard]] bool reset_shown() const {
        return says([] { return mailbox_reset_shown(PAT, 7); });
    }
    void purge() const {
        EXPECT_TRUE(says([] { return mailbox_purge_message(PAT, 7); }));
    }
};

} // namespace

// ---- Names --------------------------------------------------------------------------------

TEST(MailboxNames, StandUnderTheStateDirectory) {
    const scratch_state state;
    EXPECT_EQ(users_dir(), state.path("users"));
    EXPECT_EQ(mailbox_dir(PAT), state.path("users/pat"));
    const mailbox_target target = {mailbox_dir(PAT), 999'999'999'999'999'999};
    EXPECT_EQ(mailbox_file(target, "inbox", ""), state.path("users/pat/inbox/999999999999999999"));
    EXPECT_EQ(mailbox_file(target, "state", ".term"),
              state.path("users/pat/state/999999999999999999.term"));
}

// ---- Delivering ---------------------------------------------------------------------------

TEST(MailboxDeliver, WritesTheCopyAsTheUsersOwnFile) {
    SKIP_UNLESS_ROOT();
    const tried_mailbox mailbox;
    EXPECT_TRUE(mailbox.deliver());
    EXPECT_EQ(mailbox.text("inbox/7"), COPY);
    EXPECT_EQ(mode_and_owner(mailbox.file("inbox/7")), "0644 1001 1001");
    EXPECT_EQ(mailbox.files(), "inbox/7");
}

TEST(MailboxDeliver, CreatesTheMailboxAndItsFolders) {
    SKIP_UNLESS_ROOT();
    const tried_mailbox mailbox;
    EXPECT_TRUE(mailbox.deliver());
    EXPECT_EQ(mode_and_owner(mailbox.file()), "0700 1001 1001");
    for (const char *folder : {"inbox", "read", "acks", "state"})
        EXPECT_EQ(mode_and_owner(mailbox.file(folder)), "0755 1001 1001") << folder;
}

TEST(MailboxDeliver, ModesDoNotDependOnTheCallersMask) {
    SKIP_UNLESS_ROOT();
    const tried_mailbox mailbox;
    EXPECT_TRUE(mailbox.says([] {
        umask(077);
        return mailbox_deliver(PAT, 7, COPY);
    }));
    EXPECT_EQ(mode_and_owner(mailbox.file("inbox")), "0755 1001 1001");
    EXPECT_EQ(mode_and_owner(mailbox.file("inbox/7")), "0644 1001 1001");
}

TEST(MailboxDeliver, HandsOverADirectoryThatRootMadeEarlier) {
    SKIP_UNLESS_ROOT();
    const tried_mailbox mailbox;
    std::filesystem::create_directory(mailbox.file());
    EXPECT_TRUE(mailbox.deliver());
    EXPECT_EQ(mode_and_owner(mailbox.file()), "0755 1001 1001"); // its mode is left as it is
}

TEST(MailboxDeliver, DirectoryOfAnotherUserIsLeftAsItIs) {
    SKIP_UNLESS_ROOT();
    const tried_mailbox mailbox;
    std::filesystem::create_directory(mailbox.file());
    give_file_to(mailbox.file(), SAM_UID);
    EXPECT_FALSE(mailbox.deliver()); // pat cannot write there
    EXPECT_EQ(mode_and_owner(mailbox.file()), "0755 1002 1002");
    EXPECT_EQ(mailbox.files(), "");
}

TEST(MailboxDeliver, UsesTheMailboxThatIsThere) {
    SKIP_UNLESS_ROOT();
    const tried_mailbox mailbox;
    mailbox.make_folders();
    mailbox.put("inbox/6", "another");
    EXPECT_TRUE(mailbox.deliver());
    EXPECT_EQ(mailbox.files(), "inbox/6 inbox/7");
}

TEST(MailboxDeliver, ReplacesAnEarlierCopy) {
    SKIP_UNLESS_ROOT();
    const tried_mailbox mailbox;
    mailbox.make_folders();
    mailbox.put("inbox/7", "half a co");
    EXPECT_TRUE(mailbox.deliver());
    EXPECT_EQ(mailbox.text("inbox/7"), COPY);
}

TEST(MailboxDeliver, MessageThatWasReadOrConfirmedIsNotBroughtBack) {
    SKIP_UNLESS_ROOT();
    for (const char *mark : {"read/7", "acks/7"}) {
        const tried_mailbox mailbox;
        mailbox.make_folders();
        mailbox.put(mark, "");
        EXPECT_TRUE(mailbox.deliver()) << mark;
        EXPECT_EQ(mailbox.files(), mark);
    }
}

TEST(MailboxDeliver, DanglingLinkCountsAsRead) {
    SKIP_UNLESS_ROOT();
    const tried_mailbox mailbox;
    mailbox.make_folders();
    std::filesystem::create_symlink("nowhere", mailbox.file("read/7"));
    EXPECT_TRUE(mailbox.deliver());
    EXPECT_FALSE(mailbox.has("inbox/7"));
}

TEST(MailboxDeliver, ConfirmationOfAnotherMessageDoesNotCount) {
    SKIP_UNLESS_ROOT();
    const tried_mailbox mailbox;
    mailbox.make_folders();
    mailbox.put("acks/77", "");
    EXPECT_TRUE(mailbox.deliver());
    EXPECT_TRUE(mailbox.has("inbox/7"));
}

TEST(MailboxDeliver, EmptyTextFails) {
    SKIP_UNLESS_ROOT();
    const tried_mailbox mailbox;
    EXPECT_FALSE(mailbox.deliver(""));
    EXPECT_EQ(mailbox.files(), "");
}

TEST(MailboxDeliver, LongTextIsCutInTheCopy) {
    SKIP_UNLESS_ROOT();
    const tried_mailbox mailbox;
    EXPECT_TRUE(mailbox.deliver(std::string(73'728, 'x') + "yz"));
    EXPECT_EQ(mailbox.text("inbox/7"), std::string(73'728, 'x'));
}

TEST(MailboxDeliver, TextOfExactlyTheLimitIsWhole) {
    SKIP_UNLESS_ROOT();
    const tried_mailbox mailbox;
    EXPECT_TRUE(mailbox.deliver(std::string(73'727, 'x') + "y"));
    EXPECT_EQ(mailbox.text("inbox/7").back(), 'y');
}

// ---- Delivering where something is in the way ---------------------------------------------

TEST(MailboxDeliver, LinkInPlaceOfTheMailboxIsRefused) {
    SKIP_UNLESS_ROOT();
    const tried_mailbox mailbox;
    std::filesystem::create_directory(mailbox.state_path("elsewhere"));
    give_file_to(mailbox.state_path("elsewhere"), PAT_UID); // who could write there
    std::filesystem::create_symlink("../elsewhere", mailbox.file());
    EXPECT_FALSE(mailbox.deliver());
    EXPECT_TRUE(std::filesystem::is_empty(mailbox.state_path("elsewhere")));
}

TEST(MailboxDeliver, DanglingLinkInPlaceOfTheMailboxIsRefused) {
    SKIP_UNLESS_ROOT();
    const tried_mailbox mailbox;
    std::filesystem::create_symlink("elsewhere", mailbox.file());
    EXPECT_FALSE(mailbox.deliver());
    EXPECT_FALSE(path_exists(mailbox.state_path("users/elsewhere").c_str()));
}

TEST(MailboxDeliver, FileInPlaceOfTheMailboxIsRefused) {
    SKIP_UNLESS_ROOT();
    const tried_mailbox mailbox;
    write_file(mailbox.file(), "a file");
    EXPECT_FALSE(mailbox.deliver());
    EXPECT_EQ(mailbox.text(""), "a file");
    EXPECT_EQ(mode_and_owner(mailbox.file()).substr(4), " 0 0");
}

TEST(MailboxDeliver, WithoutTheUsersFolderFails) {
    SKIP_UNLESS_ROOT();
    const tried_mailbox mailbox;
    std::filesystem::remove(mailbox.state_path("users"));
    EXPECT_FALSE(mailbox.deliver());
}

TEST(MailboxDeliver, LinkInPlaceOfTheInboxReachesOnlyWhatTheUserMayWrite) {
    SKIP_UNLESS_ROOT();
    const tried_mailbox mailbox;
    std::filesystem::create_directory(mailbox.state_path("of-root"));
    mailbox.make_directory();
    std::filesystem::create_symlink("../../of-root", mailbox.file("inbox"));
    EXPECT_FALSE(mailbox.deliver());
    EXPECT_TRUE(std::filesystem::is_empty(mailbox.state_path("of-root")));
}

TEST(MailboxDeliver, FileInPlaceOfTheInboxFails) {
    SKIP_UNLESS_ROOT();
    const tried_mailbox mailbox;
    mailbox.make_directory();
    mailbox.put("inbox", "a file");
    EXPECT_FALSE(mailbox.deliver());
    EXPECT_EQ(mailbox.text("inbox"), "a file");
}

TEST(MailboxDeliver, FoldersThatCannotBeMadeFail) {
    SKIP_UNLESS_ROOT();
    const tried_mailbox mailbox;
    mailbox.make_directory();
    std::filesystem::permissions(mailbox.file(), std::filesystem::perms(0555));
    EXPECT_FALSE(mailbox.deliver());
    EXPECT_FALSE(mailbox.has("inbox"));
}

TEST(MailboxDeliver, StaleTemporaryFileIsReplaced) {
    SKIP_UNLESS_ROOT();
    const tried_mailbox mailbox;
    mailbox.make_folders();
    mailbox.put("inbox/7.tmp", std::string(1000, 's'));
    EXPECT_TRUE(mailbox.deliver());
    EXPECT_EQ(mailbox.text("inbox/7"), COPY);
    EXPECT_EQ(mailbox.files(), "inbox/7");
}

TEST(MailboxDeliver, LinkInPlaceOfTheTemporaryFileIsNotFollowed) {
    SKIP_UNLESS_ROOT();
    const tried_mailbox mailbox;
    mailbox.make_folders();
    mailbox.put("target", "untouched");
    std::filesystem::create_symlink("../target", mailbox.file("inbox/7.tmp"));
    EXPECT_TRUE(mailbox.deliver());
    EXPECT_EQ(mailbox.text("inbox/7"), COPY);
    EXPECT_EQ(mailbox.text("target"), "untouched");
    EXPECT_FALSE(mailbox.has("inbox/7.tmp"));
}

TEST(MailboxDeliver, LinkInPlaceOfTheCopyIsReplaced) {
    SKIP_UNLESS_ROOT();
    const tried_mailbox mailbox;
    mailbox.make_folders();
    mailbox.put("target", "untouched");
    std::filesystem::create_symlink("../target", mailbox.file("inbox/7"));
    EXPECT_TRUE(mailbox.deliver());
    EXPECT_FALSE(std::filesystem::is_symlink(mailbox.file("inbox/7")));
    EXPECT_EQ(mailbox.text("target"), "untouched");
}

TEST(MailboxDeliver, NamedPipeInPlaceOfTheTemporaryFileDoesNotBlock) {
    SKIP_UNLESS_ROOT();
    const tried_mailbox mailbox;
    mailbox.make_folders();
    make_fifo(mailbox.file("inbox/7.tmp"));
    EXPECT_TRUE(mailbox.deliver());
    EXPECT_EQ(mailbox.text("inbox/7"), COPY);
}

TEST(MailboxDeliver, DirectoryInPlaceOfTheTemporaryFileFails) {
    SKIP_UNLESS_ROOT();
    const tried_mailbox mailbox;
    mailbox.make_folders();
    mailbox.make_directory("inbox/7.tmp");
    EXPECT_FALSE(mailbox.deliver());
    EXPECT_FALSE(mailbox.has("inbox/7"));
}

TEST(MailboxDeliver, FailedRenameLeavesNoTemporaryFile) {
    SKIP_UNLESS_ROOT();
    const tried_mailbox mailbox;
    mailbox.make_folders();
    mailbox.make_directory("inbox/7");
    EXPECT_FALSE(mailbox.deliver());
    EXPECT_FALSE(mailbox.has("inbox/7.tmp"));
}

TEST(MailboxDeliver, FailedWriteLeavesNothing) {
    SKIP_UNLESS_ROOT();
    const tried_mailbox mailbox;
    mailbox.make_folders();
    EXPECT_FALSE(mailbox.says([] {
        const std::string inbox = "/var/lib/tellbox/users/pat/inbox";
        if (mount("tmpfs", inbox.c_str(), "tmpfs", 0, "size=4096,uid=1001,gid=1001") != 0)
            throw_errno(inbox);
        const bool delivered = mailbox_deliver(PAT, 7, std::string(70'000, 'x'));
        return delivered || !std::filesystem::is_empty(inbox);
    }));
}

TEST(MailboxDeliver, UserWithTheNumberOfRootGetsNoCopy) {
    SKIP_UNLESS_ROOT();
    const tried_mailbox mailbox;
    EXPECT_FALSE(mailbox.says([] { return mailbox_deliver({"root", 0, 0}, 7, COPY); }));
}

// ---- Delivering in test mode --------------------------------------------------------------

TEST(MailboxDeliver, ChangesNoOwnerInTestMode) {
    const scratch_state state;
    std::filesystem::create_directory(state.path("users"));
    EXPECT_TRUE(mailbox_deliver(PAT, 7, COPY));
    const std::string own = xasprintf(" %u %u", geteuid(), getegid());
    EXPECT_EQ(mode_and_owner(state.path("users/pat")), "0700" + own);
    EXPECT_EQ(mode_and_owner(state.path("users/pat/inbox/7")), "0644" + own);
    EXPECT_EQ(state.read("users/pat/inbox/7"), COPY);
}

// ---- Withdrawing --------------------------------------------------------------------------

TEST(MailboxWithdraw, RemovesTheCopyAndTheShownMarksOnly) {
    SKIP_UNLESS_ROOT();
    const tried_mailbox mailbox;
    mailbox.put_everything();
    EXPECT_TRUE(mailbox.withdraw());
    EXPECT_EQ(mailbox.files(), "acks/7 acks/8 inbox/8 read/7 read/8 state/8.gui state/8.term");
}

TEST(MailboxWithdraw, WithoutACopySucceeds) {
    SKIP_UNLESS_ROOT();
    const tried_mailbox mailbox;
    mailbox.make_directory();
    EXPECT_TRUE(mailbox.withdraw());
}

TEST(MailboxWithdraw, WithoutAMailboxSucceeds) {
    SKIP_UNLESS_ROOT();
    const tried_mailbox mailbox;
    EXPECT_TRUE(mailbox.withdraw());
    EXPECT_FALSE(mailbox.has(""));
}

TEST(MailboxWithdraw, LinkOrFileInPlaceOfTheMailboxIsNoMailbox) {
    SKIP_UNLESS_ROOT();
    const tried_mailbox linked;
    linked.put_elsewhere("inbox/7");
    EXPECT_TRUE(linked.withdraw());
    EXPECT_EQ(linked.text("inbox/7"), "kept");

    const tried_mailbox file;
    write_file(file.file(), "kept");
    EXPECT_TRUE(file.withdraw());
    EXPECT_EQ(file.text(""), "kept");
}

TEST(MailboxWithdraw, CopyThatCannotBeRemovedFails) {
    SKIP_UNLESS_ROOT();
    const tried_mailbox mailbox;
    mailbox.put_everything();
    give_file_to(mailbox.file("inbox"), SAM_UID);
    EXPECT_FALSE(mailbox.withdraw());
    EXPECT_TRUE(mailbox.has("inbox/7"));
    EXPECT_FALSE(mailbox.has("state/7.term")); // removed all the same
}

TEST(MailboxWithdraw, DanglingLinkInPlaceOfTheCopyIsRemoved) {
    SKIP_UNLESS_ROOT();
    const tried_mailbox mailbox;
    mailbox.make_folders();
    std::filesystem::create_symlink("nowhere", mailbox.file("inbox/7"));
    EXPECT_TRUE(mailbox.withdraw());
    EXPECT_FALSE(mailbox.has("inbox/7"));
}

TEST(MailboxWithdraw, ShownMarksThatStayDoNotMatter) {
    SKIP_UNLESS_ROOT();
    const tried_mailbox mailbox;
    mailbox.put_everything();
    give_file_to(mailbox.file("state"), SAM_UID);
    EXPECT_TRUE(mailbox.withdraw());
    EXPECT_TRUE(mailbox.has("state/7.term"));
}

// ---- Showing again ------------------------------------------------------------------------

TEST(MailboxResetShown, RemovesBothMarksOnly) {
    SKIP_UNLESS_ROOT();
    const tried_mailbox mailbox;
    mailbox.put_everything();
    EXPECT_TRUE(mailbox.reset_shown());
    EXPECT_EQ(mailbox.files(),
              "acks/7 acks/8 inbox/7 inbox/8 read/7 read/8 state/8.gui state/8.term");
}

TEST(MailboxResetShown, WithoutMarksSucceeds) {
    SKIP_UNLESS_ROOT();
    const tried_mailbox mailbox;
    mailbox.make_directory();
    EXPECT_TRUE(mailbox.reset_shown());
}

TEST(MailboxResetShown, WithoutAMailboxFails) {
    SKIP_UNLESS_ROOT();
    const tried_mailbox mailbox;
    EXPECT_FALSE(mailbox.reset_shown());
}

TEST(MailboxResetShown, LinkInPlaceOfTheMailboxFails) {
    SKIP_UNLESS_ROOT();
    const tried_mailbox mailbox;
    mailbox.put_elsewhere("state/7.gui");
    EXPECT_FALSE(mailbox.reset_shown());
    EXPECT_TRUE(mailbox.has("state/7.gui"));
}

TEST(MailboxResetShown, EitherMarkThatStaysFails) {
    SKIP_UNLESS_ROOT();
    for (const char *mark : {"state/7.term", "state/7.gui"}) {
        const tried_mailbox mailbox;
        mailbox.make_folders();
        mailbox.make_directory(mark);
        EXPECT_FALSE(mailbox.reset_shown()) << mark;
    }
}

// ---- Purging ------------------------------------------------------------------------------

TEST(MailboxPurgeMessage, RemovesEveryFileOfTheMessage) {
    SKIP_UNLESS_ROOT();
    const tried_mailbox mailbox;
    mailbox.put_everything();
    mailbox.purge();
    EXPECT_EQ(mailbox.files(), "acks/8 inbox/8 read/8 state/8.gui state/8.term");
}

TEST(MailboxPurgeMessage, RemovesWhatItCan) {
    SKIP_UNLESS_ROOT();
    const tried_mailbox mailbox;
    mailbox.put_everything();
    give_file_to(mailbox.file("inbox"), SAM_UID);
    mailbox.purge();
    EXPECT_EQ(mailbox.files(), "acks/8 inbox/7 inbox/8 read/8 state/8.gui state/8.term");
}

TEST(MailboxPurgeMessage, WithoutAMailboxDoesNothing) {
    SKIP_UNLESS_ROOT();
    const tried_mailbox mailbox;
    mailbox.purge();
    EXPECT_FALSE(mailbox.has(""));
}

TEST(MailboxPurgeMessage, LinkInPlaceOfTheMailboxIsNoMailbox) {
    SKIP_UNLESS_ROOT();
    const tried_mailbox mailbox;
    mailbox.put_elsewhere("inbox/7");
    mailbox.purge();
    EXPECT_TRUE(mailbox.has("inbox/7"));
}

TEST(MailboxPurgeMessage, LinkedFolderReachesOnlyWhatTheUserMayRemove) {
    SKIP_UNLESS_ROOT();
    const tried_mailbox mailbox;
    write_file(mailbox.state_path("of-root/7"), "kept");
    mailbox.make_directory();
    std::filesystem::create_symlink("../../of-root", mailbox.file("inbox"));
    mailbox.purge();
    EXPECT_EQ(read_file(mailbox.state_path("of-root/7")), "kept");
}
