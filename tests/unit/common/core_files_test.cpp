#include "common/core.h"

#include "support.h"

#include <gmock/gmock.h>

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>

using testing::StartsWith;

namespace {

struct pipe_pair {
    unique_fd read_end;
    unique_fd write_end;

    explicit pipe_pair(int flags = 0) {
        int fds[2];
        if (pipe2(fds, O_CLOEXEC | flags) != 0)
            throw_errno("pipe2");
        read_end.reset(fds[0]);
        write_end.reset(fds[1]);
    }
};

struct read_result {
    int result;
    int error;
    std::string text;
};

read_result read_limited(const std::string &path, size_t max, bool nofollow = true) {
    strbuf text;
    errno = 0;
    const int result = read_file_limited(path.c_str(), max, nofollow, &text);
    return {result, errno, std::string(text.view())};
}

int pipe_fd = -1;

void write_and_close() {
    if (write(pipe_fd, "abc", 3) != 3)
        _exit(99);
    close(pipe_fd);
}

std::string *read_so_far; // has its room before the handler runs

void read_everything() {
    char chunk[4096];
    ssize_t length = 0;
    while ((length = read(pipe_fd, chunk, sizeof chunk)) > 0)
        read_so_far->append(chunk, static_cast<size_t>(length));
}

} // namespace

// ---- Reading a descriptor -----------------------------------------------------------------

TEST(ReadFdLimited, ReadsToTheEnd) {
    const scratch_directory scratch;
    const std::string content(20'000, 'x'); // more than two chunks
    scratch.write("file", content);
    const unique_fd fd(open(scratch.path("file").c_str(), O_RDONLY | O_CLOEXEC));
    strbuf text;
    EXPECT_EQ(read_fd_limited(fd.get(), 1'000'000, &text), 0);
    EXPECT_EQ(text.view(), content);
}

TEST(ReadFdLimited, KeepsTheLimitAndReadsTheRestAway) {
    const pipe_pair pipe(O_NONBLOCK);
    const std::string content = "0123456789" + std::string(20'000, 'x');
    ASSERT_EQ(write_all(pipe.write_end.get(), content.data(), content.size()), 0);
    strbuf text;
    EXPECT_EQ(read_fd_limited(pipe.read_end.get(), 10, &text), -1); // the writer stays open
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(text.view(), "0123456789");
}

TEST(ReadFdLimited, CountsWhatTheBufferHeldBefore) {
    const scratch_directory scratch;
    scratch.write("file", "abcdef");
    const unique_fd fd(open(scratch.path("file").c_str(), O_RDONLY | O_CLOEXEC));
    strbuf text;
    strbuf_append_str(&text, "1234");
    EXPECT_EQ(read_fd_limited(fd.get(), 6, &text), 0);
    EXPECT_EQ(text.view(), "1234ab");
}

TEST(ReadFdLimited, FullBufferGetsNothingMore) {
    const scratch_directory scratch;
    scratch.write("file", "abcdef");
    const unique_fd fd(open(scratch.path("file").c_str(), O_RDONLY | O_CLOEXEC));
    strbuf text;
    strbuf_append_str(&text, "12345678");
    EXPECT_EQ(read_fd_limited(fd.get(), 6, &text), 0);
    EXPECT_EQ(text.view(), "12345678");
}

TEST(ReadFdLimited, ReportsTheErrorOfTheRead) {
    const unique_fd fd(open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    strbuf text;
    EXPECT_EQ(read_fd_limited(fd.get(), 10, &text), -1);
    EXPECT_EQ(errno, EISDIR);
}

TEST(ReadFdLimited, RepeatsAnInterruptedRead) {
    const child_result child = run_in_child([] {
        pipe_pair pipe;
        pipe_fd = pipe.write_end.release();
        interrupt_calls(write_and_close);
        strbuf text;
        const int result = read_fd_limited(pipe.read_end.get(), 10, &text);
        stop_interrupting();
        printf("%d %s", result, text.data);
    });
    EXPECT_EQ(child.out, "0 abc");
}

// ---- Reading a file -----------------------------------------------------------------------

TEST(ReadFileLimited, AppendsTheFile) {
    const scratch_directory scratch;
    scratch.write("file", "world");
    strbuf text;
    strbuf_append_str(&text, "hello ");
    EXPECT_EQ(read_file_limited(scratch.path("file").c_str(), 100, true, &text), 0);
    EXPECT_EQ(text.view(), "hello world");
}

TEST(ReadFileLimited, TakesAFileOfExactlyTheLimit) {
    const scratch_directory scratch;
    scratch.write("file", "12345");
    const read_result read = read_limited(scratch.path("file"), 5);
    EXPECT_EQ(read.result, 0);
    EXPECT_EQ(read.text, "12345");
}

TEST(ReadFileLimited, RefusesALongerFileWhole) {
    const scratch_directory scratch;
    scratch.write("file", "123456");
    const read_result read = read_limited(scratch.path("file"), 5);
    EXPECT_EQ(read.result, -1);
    EXPECT_EQ(read.error, EFBIG);
    EXPECT_EQ(read.text, "");
}

TEST(ReadFileLimited, TakesAnEmptyFile) {
    const scratch_directory scratch;
    scratch.write("file", "");
    EXPECT_EQ(read_limited(scratch.path("file"), 0).result, 0);
}

TEST(ReadFileLimited, RefusesADirectory) {
    const read_result read = read_limited("/tmp", 100);
    EXPECT_EQ(read.result, -1);
    EXPECT_EQ(read.error, EINVAL);
}

TEST(ReadFileLimited, TakesNoTerminalInItsPlaceForItsOwn) {
    const child_result child = run_in_child([] {
        const unique_fd other_end(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
        if (setsid() < 0 || grantpt(other_end.get()) != 0 || unlockpt(other_end.get()) != 0)
            return 20;
        strbuf text;
        if (read_file_limited(ptsname(other_end.get()), 10, /*nofollow=*/true, &text) == 0)
            return 30;
        const unique_fd own(open("/dev/tty", O_RDWR | O_CLOEXEC));
        return own ? 40 : 10;
    });
    EXPECT_EQ(child.exit_status, 10);
}

TEST(ReadFileLimited, RefusesANamedPipeWithoutBlocking) {
    const scratch_directory scratch;
    make_fifo(scratch.path("pipe"));
    EXPECT_EQ(read_limited(scratch.path("pipe"), 100).error, EINVAL);
}

TEST(ReadFileLimited, RefusesADevice) {
    EXPECT_EQ(read_limited("/dev/zero", 100).error, EINVAL);
}

TEST(ReadFileLimited, ReportsAMissingFile) {
    const scratch_directory scratch;
    EXPECT_EQ(read_limited(scratch.path("missing"), 100).error, ENOENT);
}

TEST(ReadFileLimited, FollowsASymbolicLinkOnlyWhenAllowed) {
    const scratch_directory scratch;
    scratch.write("file", "text");
    std::filesystem::create_symlink("file", scratch.path("link"));
    EXPECT_EQ(read_limited(scratch.path("link"), 100, /*nofollow=*/true).error, ELOOP);
    EXPECT_EQ(read_limited(scratch.path("link"), 100, /*nofollow=*/false).text, "text");
}

TEST(ReadFileLimited, LeavesNoDescriptorOpen) {
    const scratch_directory scratch;
    scratch.write("file", "123456");
    const size_t before = open_descriptors();
    EXPECT_EQ(read_limited(scratch.path("file"), 100).result, 0);
    EXPECT_EQ(read_limited(scratch.path("file"), 5).result, -1);
    EXPECT_EQ(read_limited(scratch.path(), 100).result, -1);
    EXPECT_EQ(open_descriptors(), before);
}

// ---- Writing ------------------------------------------------------------------------------

TEST(WriteAll, WritesEveryByte) {
    const scratch_directory scratch;
    const unique_fd fd(open(scratch.path("file").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    const std::string content(300'000, 'x');
    EXPECT_EQ(write_all(fd.get(), content.data(), content.size()), 0);
    EXPECT_EQ(scratch.read("file"), content);
}

TEST(WriteAll, NothingToWriteSucceedsAtOnce) {
    EXPECT_EQ(write_all(-1, nullptr, 0), 0);
}

TEST(WriteAll, ReportsTheErrorOfTheWrite) {
    const unique_fd full(open("/dev/full", O_WRONLY | O_CLOEXEC));
    EXPECT_EQ(write_all(full.get(), "x", 1), -1);
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_EQ(write_all(-1, "x", 1), -1);
    EXPECT_EQ(errno, EBADF);
}

TEST(WriteAll, GoesOnAfterInterruptionsAndShortWrites) {
    const child_result child = run_in_child([] {
        pipe_pair pipe;
        std::string content;
        while (content.size() < 100'000) // more than the pipe takes
            content += std::to_string(content.size()) + "\n";
        std::string received;
        received.reserve(2 * content.size());
        read_so_far = &received;
        pipe_fd = pipe.read_end.get();
        fcntl(pipe_fd, F_SETFL, O_NONBLOCK);
        interrupt_calls(read_everything);
        const int result = write_all(pipe.write_end.get(), content.data(), content.size());
        stop_interrupting();
        read_everything();
        return result == 0 && received == content ? 10 : 20;
    });
    EXPECT_EQ(child.exit_status, 10);
}

TEST(WriteFileAtomic, CreatesTheFileUnderTheMask) {
    const scratch_directory scratch;
    const mode_t mask = umask(022);
    EXPECT_EQ(write_file_atomic(scratch.path("a").c_str(), "text", 4, 0600), 0);
    EXPECT_EQ(write_file_atomic(scratch.path("b").c_str(), "text", 4, 0666), 0);
    umask(mask);
    EXPECT_EQ(scratch.read("a"), "text");
    EXPECT_THAT(mode_and_owner(scratch.path("a")), StartsWith("0600"));
    EXPECT_THAT(mode_and_owner(scratch.path("b")), StartsWith("0644"));
    EXPECT_FALSE(scratch.exists("a.tmp"));
}

TEST(WriteFileAtomic, ReplacesTheFileByANewOne) {
    const scratch_directory scratch;
    scratch.write("file", "old and longer");
    const unique_fd old(open(scratch.path("file").c_str(), O_RDONLY | O_CLOEXEC));
    EXPECT_EQ(write_file_atomic(scratch.path("file").c_str(), "new", 3, 0600), 0);
    EXPECT_EQ(scratch.read("file"), "new");
    strbuf text;
    EXPECT_EQ(read_fd_limited(old.get(), 100, &text), 0);
    EXPECT_EQ(text.view(), "old and longer"); // who had it open still reads the old one
}

TEST(WriteFileAtomic, TakesAnEmptyContent) {
    const scratch_directory scratch;
    EXPECT_EQ(write_file_atomic(scratch.path("file").c_str(), "", 0, 0600), 0);
    EXPECT_EQ(scratch.read("file"), "");
}

TEST(WriteFileAtomic, ReplacesASymbolicLinkInsteadOfFollowingIt) {
    const scratch_directory scratch;
    scratch.write("target", "untouched");
    std::filesystem::create_symlink("target", scratch.path("file"));
    EXPECT_EQ(write_file_atomic(scratch.path("file").c_str(), "new", 3, 0600), 0);
    EXPECT_EQ(scratch.read("target"), "untouched");
    EXPECT_FALSE(std::filesystem::is_symlink(scratch.path("file")));
}

TEST(WriteFileAtomic, RemovesAStaleTemporaryFile) {
    const scratch_directory scratch;
    scratch.write("file.tmp", "stale and longer");
    EXPECT_EQ(write_file_atomic(scratch.path("file").c_str(), "new", 3, 0600), 0);
    EXPECT_EQ(scratch.read("file"), "new");
    EXPECT_FALSE(scratch.exists("file.tmp"));
}

TEST(WriteFileAtomic, DoesNotWriteThroughALinkInPlaceOfTheTemporaryFile) {
    const scratch_directory scratch;
    scratch.write("target", "untouched");
    std::filesystem::create_symlink("target", scratch.path("file.tmp"));
    EXPECT_EQ(write_file_atomic(scratch.path("file").c_str(), "new", 3, 0600), 0);
    EXPECT_EQ(scratch.read("target"), "untouched");
    EXPECT_EQ(scratch.read("file"), "new");
}

TEST(WriteFileAtomic, ReportsAMissingDirectory) {
    const scratch_directory scratch;
    EXPECT_EQ(write_file_atomic(scratch.path("no/file").c_str(), "new", 3, 0600), -1);
    EXPECT_EQ(errno, ENOENT);
}

TEST(WriteFileAtomic, TemporaryNameThatCannotBeFreedFails) {
    const scratch_directory scratch;
    scratch.write("file", "old");
    std::filesystem::create_directory(scratch.path("file.tmp"));
    EXPECT_EQ(write_file_atomic(scratch.path("file").c_str(), "new", 3, 0600), -1);
    EXPECT_EQ(errno, EEXIST);
    EXPECT_EQ(scratch.read("file"), "old");
}

TEST(WriteFileAtomic, FailedRenameRemovesTheTemporaryFile) {
    const scratch_directory scratch;
    std::filesystem::create_directory(scratch.path("file"));
    EXPECT_EQ(write_file_atomic(scratch.path("file").c_str(), "new", 3, 0600), -1);
    EXPECT_EQ(errno, EISDIR);
    EXPECT_FALSE(scratch.exists("file.tmp"));
}

TEST(CreateFileAtomic, WritesAFileThatIsNotThere) {
    const scratch_directory scratch;
    EXPECT_EQ(create_file_atomic(scratch.path("file").c_str(), "new", 3, 0600), 0);
    EXPECT_EQ(scratch.read("file"), "new");
    EXPECT_FALSE(scratch.exists("file.tmp"));
}

TEST(CreateFileAtomic, DoesTheSameWhereNothingIsRenamedWithoutReplacing) {
    for (const int error : {EINVAL, ENOSYS}) {
        const scratch_directory scratch;
        const child_result child = run_in_child([&] {
            refuse_call(SYS_renameat2, static_cast<uint32_t>(error));
            const std::string path = scratch.path("file");
            printf("%d", create_file_atomic(path.c_str(), "new", 3, 0600));
            printf(" %d", create_file_atomic(path.c_str(), "newer", 5, 0600));
            printf(" %s", strerrorname_np(errno));
        });
        EXPECT_EQ(child.out, "0 -1 EEXIST");
        EXPECT_EQ(scratch.read("file"), "new");
        EXPECT_FALSE(scratch.exists("file.tmp"));
    }
}

TEST(CreateFileAtomic, FailsWhereNothingCanBeRenamed) {
    const scratch_directory scratch;
    const child_result child = run_in_child([&] {
        refuse_call(SYS_renameat2, EIO);
        printf("%d", create_file_atomic(scratch.path("file").c_str(), "new", 3, 0600));
        printf(" %s", strerrorname_np(errno));
    });
    EXPECT_EQ(child.out, "-1 EIO");
    EXPECT_FALSE(scratch.exists("file"));
    EXPECT_FALSE(scratch.exists("file.tmp"));
}

TEST(CreateFileAtomic, LeavesAFileThatIsThere) {
    const scratch_directory scratch;
    scratch.write("file", "old");
    EXPECT_EQ(create_file_atomic(scratch.path("file").c_str(), "new", 3, 0600), -1);
    EXPECT_EQ(errno, EEXIST);
    EXPECT_EQ(scratch.read("file"), "old");
    EXPECT_FALSE(scratch.exists("file.tmp"));
}

TEST(WriteFileAtomic, FailedWriteKeepsTheOldFile) {
    const scratch_directory scratch;
    scratch.write("file", "old");
    const child_result child = run_in_child([&scratch] {
        limit_files(10);
        const std::string content(100, 'x');
        return write_file_atomic(scratch.path("file").c_str(), content.data(), content.size(),
                                 0600) == -1
                   ? errno
                   : 0;
    });
    EXPECT_EQ(child.exit_status, EFBIG);
    EXPECT_EQ(scratch.read("file"), "old");
    EXPECT_FALSE(scratch.exists("file.tmp"));
}

// ---- Syncing ------------------------------------------------------------------------------

using sync_function = int (*)(const char *);

TEST(SyncPath, TakesFilesAndDirectories) {
    const environment_variable in_memory("TMPDIR", "/dev/shm"); // a disk holds others' data too
    const scratch_directory scratch;
    scratch.write("file", "text");
    for (const sync_function sync : {fsync_path, syncfs_path}) {
        EXPECT_EQ(sync(scratch.path("file").c_str()), 0);
        EXPECT_EQ(sync(scratch.path().c_str()), 0);
    }
}

TEST(SyncPath, ReportsWhatCannotBeOpened) {
    const scratch_directory scratch;
    for (const sync_function sync : {fsync_path, syncfs_path}) {
        EXPECT_EQ(sync(scratch.path("missing").c_str()), -1);
        EXPECT_EQ(errno, ENOENT);
    }
}

TEST(SyncPath, DoesNotFollowASymbolicLink) {
    const scratch_directory scratch;
    std::filesystem::create_symlink(".", scratch.path("link"));
    for (const sync_function sync : {fsync_path, syncfs_path}) {
        EXPECT_EQ(sync(scratch.path("link").c_str()), -1);
        EXPECT_EQ(errno, ELOOP);
    }
}

TEST(SyncPath, NamedPipeDoesNotBlock) {
    const scratch_directory scratch;
    make_fifo(scratch.path("pipe"));
    EXPECT_EQ(fsync_path(scratch.path("pipe").c_str()), -1);
    EXPECT_EQ(errno, EINVAL);
}

// ---- Predicates ---------------------------------------------------------------------------

TEST(PathExists, IsTrueForADanglingLink) {
    const scratch_directory scratch;
    scratch.write("file", "");
    std::filesystem::create_symlink("nowhere", scratch.path("dangling"));
    EXPECT_EQ(path_exists(scratch.path("file").c_str()), 1);
    EXPECT_EQ(path_exists(scratch.path().c_str()), 1);
    EXPECT_EQ(path_exists(scratch.path("dangling").c_str()), 1);
    EXPECT_EQ(path_exists(scratch.path("missing").c_str()), 0);
}

TEST(IsDirectory, IsFalseForALinkToADirectory) {
    const scratch_directory scratch;
    scratch.write("file", "");
    std::filesystem::create_symlink(".", scratch.path("link"));
    EXPECT_EQ(is_directory(scratch.path().c_str()), 1);
    EXPECT_EQ(is_directory(scratch.path("link").c_str()), 0);
    EXPECT_EQ(is_directory(scratch.path("file").c_str()), 0);
    EXPECT_EQ(is_directory(scratch.path("missing").c_str()), 0);
}

// ---- Entries of a directory ---------------------------------------------------------------

TEST(NextEntry, GivesEachEntryAndThenNoneWithoutAnError) {
    const scratch_directory scratch;
    scratch.write("only", "");
    const unique_dir directory(opendir(scratch.path().c_str()));
    ASSERT_TRUE(directory);
    std::string names;
    while (const dirent *entry = next_entry(directory.get())) {
        names += entry->d_name[0] == '.' ? "" : entry->d_name;
        errno = ENOSPC; // whatever the caller does with it
    }
    EXPECT_EQ(errno, 0);
    EXPECT_EQ(names, "only");
}

TEST(NextEntry, ReportsADirectoryThatCannotBeRead) {
    const scratch_directory scratch;
    const unique_dir directory(opendir(scratch.path().c_str()));
    ASSERT_TRUE(directory);
    const unique_fd file(open("/dev/null", O_RDONLY | O_CLOEXEC));
    ASSERT_GE(dup2(file.get(), dirfd(directory.get())), 0); // no directory any more
    EXPECT_EQ(next_entry(directory.get()), nullptr);
    EXPECT_EQ(errno, ENOTDIR);
}

// ---- Numbered entries ---------------------------------------------------------------------

TEST(ListNumericEntries, ComeInNumericOrderWithoutTheOthers) {
    const scratch_directory scratch;
    for (const char *name : {"10", "9", "100", ".seq", ".deleting-5", "1a", "-1", "lock"})
        scratch.write(name, "");
    strlist list;
    EXPECT_EQ(list_numeric_entries(scratch.path().c_str(), &list), 0);
    EXPECT_EQ(joined(list), "9 10 100");
}

TEST(ListNumericEntries, HaveAtMostEighteenDigits) {
    const scratch_directory scratch;
    scratch.write("999999999999999999", "");
    scratch.write("1000000000000000000", "");
    strlist list;
    EXPECT_EQ(list_numeric_entries(scratch.path().c_str(), &list), 0);
    EXPECT_EQ(joined(list), "999999999999999999");
}

TEST(ListNumericEntries, AreOfAnyKind) {
    const scratch_directory scratch;
    scratch.write("3", "");
    std::filesystem::create_directory(scratch.path("2"));
    std::filesystem::create_symlink("nowhere", scratch.path("1"));
    strlist list;
    EXPECT_EQ(list_numeric_entries(scratch.path().c_str(), &list), 0);
    EXPECT_EQ(joined(list), "1 2 3");
}

TEST(ListNumericEntries, AreSortedIntoWhatTheListHeld) {
    const scratch_directory scratch;
    scratch.write("7", "");
    strlist list;
    strlist_push_dup(&list, "10");
    EXPECT_EQ(list_numeric_entries(scratch.path().c_str(), &list), 0);
    EXPECT_EQ(joined(list), "7 10");
}

TEST(ListNumericEntries, EmptyDirectoryHasNone) {
    const scratch_directory scratch;
    strlist list;
    EXPECT_EQ(list_numeric_entries(scratch.path().c_str(), &list), 0);
    EXPECT_EQ(list.count, 0U);
}

TEST(ListNumericEntries, ReportsADirectoryThatCannotBeOpened) {
    const scratch_directory scratch;
    scratch.write("file", "");
    strlist list;
    EXPECT_EQ(list_numeric_entries(scratch.path("missing").c_str(), &list), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(list_numeric_entries(scratch.path("file").c_str(), &list), -1);
    EXPECT_EQ(errno, ENOTDIR);
}
