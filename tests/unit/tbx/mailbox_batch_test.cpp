// Many messages of one mailbox in one child: what it holds, withdrawing, purging.
#include "tbx/mailbox.h"

#include "mailbox_support.h"

#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <vector>

namespace {

const std::string COPY = "format: 1\nid: 7\ndate: 5\n\nHello\n";
const expected_copy WHOLE = {7, COPY.size(), copy_hash(COPY)};

std::string text_of(copy_state state) {
    switch (state) {
    case copy_state::held:
        return "held";
    case copy_state::missing:
        return "missing";
    case copy_state::blocked:
        return "blocked";
    case copy_state::unknown:
        break;
    }
    return "unknown";
}

// What the mailbox says of the copies, in one line.
std::string survey_of(const std::vector<expected_copy> &copies) {
    std::string line;
    for (const copy_state state : mailbox_survey(PAT, copies))
        line += (line.empty() ? "" : " ") + text_of(state);
    return line;
}

std::string surveyed(const real_mailbox &mailbox,
                     const std::vector<expected_copy> &copies = {WHOLE}) {
    return said_by(mailbox, [&copies] { return survey_of(copies); });
}

std::string places(const std::vector<size_t> &list) {
    std::string line;
    for (const size_t place : list)
        line += (line.empty() ? "" : " ") + std::to_string(place);
    return line;
}

using batch_operation = void (*)(const resolved_user &user, const std::vector<int64_t> &ids,
                                 std::vector<size_t> *done);

// The positions of the messages with which the operation is done.
std::string done_by(const real_mailbox &mailbox, batch_operation operation,
                    const std::vector<int64_t> &ids) {
    return said_by(mailbox, [operation, &ids] {
        std::vector<size_t> done;
        operation(PAT, ids, &done);
        return places(done);
    });
}

int forks = 0; // counted in a child that asks for it

} // namespace

// ---- What a mailbox holds -----------------------------------------------------------------

TEST(MailboxSurvey, CopyThatStandsThereWholeIsHeld) {
    SKIP_UNLESS_ROOT();
    const real_mailbox mailbox;
    mailbox.make_folders();
    mailbox.put("inbox/7", COPY);
    EXPECT_EQ(surveyed(mailbox), "held");
}

TEST(MailboxSurvey, MessageThatWasReadOrConfirmedIsHeld) {
    SKIP_UNLESS_ROOT();
    for (const char *mark : {"read/7", "acks/7"}) {
        const real_mailbox mailbox;
        mailbox.make_folders();
        mailbox.put(mark, "");
        EXPECT_EQ(surveyed(mailbox), "held") << mark;
    }
}

TEST(MailboxSurvey, MessageThatIsNotThereIsMissing) {
    SKIP_UNLESS_ROOT();
    const real_mailbox nothing;
    EXPECT_EQ(surveyed(nothing), "missing");
    const real_mailbox mailbox;
    mailbox.make_directory();
    EXPECT_EQ(surveyed(mailbox), "missing");
    mailbox.make_directory("inbox");
    mailbox.put("inbox/77", COPY);
    EXPECT_EQ(surveyed(mailbox), "missing");
}

TEST(MailboxSurvey, CopyWithAnotherTextIsMissing) {
    SKIP_UNLESS_ROOT();
    std::string of_the_same_length = COPY;
    of_the_same_length.back() = '!';
    for (const std::string &text :
         {std::string(), COPY.substr(0, 10), COPY + "x", of_the_same_length}) {
        const real_mailbox mailbox;
        mailbox.make_folders();
        mailbox.put("inbox/7", text);
        EXPECT_EQ(surveyed(mailbox), "missing") << text;
    }
}

TEST(MailboxSurvey, LinkOrPipeInPlaceOfTheCopyIsMissing) {
    SKIP_UNLESS_ROOT();
    const real_mailbox linked;
    linked.make_folders();
    linked.put("inbox/other", COPY);
    std::filesystem::create_symlink("other", linked.file("inbox/7"));
    EXPECT_EQ(surveyed(linked), "missing");
    const real_mailbox piped;
    piped.make_folders();
    make_fifo(piped.file("inbox/7"));
    EXPECT_EQ(surveyed(piped), "missing");
}

TEST(MailboxSurvey, DirectoryInPlaceOfTheCopyBlocksIt) {
    SKIP_UNLESS_ROOT();
    const real_mailbox mailbox;
    mailbox.make_folders();
    mailbox.make_directory("inbox/7");
    EXPECT_EQ(surveyed(mailbox), "blocked");
}

TEST(MailboxSurvey, WhatTheUserCannotReadIsUnknown) {
    SKIP_UNLESS_ROOT();
    for (const char *name : {"inbox/7", "inbox", "read", "acks"}) {
        const real_mailbox mailbox;
        mailbox.make_folders();
        mailbox.put("inbox/7", COPY);
        std::filesystem::permissions(mailbox.file(name), std::filesystem::perms(0));
        EXPECT_EQ(surveyed(mailbox), "unknown") << name;
    }
}

TEST(MailboxSurvey, IsUnknownWhereNobodyCouldLook) {
    SKIP_UNLESS_ROOT();
    const real_mailbox mailbox;
    mailbox.make_folders();
    mailbox.put("inbox/7", COPY);
    EXPECT_EQ(said_by(mailbox,
                      [] {
                          refuse_call(SYS_pipe2, EMFILE); // nobody can be asked
                          return survey_of({WHOLE});
                      }),
              "unknown");
}

TEST(MailboxSurvey, AsksForAllInOneChildAndChangesNothing) {
    SKIP_UNLESS_ROOT();
    const real_mailbox mailbox;
    mailbox.make_folders();
    mailbox.put("inbox/7", COPY);
    mailbox.put("read/9", "");
    mailbox.make_directory("inbox/10");
    mailbox.put("state/8.term", "");
    const std::vector<expected_copy> copies = {
        WHOLE, {8, WHOLE.bytes, WHOLE.hash}, {9, 1, 1}, {10, 1, 1}};
    EXPECT_EQ(said_by(mailbox,
                      [&copies] {
                          pthread_atfork([] { forks++; }, nullptr, nullptr);
                          const std::string line = survey_of(copies);
                          return line + ", " + std::to_string(forks);
                      }),
              "held missing held blocked, 1");
    EXPECT_EQ(mailbox.text("inbox/7"), COPY);
    EXPECT_FALSE(mailbox.has("inbox/8"));
    EXPECT_TRUE(mailbox.has("state/8.term"));
}

TEST(MailboxSurvey, OfNothingIsEmpty) {
    SKIP_UNLESS_ROOT();
    const real_mailbox mailbox;
    mailbox.make_directory();
    EXPECT_EQ(surveyed(mailbox, {}), "");
}

// ---- Withdrawing and purging many ---------------------------------------------------------

TEST(MailboxWithdrawAll, TellsForEachMessageWhetherItsCopyIsGone) {
    SKIP_UNLESS_ROOT();
    const real_mailbox mailbox;
    mailbox.make_folders();
    for (const char *name : {"inbox/7", "inbox/9", "read/7", "acks/7", "state/7.term"})
        mailbox.put(name, "x");
    mailbox.put("inbox/12", "of another message");
    mailbox.make_directory("inbox/8"); // cannot be removed as a copy is
    EXPECT_EQ(done_by(mailbox, mailbox_withdraw_all, {9, 8, 7, 11}), "0 2 3");
    for (const char *name : {"inbox/7", "inbox/9", "state/7.term"})
        EXPECT_FALSE(mailbox.has(name)) << name;
    for (const char *name : {"read/7", "acks/7", "inbox/12", "inbox/8"})
        EXPECT_TRUE(mailbox.has(name)) << name;
}

TEST(MailboxPurgeAll, RemovesEveryFileOfEachMessage) {
    SKIP_UNLESS_ROOT();
    const real_mailbox mailbox;
    mailbox.make_folders();
    for (const char *name : {"inbox/7", "read/7", "acks/8", "state/8.gui", "acks/9"})
        mailbox.put(name, "x");
    EXPECT_EQ(done_by(mailbox, mailbox_purge_all, {7, 8}), "0 1");
    for (const char *name : {"inbox/7", "read/7", "acks/8", "state/8.gui"})
        EXPECT_FALSE(mailbox.has(name)) << name;
    EXPECT_TRUE(mailbox.has("acks/9"));
}

TEST(MailboxBatch, IsDoneForAMailboxThatIsNotThere) {
    SKIP_UNLESS_ROOT();
    for (const batch_operation operation : {mailbox_withdraw_all, mailbox_purge_all}) {
        const real_mailbox mailbox;
        EXPECT_EQ(done_by(mailbox, operation, {7, 8}), "0 1");
        EXPECT_FALSE(mailbox.has(""));
    }
}

TEST(MailboxBatch, IsNotDoneForAMailboxThatTheUserCannotEnter) {
    SKIP_UNLESS_ROOT();
    const real_mailbox mailbox;
    mailbox.make_folders();
    mailbox.put("inbox/7", "x");
    std::filesystem::permissions(mailbox.file(), std::filesystem::perms(0));
    EXPECT_EQ(done_by(mailbox, mailbox_withdraw_all, {7}), "");
    EXPECT_TRUE(mailbox.has("inbox/7"));
}

TEST(MailboxBatch, IsNotDoneWhereNobodyCouldTry) {
    SKIP_UNLESS_ROOT();
    for (const batch_operation operation : {mailbox_withdraw_all, mailbox_purge_all}) {
        const real_mailbox mailbox;
        mailbox.make_folders();
        mailbox.put("inbox/7", "x");
        EXPECT_EQ(said_by(mailbox,
                          [operation] {
                              refuse_call(SYS_pipe2, EMFILE); // nobody can be asked
                              std::vector<size_t> done;
                              operation(PAT, {7, 8}, &done);
                              return places(done);
                          }),
                  "");
        EXPECT_TRUE(mailbox.has("inbox/7"));
    }
}

TEST(MailboxBatch, TakesOneChildForManyMessages) {
    SKIP_UNLESS_ROOT();
    const real_mailbox mailbox;
    mailbox.make_folders();
    EXPECT_EQ(said_by(mailbox,
                      [] {
                          pthread_atfork([] { forks++; }, nullptr, nullptr);
                          std::vector<int64_t> ids;
                          for (int64_t id = 1; id <= 100'000; id++)
                              ids.push_back(id);
                          std::vector<size_t> done;
                          mailbox_withdraw_all(PAT, ids, &done);
                          return std::to_string(done.size()) + " in " + std::to_string(forks);
                      }),
              "100000 in 1");
}
