#include "tbx/command.h"

#include "support.h"
#include "tbx/sent.h"

namespace {

// Message 7, delivered to pat.
struct delivered_store : scratch_store {
    delivered_store() {
        write("sent/7/msg", "date: 5\n");
        write("sent/7/recipients", "pat\n");
        write("users/pat/inbox/7", "copy");
    }
};

child_result revoke() {
    return run_on(machine_of_pat_and_sam(), [] {
        const journal_stand_in journal;
        cmd_revoke("7");
        fflush(stdout);
        fputs(journal.events().c_str(), stdout);
    });
}

} // namespace

TEST(Revoke, WithdrawsTheCopiesAndLeavesNoMarkOfIt) {
    SKIP_UNLESS_ROOT();
    const delivered_store store;
    const child_result child = revoke();
    EXPECT_EQ(child.exit_status, 0) << child.err;
    EXPECT_EQ(child.out.substr(0, child.out.find(" user=")), "Message 7 revoked.\nREVOKED 7");
    EXPECT_FALSE(store.exists("users/pat/inbox/7"));
    EXPECT_FALSE(store.exists("sent/7/revoking"));
    EXPECT_TRUE(store.exists("sent/7/revoked"));
}

// Without the mark no later run would remove what this one could not.
TEST(Revoke, EndsWithNothingChangedWhereItsMarkCannotBeCreated) {
    SKIP_UNLESS_ROOT();
    const delivered_store store;
    std::filesystem::create_symlink("elsewhere", store.path("sent/7/revoking"));
    const child_result child = revoke();
    EXPECT_EQ(child.exit_status, 1);
    EXPECT_EQ(child.out, "");
    EXPECT_EQ(child.err,
              "tbx: " + store.path("sent/7/revoking") + ": Too many levels of symbolic links\n");
    EXPECT_FALSE(store.exists("sent/7/revoked"));
    EXPECT_TRUE(store.exists("users/pat/inbox/7"));
}

TEST(Revoke, SaysSoWhereAnAccountCannotBeLookedUp) {
    SKIP_UNLESS_ROOT();
    const delivered_store store;
    const child_result child = run_on(machine_of_pat_and_sam(), [] {
        const journal_stand_in journal;
        make_unreadable("/etc/passwd");
        cmd_revoke("7");
    });
    EXPECT_EQ(child.exit_status, 1);
    EXPECT_EQ(child.err, "tbx: message 7 revoked, but some copies could not be removed from the "
                         "mailboxes: the next tbx command will retry\n");
    EXPECT_TRUE(store.exists("sent/7/revoking"));
    EXPECT_TRUE(store.exists("sent/7/revoked"));
}
