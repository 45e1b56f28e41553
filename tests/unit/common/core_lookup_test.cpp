// Looking paths and stored files up: found, absent or failed.
#include "common/core.h"

#include "support.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace {

// Among them those of a disk, a network file system and a security module that do not answer.
constexpr int FAILURES[] = {EIO,   EMFILE, ENFILE,       ENOMEM,    EAGAIN, EACCES, EPERM, EUCLEAN,
                            ELOOP, ESTALE, ECONNREFUSED, ETIMEDOUT, ENXIO,  EBUSY,  ENODEV};

constexpr size_t MAX_BYTES = 5;

std::string text_of(lookup found) {
    return found == lookup::found ? "found" : found == lookup::absent ? "absent" : "failed";
}

// What read_stored_file() makes of the file, over a buffer that holds something.
std::string stored(const std::string &path) {
    strbuf text;
    strbuf_append_str(&text, "old");
    errno = 0;
    const lookup found = read_stored_file(path.c_str(), MAX_BYTES, &text);
    const int error = errno;
    return text_of(found) + " '" + std::string(text.view()) + "'" +
           (found == lookup::failed ? std::string(" ") + strerror(error) : "");
}

// What `ask` says in a child in which every call of this number fails with the error.
template <typename Ask> std::string said_without(uint32_t call, int error, Ask ask) {
    const child_result child = run_in_child([&] {
        refuse_call(call, static_cast<uint32_t>(error));
        fputs(ask().c_str(), stdout);
    });
    EXPECT_EQ(child.exit_status, 0) << child.err;
    return child.out;
}

std::string failed_with(int error) {
    return std::string("failed ") + strerror(error);
}

std::string with_error(lookup found) {
    const int error = errno;
    return text_of(found) +
           (found == lookup::failed ? std::string(" ") + strerror(error) : std::string());
}

} // namespace

// ---- What an error says -------------------------------------------------------------------

TEST(LookupOfError, SaysThatAPathIsAbsentForTwoErrorsOnly) {
    for (int error = 0; error < 134; error++) {
        const bool is_absent = error == ENOENT || error == ENOTDIR;
        EXPECT_EQ(lookup_of_error(error), is_absent ? lookup::absent : lookup::failed)
            << strerror(error);
    }
}

// ---- Paths --------------------------------------------------------------------------------

TEST(PathLookUp, FindsWhateverStandsThere) {
    const scratch_directory directory;
    directory.write("file", "");
    std::filesystem::create_symlink("nowhere", directory.path("link"));
    make_fifo(directory.path("pipe"));
    for (const char *name : {"file", "link", "pipe", "."})
        EXPECT_EQ(path_look_up(directory.path(name).c_str()), lookup::found) << name;
}

TEST(PathLookUp, IsAbsentWhereTheSystemSaysSo) {
    const scratch_directory directory;
    directory.write("file", "");
    for (const char *name : {"missing", "missing/below", "file/below"})
        EXPECT_EQ(path_look_up(directory.path(name).c_str()), lookup::absent) << name;
}

TEST(PathLookUp, FailsOnEveryOtherErrorAndLeavesIt) {
    const scratch_directory directory;
    directory.write("file", "");
    const std::string path = directory.path("file");
    for (const int error : FAILURES)
        EXPECT_EQ(said_without(SYS_newfstatat, error,
                               [&] { return with_error(path_look_up(path.c_str())); }),
                  failed_with(error));
}

TEST(DirectoryLookUp, FindsADirectoryOnly) {
    const scratch_directory directory;
    directory.write("file", "");
    std::filesystem::create_directory(directory.path("folder"));
    std::filesystem::create_directory_symlink("folder", directory.path("link"));
    make_fifo(directory.path("pipe"));
    EXPECT_EQ(directory_look_up(directory.path("folder").c_str()), lookup::found);
    for (const char *name : {"file", "link", "pipe", "missing", "file/below"})
        EXPECT_EQ(directory_look_up(directory.path(name).c_str()), lookup::absent) << name;
}

TEST(DirectoryLookUp, FailsOnEveryOtherErrorAndLeavesIt) {
    const scratch_directory directory;
    for (const int error : FAILURES)
        EXPECT_EQ(
            said_without(SYS_newfstatat, error,
                         [&] { return with_error(directory_look_up(directory.path().c_str())); }),
            failed_with(error));
}

// ---- Stored files -------------------------------------------------------------------------

TEST(ReadStoredFile, GivesTheFileInPlaceOfWhatTheBufferHeld) {
    const scratch_directory directory;
    directory.write("file", "12345");
    directory.write("empty", "");
    EXPECT_EQ(stored(directory.path("file")), "found '12345'");
    EXPECT_EQ(stored(directory.path("empty")), "found ''");
}

TEST(ReadStoredFile, IsAbsentWhereNothingIs) {
    const scratch_directory directory;
    directory.write("file", "");
    EXPECT_EQ(stored(directory.path("missing")), "absent ''");
    EXPECT_EQ(stored(directory.path("missing/below")), "absent ''");
    EXPECT_EQ(stored(directory.path("file/below")), "absent ''");
}

TEST(ReadStoredFile, IsAbsentWhereSomethingElseStands) {
    const scratch_directory directory;
    directory.write("file", "12345");
    std::filesystem::create_symlink("file", directory.path("link"));
    std::filesystem::create_symlink("link-to-itself", directory.path("link-to-itself"));
    std::filesystem::create_directory(directory.path("folder"));
    make_fifo(directory.path("pipe"));
    for (const char *name : {"link", "link-to-itself", "folder", "pipe"})
        EXPECT_EQ(stored(directory.path(name)), "absent ''") << name;
    EXPECT_EQ(stored("/dev/null"), "absent ''");
}

TEST(ReadStoredFile, IsAbsentWhereTheFileIsTooLong) {
    const scratch_directory directory;
    directory.write("file", "123456");
    EXPECT_EQ(stored(directory.path("file")), "absent ''");
}

TEST(ReadStoredFile, IsAbsentForSomethingElseWhateverOpeningItSays) {
    const scratch_directory directory;
    std::filesystem::create_directory(directory.path("folder"));
    std::filesystem::create_symlink("folder", directory.path("link"));
    for (const char *name : {"folder", "link"})
        EXPECT_EQ(said_without(SYS_openat, EIO, [&] { return stored(directory.path(name)); }),
                  "absent ''")
            << name;
}

TEST(ReadStoredFile, FailsWhereAFileCannotBeOpened) {
    const scratch_directory directory;
    directory.write("file", "12345");
    // ELOOP: a link was in the file's place a moment ago.
    for (const int error : FAILURES)
        EXPECT_EQ(said_without(SYS_openat, error, [&] { return stored(directory.path("file")); }),
                  std::string("failed '' ") + strerror(error));
}

TEST(ReadStoredFile, FailsWhereAFileCannotBeRead) {
    const scratch_directory directory;
    directory.write("file", "12345");
    for (const int error : FAILURES)
        EXPECT_EQ(said_without(SYS_read, error, [&] { return stored(directory.path("file")); }),
                  std::string("failed '' ") + strerror(error));
}

TEST(ReadStoredFile, FailsWhereNobodyCanTellWhatStandsThere) {
    const scratch_directory directory;
    std::filesystem::create_symlink("file", directory.path("link"));
    EXPECT_EQ(said_without(SYS_newfstatat, ESTALE, [&] { return stored(directory.path("link")); }),
              "failed '' Too many levels of symbolic links");
}

TEST(ReadStoredFile, FailsWhereThePathCannotBeWalked) {
    const scratch_directory directory;
    std::filesystem::create_symlink("loop", directory.path("loop"));
    EXPECT_EQ(stored(directory.path("loop/file")), "failed '' Too many levels of symbolic links");
    EXPECT_EQ(stored(directory.path(std::string(300, 'x'))), "failed '' File name too long");
}

TEST(ReadStoredFile, LeavesNoDescriptorOpen) {
    const scratch_directory directory;
    directory.write("file", "12345");
    directory.write("long", "123456");
    make_fifo(directory.path("pipe"));
    const size_t before = open_descriptors();
    for (const char *name : {"file", "long", "pipe", "missing"})
        (void)stored(directory.path(name));
    EXPECT_EQ(open_descriptors(), before);
}
