// Finding a mailbox, also where something is mounted on it, without asking what a user mounted.
#include "tbx/mailbox.h"

#include "mailbox_support.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace {

const std::string MAILBOX = "/var/lib/tellbox/users/pat"; // in the child
const std::string COPY = "format: 1\nid: 7\ndate: 5\n\nHello\n";

// How the kernel answers openat2: as it is, or as an old one or a filter does.
constexpr uint32_t ANSWERS[] = {0, ENOSYS, EPERM};

void answer_openat2_with(uint32_t error) {
    if (error != 0)
        refuse_call(SYS_openat2, error);
}

// Mounts a FUSE file system of `uid` that nobody serves: whoever asks it anything waits for ever.
// The result keeps it as it is.
unique_fd mount_mute(uint32_t uid) {
    unique_fd device(open("/dev/fuse", O_RDWR | O_CLOEXEC));
    const std::string options = xasprintf("fd=%d,rootmode=40000,user_id=%u,group_id=%u,allow_other",
                                          device.get(), uid, uid);
    if (!device ||
        mount("mute", MAILBOX.c_str(), "fuse.mute", MS_NOSUID | MS_NODEV, options.c_str()) != 0)
        throw_errno("/dev/fuse");
    return device;
}

void mount_memory() {
    if (mount("tmpfs", MAILBOX.c_str(), "tmpfs", 0, "mode=700,uid=1001,gid=1001") != 0)
        throw_errno(MAILBOX);
}

std::string looked_up() {
    const mailbox_state state = mailbox_look_up(PAT);
    const int error = errno;
    return text_of(state) +
           (state == mailbox_state::failed ? std::string(" ") + strerror(error) : std::string());
}

// What is said of the mailbox after `prepare` has run, whatever openat2 answers.
template <typename Prepare>
void expect_state(const real_mailbox &mailbox, const std::string &state, Prepare prepare) {
    for (const uint32_t answer : ANSWERS)
        EXPECT_EQ(said_by(mailbox,
                          [&] {
                              [[maybe_unused]] const auto kept = prepare();
                              answer_openat2_with(answer);
                              return looked_up();
                          }),
                  state)
            << strerror(static_cast<int>(answer));
}

int nothing() {
    return 0;
}

} // namespace

// ---- Without a mount ----------------------------------------------------------------------

TEST(MailboxLookUp, FindsADirectory) {
    SKIP_UNLESS_ROOT();
    const real_mailbox mailbox;
    mailbox.make_directory();
    expect_state(mailbox, "found", nothing);
}

TEST(MailboxLookUp, IsAbsentWhereNothingIsOrSomethingElse) {
    SKIP_UNLESS_ROOT();
    const real_mailbox missing;
    expect_state(missing, "absent", nothing);
    const real_mailbox linked;
    std::filesystem::create_directory(linked.state_path("elsewhere"));
    std::filesystem::create_symlink("../elsewhere", linked.file());
    expect_state(linked, "absent", nothing);
    const real_mailbox file;
    write_file(file.file(), "a file");
    expect_state(file, "absent", nothing);
}

TEST(MailboxLookUp, IsAbsentWithoutTheUsersDirectory) {
    SKIP_UNLESS_ROOT();
    const real_mailbox mailbox;
    std::filesystem::remove(mailbox.state_path("users"));
    expect_state(mailbox, "absent", nothing);
}

TEST(MailboxLookUp, FailsOnWhateverElseTheSystemSays) {
    SKIP_UNLESS_ROOT();
    const real_mailbox mailbox;
    mailbox.make_directory();
    for (const int error : {EIO, EMFILE, ENFILE, ENOMEM, EAGAIN, EACCES, EUCLEAN, ESTALE,
                            ECONNREFUSED, ETIMEDOUT, ELOOP})
        EXPECT_EQ(said_by(mailbox,
                          [error] {
                              answer_openat2_with(static_cast<uint32_t>(error));
                              return looked_up();
                          }),
                  std::string("failed ") + strerror(error));
}

TEST(MailboxLookUp, FailsWhereTheUsersDirectoryCannotBeOpened) {
    SKIP_UNLESS_ROOT();
    const real_mailbox mailbox;
    mailbox.make_directory();
    for (const int error : {EIO, EMFILE, EACCES, EUCLEAN, ESTALE})
        EXPECT_EQ(said_by(mailbox,
                          [error] {
                              refuse_call(SYS_openat, static_cast<uint32_t>(error));
                              return looked_up();
                          }),
                  std::string("failed ") + strerror(error));
}

TEST(MailboxLookUp, LeavesNoDescriptorOpen) {
    SKIP_UNLESS_ROOT();
    const real_mailbox mailbox;
    mailbox.make_directory();
    for (const uint32_t answer : ANSWERS)
        EXPECT_EQ(said_by(mailbox,
                          [answer] {
                              answer_openat2_with(answer);
                              const size_t before = open_descriptors();
                              (void)looked_up();
                              return std::to_string(open_descriptors() - before);
                          }),
                  "0");
}

// ---- Where the administrator has mounted something ----------------------------------------

TEST(MailboxLookUp, FindsAFileSystemOfTheAdministrators) {
    SKIP_UNLESS_ROOT();
    const real_mailbox mailbox;
    mailbox.make_directory();
    expect_state(mailbox, "found", [] {
        mount_memory();
        return 0;
    });
}

TEST(MailboxLookUp, FindsADirectoryThatTheAdministratorHasBoundThere) {
    SKIP_UNLESS_ROOT();
    const real_mailbox mailbox;
    mailbox.make_directory();
    std::filesystem::create_directory(mailbox.state_path("on another disk"));
    expect_state(mailbox, "found", [] {
        if (mount("/var/lib/tellbox/on another disk", MAILBOX.c_str(), "none", MS_BIND, nullptr) !=
            0)
            throw_errno(MAILBOX);
        return 0;
    });
}

TEST(MailboxLookUp, FindsMailboxesOnAFileSystemOfTheirOwn) {
    SKIP_UNLESS_ROOT();
    const real_mailbox mailbox;
    expect_state(mailbox, "found", [] {
        if (mount("tmpfs", "/var/lib/tellbox/users", "tmpfs", 0, "mode=755") != 0)
            throw_errno("users");
        std::filesystem::create_directory(MAILBOX);
        return 0;
    });
}

TEST(MailboxLookUp, FindsWhatTheAdministratorHasLinkedTheUsersDirectoryTo) {
    SKIP_UNLESS_ROOT();
    const real_mailbox mailbox;
    std::filesystem::rename(mailbox.state_path("users"), mailbox.state_path("elsewhere"));
    std::filesystem::create_directory_symlink("elsewhere", mailbox.state_path("users"));
    std::filesystem::create_directory(mailbox.file());
    expect_state(mailbox, "found", [] {
        mount_memory(); // at the place without links, which the mount table names
        return 0;
    });
}

TEST(MailboxDeliver, WorksOnAFileSystemOfTheAdministrators) {
    SKIP_UNLESS_ROOT();
    for (const uint32_t answer : ANSWERS) {
        const real_mailbox mailbox;
        mailbox.make_directory();
        EXPECT_EQ(said_by(mailbox,
                          [answer] {
                              mount_memory();
                              answer_openat2_with(answer);
                              const bool delivered = mailbox_deliver(PAT, 7, COPY);
                              return delivered ? read_file(MAILBOX + "/inbox/7") : "not delivered";
                          }),
                  COPY);
    }
}

TEST(MailboxDeliver, CreatesTheMailboxWithoutOpenat2) {
    SKIP_UNLESS_ROOT();
    for (const uint32_t answer : {uint32_t{ENOSYS}, uint32_t{EPERM}}) {
        const real_mailbox mailbox;
        EXPECT_EQ(said_by(mailbox,
                          [answer] {
                              answer_openat2_with(answer);
                              return mailbox_deliver(PAT, 7, COPY) ? "delivered" : "not delivered";
                          }),
                  "delivered");
        EXPECT_EQ(mode_and_owner(mailbox.file()), "0700 1001 1001");
        EXPECT_EQ(mailbox.text("inbox/7"), COPY);
    }
}

TEST(MailboxDeliver, WithoutOpenat2ALinkOrFileInPlaceOfTheMailboxIsRefused) {
    SKIP_UNLESS_ROOT();
    const real_mailbox mailbox;
    std::filesystem::create_directory(mailbox.state_path("elsewhere"));
    std::filesystem::create_symlink("../elsewhere", mailbox.file());
    EXPECT_EQ(said_by(mailbox,
                      [] {
                          answer_openat2_with(ENOSYS);
                          return mailbox_deliver(PAT, 7, COPY) ? "delivered" : "not delivered";
                      }),
              "not delivered");
    EXPECT_TRUE(std::filesystem::is_empty(mailbox.state_path("elsewhere")));
    EXPECT_EQ(mode_and_owner(mailbox.state_path("elsewhere")).substr(4), " 0 0");
}

// ---- Where a user has mounted something ---------------------------------------------------
// Nothing here waits: a call that asked the file system would never return.

TEST(MailboxLookUp, IsBarredByAFileSystemOfTheUsers) {
    SKIP_UNLESS_ROOT();
    const real_mailbox mailbox;
    mailbox.make_directory();
    expect_state(mailbox, "barred", [] { return mount_mute(PAT_UID); });
}

TEST(MailboxLookUp, IsBarredByAFileSystemOfTheUsersOnTopOfTheAdministrators) {
    SKIP_UNLESS_ROOT();
    const real_mailbox mailbox;
    mailbox.make_directory();
    expect_state(mailbox, "barred", [] {
        mount_memory();
        return mount_mute(PAT_UID);
    });
}

TEST(MailboxLookUp, IsBarredWhereTheMountTableCannotBeRead) {
    SKIP_UNLESS_ROOT();
    const real_mailbox mailbox;
    mailbox.make_directory();
    EXPECT_NE(said_by(mailbox,
                      [] {
                          mount_memory();
                          leave_descriptors(1); // for the users directory alone
                          return looked_up();
                      }),
              "found");
}

TEST(MailboxOperations, DoNothingInAFileSystemOfTheUsersAndDoNotWait) {
    SKIP_UNLESS_ROOT();
    for (const uint32_t answer : ANSWERS) {
        const real_mailbox mailbox;
        mailbox.make_directory();
        EXPECT_EQ(said_by(mailbox,
                          [answer] {
                              const unique_fd mute = mount_mute(PAT_UID);
                              answer_openat2_with(answer);
                              const auto survey = mailbox_survey(PAT, {{7, 1, 1}});
                              return xasprintf(
                                  "%d %d %d %d %d", mailbox_deliver(PAT, 7, COPY),
                                  mailbox_withdraw(PAT, 7), mailbox_reset_shown(PAT, 7),
                                  mailbox_purge_message(PAT, 7), survey[0] == copy_state::unknown);
                          }),
                  "0 0 0 0 1");
    }
}
