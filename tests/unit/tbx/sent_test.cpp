#include "tbx/sent.h"

#include "support.h"

#include <gmock/gmock.h>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

using testing::StartsWith;

namespace {

// The identifier that is allocated with `seq` in place of the last one. It has to be written
// back.
int64_t allocate_after(std::string_view seq) {
    const scratch_store store;
    store.write("sent/.seq", seq);
    const int64_t id = sent_allocate_id();
    EXPECT_EQ(store.read("sent/.seq"), std::to_string(id) + "\n");
    EXPECT_TRUE(std::filesystem::is_directory(sent_message_dir(id)));
    return id;
}

// What allocating an identifier says before it ends the process.
std::string refusal_to_allocate() {
    const child_result child = run_in_child([] { return sent_allocate_id() > 0 ? 0 : 2; });
    EXPECT_EQ(child.exit_status, 1);
    EXPECT_EQ(child.out, "");
    return child.err;
}

std::string says(const std::string &path, int error) {
    return "tbx: " + path + ": " + strerror(error) + "\n";
}

unique_fd lock_file(const std::string &path) {
    unique_fd lock(open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    if (flock(lock.get(), LOCK_EX) != 0)
        throw_errno(path);
    return lock;
}

// Releases the lock also where a process that was forked has the descriptor too.
void unlock(const unique_fd &lock) {
    if (flock(lock.get(), LOCK_UN) != 0)
        throw_errno("unlock");
}

lock_state try_lock(int64_t id) {
    return sent_lock(id, /*nonblocking=*/true).state;
}

lock_state wait_for_lock(int64_t id) {
    return sent_lock(id, /*nonblocking=*/false).state;
}

// The time in the marker, which can be read.
int64_t revocation_time(int64_t id) {
    int64_t time = -1;
    EXPECT_EQ(sent_revocation_time(id, &time), 0);
    return time;
}

} // namespace

// ---- Paths --------------------------------------------------------------------------------

TEST(SentPaths, StandUnderTheStateDirectory) {
    const scratch_state state;
    EXPECT_EQ(sent_dir(), state.path("sent"));
    EXPECT_EQ(sent_message_dir(ID_MAX), state.path("sent/999999999999999999"));
    EXPECT_EQ(sent_path(7, "msg"), state.path("sent/7/msg"));
}

// ---- Listing ------------------------------------------------------------------------------

TEST(SentListIds, GivesTheMessagesByNumber) {
    const scratch_store store;
    for (const char *id : {"12", "9", ".deleting-5", "100"})
        store.make_message(id);
    store.write("sent/.seq", "12\n");
    store.write("sent/.seq.lock", "");
    strlist ids;
    EXPECT_EQ(sent_list_ids(&ids), 0);
    EXPECT_EQ(joined(ids), "9 12 100");
}

TEST(SentListIds, ReportsAMissingStore) {
    const scratch_state state;
    strlist ids;
    EXPECT_EQ(sent_list_ids(&ids), -1);
    EXPECT_EQ(errno, ENOENT);
}

// ---- Allocating an identifier -------------------------------------------------------------

TEST(SentAllocateId, CreatesTheStateDirectoriesWithTheirModes) {
    const scratch_state state;
    const environment_variable var("TBX_VAR", state.path("var").c_str());
    init_environment("tbx");
    const mode_t mask = umask(022);
    EXPECT_EQ(sent_allocate_id(), 1);
    umask(mask);
    EXPECT_THAT(mode_and_owner(state.path("var")), StartsWith("0755"));
    EXPECT_THAT(mode_and_owner(state.path("var/users")), StartsWith("0755"));
    EXPECT_THAT(mode_and_owner(state.path("var/sent")), StartsWith("0700"));
    EXPECT_THAT(mode_and_owner(state.path("var/sent/1")), StartsWith("0700"));
    EXPECT_THAT(mode_and_owner(state.path("var/sent/.seq")), StartsWith("0600"));
    EXPECT_THAT(mode_and_owner(state.path("var/sent/.seq.lock")), StartsWith("0600"));
    EXPECT_EQ(state.read("var/sent/.seq"), "1\n");
    EXPECT_EQ(state.read("var/sent/.seq.lock"), "");
}

TEST(SentAllocateId, CountsOn) {
    const scratch_store store;
    EXPECT_EQ(sent_allocate_id(), 1);
    EXPECT_EQ(sent_allocate_id(), 2);
    EXPECT_EQ(sent_allocate_id(), 3);
    EXPECT_EQ(store.read("sent/.seq"), "3\n");
    EXPECT_FALSE(store.exists("sent/.seq.tmp"));
}

TEST(SentAllocateId, PassesOverDirectoriesThatAreThere) {
    const scratch_store store;
    store.write("sent/.seq", "7\n");
    store.make_message("8");
    store.make_message("9");
    EXPECT_EQ(sent_allocate_id(), 10);
    EXPECT_EQ(store.read("sent/.seq"), "10\n");
}

TEST(SentAllocateId, PassesOverWhateverHasTheName) {
    const scratch_store store;
    store.write("sent/1", "a file");
    std::filesystem::create_symlink("nowhere", store.path("sent/2"));
    EXPECT_EQ(sent_allocate_id(), 3);
}

TEST(SentAllocateId, LostSequenceNeverReusesADirectory) {
    const scratch_store store;
    store.make_message("1");
    store.make_message("2");
    EXPECT_EQ(sent_allocate_id(), 3);
}

TEST(SentAllocateId, FirstLineOfTheSequenceCounts) {
    EXPECT_EQ(allocate_after("7"), 8);
    EXPECT_EQ(allocate_after("7\n9\n"), 8);
    EXPECT_EQ(allocate_after("007\n"), 8);
}

TEST(SentAllocateId, MalformedSequenceCountsAsZero) {
    for (const char *seq :
         {"", "\n", "abc", "-7\n", " 7\n", "7 \n", "7x\n", "\n7\n", "1000000000000000000\n"})
        EXPECT_EQ(allocate_after(seq), 1) << seq;
}

TEST(SentAllocateId, SequenceHasAtMostSixtyFourBytes) {
    EXPECT_EQ(allocate_after("7\n" + std::string(62, 'x')), 8);
    EXPECT_EQ(allocate_after("7\n" + std::string(63, 'x')), 1);
}

TEST(SentAllocateId, LinkInPlaceOfTheSequenceIsNotFollowed) {
    const scratch_store store;
    store.write("elsewhere", "7\n");
    std::filesystem::create_symlink("../elsewhere", store.path("sent/.seq"));
    EXPECT_EQ(sent_allocate_id(), 1);
    EXPECT_EQ(store.read("elsewhere"), "7\n");
    EXPECT_EQ(store.read("sent/.seq"), "1\n");
}

TEST(SentAllocateId, NamedPipeInPlaceOfTheSequenceIsReplaced) {
    const scratch_store store;
    make_fifo(store.path("sent/.seq"));
    EXPECT_EQ(sent_allocate_id(), 1);
    EXPECT_EQ(store.read("sent/.seq"), "1\n");
}

TEST(SentAllocateId, LargestIdentifierIsGivenOut) {
    EXPECT_EQ(allocate_after("999999999999999998\n"), ID_MAX);
}

TEST(SentAllocateId, NothingComesAfterTheLargest) {
    const scratch_store store;
    store.write("sent/.seq", "999999999999999999\n");
    EXPECT_EQ(refusal_to_allocate(), says(store.path("sent/.seq"), EOVERFLOW));
    EXPECT_FALSE(store.exists("sent/1000000000000000000"));
    EXPECT_EQ(store.read("sent/.seq"), "999999999999999999\n");
}

TEST(SentAllocateId, NothingIsLeftWhenTheLargestIsTaken) {
    const scratch_store store;
    store.write("sent/.seq", "999999999999999998\n");
    store.make_message("999999999999999999");
    EXPECT_EQ(refusal_to_allocate(), says(store.path("sent/.seq"), EOVERFLOW));
}

TEST(SentAllocateId, SequenceThatCannotBeWrittenEndsTheProcess) {
    const scratch_store store;
    std::filesystem::create_directory(store.path("sent/.seq"));
    EXPECT_EQ(refusal_to_allocate(), says(store.path("sent/.seq"), EISDIR));
}

TEST(SentAllocateId, FoldersMustBeDirectories) {
    for (const char *folder : {"users", "sent"}) {
        const scratch_state with_file;
        with_file.write(folder, "a file");
        EXPECT_EQ(refusal_to_allocate(), says(with_file.path(), ENOTDIR)) << folder;
    }
    for (const char *folder : {"users", "sent"}) {
        const scratch_state with_link;
        std::filesystem::create_directory_symlink(".", with_link.path(folder));
        EXPECT_EQ(refusal_to_allocate(), says(with_link.path(), ENOTDIR)) << folder;
    }
}

TEST(SentAllocateId, StateDirectoryThatCannotBeCreatedEndsTheProcess) {
    const scratch_state state;
    const environment_variable var("TBX_VAR", state.path("missing/var").c_str());
    init_environment("tbx");
    EXPECT_EQ(refusal_to_allocate(), says(state.path("missing/var"), ENOENT));
}

TEST(SentAllocateId, TellsWhyTheStateDirectoryCouldNotBeCreated) {
    SKIP_UNLESS_ROOT();
    const scratch_state state;
    std::filesystem::permissions(state.path(), std::filesystem::perms(0755));
    const environment_variable var("TBX_VAR", state.path("var").c_str());
    init_environment("tbx");
    const child_result child = run_in_child([] {
        if (setresuid(PAT_UID, PAT_UID, PAT_UID) != 0)
            throw_errno("setresuid");
        return sent_allocate_id() > 0 ? 0 : 2;
    });
    EXPECT_EQ(child.err, says(state.path("var"), EACCES)); // not that its folders are missing
}

TEST(SentAllocateId, FileInPlaceOfTheStateDirectoryEndsTheProcess) {
    const scratch_state state;
    state.write("var", "a file");
    const environment_variable var("TBX_VAR", state.path("var").c_str());
    init_environment("tbx");
    EXPECT_EQ(refusal_to_allocate(), says(state.path("var"), ENOTDIR));
}

TEST(SentAllocateId, LockThatCannotBeOpenedEndsTheProcess) {
    const scratch_store linked;
    std::filesystem::create_symlink("elsewhere", linked.path("sent/.seq.lock"));
    EXPECT_EQ(refusal_to_allocate(), says(linked.path("sent/.seq.lock"), ELOOP));
    EXPECT_FALSE(linked.exists("sent/elsewhere"));

    const scratch_store directory;
    std::filesystem::create_directory(directory.path("sent/.seq.lock"));
    EXPECT_EQ(refusal_to_allocate(), says(directory.path("sent/.seq.lock"), EISDIR));

    const scratch_store pipe; // which nobody reads: it must not block
    make_fifo(pipe.path("sent/.seq.lock"));
    EXPECT_EQ(refusal_to_allocate(), says(pipe.path("sent/.seq.lock"), ENXIO));
}

TEST(SentAllocateId, DirectoryThatCannotBeCreatedEndsTheProcess) {
    SKIP_UNLESS_ROOT();
    const scratch_store store;
    store.write("sent/.seq.lock", "");
    std::filesystem::permissions(store.path("sent/.seq.lock"), std::filesystem::perms(0666));
    std::filesystem::permissions(store.path("sent"), std::filesystem::perms(0555));
    std::filesystem::permissions(store.path(), std::filesystem::perms(0755));
    const child_result child = run_in_child([] {
        if (setresuid(PAT_UID, PAT_UID, PAT_UID) != 0)
            throw_errno("setresuid");
        return sent_allocate_id() > 0 ? 0 : 2;
    });
    EXPECT_EQ(child.exit_status, 1);
    EXPECT_EQ(child.err, says(store.path("sent/1"), EACCES));
}

TEST(SentAllocateId, WaitsForAnotherRunThatAllocates) {
    const scratch_store store;
    const unique_fd lock = lock_file(store.path("sent/.seq.lock"));
    const pid_t other = start_process([] { return sent_allocate_id() == 1 ? 0 : 1; });
    EXPECT_TRUE(await_waiting_for_lock(other));
    EXPECT_FALSE(store.exists("sent/1"));
    unlock(lock);
    EXPECT_EQ(exit_status_of(other), 0);
}

TEST(SentAllocateId, ReleasesItsLock) {
    const scratch_store store;
    EXPECT_EQ(sent_allocate_id(), 1);
    const unique_fd lock(open(store.path("sent/.seq.lock").c_str(), O_WRONLY | O_CLOEXEC));
    EXPECT_EQ(flock(lock.get(), LOCK_EX | LOCK_NB), 0);
}

TEST(SentAllocateId, RunsAtTheSameTimeNeverShareAnIdentifier) {
    const scratch_store store;
    constexpr int RUNS = 8;
    pid_t runs[RUNS];
    for (pid_t &run : runs)
        run = start_process([] {
            for (int i = 0; i < 10; i++)
                write_file(sent_path(sent_allocate_id(), "mine"), "");
            return 0;
        });
    for (const pid_t run : runs)
        EXPECT_EQ(exit_status_of(run), 0);
    strlist ids;
    EXPECT_EQ(sent_list_ids(&ids), 0);
    EXPECT_EQ(ids.count, 80U);
    EXPECT_EQ(store.read("sent/.seq"), "80\n");
}

// ---- Locks --------------------------------------------------------------------------------

TEST(SentLock, CreatesItsFile) {
    const scratch_store store;
    store.make_message("7");
    const message_lock lock = sent_lock(7, /*nonblocking=*/true);
    ASSERT_EQ(lock.state, lock_state::taken);
    EXPECT_THAT(mode_and_owner(store.path("sent/7/lock")), StartsWith("0600"));
    EXPECT_EQ(store.read("sent/7/lock"), "");
    EXPECT_EQ(fcntl(lock.file.get(), F_GETFD), FD_CLOEXEC);
}

TEST(SentLock, IsRefusedWhileAnotherHoldsIt) {
    const scratch_store store;
    store.make_message("7");
    unique_fd held = lock_file(store.path("sent/7/lock"));
    EXPECT_EQ(try_lock(7), lock_state::held);
    held.reset();
    EXPECT_EQ(try_lock(7), lock_state::taken);
}

TEST(SentLock, IsHeldUntilItIsClosed) {
    const scratch_store store;
    store.make_message("7");
    message_lock lock = sent_lock(7, /*nonblocking=*/false);
    const auto try_it = [] { return try_lock(7) == lock_state::taken ? 10 : 20; };
    EXPECT_EQ(exit_status_of(start_process(try_it)), 20);
    lock.file.reset();
    EXPECT_EQ(exit_status_of(start_process(try_it)), 10);
}

TEST(SentLock, WaitsWhenAskedTo) {
    const scratch_store store;
    store.make_message("7");
    const unique_fd held = lock_file(store.path("sent/7/lock"));
    const pid_t other =
        start_process([] { return wait_for_lock(7) == lock_state::taken ? 10 : 20; });
    EXPECT_TRUE(await_waiting_for_lock(other));
    unlock(held);
    EXPECT_EQ(exit_status_of(other), 10);
}

TEST(SentLock, IsOfOneMessage) {
    const scratch_store store;
    store.make_message("7");
    store.make_message("8");
    const message_lock first = sent_lock(7, /*nonblocking=*/true);
    EXPECT_EQ(try_lock(8), lock_state::taken);
}

namespace {

int held_fd = -1; // closed by the third interruption

} // namespace

TEST(SentLock, WaitsOnAfterAnInterruption) {
    const scratch_store store;
    store.make_message("7");
    const child_result child = run_in_child([&store] {
        held_fd = lock_file(store.path("sent/7/lock")).release();
        interrupt_calls([] { close(held_fd); });
        const lock_state state = wait_for_lock(7);
        stop_interrupting();
        return state == lock_state::taken ? 10 : 20;
    });
    EXPECT_EQ(child.exit_status, 10) << child.err;
}

TEST(SentLock, FailsWhereItsFileCannotBeOpened) {
    const scratch_store store;
    EXPECT_EQ(try_lock(6), lock_state::failed); // no such message
    EXPECT_EQ(errno, ENOENT);

    store.make_message("7");
    std::filesystem::create_symlink("elsewhere", store.path("sent/7/lock"));
    EXPECT_EQ(try_lock(7), lock_state::failed);
    EXPECT_EQ(errno, ELOOP);
    EXPECT_FALSE(store.exists("sent/7/elsewhere"));

    store.make_message("8");
    std::filesystem::create_directory(store.path("sent/8/lock"));
    EXPECT_EQ(wait_for_lock(8), lock_state::failed);
    EXPECT_EQ(errno, EISDIR);

    store.make_message("9");
    make_fifo(store.path("sent/9/lock")); // which nobody reads: it must not block
    EXPECT_EQ(wait_for_lock(9), lock_state::failed);
    EXPECT_EQ(errno, ENXIO);
}

TEST(SentLock, FailureLeavesNoDescriptor) {
    const scratch_store store;
    store.make_message("7");
    const unique_fd held = lock_file(store.path("sent/7/lock"));
    const size_t before = open_descriptors();
    EXPECT_EQ(try_lock(7), lock_state::held);
    EXPECT_EQ(open_descriptors(), before);
}

// ---- Markers ------------------------------------------------------------------------------

TEST(SentMarker, IsAnEmptyFile) {
    const scratch_store store;
    store.make_message("7");
    EXPECT_FALSE(sent_marker_exists(7, "incomplete"));
    EXPECT_EQ(sent_marker_create(7, "incomplete"), 0);
    EXPECT_TRUE(sent_marker_exists(7, "incomplete"));
    EXPECT_EQ(store.read("sent/7/incomplete"), "");
    EXPECT_THAT(mode_and_owner(store.path("sent/7/incomplete")), StartsWith("0600"));
}

TEST(SentMarker, ThatIsThereIsKept) {
    const scratch_store store;
    store.write("sent/7/revoked", "200\n");
    EXPECT_EQ(sent_marker_create(7, "revoked"), 0);
    EXPECT_EQ(store.read("sent/7/revoked"), "200\n");
}

TEST(SentMarker, IsNotCreatedThroughALink) {
    const scratch_store store;
    store.make_message("7");
    std::filesystem::create_symlink("elsewhere", store.path("sent/7/incomplete"));
    EXPECT_EQ(sent_marker_create(7, "incomplete"), -1);
    EXPECT_EQ(errno, ELOOP);
    EXPECT_FALSE(store.exists("sent/7/elsewhere"));
    EXPECT_TRUE(sent_marker_exists(7, "incomplete")); // whatever it is
}

TEST(SentMarker, ThatCannotBeCreatedIsAnErrorAndNotPrinted) {
    const scratch_store store;
    const child_result child = run_in_child(
        [] { return sent_marker_create(7, "incomplete") == -1 && errno == ENOENT ? 10 : 20; });
    EXPECT_EQ(child.exit_status, 10);
    EXPECT_EQ(child.out + child.err, "");
    EXPECT_FALSE(store.exists("sent/7"));
}

TEST(SentMarker, NamedPipeInItsPlaceDoesNotBlock) {
    const scratch_store store;
    store.make_message("7");
    make_fifo(store.path("sent/7/incomplete"));
    EXPECT_EQ(sent_marker_create(7, "incomplete"), -1);
    EXPECT_EQ(errno, ENXIO);
    EXPECT_TRUE(sent_marker_exists(7, "incomplete"));
}

TEST(SentMarker, IsAbsentWhereThereIsNoMessage) {
    const scratch_store store;
    EXPECT_EQ(sent_marker_look_up(7, "failed"), lookup::absent);
    store.write("sent/7", "a file");
    EXPECT_EQ(sent_marker_look_up(7, "failed"), lookup::absent);
    EXPECT_FALSE(sent_marker_exists(7, "failed"));
}

TEST(SentMarker, IsFoundWhateverItIs) {
    const scratch_store store;
    store.make_message("7");
    std::filesystem::create_symlink("nowhere", store.path("sent/7/failed"));
    EXPECT_EQ(sent_marker_look_up(7, "failed"), lookup::found);
    EXPECT_TRUE(sent_marker_exists(7, "failed"));
}

TEST(SentMarker, IsNeitherFoundNorAbsentWhereItCannotBeLookedUp) {
    const scratch_store store;
    std::filesystem::create_symlink("7", store.path("sent/7")); // leads nowhere else
    EXPECT_EQ(sent_marker_look_up(7, "failed"), lookup::failed);
    EXPECT_EQ(errno, ELOOP);
    EXPECT_FALSE(sent_marker_exists(7, "failed"));
}

TEST(SentMarker, WithATimeHoldsTheClock) {
    const scratch_store store;
    store.make_message("7");
    const int64_t before = now();
    EXPECT_EQ(sent_marker_write_time(7, "revoked"), 0);
    const int64_t after = now();
    EXPECT_LE(before, revocation_time(7));
    EXPECT_LE(revocation_time(7), after);
    EXPECT_EQ(store.read("sent/7/revoked"), std::to_string(revocation_time(7)) + "\n");
    EXPECT_THAT(mode_and_owner(store.path("sent/7/revoked")), StartsWith("0600"));
    EXPECT_FALSE(store.exists("sent/7/revoked.tmp"));
}

TEST(SentMarker, WithATimeReportsItsFailure) {
    const scratch_store store;
    EXPECT_EQ(sent_marker_write_time(7, "revoked"), -1);
    EXPECT_EQ(errno, ENOENT);
}

TEST(SentRevocationTime, IsTheNumberInTheMarker) {
    const scratch_store store;
    for (const char *text : {"200\n", "200", "200\nand more\n", "0200\n"}) {
        store.write("sent/7/revoked", text);
        EXPECT_EQ(revocation_time(7), 200) << text;
    }
}

TEST(SentRevocationTime, IsZeroWhereThereIsNoNumber) {
    const scratch_store store;
    EXPECT_EQ(revocation_time(7), 0); // missing
    for (const std::string &text : {std::string(), std::string("abc\n"), std::string("-200\n"),
                                    "200\n" + std::string(61, 'x')}) {
        store.write("sent/7/revoked", text);
        EXPECT_EQ(revocation_time(7), 0) << text;
    }
}

TEST(SentRevocationTime, IsZeroWhereTheMarkerIsNoFile) {
    const scratch_store store;
    store.write("sent/7/elsewhere", "200\n");
    std::filesystem::create_symlink("elsewhere", store.path("sent/7/revoked"));
    EXPECT_EQ(revocation_time(7), 0);
    store.make_message("8");
    make_fifo(store.path("sent/8/revoked"));
    EXPECT_EQ(revocation_time(8), 0);
}
