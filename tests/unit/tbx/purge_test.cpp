#include "tbx/command.h"

#include "support.h"
#include "tbx/sent.h"

#include <fcntl.h>
#include <sys/stat.h>

namespace {

constexpr time_t MINUTE = 60;

// What `tbx purge DURATION` prints, and the events that it records.
std::string purge(const char *duration) {
    const child_result child = run_on(machine_of_pat_and_sam(), [duration] {
        const journal_stand_in journal;
        cmd_purge(duration);
        fflush(stdout);
        fputs(journal.events().c_str(), stdout);
    });
    EXPECT_EQ(child.exit_status, 0) << child.err;
    return child.out + child.err;
}

void set_age(const std::string &path, time_t seconds) {
    const timespec times[2] = {{now() - seconds, 0}, {now() - seconds, 0}};
    if (utimensat(AT_FDCWD, path.c_str(), times, 0) != 0)
        throw_errno(path);
}

// What a send left behind that could not mark its directory, that many seconds ago.
struct littered_store : scratch_store {
    explicit littered_store(time_t age = 2 * MINUTE) {
        write("sent/7/lock", "");
        write("sent/7/recipients", "pat\n");
        set_age(path("sent/7"), age);
    }
};

const std::string NOTHING = "No messages older than 90d.\n";

} // namespace

// ---- Litter of a send that could not be marked --------------------------------------------

TEST(PurgeLitter, IsRemovedNeitherCountedNorTold) {
    SKIP_UNLESS_ROOT();
    const littered_store store;
    EXPECT_EQ(purge("90d"), NOTHING);
    EXPECT_FALSE(store.exists("sent/7"));
    EXPECT_FALSE(store.exists("sent/.deleting-7"));
}

TEST(PurgeLitter, IsRemovedWithoutRecipientsToo) {
    SKIP_UNLESS_ROOT();
    const littered_store store;
    std::filesystem::remove(store.path("sent/7/recipients"));
    set_age(store.path("sent/7"), 2 * MINUTE);
    EXPECT_EQ(purge("90d"), NOTHING);
    EXPECT_FALSE(store.exists("sent/7"));
}

TEST(PurgeLitter, IsLeftToASendThatHasJustBegun) {
    SKIP_UNLESS_ROOT();
    const littered_store store(MINUTE / 2);
    EXPECT_EQ(purge("90d"), NOTHING);
    EXPECT_TRUE(store.exists("sent/7/recipients"));
}

TEST(PurgeLitter, IsLeftToARunThatHoldsItsLock) {
    SKIP_UNLESS_ROOT();
    const littered_store store;
    const message_lock held = sent_lock(7, /*nonblocking=*/true);
    ASSERT_EQ(held.state, lock_state::taken);
    EXPECT_EQ(purge("90d"), NOTHING);
    EXPECT_TRUE(store.exists("sent/7/recipients"));
}

TEST(PurgeLitter, IsNothingWithAMessageOrAMark) {
    SKIP_UNLESS_ROOT();
    for (const char *name : {"delivery", "incomplete", "failed", "revoking", "revoked"}) {
        const littered_store store;
        store.write(std::string("sent/7/") + name, "");
        set_age(store.path("sent/7"), 2 * MINUTE);
        EXPECT_EQ(purge("90d"), NOTHING) << name;
        EXPECT_TRUE(store.exists("sent/7/recipients")) << name;
    }
    const littered_store store;
    store.write("sent/7/msg", "date: " + std::to_string(now()) + "\n");
    set_age(store.path("sent/7"), 2 * MINUTE);
    EXPECT_EQ(purge("90d"), NOTHING);
    EXPECT_TRUE(store.exists("sent/7/msg"));
}

TEST(PurgeLitter, IsOnlyWhatASendMade) {
    SKIP_UNLESS_ROOT();
    const littered_store store;
    std::filesystem::remove(store.path("sent/7/lock"));
    set_age(store.path("sent/7"), 2 * MINUTE);
    EXPECT_EQ(purge("90d"), NOTHING);
    EXPECT_TRUE(store.exists("sent/7/recipients"));
}

TEST(PurgeLitter, GoesBesideWhatIsCounted) {
    SKIP_UNLESS_ROOT();
    const littered_store store;
    store.write("sent/6/msg", "date: 5\n");
    store.write("sent/6/recipients", "pat\n");
    const std::string said = purge("90d");
    EXPECT_EQ(said.substr(0, said.find("author=")),
              "Deleted 1 message older than 90d.\nDELETED 6 user= details=90d ");
    EXPECT_FALSE(store.exists("sent/6"));
    EXPECT_FALSE(store.exists("sent/7"));
}

// ---- What keeps a record ------------------------------------------------------------------

TEST(Purge, KeepsTheRecordWhereAMailboxCouldNotBeWorkedOn) {
    SKIP_UNLESS_ROOT();
    const scratch_store store;
    store.write("sent/6/msg", "date: 5\n");
    store.write("sent/6/recipients", "pat\nsam\n");
    store.write("users/sam/inbox/6", "copy");
    const child_result child = run_on(machine_of_pat_and_sam(), [&store] {
        const journal_stand_in journal;
        const std::string mailbox = store.path("users/pat");
        const unique_fd device(open("/dev/fuse", O_RDWR | O_CLOEXEC));
        std::filesystem::create_directory(mailbox);
        const std::string options =
            xasprintf("fd=%d,rootmode=40000,user_id=1001,group_id=1001", device.get());
        if (mount("mute", mailbox.c_str(), "fuse.mute", 0, options.c_str()) != 0)
            throw_errno(mailbox);
        cmd_purge("90d");
    });
    EXPECT_EQ(child.exit_status, 0) << child.err;
    EXPECT_FALSE(store.exists("sent/6")); // out of every list
    EXPECT_EQ(store.read("sent/.deleting-6/recipients"), "pat\nsam\n");
    EXPECT_FALSE(store.exists("users/sam/inbox/6"));
}

TEST(Purge, KeepsWhatCouldNotBeLookedUp) {
    SKIP_UNLESS_ROOT();
    const scratch_store store;
    store.write("sent/6/msg", "date: 5\n");
    const child_result child = run_on(machine_of_pat_and_sam(), [&store] {
        const journal_stand_in journal;
        make_unreadable(store.path("sent/6/msg"));
        cmd_purge("90d");
    });
    EXPECT_EQ(child.out, NOTHING);
    EXPECT_TRUE(store.exists("sent/6/msg"));
}
