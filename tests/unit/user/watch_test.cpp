#include "user/watch.h"

#include "user_support.h"

namespace {

namespace files = std::filesystem;

// A watch on a mailbox.
struct Watch : testing::Test {
    void arm() {
        watch.arm(mailbox.owner);
        (void)changes();
    }
    // How many changes were told since the last call.
    [[nodiscard]] int changes() {
        run_what_is_ready(loop);
        return std::exchange(told, 0);
    }

    const tried_mailbox mailbox;
    const unique_loop loop = new_loop();
    int told = 0;
    mailbox_watch watch{loop.get(), [this] { told++; }};
};

TEST_F(Watch, TellsOfEachWayInWhichAFileComesChangesAndGoes) {
    for (const std::string folder : {"inbox/", "acks/", "state/"}) {
        mailbox.put(folder + "1", "");
        arm();
        files::create_hard_link(mailbox.file(folder + "1"), mailbox.file(folder + "2"));
        EXPECT_EQ(changes(), 1) << folder << "a name is given";
        mailbox.put(folder + "1", "more");
        EXPECT_EQ(changes(), 1) << folder << "it is written to";
        files::rename(mailbox.file(folder + "1"), mailbox.path("outside"));
        EXPECT_EQ(changes(), 1) << folder << "it is moved away";
        files::rename(mailbox.path("outside"), mailbox.file(folder + "1"));
        EXPECT_EQ(changes(), 1) << folder << "it is moved there";
        files::remove(mailbox.file(folder + "1"));
        EXPECT_EQ(changes(), 1) << folder << "it is removed";
    }
}

TEST_F(Watch, FindsAMailboxThatAppears) {
    files::remove_all(mailbox.path("users"));
    arm();
    files::create_directories(mailbox.file("inbox"));
    EXPECT_GT(changes(), 0);
    arm();
    mailbox.put_message(1);
    EXPECT_GT(changes(), 0);
}

TEST_F(Watch, FindsAFolderThatTakesThePlaceOfAnother) {
    arm();
    files::rename(mailbox.file("inbox"), mailbox.path("outside"));
    files::create_directory(mailbox.file("inbox"));
    EXPECT_GT(changes(), 0);
    arm();
    mailbox.put_message(1);
    EXPECT_GT(changes(), 0);
    write_file(mailbox.path("outside/2"), "");
    EXPECT_EQ(changes(), 0);
}

TEST_F(Watch, TellsOfAMailboxThatIsMovedAway) {
    arm();
    files::rename(mailbox.file(""), mailbox.path("outside"));
    EXPECT_GT(changes(), 0);
}

TEST_F(Watch, TakesNoFileAndNoLinkForAFolder) {
    files::remove(mailbox.file("acks"));
    files::remove(mailbox.file("state"));
    files::create_directory(mailbox.path("outside"));
    files::create_directory_symlink(mailbox.path("outside"), mailbox.file("acks"));
    mailbox.put("state", "");
    arm();
    write_file(mailbox.path("outside/1"), "");
    EXPECT_EQ(changes(), 0);
    mailbox.put("state", "more");
    EXPECT_EQ(changes(), 1); // told of the mailbox, in which it is
}

} // namespace
