#include "tbx/recipient_state.h"

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
std::string state_here(const char *user, int64_t id, int64_t expires, int64_t cutoff,
                       confirmation_cache *cache) {
    delivery_table delivery;
    if (sent_read_delivery(id, &delivery) != lookup::found)
        return "no delivery log";
    message_record message;
    message.expires = expires;
    recipient_status status = {delivery_state::confirmed, true, 99, "old"};
    if (recipient_state(user, id, delivery, message, cutoff, cache, &status) != 0)
        return "unknown";
    return shown(status);
}

// What the cache, which is asked for nothing but the state, makes of it.
void print_state(const char *user, int64_t id, confirmation_cache *cache) {
    printf("%s\n", state_here(user, id, 0, 0, cache).c_str());
}

struct conditions {
    int64_t expires = 0;
    int64_t cutoff = 0;
    const char *user = "pat";
};

// The same on a machine with pat and sam.
std::string state_with(const conditions &given = {}) {
    const child_result child = run_on(machine_of_pat_and_sam(), [&given] {
        confirmation_cache cache;
        fputs(state_here(given.user, 7, given.expires, given.cutoff, &cache).c_str(), stdout);
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
            confirmation_cache cache;
            print_state("pat", 7, &cache);
        });
        EXPECT_EQ(child.out, "unknown\n");
    }
}

TEST(RecipientState, IsUnknownWhereTheAccountsCannotBeRead) {
    SKIP_UNLESS_ROOT();
    const scratch_store store;
    store.write("sent/7/delivery", "pat 100 0\n");
    store.write("users/pat/acks/7", "300 terminal\n");
    const child_result child = run_on(machine_of_pat_and_sam(), [] {
        make_unreadable("/etc/passwd");
        confirmation_cache cache;
        print_state("pat", 7, &cache);
    });
    EXPECT_EQ(child.out, "unknown\n");
}

// ---- The cache ----------------------------------------------------------------------------

TEST(ConfirmationCache, FindsWhatTheMailboxRecords) {
    SKIP_UNLESS_ROOT();
    const delivered_message message("500 desktop\n");
    EXPECT_EQ(printed_by(
                  [](const scratch_store &) {
                      confirmation_cache cache;
                      const confirmation_list *list = cache.find("pat");
                      const confirmation_entry *entry = confirmation_find(*list, 7);
                      printf("%s, ", entry != nullptr ? entry->ack->c_str() : "none");
                      printf("%s", confirmation_find(*list, 8) != nullptr ? "some" : "none");
                  },
                  message),
              "500 desktop, none");
}

TEST(ConfirmationCache, FindsAnEmptyListForAnAccountThatIsNoMore) {
    SKIP_UNLESS_ROOT();
    const delivered_message message("500 desktop\n");
    EXPECT_EQ(printed_by(
                  [](const scratch_store &) {
                      confirmation_cache cache;
                      printf("%zu", cache.find("nobody-of-that-name")->entries.size());
                  },
                  message),
              "0");
}

TEST(ConfirmationCache, KeepsWhatWasReadAsLongAsItLives) {
    SKIP_UNLESS_ROOT();
    const delivered_message message("500 desktop\n");
    EXPECT_EQ(printed_by(
                  [](const scratch_store &store) {
                      confirmation_cache cache;
                      print_state("pat", 7, &cache);
                      store.write("users/pat/acks/7", "600 terminal\n");
                      print_state("pat", 7, &cache);
                      confirmation_cache next;
                      print_state("pat", 7, &next);
                  },
                  message),
              "confirmed 500 'desktop'\nconfirmed 500 'desktop'\nconfirmed 600 'terminal'\n");
}

TEST(ConfirmationCache, ListsTheMessagesOnce) {
    SKIP_UNLESS_ROOT();
    const delivered_message message;
    message.write("sent/7/delivery", "pat 100 2\nsam 100 2\n");
    EXPECT_EQ(printed_by(
                  [](const scratch_store &store) {
                      confirmation_cache cache;
                      print_state("pat", 7, &cache);
                      store.write("sent/8/delivery", "sam 100 2\n");
                      store.write("users/sam/acks/8", "500 desktop\n");
                      print_state("sam", 8, &cache);
                      confirmation_cache next;
                      print_state("sam", 8, &next);
                  },
                  message),
              "delivered 0 ''\ndelivered 0 ''\nconfirmed 500 'desktop'\n");
}

TEST(ConfirmationCache, ReadsEachUserByOneChild) {
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
                      confirmation_cache cache;
                      for (const int64_t id : {7, 8, 9})
                          for (const char *user : {"pat", "sam"})
                              print_state(user, id, &cache);
                      printf("%d", forks);
                  },
                  store),
              "confirmed 500 'desktop'\nconfirmed 500 'desktop'\nconfirmed 500 'desktop'\n"
              "confirmed 500 'desktop'\nconfirmed 500 'desktop'\nconfirmed 500 'desktop'\n2");
}

TEST(ConfirmationCache, WhoHasNothingIsNotAskedAgain) {
    SKIP_UNLESS_ROOT();
    const delivered_message message;
    EXPECT_EQ(printed_by(
                  [](const scratch_store &) {
                      pthread_atfork([] { forks++; }, nullptr, nullptr);
                      confirmation_cache cache;
                      for (int i = 0; i < 3; i++)
                          print_state("pat", 7, &cache);
                      printf("%d", forks);
                  },
                  message),
              "delivered 0 ''\ndelivered 0 ''\ndelivered 0 ''\n1");
}

TEST(ConfirmationCache, AsksAgainForWhatCouldNotBeRead) {
    SKIP_UNLESS_ROOT();
    const delivered_message message("500 desktop\n");
    EXPECT_EQ(printed_by(
                  [](const scratch_store &store) {
                      confirmation_cache cache;
                      std::filesystem::rename("/etc/passwd", "/etc/kept");
                      std::filesystem::create_symlink("/proc/self/mem", "/etc/passwd");
                      print_state("pat", 7, &cache);
                      std::filesystem::rename("/etc/kept", "/etc/passwd");
                      std::filesystem::rename(store.path("users"), store.path("kept"));
                      std::filesystem::create_symlink("users", store.path("users"));
                      print_state("pat", 7, &cache);
                      std::filesystem::remove(store.path("users"));
                      std::filesystem::rename(store.path("kept"), store.path("users"));
                      print_state("pat", 7, &cache);
                  },
                  message),
              "unknown\nunknown\nconfirmed 500 'desktop'\n");
}

TEST(ConfirmationCache, AsksAgainForTheMessagesWhereTheyCouldNotBeListed) {
    SKIP_UNLESS_ROOT();
    const delivered_message message("500 desktop\n");
    EXPECT_EQ(printed_by(
                  [](const scratch_store &store) {
                      confirmation_cache cache;
                      std::filesystem::rename(store.path("sent"), store.path("kept"));
                      store.write("sent", "not a directory");
                      printf("%s\n", cache.find("pat") == nullptr ? "unknown" : "known");
                      std::filesystem::remove(store.path("sent"));
                      std::filesystem::rename(store.path("kept"), store.path("sent"));
                      print_state("pat", 7, &cache);
                  },
                  message),
              "unknown\nconfirmed 500 'desktop'\n");
}

TEST(ConfirmationCache, HoldsOneMessageAloneWhereThatIsAskedFor) {
    SKIP_UNLESS_ROOT();
    const two_messages messages;
    EXPECT_EQ(printed_by(
                  [](const scratch_store &) {
                      for (const int64_t only : {7, 8}) {
                          confirmation_cache cache(only);
                          print_state("pat", 7, &cache);
                          print_state("pat", 8, &cache);
                      }
                  },
                  messages),
              "confirmed 500 'desktop'\ndelivered 0 ''\n"
              "delivered 0 ''\nconfirmed 600 'desktop'\n");
}

TEST(ConfirmationCache, HoldsMessageZeroAloneLikeAnyOther) {
    SKIP_UNLESS_ROOT();
    const delivered_message message("500 desktop\n");
    EXPECT_EQ(printed_by(
                  [](const scratch_store &) {
                      confirmation_cache cache(0);
                      print_state("pat", 7, &cache);
                  },
                  message),
              "delivered 0 ''\n");
}
