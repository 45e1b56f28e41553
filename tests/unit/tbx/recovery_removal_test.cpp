// Recovery of revocations and purges, and recovery outside test mode.
#include "tbx/recovery.h"

#include "support.h"
#include "tbx/sent.h"

namespace {

const std::string COPY = "format: 1\nid: 7\ndate: 5\n\nHello\n";

// What recovery says, and the events that it records, on a machine with pat and sam.
std::string recover() {
    const child_result child = run_on(machine_of_pat_and_sam(), [] {
        const journal_stand_in journal;
        recover_interrupted();
        fputs(journal.events().c_str(), stdout);
    });
    EXPECT_EQ(child.exit_status, 0) << child.err;
    return child.err + child.out;
}

// Message 7, delivered to pat and sam, who have confirmed nothing yet.
struct delivered_store : scratch_store {
    delivered_store() {
        write("sent/7/msg", COPY);
        write("sent/7/recipients", "pat\nsam\n");
        write("sent/7/delivery", "pat 100 0\nsam 100 0\n");
        for (const std::string user : {"pat", "sam"}) {
            write("users/" + user + "/inbox/7", COPY);
            write("users/" + user + "/inbox/8", "another message");
        }
    }
    void delete_half() const { std::filesystem::rename(path("sent/7"), path("sent/.deleting-7")); }
};

} // namespace

// ---- Revocations --------------------------------------------------------------------------

TEST(RecoverRevocation, IsFinishedQuietly) {
    SKIP_UNLESS_ROOT();
    const delivered_store store;
    store.write("sent/7/revoking", "");
    store.write("sent/7/revoked", "5\n");
    EXPECT_EQ(recover(), "");
    EXPECT_FALSE(store.exists("sent/7/revoking"));
    EXPECT_EQ(store.read("sent/7/revoked"), "5\n");
    EXPECT_FALSE(store.exists("users/pat/inbox/7"));
    EXPECT_FALSE(store.exists("users/sam/inbox/7"));
    EXPECT_TRUE(store.exists("users/pat/inbox/8"));
}

TEST(RecoverRevocation, ThatWasNotMarkedRevokedWithdrawsAllTheSame) {
    SKIP_UNLESS_ROOT();
    const delivered_store store;
    store.write("sent/7/revoking", "");
    EXPECT_EQ(recover(), "");
    EXPECT_FALSE(store.exists("sent/7/revoking"));
    EXPECT_FALSE(store.exists("sent/7/revoked"));
    EXPECT_FALSE(store.exists("users/pat/inbox/7"));
}

TEST(RecoverRevocation, CopyThatStaysKeepsTheMarkerQuietly) {
    SKIP_UNLESS_ROOT();
    const delivered_store store;
    store.write("sent/7/revoking", "");
    std::filesystem::remove(store.path("users/pat/inbox/7"));
    store.write("users/pat/inbox/7/in-the-way", "");
    EXPECT_EQ(recover(), "");
    EXPECT_TRUE(store.exists("sent/7/revoking"));
    EXPECT_FALSE(store.exists("users/sam/inbox/7"));
}

TEST(RecoverRevocation, IsHandledAfterTheSendOfTheSameMessage) {
    SKIP_UNLESS_ROOT();
    const environment_variable in_memory("TMPDIR", "/dev/shm"); // its file system is synced
    const delivered_store store;
    store.write("sent/7/incomplete", "");
    store.write("sent/7/revoking", "");
    std::filesystem::remove(store.path("users/pat/inbox/7"));
    EXPECT_EQ(recover(), ""); // completed, without news, and then withdrawn
    EXPECT_FALSE(store.exists("sent/7/incomplete"));
    EXPECT_FALSE(store.exists("sent/7/revoking"));
    EXPECT_FALSE(store.exists("users/pat/inbox/7"));
}

TEST(RecoverRevocation, OfACancelledSendIsFinishedToo) {
    SKIP_UNLESS_ROOT();
    const delivered_store store;
    store.write("sent/7/incomplete", "");
    store.write("sent/7/revoking", "");
    store.write("sent/7/msg", "");
    EXPECT_EQ(recover(),
              "tbx: message 7 was interrupted before being saved and has been cancelled\n"
              "CANCELLED 7 user= details= author=\n");
    EXPECT_FALSE(store.exists("sent/7/revoking"));
    EXPECT_FALSE(store.exists("users/pat/inbox/7"));
}

// ---- Purges -------------------------------------------------------------------------------

TEST(RecoverPurge, RemovesTheDirectoryAndTheCopiesQuietly) {
    SKIP_UNLESS_ROOT();
    const delivered_store store;
    store.delete_half();
    EXPECT_EQ(recover(), "");
    EXPECT_FALSE(store.exists("sent/.deleting-7"));
    EXPECT_FALSE(store.exists("users/pat/inbox/7"));
    EXPECT_FALSE(store.exists("users/sam/inbox/7"));
    EXPECT_TRUE(store.exists("users/pat/inbox/8"));
}

TEST(RecoverPurge, TakesEveryOneThatIsThere) {
    SKIP_UNLESS_ROOT();
    const scratch_store store;
    for (const char *name : {".deleting-1", ".deleting-007", ".deleting-999999999999999999"})
        store.write(std::string("sent/") + name + "/msg", "");
    EXPECT_EQ(recover(), "");
    EXPECT_TRUE(std::filesystem::is_empty(store.path("sent")));
}

TEST(RecoverPurge, OtherNamesAreLeftAlone) {
    SKIP_UNLESS_ROOT();
    const scratch_store store;
    for (const std::string name :
         {".deleting-abc", ".deleting-", ".deleting-7x", ".deleting--7", ".deleting-7.tmp",
          ".deleting-1000000000000000000", "deleting-7", ".Deleting-7", ".deleting7"}) {
        store.write("sent/" + name + "/msg", "");
        EXPECT_EQ(recover(), "");
        EXPECT_TRUE(store.exists("sent/" + name + "/msg")) << name;
    }
}

TEST(RecoverPurge, OfAMessageWithoutRecipientsRemovesTheDirectory) {
    SKIP_UNLESS_ROOT();
    const delivered_store store;
    store.delete_half();
    std::filesystem::remove(store.path("sent/.deleting-7/recipients"));
    EXPECT_EQ(recover(), "");
    EXPECT_FALSE(store.exists("sent/.deleting-7"));
    EXPECT_TRUE(store.exists("users/pat/inbox/7"));
}

TEST(RecoverPurge, LinkToAMessageIsNotFollowed) {
    SKIP_UNLESS_ROOT();
    const delivered_store store;
    std::filesystem::create_directory_symlink("7", store.path("sent/.deleting-9"));
    EXPECT_EQ(recover(), "");
    EXPECT_EQ(store.read("sent/7/msg"), COPY);
}

TEST(RecoverPurge, DirectoryThatCannotBeRemovedIsLeftForTheNextRun) {
    SKIP_UNLESS_ROOT();
    const delivered_store store;
    store.delete_half();
    store.write("sent/.deleting-7/foreign/file", "");
    EXPECT_EQ(recover(), "");
    EXPECT_TRUE(store.exists("sent/.deleting-7/foreign/file"));
    std::filesystem::remove_all(store.path("sent/.deleting-7/foreign"));
    EXPECT_EQ(recover(), "");
    EXPECT_FALSE(store.exists("sent/.deleting-7"));
}

TEST(RecoverPurge, ComesAlsoWhereNoMessageIsLeft) {
    SKIP_UNLESS_ROOT();
    const delivered_store store;
    store.delete_half();
    EXPECT_EQ(recover(), "");
    EXPECT_TRUE(std::filesystem::is_empty(store.path("sent")));
}

// ---- Outside test mode --------------------------------------------------------------------

TEST(RecoveryForReal, DeliversAsTheUserAndStartsTheAgentOnlyOfTheNewlyDelivered) {
    SKIP_UNLESS_ROOT();
    const environment_variable in_memory("TMPDIR", "/dev/shm"); // its file system is synced
    const real_mailbox state;
    write_file(state.state_path("sent/7/msg"), COPY);
    write_file(state.state_path("sent/7/recipients"), "pat\nsam\n");
    write_file(state.state_path("sent/7/delivery"), "sam 100 0\n");
    write_file(state.state_path("sent/7/incomplete"), "");
    private_machine machine = machine_of_pat_and_sam();
    machine.sessions = {{"1", "UID=1001\nCLASS=user\nACTIVE=1\nTYPE=x11\nSTATE=active\n"},
                        {"2", "UID=1002\nCLASS=user\nACTIVE=1\nTYPE=x11\nSTATE=active\n"}};
    const child_result child = run_for_real(state, machine, [] {
        const journal_stand_in journal;
        write_file("/run/bin/systemd-run", "#!/bin/sh\necho \"$2\" >> /run/started\n");
        std::filesystem::permissions("/run/bin/systemd-run", std::filesystem::perms(0755));
        setenv("PATH", "/run/bin:/usr/bin:/bin", 1);
        recover_interrupted();
        fputs(journal.events().c_str(), stdout);
        fputs(read_file("/run/started").c_str(), stdout);
    });
    EXPECT_EQ(child.exit_status, 0);
    EXPECT_EQ(child.err, "tbx: completed delivery of message 7 to 1 recipients\n");
    EXPECT_EQ(child.out, "DELIVERED 7 user=pat details= author=\n"
                         "RECOVERED 7 user= details=1 author=\n"
                         "--machine=pat@.host\n");
    EXPECT_EQ(mode_and_owner(state.file("inbox/7")), "0644 1001 1001");
    EXPECT_EQ(mode_and_owner(state.state_path("users/sam/inbox/7")), "0644 1002 1002");
}
