#include "tbx/recovery.h"

#include "support.h"
#include "tbx/sent.h"

#include <gmock/gmock.h>

#include <unistd.h>

#include <functional>

using testing::MatchesRegex;
using testing::StartsWith;

namespace {

const std::string COPY = "format: 1\nid: 7\ndate: 5\n\nHello\n";
const std::string EXPIRED_COPY = "format: 1\nid: 7\ndate: 5\nexpires: 6\n\nHello\n";

// A store in memory: completing a delivery syncs the whole file system that holds it.
class recovered_store {
    const environment_variable in_memory_{"TMPDIR", "/dev/shm"};
    const scratch_store store_;

public:
    [[nodiscard]] const scratch_store &operator*() const { return store_; }
    const scratch_store *operator->() const { return &store_; }
};

// Message 7 to pat and sam, saved and then interrupted.
struct interrupted_store : recovered_store {
    interrupted_store() {
        (*this)->write("sent/7/incomplete", "");
        (*this)->write("sent/7/msg", COPY);
        (*this)->write("sent/7/recipients", "pat\nsam\n");
    }
};

struct outcome {
    std::string events;
    std::string warnings;
};

// What recovery records and says on a machine with pat and sam, after `prepare` has run there.
outcome recover(const std::function<void()> &prepare = [] {}) {
    const child_result child = run_on(machine_of_pat_and_sam(), [&prepare] {
        const journal_stand_in journal;
        prepare();
        recover_interrupted();
        fputs(journal.events().c_str(), stdout);
    });
    EXPECT_EQ(child.exit_status, 0) << child.err;
    return {child.out, child.err};
}

void expect_nothing(const outcome &recovered) {
    EXPECT_EQ(recovered.events, "");
    EXPECT_EQ(recovered.warnings, "");
}

std::string delivered(const std::string &user) {
    return "DELIVERED 7 user=" + user + " details= author=\n";
}

std::string recovered_count(int count) {
    return "RECOVERED 7 user= details=" + std::to_string(count) + " author=\n";
}

std::string completed_warning(int count) {
    return "tbx: completed delivery of message 7 to " + std::to_string(count) + " recipients\n";
}

const std::string CANCELLED_EVENT = "CANCELLED 7 user= details= author=\n";
const std::string CANCELLED_WARNING =
    "tbx: message 7 was interrupted before being saved and has been cancelled\n";

std::string still_missing_warning(int count) {
    return "tbx: message 7 still not delivered to " + std::to_string(count) +
           " recipients (see tbx status 7)\n";
}

void expect_cancelled(const recovered_store &store) {
    const time_t before = now();
    const outcome recovered = recover();
    EXPECT_EQ(recovered.events, CANCELLED_EVENT);
    EXPECT_EQ(recovered.warnings, CANCELLED_WARNING);
    EXPECT_FALSE(store->exists("sent/7/incomplete"));
    EXPECT_FALSE(store->exists("users/pat"));
    const std::string time_of_cancelling = store->read("sent/7/failed");
    EXPECT_THAT(time_of_cancelling, MatchesRegex("[0-9]+\n"));
    EXPECT_LE(before, std::stoll(time_of_cancelling));
    EXPECT_LE(std::stoll(time_of_cancelling), now());
    EXPECT_THAT(mode_and_owner(store->path("sent/7/failed")), StartsWith("0600"));
}

} // namespace

// ---- Nothing to do ------------------------------------------------------------------------

TEST(Recovery, OfAMissingStoreDoesNothing) {
    SKIP_UNLESS_ROOT();
    const scratch_state state;
    expect_nothing(recover());
    EXPECT_TRUE(std::filesystem::is_empty(state.path()));
}

TEST(Recovery, WithoutMarkersTouchesNothing) {
    SKIP_UNLESS_ROOT();
    const interrupted_store store;
    std::filesystem::remove(store->path("sent/7/incomplete"));
    store->write("sent/7/revoked", "5\n");
    store->write("sent/7/failed", "5\n");
    expect_nothing(recover());
    EXPECT_FALSE(store->exists("sent/7/lock"));
    EXPECT_FALSE(store->exists("users/pat"));
}

TEST(Recovery, OfAStoreThatCannotBeReadStopsAtOnce) {
    SKIP_UNLESS_ROOT();
    const recovered_store store;
    std::filesystem::rename(store->path("sent"), store->path("elsewhere"));
    store->write("sent", "a file");
    expect_nothing(recover());
}

// ---- A send that can be completed ---------------------------------------------------------

TEST(RecoverSend, DeliversToThoseWhoLackTheMessage) {
    SKIP_UNLESS_ROOT();
    const interrupted_store store;
    const outcome recovered = recover();
    EXPECT_EQ(recovered.events, delivered("pat") + delivered("sam") + recovered_count(2));
    EXPECT_EQ(recovered.warnings, completed_warning(2));
    EXPECT_FALSE(store->exists("sent/7/incomplete"));
    EXPECT_FALSE(store->exists("sent/7/failed"));
    EXPECT_EQ(store->read("users/pat/inbox/7"), COPY);
    EXPECT_EQ(store->read("users/sam/inbox/7"), COPY);
}

TEST(RecoverSend, LogsTheDeliveryWithoutTerminals) {
    SKIP_UNLESS_ROOT();
    const interrupted_store store;
    (void)recover();
    EXPECT_THAT(store->read("sent/7/delivery"), MatchesRegex("pat [0-9]+ 0\nsam [0-9]+ 0\n"));
}

TEST(RecoverSend, CountsOnlyThoseNewlyDeliveredTo) {
    SKIP_UNLESS_ROOT();
    const interrupted_store store;
    store->write("sent/7/delivery", "pat 100 2\n");
    const outcome recovered = recover();
    EXPECT_EQ(recovered.events, delivered("sam") + recovered_count(1));
    EXPECT_EQ(recovered.warnings, completed_warning(1));
    EXPECT_THAT(store->read("sent/7/delivery"), MatchesRegex("pat 100 2\nsam [0-9]+ 0\n"));
}

TEST(RecoverSend, ToEveryoneAlreadyIsFinishedQuietly) {
    SKIP_UNLESS_ROOT();
    const interrupted_store store;
    store->write("sent/7/delivery", "pat 100 2\nsam 100 1\n");
    expect_nothing(recover());
    EXPECT_FALSE(store->exists("sent/7/incomplete"));
    EXPECT_EQ(store->read("sent/7/delivery"), "pat 100 2\nsam 100 1\n");
}

TEST(RecoverSend, MakesAHalfWrittenCopyWhole) {
    SKIP_UNLESS_ROOT();
    const interrupted_store store;
    store->write("sent/7/delivery", "pat 100 2\nsam 100 1\n");
    store->write("users/pat/inbox/7", "format: 1\nid");
    expect_nothing(recover());
    EXPECT_EQ(store->read("users/pat/inbox/7"), COPY);
}

TEST(RecoverSend, DoesNotBringBackWhatWasReadOrConfirmed) {
    SKIP_UNLESS_ROOT();
    const interrupted_store store;
    store->write("users/pat/read/7", "");
    store->write("users/sam/acks/7", "100 desktop\n");
    const outcome recovered = recover();
    EXPECT_EQ(recovered.events, delivered("pat") + delivered("sam") + recovered_count(2));
    EXPECT_FALSE(store->exists("users/pat/inbox/7"));
    EXPECT_FALSE(store->exists("users/sam/inbox/7"));
}

TEST(RecoverSend, DeletedAccountKeepsTheMarkerOnEveryRun) {
    SKIP_UNLESS_ROOT();
    const interrupted_store store;
    store->write("sent/7/recipients", "gone\npat\n");
    const outcome first = recover();
    EXPECT_EQ(first.events, delivered("pat") + recovered_count(1));
    EXPECT_EQ(first.warnings, completed_warning(1) + still_missing_warning(1));
    EXPECT_TRUE(store->exists("sent/7/incomplete"));

    const outcome second = recover();
    EXPECT_EQ(second.events, "");
    EXPECT_EQ(second.warnings, still_missing_warning(1));
    EXPECT_TRUE(store->exists("sent/7/incomplete"));
}

TEST(RecoverSend, CopyThatCannotBeWrittenKeepsTheMarker) {
    SKIP_UNLESS_ROOT();
    const interrupted_store store;
    store->write("users/pat", "a file in place of the mailbox");
    store->write("users/sam", "another");
    const outcome recovered = recover();
    EXPECT_EQ(recovered.events, "");
    EXPECT_EQ(recovered.warnings, still_missing_warning(2));
    EXPECT_TRUE(store->exists("sent/7/incomplete"));
    EXPECT_FALSE(store->exists("sent/7/delivery"));
}

TEST(RecoverSend, SyncThatFailsKeepsTheMarker) {
    SKIP_UNLESS_ROOT();
    const interrupted_store store;
    std::filesystem::rename(store->path("users"), store->path("elsewhere"));
    std::filesystem::create_directory_symlink("elsewhere", store->path("users"));
    const outcome recovered = recover(); // a link is not synced
    EXPECT_EQ(recovered.events, delivered("pat") + delivered("sam") + recovered_count(2));
    EXPECT_TRUE(store->exists("sent/7/incomplete"));
}

TEST(RecoverSend, TornLogLineIsCutBeforeTheNextIsAdded) {
    SKIP_UNLESS_ROOT();
    const interrupted_store store;
    store->write("sent/7/delivery", "pat 100 2\nsam 1");
    const outcome recovered = recover();
    EXPECT_EQ(recovered.events, delivered("sam") + recovered_count(1));
    EXPECT_THAT(store->read("sent/7/delivery"), MatchesRegex("pat 100 2\nsam [0-9]+ 0\n"));
}

TEST(RecoverSend, TakesAMessageOfTheLargestSize) {
    SKIP_UNLESS_ROOT();
    const interrupted_store store;
    const std::string largest = COPY + std::string(73'728 - COPY.size(), 'x');
    store->write("sent/7/msg", largest);
    EXPECT_EQ(recover().warnings, completed_warning(2));
    EXPECT_EQ(store->read("users/pat/inbox/7"), largest);
}

// ---- A send that nobody is to see any more ------------------------------------------------

TEST(RecoverSend, OfARevokedMessageIsGivenUp) {
    SKIP_UNLESS_ROOT();
    const interrupted_store store;
    store->write("sent/7/revoked", "5\n");
    expect_nothing(recover());
    EXPECT_FALSE(store->exists("sent/7/incomplete"));
    EXPECT_FALSE(store->exists("users/pat"));
}

TEST(RecoverSend, OfAnExpiredMessageIsGivenUp) {
    SKIP_UNLESS_ROOT();
    const interrupted_store store;
    store->write("sent/7/msg", EXPIRED_COPY);
    store->write("sent/7/delivery", "pat 100 2\n");
    expect_nothing(recover());
    EXPECT_FALSE(store->exists("sent/7/incomplete"));
    EXPECT_FALSE(store->exists("users/sam"));
    EXPECT_FALSE(store->exists("sent/7/failed"));
}

// ---- A send that was not saved ------------------------------------------------------------

TEST(RecoverSend, WithoutTheMessageIsCancelled) {
    SKIP_UNLESS_ROOT();
    const interrupted_store store;
    std::filesystem::remove(store->path("sent/7/msg"));
    expect_cancelled(store);
}

TEST(RecoverSend, WithAnEmptyMessageIsCancelled) {
    SKIP_UNLESS_ROOT();
    const interrupted_store store;
    store->write("sent/7/msg", "");
    expect_cancelled(store);
}

TEST(RecoverSend, WithAMessageThatHasNoDateIsCancelled) {
    SKIP_UNLESS_ROOT();
    const interrupted_store store;
    store->write("sent/7/msg", "format: 1\nid: 7\n\nHello\n");
    expect_cancelled(store);
}

TEST(RecoverSend, WithTooLongAMessageIsCancelled) {
    SKIP_UNLESS_ROOT();
    const interrupted_store store;
    store->write("sent/7/msg", COPY + std::string(73'729 - COPY.size(), 'x'));
    expect_cancelled(store);
}

TEST(RecoverSend, WithAnythingButAFileForTheMessageIsCancelled) {
    SKIP_UNLESS_ROOT();
    const auto put_instead = [](void (*create)(const std::string &)) {
        const interrupted_store store;
        const std::string message = store->path("sent/7/msg");
        std::filesystem::rename(message, store->path("sent/7/elsewhere"));
        create(message);
        expect_cancelled(store);
    };
    put_instead(
        [](const std::string &path) { std::filesystem::create_symlink("elsewhere", path); });
    put_instead([](const std::string &path) { std::filesystem::create_directory(path); });
    put_instead(make_fifo);
}

TEST(RecoverSend, WithoutRecipientsIsCancelled) {
    SKIP_UNLESS_ROOT();
    const interrupted_store store;
    std::filesystem::remove(store->path("sent/7/recipients"));
    expect_cancelled(store);
}

TEST(RecoverSend, WithAnEmptyRecipientListIsCancelled) {
    SKIP_UNLESS_ROOT();
    const interrupted_store store;
    store->write("sent/7/recipients", "\n");
    expect_cancelled(store);
}

TEST(RecoverSend, WithTooLongARecipientListIsCancelled) {
    SKIP_UNLESS_ROOT();
    const interrupted_store store;
    store->write("sent/7/recipients", "pat\n" + std::string(4'194'304, '\n'));
    expect_cancelled(store);
}

TEST(RecoverSend, WithAnythingButAFileForTheRecipientsIsCancelled) {
    SKIP_UNLESS_ROOT();
    const interrupted_store linked;
    std::filesystem::rename(linked->path("sent/7/recipients"), linked->path("sent/7/elsewhere"));
    std::filesystem::create_symlink("elsewhere", linked->path("sent/7/recipients"));
    expect_cancelled(linked);

    const interrupted_store piped;
    std::filesystem::remove(piped->path("sent/7/recipients"));
    make_fifo(piped->path("sent/7/recipients"));
    expect_cancelled(piped);
}

TEST(RecoverSend, ThatWasNotSavedIsCancelledEvenIfRevoked) {
    SKIP_UNLESS_ROOT();
    const interrupted_store store;
    store->write("sent/7/msg", "");
    store->write("sent/7/revoked", "5\n");
    expect_cancelled(store);
}

TEST(RecoverSend, IsCancelledAlsoWhereTheTimeCannotBeWritten) {
    SKIP_UNLESS_ROOT();
    const interrupted_store store;
    store->write("sent/7/msg", "");
    std::filesystem::create_directory(store->path("sent/7/failed"));
    const outcome recovered = recover();
    EXPECT_EQ(recovered.events, CANCELLED_EVENT);
    EXPECT_EQ(recovered.warnings, CANCELLED_WARNING);
    EXPECT_FALSE(store->exists("sent/7/incomplete"));
}

TEST(RecoverSend, StaysCancelled) {
    SKIP_UNLESS_ROOT();
    const interrupted_store store;
    store->write("sent/7/msg", "");
    (void)recover();
    store->write("sent/7/msg", COPY);
    expect_nothing(recover());
    EXPECT_TRUE(store->exists("sent/7/failed"));
    EXPECT_FALSE(store->exists("users/pat"));
}

// ---- Want of resources, which says nothing about the message ------------------------------

TEST(RecoverSend, IsLeftAloneWhereAFileCannotBeRead) {
    SKIP_UNLESS_ROOT();
    for (const char *file : {"msg", "recipients", "delivery"}) {
        const interrupted_store store;
        store->write("sent/7/delivery", "pat 100 2\n");
        expect_nothing(recover([file] { make_unreadable(sent_path(7, file)); }));
        EXPECT_TRUE(store->exists("sent/7/incomplete")) << file;
        EXPECT_FALSE(store->exists("sent/7/failed")) << file;
        EXPECT_FALSE(store->exists("users/sam")) << file;
    }
}

TEST(RecoverSend, WaitsForAccountsThatCannotBeRead) {
    SKIP_UNLESS_ROOT();
    const interrupted_store store;
    const outcome recovered = recover([] { make_unreadable("/etc/passwd"); });
    EXPECT_EQ(recovered.events, "");
    EXPECT_EQ(recovered.warnings, still_missing_warning(2));
    EXPECT_TRUE(store->exists("sent/7/incomplete"));
}

TEST(RecoverSend, IsLeftAloneWithoutDescriptors) {
    SKIP_UNLESS_ROOT();
    const interrupted_store store;
    // One descriptor is enough for the lock, and none is left for reading.
    expect_nothing(recover([] { leave_descriptors(1); }));
    EXPECT_TRUE(store->exists("sent/7/incomplete"));
    EXPECT_FALSE(store->exists("sent/7/failed"));
}

// ---- Other runs ---------------------------------------------------------------------------

TEST(Recovery, LeavesAMessageAloneThatAnotherRunHolds) {
    SKIP_UNLESS_ROOT();
    const interrupted_store store;
    store->write("sent/7/revoking", "");
    const message_lock held = sent_lock(7, /*nonblocking=*/true);
    ASSERT_EQ(held.state, lock_state::taken);
    expect_nothing(recover());
    EXPECT_TRUE(store->exists("sent/7/incomplete"));
    EXPECT_TRUE(store->exists("sent/7/revoking"));
    EXPECT_FALSE(store->exists("users/pat"));
}

TEST(Recovery, GoesOnToTheMessagesThatAreFree) {
    SKIP_UNLESS_ROOT();
    const interrupted_store store;
    store->make_message("6");
    store->write("sent/6/incomplete", "");
    const message_lock held = sent_lock(6, /*nonblocking=*/true);
    ASSERT_EQ(held.state, lock_state::taken);
    EXPECT_EQ(recover().warnings, completed_warning(2));
    EXPECT_TRUE(store->exists("sent/6/incomplete"));
}

TEST(Recovery, LeavesAMessageAloneWhoseLockCannotBeOpened) {
    SKIP_UNLESS_ROOT();
    const auto put_instead = [](void (*create)(const std::string &)) {
        const interrupted_store store;
        create(store->path("sent/7/lock"));
        expect_nothing(recover());
        EXPECT_TRUE(store->exists("sent/7/incomplete"));
        EXPECT_FALSE(store->exists("sent/7/elsewhere"));
    };
    put_instead(
        [](const std::string &path) { std::filesystem::create_symlink("elsewhere", path); });
    put_instead([](const std::string &path) { std::filesystem::create_directory(path); });
    put_instead(make_fifo);
}

TEST(Recovery, ReleasesTheLock) {
    SKIP_UNLESS_ROOT();
    const interrupted_store store;
    (void)recover();
    EXPECT_TRUE(store->exists("sent/7/lock"));
    EXPECT_EQ(sent_lock(7, /*nonblocking=*/true).state, lock_state::taken);
}

TEST(Recovery, LeavesNoDescriptor) {
    SKIP_UNLESS_ROOT();
    const interrupted_store store;
    store->write("sent/.deleting-9/msg", "");
    const child_result child = run_on(machine_of_pat_and_sam(), [] {
        const size_t before = open_descriptors();
        recover_interrupted();
        return open_descriptors() == before ? 10 : 20;
    });
    EXPECT_EQ(child.exit_status, 10) << child.err;
}

TEST(Recovery, TakesTheMessagesByNumber) {
    SKIP_UNLESS_ROOT();
    const recovered_store store;
    for (const char *id : {"10", "9", "100"})
        store->write(std::string("sent/") + id + "/incomplete", "");
    EXPECT_EQ(recover().events, "CANCELLED 9 user= details= author=\n"
                                "CANCELLED 10 user= details= author=\n"
                                "CANCELLED 100 user= details= author=\n");
}

TEST(Recovery, PassesOverWhatIsNoMessageDirectory) {
    SKIP_UNLESS_ROOT();
    const recovered_store store;
    store->write("sent/7", "a file");
    std::filesystem::create_symlink("nowhere", store->path("sent/8"));
    expect_nothing(recover());
    EXPECT_EQ(store->read("sent/7"), "a file");
}
