#include "tbx/withdrawal.h"

#include "support.h"
#include "tbx/sent.h"

namespace {

// A message to pat, sam and an account that is no more; pat and sam have all its files.
struct sent_message : scratch_store {
    sent_message() {
        for (const char *name : {"msg", "recipients", "delivery", "lock", "incomplete", ".hidden"})
            write(std::string("sent/7/") + name, "x");
        write("sent/7/recipients", "pat\ngone\nsam\n");
        write("sent/7/revoking", "");
        for (const std::string user : {"pat", "sam", "gone"})
            for (const char *file : {"inbox/7", "read/7", "acks/7", "state/7.term", "state/7.gui",
                                     "inbox/8", "acks/8"})
                write("users/" + user + "/" + file, "x");
    }
    [[nodiscard]] size_t files_of(const std::string &user) const {
        size_t count = 0;
        for (const auto &entry :
             std::filesystem::recursive_directory_iterator(path("users/" + user)))
            count += entry.is_directory() ? 0 : 1;
        return count;
    }
};

constexpr size_t ALL_FILES = 7;
constexpr size_t OTHER_MESSAGE = 2;
constexpr size_t WITHDRAWN = 4; // what the user did stays

void remove_on_machine(const scratch_store &store, const std::string &name) {
    const child_result child = run_on(machine_of_pat_and_sam(), [&] {
        sent_remove_message_dir(store.path("sent/" + name).c_str(), 7);
    });
    EXPECT_EQ(child.exit_status, 0);
    EXPECT_EQ(child.out + child.err, "");
}

bool finish_on_machine() {
    const child_result child =
        run_on(machine_of_pat_and_sam(), [] { return sent_finish_revoking(7) ? 10 : 20; });
    EXPECT_TRUE(child.exit_status == 10 || child.exit_status == 20) << child.err;
    EXPECT_EQ(child.out + child.err, "");
    return child.exit_status == 10;
}

} // namespace

// ---- The directory of a message -----------------------------------------------------------

TEST(RemoveMessageDir, RemovesTheDirectoryAndEveryCopy) {
    SKIP_UNLESS_ROOT();
    const sent_message message;
    remove_on_machine(message, "7");
    EXPECT_FALSE(message.exists("sent/7"));
    EXPECT_EQ(message.files_of("pat"), OTHER_MESSAGE);
    EXPECT_EQ(message.files_of("sam"), OTHER_MESSAGE);
}

TEST(RemoveMessageDir, MailboxesOfOthersAndOfDeletedAccountsStay) {
    SKIP_UNLESS_ROOT();
    const sent_message message;
    message.write("sent/7/recipients", "sam\ngone\n");
    remove_on_machine(message, "7");
    EXPECT_FALSE(message.exists("sent/7"));
    EXPECT_EQ(message.files_of("pat"), ALL_FILES);
    EXPECT_EQ(message.files_of("gone"), ALL_FILES);
}

TEST(RemoveMessageDir, WorksOnADirectoryThatWasMovedAside) {
    SKIP_UNLESS_ROOT();
    const sent_message message;
    std::filesystem::rename(message.path("sent/7"), message.path("sent/.deleting-7"));
    remove_on_machine(message, ".deleting-7");
    EXPECT_FALSE(message.exists("sent/.deleting-7"));
    EXPECT_EQ(message.files_of("pat"), OTHER_MESSAGE);
}

TEST(RemoveMessageDir, WithoutRecipientsRemovesTheDirectory) {
    SKIP_UNLESS_ROOT();
    const sent_message message;
    std::filesystem::remove(message.path("sent/7/recipients"));
    remove_on_machine(message, "7");
    EXPECT_FALSE(message.exists("sent/7"));
    EXPECT_EQ(message.files_of("pat"), ALL_FILES);
}

TEST(RemoveMessageDir, RecipientsInAnotherFileAreNotBelieved) {
    SKIP_UNLESS_ROOT();
    const sent_message message;
    std::filesystem::rename(message.path("sent/7/recipients"), message.path("sent/others"));
    std::filesystem::create_symlink("../others", message.path("sent/7/recipients"));
    remove_on_machine(message, "7");
    EXPECT_FALSE(message.exists("sent/7"));
    EXPECT_EQ(message.read("sent/others"), "pat\ngone\nsam\n");
    EXPECT_EQ(message.files_of("pat"), ALL_FILES);
}

TEST(RemoveMessageDir, DirectoryInsideItStays) {
    SKIP_UNLESS_ROOT();
    const sent_message message;
    message.write("sent/7/foreign/file", "x");
    remove_on_machine(message, "7");
    EXPECT_TRUE(message.exists("sent/7/foreign/file"));
    EXPECT_FALSE(message.exists("sent/7/msg"));
}

TEST(RemoveMessageDir, LinkToADirectoryIsNotFollowed) {
    SKIP_UNLESS_ROOT();
    const sent_message message;
    std::filesystem::create_directory_symlink("7", message.path("sent/.deleting-9"));
    remove_on_machine(message, ".deleting-9");
    EXPECT_TRUE(message.exists("sent/7/msg"));
}

TEST(RemoveMessageDir, FileOrNothingInItsPlaceIsLeftAlone) {
    SKIP_UNLESS_ROOT();
    const sent_message message;
    message.write("sent/.deleting-9", "a file");
    remove_on_machine(message, ".deleting-9");
    EXPECT_EQ(message.read("sent/.deleting-9"), "a file");
    remove_on_machine(message, "missing");
    EXPECT_FALSE(message.exists("sent/missing"));
}

TEST(RemoveMessageDir, LeavesNoDescriptor) {
    SKIP_UNLESS_ROOT();
    const sent_message message;
    const child_result child = run_on(machine_of_pat_and_sam(), [&message] {
        sent_remove_message_dir(message.path("sent/missing").c_str(), 7);
        const size_t before = open_descriptors();
        sent_remove_message_dir(message.path("sent/7").c_str(), 7);
        return open_descriptors() == before ? 10 : 20;
    });
    EXPECT_EQ(child.exit_status, 10) << child.err;
}

TEST(RemoveMessageDir, EverythingStaysWhereTheRecipientsCannotBeRead) {
    SKIP_UNLESS_ROOT();
    const sent_message message;
    const child_result child = run_on(machine_of_pat_and_sam(), [&message] {
        make_unreadable(message.path("sent/7/recipients"));
        sent_remove_message_dir(message.path("sent/7").c_str(), 7);
    });
    EXPECT_EQ(child.exit_status, 0);
    EXPECT_TRUE(message.exists("sent/7/msg"));
    EXPECT_EQ(message.files_of("pat"), ALL_FILES);
}

TEST(RemoveMessageDir, DirectoryStaysWhereTheAccountsCannotBeRead) {
    SKIP_UNLESS_ROOT();
    const sent_message message;
    const child_result child = run_on(machine_of_pat_and_sam(), [&message] {
        make_unreadable("/etc/passwd");
        sent_remove_message_dir(message.path("sent/7").c_str(), 7);
    });
    EXPECT_EQ(child.exit_status, 0);
    EXPECT_TRUE(message.exists("sent/7/msg"));
    EXPECT_TRUE(message.exists("sent/7/recipients"));
}

// ---- A revocation -------------------------------------------------------------------------

TEST(RemoveMessageDir, DirectoryStaysWhereNoMailboxCanBeEntered) {
    SKIP_UNLESS_ROOT();
    const sent_message message;
    const child_result child = run_on(machine_of_pat_and_sam(), [&message] {
        leave_descriptors(1); // too few for the pipes of a child
        sent_remove_message_dir(message.path("sent/7").c_str(), 7);
    });
    EXPECT_EQ(child.exit_status, 0);
    EXPECT_TRUE(message.exists("sent/7/recipients"));
    remove_on_machine(message, "7");
    EXPECT_FALSE(message.exists("sent/7"));
    EXPECT_EQ(message.files_of("pat"), OTHER_MESSAGE);
}

TEST(FinishRevoking, WithdrawsEveryCopyAndRemovesTheMarker) {
    SKIP_UNLESS_ROOT();
    const sent_message message;
    message.write("sent/7/recipients", "pat\nsam\n");
    EXPECT_TRUE(finish_on_machine());
    EXPECT_FALSE(message.exists("sent/7/revoking"));
    EXPECT_EQ(message.files_of("pat"), WITHDRAWN);
    EXPECT_EQ(message.files_of("sam"), WITHDRAWN);
    EXPECT_TRUE(message.exists("sent/7/msg"));
}

TEST(FinishRevoking, IsNotKeptUpByADeletedAccount) {
    SKIP_UNLESS_ROOT();
    const sent_message message;
    message.write("sent/7/recipients", "gone\n");
    EXPECT_TRUE(finish_on_machine());
    EXPECT_FALSE(message.exists("sent/7/revoking"));
    EXPECT_EQ(message.files_of("gone"), ALL_FILES);
}

TEST(FinishRevoking, IsNotKeptUpByAUserWithoutAMailbox) {
    SKIP_UNLESS_ROOT();
    const sent_message message;
    std::filesystem::remove_all(message.path("users/pat"));
    EXPECT_TRUE(finish_on_machine());
    EXPECT_FALSE(message.exists("sent/7/revoking"));
}

TEST(FinishRevoking, CopyThatStaysKeepsTheMarker) {
    SKIP_UNLESS_ROOT();
    const sent_message message;
    std::filesystem::remove(message.path("users/pat/inbox/7"));
    message.write("users/pat/inbox/7/in-the-way", "");
    EXPECT_FALSE(finish_on_machine());
    EXPECT_TRUE(message.exists("sent/7/revoking"));
    EXPECT_EQ(message.files_of("sam"), WITHDRAWN); // the others are withdrawn all the same
}

TEST(FinishRevoking, WithoutRecipientsIsFinished) {
    SKIP_UNLESS_ROOT();
    const sent_message message;
    std::filesystem::remove(message.path("sent/7/recipients"));
    EXPECT_TRUE(finish_on_machine());
    EXPECT_FALSE(message.exists("sent/7/revoking"));
}

TEST(FinishRevoking, IsNotFinishedWhereTheRecipientsCannotBeRead) {
    SKIP_UNLESS_ROOT();
    const sent_message message;
    const child_result child = run_on(machine_of_pat_and_sam(), [] {
        make_unreadable(sent_path(7, "recipients"));
        return sent_finish_revoking(7) ? 10 : 20;
    });
    EXPECT_EQ(child.exit_status, 20);
    EXPECT_TRUE(message.exists("sent/7/revoking"));
}

TEST(FinishRevoking, IsNotFinishedWhereTheAccountsCannotBeRead) {
    SKIP_UNLESS_ROOT();
    const sent_message message;
    const child_result child = run_on(machine_of_pat_and_sam(), [] {
        make_unreadable("/etc/passwd");
        return sent_finish_revoking(7) ? 10 : 20;
    });
    EXPECT_EQ(child.exit_status, 20);
    EXPECT_TRUE(message.exists("sent/7/revoking"));
}
