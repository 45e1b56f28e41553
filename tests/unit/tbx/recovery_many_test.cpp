// Recovery of several interrupted messages: each mailbox is asked once.
#include "tbx/recovery.h"

#include "support.h"

#include <pthread.h>

#include <string>
#include <vector>

namespace {

constexpr int MESSAGES = 5;

std::string copy_of(int id) {
    return xasprintf("format: 1\nid: %d\ndate: 5\n\nHello %d\n", id, id);
}

// The messages 1 to 5 to pat and sam, saved and then interrupted.
class interrupted_messages {
    const environment_variable in_memory_{"TMPDIR", "/dev/shm"}; // its file system is synced
    const scratch_store store_;

public:
    interrupted_messages() {
        for (int id = 1; id <= MESSAGES; id++) {
            const std::string message = "sent/" + std::to_string(id) + "/";
            store_.write(message + "incomplete", "");
            store_.write(message + "msg", copy_of(id));
            store_.write(message + "recipients", "pat\nsam\n");
        }
    }
    [[nodiscard]] const scratch_store *operator->() const { return &store_; }

    // As a run delivered it before it was interrupted.
    void deliver(const std::string &user, int id) const {
        store_.write("users/" + user + "/inbox/" + std::to_string(id), copy_of(id));
        const std::string log = "sent/" + std::to_string(id) + "/delivery";
        store_.write(log, (store_.exists(log) ? store_.read(log) : "") + user + " 100 0\n");
    }
    [[nodiscard]] bool holds(const std::string &user, int id) const {
        const std::string copy = "users/" + user + "/inbox/" + std::to_string(id);
        return store_.exists(copy) && store_.read(copy) == copy_of(id);
    }
    [[nodiscard]] int interrupted() const {
        int count = 0;
        for (int id = 1; id <= MESSAGES; id++)
            count += store_.exists("sent/" + std::to_string(id) + "/incomplete") ? 1 : 0;
        return count;
    }
};

int forks = 0; // counted in a child

// How many children recovery starts, and what it says.
struct recovered {
    int children;
    std::string warnings;
};

recovered recover() {
    const child_result child = run_on(machine_of_pat_and_sam(), [] {
        const journal_stand_in journal;
        pthread_atfork([] { forks++; }, nullptr, nullptr);
        recover_interrupted();
        printf("%d", forks);
    });
    EXPECT_EQ(child.exit_status, 0) << child.err;
    return {std::stoi(child.out), child.err};
}

} // namespace

TEST(RecoverMany, AsksEachMailboxOnceWhereNothingIsMissing) {
    SKIP_UNLESS_ROOT();
    const interrupted_messages messages;
    for (int id = 1; id <= MESSAGES; id++)
        for (const char *user : {"pat", "sam"})
            messages.deliver(user, id);
    const recovered run = recover();
    EXPECT_EQ(run.children, 2);
    EXPECT_EQ(run.warnings, "");
    EXPECT_EQ(messages.interrupted(), 0);
}

TEST(RecoverMany, StartsOneMoreChildForEachMissingCopy) {
    SKIP_UNLESS_ROOT();
    const interrupted_messages messages;
    for (int id = 1; id <= MESSAGES; id++)
        for (const char *user : {"pat", "sam"})
            if (id != 3 && !(id == 5 && user == std::string("sam")))
                messages.deliver(user, id);
    const recovered run = recover();
    EXPECT_EQ(run.children, 2 + 3);
    EXPECT_EQ(run.warnings, "tbx: completed delivery of message 3 to 2 recipients\n"
                            "tbx: completed delivery of message 5 to 1 recipients\n");
    EXPECT_EQ(messages.interrupted(), 0);
    for (int id = 1; id <= MESSAGES; id++)
        EXPECT_TRUE(messages.holds("pat", id) && messages.holds("sam", id)) << id;
}

TEST(RecoverMany, StartsNoChildForCopiesThatCannotBeDelivered) {
    SKIP_UNLESS_ROOT();
    const interrupted_messages messages;
    for (int id = 1; id <= MESSAGES; id++) {
        messages.deliver("sam", id);
        std::filesystem::create_directories(
            messages->path("users/pat/inbox/" + std::to_string(id)));
    }
    const recovered run = recover();
    EXPECT_EQ(run.children, 2);
    EXPECT_EQ(messages.interrupted(), MESSAGES);
}

TEST(RecoverMany, StartsOneChildForAMailboxThatIsNotThere) {
    SKIP_UNLESS_ROOT();
    const interrupted_messages messages;
    for (int id = 1; id <= MESSAGES; id++)
        messages.deliver("sam", id);
    EXPECT_EQ(recover().children, 1 + MESSAGES); // nobody has to look into what is not there
    EXPECT_EQ(messages.interrupted(), 0);
    for (int id = 1; id <= MESSAGES; id++)
        EXPECT_TRUE(messages.holds("pat", id)) << id;
}

TEST(RecoverMany, HalfWrittenCopiesAreMadeWhole) {
    SKIP_UNLESS_ROOT();
    const interrupted_messages messages;
    for (int id = 1; id <= MESSAGES; id++)
        for (const char *user : {"pat", "sam"})
            messages.deliver(user, id);
    messages->write("users/pat/inbox/2", copy_of(2).substr(0, 9));
    std::string of_the_same_length = copy_of(4);
    of_the_same_length[1] = 'F';
    messages->write("users/sam/inbox/4", of_the_same_length);
    const recovered run = recover();
    EXPECT_EQ(run.children, 2 + 2);
    EXPECT_EQ(run.warnings, ""); // they are in the log already
    EXPECT_TRUE(messages.holds("pat", 2));
    EXPECT_TRUE(messages.holds("sam", 4));
}

TEST(RecoverMany, ASingleOneTakesOneChildForEachRecipient) {
    SKIP_UNLESS_ROOT();
    const interrupted_messages messages;
    for (int id = 2; id <= MESSAGES; id++)
        std::filesystem::remove(messages->path("sent/" + std::to_string(id) + "/incomplete"));
    EXPECT_EQ(recover().children, 2);
    EXPECT_EQ(messages.interrupted(), 0);
}

TEST(RecoverMany, WhatCannotBeLookedUpInAMailboxIsNotDeliveredAgain) {
    SKIP_UNLESS_ROOT();
    const interrupted_messages messages;
    for (int id = 1; id <= MESSAGES; id++)
        messages.deliver("sam", id);
    std::filesystem::create_directories(messages->path("users/pat"));
    std::filesystem::create_symlink("read", messages->path("users/pat/read")); // leads nowhere
    EXPECT_EQ(recover().children, 2);
    EXPECT_EQ(messages.interrupted(), MESSAGES);
    EXPECT_FALSE(messages->exists("users/pat/inbox"));
}
