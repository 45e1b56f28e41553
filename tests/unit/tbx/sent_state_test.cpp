// The state of a recipient, from the delivery log and the user's confirmation.
#include "tbx/sent.h"

#include "support.h"

#include <pthread.h>

namespace {

// A store with message 7, and what pat's mailbox says of it.
struct delivered_message : scratch_store {
    delivered_message() {
        write("sent/7/delivery", "pat 100 2\n");
        std::filesystem::create_directories(path("users/pat"));
    }
    explicit delivered_message(std::string_view ack) : delivered_message() { confirm(ack); }
    void confirm(std::string_view ack) const { write("users/pat/acks/7", ack); }
};

// The same confirmed, and message 8 later.
struct two_messages : delivered_message {
    two_messages() : delivered_message("500 desktop\n") {
        write("sent/8/delivery", "pat 100 2\n");
        write("users/pat/acks/8", "600 desktop\n");
    }
};

std::string shown(const recipient_status &status) {
    return xasprintf("%s%s %lld '%s'",
                     status.state == delivery_state::sent        ? "sent"
                     : status.state == delivery_state::delivered ? "delivered"
                                                                 : "confirmed",
                     status.late ? " late" : "", static_cast<long long>(status.time),
                     status.detail.c_str());
}

// The state of `user` for message `id`, over an old one that must not survive.
std::string state_here(const char *user, int64_t id, int64_t expires, int64_t cutoff) {
    delivery_table delivery;
    if (sent_read_delivery(id, &delivery) != 0)
        return "no delivery log";
    message_record message;
    message.expires = expires;
    recipient_status status = {delivery_state::confirmed, true, 99, "old"};
    if (!recipient_state(user, id, delivery, message, cutoff, &status))
        return "unknown";
    return shown(status);
}

struct conditions {
    int64_t expires = 0;
    int64_t cutoff = 0;
    const char *user = "pat";
};

// The same on a machine with pat and sam.
std::string state_with(const conditions &given = {}) {
    const child_result child = run_on(machine_of_pat_and_sam(), [&given] {
        fputs(state_here(given.user, 7, given.expires, given.cutoff).c_str(), stdout);
    });
    EXPECT_EQ(child.exit_status, 0) << child.err;
    return child.out;
}

// Runs `body` there and gives what it prints.
std::string printed_by(void (*body)(const scratch_store &), const scratch_store &store) {
    const child_result child = run_on(machine_of_pat_and_sam(), [&] { body(store); });
    EXPECT_EQ(child.exit_status, 0) << child.err;
    return child.out;
}

int forks; // counted in a child that asks for it

} // namespace

TEST(RecipientState, IsSentWithoutALineInTheDeliveryLog) {
    SKIP_UNLESS_ROOT();
    const delivered_message message("500 desktop\n");
    EXPECT_EQ(state_with({.user = "sam"}), "sent 0 ''");
}

TEST(RecipientState, IsDeliveredWithoutAConfirmation) {
    SKIP_UNLESS_ROOT();
    const delivered_message message;
    EXPECT_EQ(state_with(), "delivered 0 ''");
    message.write("users/pat/state/7.gui", "");
    EXPECT_EQ(state_with(), "delivered 0 ''");
}

TEST(RecipientState, IsConfirmedWithTimeAndDetail) {
    SKIP_UNLESS_ROOT();
    const delivered_message message("500 desktop, at noon\n");
    EXPECT_EQ(state_with(), "confirmed 500 'desktop, at noon'");
}

TEST(RecipientState, ConfirmationMayLackItsDetail) {
    SKIP_UNLESS_ROOT();
    for (const char *ack : {"500\n", "500", "500 \n"}) {
        const delivered_message message(ack);
        EXPECT_EQ(state_with(), "confirmed 500 ''") << ack;
    }
}

TEST(RecipientState, EmptyConfirmationHasTimeZero) {
    SKIP_UNLESS_ROOT();
    const delivered_message message("");
    EXPECT_EQ(state_with(), "confirmed 0 ''");
}

TEST(RecipientState, MalformedTimeCountsAsZero) {
    SKIP_UNLESS_ROOT();
    for (const char *time : {"x", "-5", "5x", "", "1000000000000000000"}) {
        const delivered_message message(std::string(time) + " desktop\n");
        EXPECT_EQ(state_with(), "confirmed 0 'desktop'") << time;
    }
}

TEST(RecipientState, DetailIsEverythingAfterTheFirstBlank) {
    SKIP_UNLESS_ROOT();
    const delivered_message message("500   a b \x1b[m\n");
    EXPECT_EQ(state_with(), "confirmed 500 '  a b \x1b[m'"); // cleaned when it is shown
}

// ---- Expiry and revocation ----------------------------------------------------------------

TEST(RecipientState, ConfirmationAfterTheExpiryIsLate) {
    SKIP_UNLESS_ROOT();
    const delivered_message message("500 desktop\n");
    EXPECT_EQ(state_with({.expires = 400}), "delivered late 0 ''");
    EXPECT_EQ(state_with({.expires = 499}), "delivered late 0 ''");
}

TEST(RecipientState, ConfirmationUpToTheExpiryCounts) {
    SKIP_UNLESS_ROOT();
    const delivered_message message("500 desktop\n");
    EXPECT_EQ(state_with({.expires = 500}), "confirmed 500 'desktop'");
    EXPECT_EQ(state_with({.expires = 501}), "confirmed 500 'desktop'");
}

TEST(RecipientState, ConfirmationAfterTheRevocationDoesNotCount) {
    SKIP_UNLESS_ROOT();
    const delivered_message message("300 desktop\n");
    EXPECT_EQ(state_with({.cutoff = 200}), "delivered 0 ''");
    EXPECT_EQ(state_with({.cutoff = 299}), "delivered 0 ''");
}

TEST(RecipientState, ConfirmationUpToTheRevocationCounts) {
    SKIP_UNLESS_ROOT();
    const delivered_message message("300 desktop\n");
    EXPECT_EQ(state_with({.cutoff = 300}), "confirmed 300 'desktop'");
}

TEST(RecipientState, ExpiryIsLookedAtBeforeTheRevocation) {
    SKIP_UNLESS_ROOT();
    const delivered_message message("500 desktop\n");
    EXPECT_EQ(state_with({.expires = 400, .cutoff = 200}), "delivered late 0 ''");
}

// ---- Whose confirmation it is -------------------------------------------------------------

TEST(RecipientState, OfADeletedAccountIsDelivered) {
    SKIP_UNLESS_ROOT();
    const delivered_message message;
    message.write("sent/7/delivery", "gone 100 2\n");
    message.write("users/gone/acks/7", "500 desktop\n");
    EXPECT_EQ(state_with({.user = "gone"}), "delivered 0 ''");
}

TEST(RecipientState, ConfirmationOfAnotherMessageOrUserDoesNotCount) {
    SKIP_UNLESS_ROOT();
    const delivered_message message;
    message.make_message("8");
    message.write("users/pat/acks/8", "500 desktop\n");
    message.write("users/sam/acks/7", "500 desktop\n");
    EXPECT_EQ(state_with(), "delivered 0 ''");
}

TEST(RecipientState, IsUnknownWhereTheMailboxCannotBeRead) {
    SKIP_UNLESS_ROOT();
    const scratch_store store;
    store.write("sent/7/delivery", "pat 100 0\n");
    store.write("users/pat/acks/7", "300 terminal\n");
    for (const rlim_t room : {1U, 3U}) { // for no pipe, and for one of the two
        const child_result child = run_on(machine_of_pat_and_sam(), [room] {
            leave_descriptors(room);
            fputs(state_here("pat", 7, 0, 0).c_str(), stdout);
        });
        EXPECT_EQ(child.out, "unknown");
    }
}

TEST(RecipientState, IsUnknownWhereTheAccountsCannotBeRead) {
    SKIP_UNLESS_ROOT();
    const scratch_store store;
    store.write("sent/7/delivery", "pat 100 0\n");
    store.write("users/pat/acks/7", "300 terminal\n");
    const child_result child = run_on(machine_of_pat_and_sam(), [] {
        make_unreadable("/etc/passwd");
        fputs(state_here("pat", 7, 0, 0).c_str(), stdout);
    });
    EXPECT_EQ(child.out, "unknown");
}

TEST(RecipientConfirmation, GivesWhatTheMailboxRecords) {
    SKIP_UNLESS_ROOT();
    const delivered_message message("500 desktop\n");
    EXPECT_EQ(printed_by(
                  [](const scratch_store &) {
                      const confirmation_entry *entry = recipient_confirmation("pat", 7);
                      printf("%s, ", entry ? entry->ack->c_str() : "none");
                      printf("%s", recipient_confirmation("pat", 8) ? "some" : "none");
                  },
                  message),
              "500 desktop, none");
}

// ---- The cache ----------------------------------------------------------------------------

TEST(RecipientStateCache, KeepsWhatWasReadUntilItIsDropped) {
    SKIP_UNLESS_ROOT();
    const delivered_message message("500 desktop\n");
    EXPECT_EQ(printed_by(
                  [](const scratch_store &store) {
                      printf("%s\n", state_here("pat", 7, 0, 0).c_str());
                      store.write("users/pat/acks/7", "600 terminal\n");
                      printf("%s\n", state_here("pat", 7, 0, 0).c_str());
                      recipient_state_cache_drop();
                      printf("%s\n", state_here("pat", 7, 0, 0).c_str());
                  },
                  message),
              "confirmed 500 'desktop'\nconfirmed 500 'desktop'\nconfirmed 600 'terminal'\n");
}

TEST(RecipientStateCache, ListsTheMessagesOnceUntilItIsDropped) {
    SKIP_UNLESS_ROOT();
    const delivered_message message;
    message.write("sent/7/delivery", "pat 100 2\nsam 100 2\n");
    EXPECT_EQ(printed_by(
                  [](const scratch_store &store) {
                      printf("%s\n", state_here("pat", 7, 0, 0).c_str());
                      store.write("sent/8/delivery", "sam 100 2\n");
                      store.write("users/sam/acks/8", "500 desktop\n");
                      printf("%s\n", state_here("sam", 8, 0, 0).c_str());
                      recipient_state_cache_drop();
                      printf("%s\n", state_here("sam", 8, 0, 0).c_str());
                  },
                  message),
              "delivered 0 ''\ndelivered 0 ''\nconfirmed 500 'desktop'\n");
}

TEST(RecipientStateCache, ReadsEachUserByOneChild) {
    SKIP_UNLESS_ROOT();
    const scratch_store store;
    for (const char *id : {"7", "8", "9"}) {
        store.write(std::string("sent/") + id + "/delivery", "pat 100 2\nsam 100 2\n");
        for (const std::string user : {"pat", "sam"})
            store.write("users/" + user + "/acks/" + id, "500 desktop\n");
    }
    EXPECT_EQ(printed_by(
                  [](const scratch_store &) {
                      pthread_atfork([] { forks++; }, nullptr, nullptr);
                      for (const int64_t id : {7, 8, 9})
                          for (const char *user : {"pat", "sam"})
                              printf("%s\n", state_here(user, id, 0, 0).c_str());
                      printf("%d", forks);
                  },
                  store),
              "confirmed 500 'desktop'\nconfirmed 500 'desktop'\nconfirmed 500 'desktop'\n"
              "confirmed 500 'desktop'\nconfirmed 500 'desktop'\nconfirmed 500 'desktop'\n2");
}

TEST(RecipientStateCache, WhoHasNothingIsNotAskedAgain) {
    SKIP_UNLESS_ROOT();
    const delivered_message message;
    EXPECT_EQ(printed_by(
                  [](const scratch_store &) {
                      pthread_atfork([] { forks++; }, nullptr, nullptr);
                      for (int i = 0; i < 3; i++)
                          printf("%s\n", state_here("pat", 7, 0, 0).c_str());
                      printf("%d", forks);
                  },
                  message),
              "delivered 0 ''\ndelivered 0 ''\ndelivered 0 ''\n1");
}

TEST(RecipientStateCache, HoldsOneMessageAloneWhereThatIsAskedFor) {
    SKIP_UNLESS_ROOT();
    const two_messages messages;
    EXPECT_EQ(printed_by(
                  [](const scratch_store &store) {
                      recipient_state_ask_only(7);
                      printf("%s\n", state_here("pat", 7, 0, 0).c_str());
                      store.write("users/pat/acks/7", "700 terminal\n");
                      recipient_state_ask_only(7);
                      printf("%s\n", state_here("pat", 7, 0, 0).c_str());
                      printf("%s\n", state_here("pat", 8, 0, 0).c_str()); // reads all afresh
                      printf("%s\n", state_here("pat", 7, 0, 0).c_str());
                  },
                  messages),
              "confirmed 500 'desktop'\nconfirmed 500 'desktop'\nconfirmed 600 'desktop'\n"
              "confirmed 700 'terminal'\n");
}

TEST(RecipientStateCache, HoldsAnotherMessageAloneWhereThatIsAskedForNext) {
    SKIP_UNLESS_ROOT();
    const two_messages messages;
    EXPECT_EQ(printed_by(
                  [](const scratch_store &store) {
                      printf("%s\n", state_here("pat", 7, 0, 0).c_str());
                      store.write("users/pat/acks/8", "700 terminal\n");
                      recipient_state_ask_only(8);
                      printf("%s\n", state_here("pat", 8, 0, 0).c_str());
                      recipient_state_cache_drop();
                      store.write("users/pat/acks/7", "800 desktop\n");
                      printf("%s\n", state_here("pat", 8, 0, 0).c_str());
                      store.write("users/pat/acks/7", "900 desktop\n"); // was read already
                      printf("%s\n", state_here("pat", 7, 0, 0).c_str());
                  },
                  messages),
              "confirmed 500 'desktop'\nconfirmed 700 'terminal'\nconfirmed 700 'terminal'\n"
              "confirmed 800 'desktop'\n");
}

TEST(RecipientStateCache, HoldsMessageZeroAloneLikeAnyOther) {
    SKIP_UNLESS_ROOT();
    const delivered_message message("500 desktop\n");
    EXPECT_EQ(printed_by(
                  [](const scratch_store &) {
                      recipient_state_ask_only(7);
                      recipient_state_ask_only(0);
                      printf("%s\n", state_here("pat", 7, 0, 0).c_str());
                  },
                  message),
              "confirmed 500 'desktop'\n");
}

TEST(RecipientStateCache, IsDroppedAsOftenAsWanted) {
    recipient_state_cache_drop();
    recipient_state_cache_drop();
    EXPECT_EQ(recipient_confirmation("nobody-of-that-name", 7), nullptr);
    recipient_state_cache_drop();
}
