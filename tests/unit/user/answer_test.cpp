#include "user_support.h"

#include <sys/file.h>

namespace {

// A mailbox with message 7.
struct mailbox_with_7 : tried_mailbox {
    mailbox_with_7() { put_message(7); }
};

// The same, and what the journal hears. In a child on a private machine only.
struct heard_mailbox : mailbox_with_7 {
    void print_files_and_events() const {
        printf("%s\n%s", files().c_str(), journal.events().c_str());
    }
    journal_stand_in journal;
};

// The mailbox of the body that runs, for what takes no argument: what stands in a call's place, and
// what other processes do.
const heard_mailbox *heard;

// Runs `body` with such a mailbox and returns what it printed.
template <typename Body> std::string told(Body &&body) {
    const child_result child = run_on(machine_of_pat_and_sam(), [&] {
        std::filesystem::create_directories("/run/scratch");
        setenv("TMPDIR", "/run/scratch", 1);
        const heard_mailbox mailbox;
        heard = &mailbox;
        body(mailbox);
    });
    return child.out + child.err;
}

void print_line(const std::string &line) {
    printf("%s\n", line.c_str());
}

const char *name_of(confirm_result result) {
    switch (result) {
    case confirm_result::confirmed:
        return "confirmed";
    case confirm_result::already:
        return "already";
    case confirm_result::not_a_file:
        return "not a file";
    case confirm_result::withdrawn:
        return "withdrawn";
    case confirm_result::failed:
        return "failed";
    }
    return "?";
}

std::string confirm(const tried_mailbox &mailbox, channel where = channel::terminal) {
    own_mailbox box = mailbox.open();
    return name_of(answer_confirm(&box, 7, where).result);
}

void finish_interrupted(const tried_mailbox &mailbox) {
    own_mailbox box = mailbox.open();
    answer_finish_interrupted(&box);
}

int postpone(const tried_mailbox &mailbox, channel where = channel::terminal) {
    own_mailbox box = mailbox.open();
    return answer_postpone(&box, 7, where);
}

int mark_shown(const tried_mailbox &mailbox, int64_t moment) {
    own_mailbox box = mailbox.open();
    return answer_shown(&box, 7, channel::terminal, moment, HALF_AN_HOUR);
}

// Runs `body` in that many processes at once and returns the sum of their exit statuses.
int sum_of(int count, int (*body)()) {
    std::vector<pid_t> processes;
    for (int i = 0; i < count; i++)
        processes.push_back(start_process(body));
    int sum = 0;
    for (const pid_t process : processes)
        sum += exit_status_of(process);
    return sum;
}

// Exit status of one of many that confirm: 10 for the one that did, 0 for the others.
int status_of(confirm_result result) {
    if (result == confirm_result::confirmed)
        return 10;
    return result == confirm_result::already ? 0 : 1;
}

// Whether the descriptor is a folder's.
bool is_folder(long fd) {
    struct stat status = {};
    return fstat(static_cast<int>(fd), &status) == 0 && S_ISDIR(status.st_mode);
}

// Seconds ago; -1 without a mark.
int64_t mark_age(const tried_mailbox &mailbox, const std::string &name) {
    struct stat status = {};
    return stat(mailbox.file(name).c_str(), &status) == 0 ? now() - status.st_mtim.tv_sec : -1;
}

// ---- Confirming ---------------------------------------------------------------------------

TEST(Confirm, WritesTheAnswerRecordsItAndMovesTheCopy) {
    SKIP_UNLESS_ROOT();
    EXPECT_EQ(told([](const heard_mailbox &mailbox) {
                  const int64_t before = now();
                  print_line(confirm(mailbox));
                  print_line(mailbox.files());
                  const answer_record answer = answer_read(mailbox.open(), 7);
                  printf("%d %s\n", answer.time >= before && answer.time <= now(),
                         answer.channel.c_str());
                  printf("%s", mailbox.journal.events().c_str());
              }),
              "confirmed\nacks/7 read/7\n1 terminal\n"
              "CONFIRMED 7 user=root details= author=\n");
}

TEST(Confirm, WritesOneLineForEverybodyToRead) {
    const mailbox_with_7 mailbox;
    const mode_t mask = umask(022);
    EXPECT_EQ(confirm(mailbox, channel::desktop), "confirmed");
    umask(mask);
    EXPECT_THAT(mailbox.text("acks/7"), testing::MatchesRegex("[0-9]+ desktop\n"));
    EXPECT_EQ(mode_and_owner(mailbox.file("acks/7")).substr(0, 4), "0644");
}

TEST(Confirm, GivesTheAnswerNoNameBeforeItIsWhole) {
    SKIP_UNLESS_ROOT();
    EXPECT_EQ(told([](const heard_mailbox &mailbox) {
                  static std::string files_before;
                  trap_call(SYS_fsync, [](long fd) -> long {
                      if (!is_folder(fd))
                          files_before = heard->files();
                      return 0;
                  });
                  print_line(confirm(mailbox));
                  print_line(files_before);
              }),
              "confirmed\ninbox/7\n");
}

TEST(Confirm, LeavesAnEarlierAnswerAsItIs) {
    const tried_mailbox mailbox;
    mailbox.put("acks/7", "1790000000 desktop\n");
    own_mailbox box = mailbox.open();
    const confirmation outcome = answer_confirm(&box, 7, channel::terminal);
    EXPECT_EQ(outcome.result, confirm_result::already);
    EXPECT_EQ(outcome.answer.time, 1'790'000'000);
    EXPECT_EQ(outcome.answer.channel, "desktop");
    EXPECT_EQ(mailbox.text("acks/7"), "1790000000 desktop\n");
}

TEST(Confirm, ChangesNothingWhereSomethingElseStands) {
    SKIP_UNLESS_ROOT();
    EXPECT_EQ(told([](const heard_mailbox &mailbox) {
                  std::filesystem::create_directory(mailbox.file("acks/7"));
                  print_line(confirm(mailbox));
                  mailbox.print_files_and_events();
              }),
              "not a file\ninbox/7\n");
}

TEST(Confirm, LeavesNoAnswerToAMessageThatIsNotThere) {
    const tried_mailbox mailbox;
    EXPECT_EQ(confirm(mailbox), "withdrawn");
    EXPECT_EQ(mailbox.files(), "");
}

TEST(Confirm, MakesTheFoldersThatAreMissing) {
    const mailbox_with_7 mailbox;
    std::filesystem::remove(mailbox.file("acks"));
    std::filesystem::remove(mailbox.file("read"));
    EXPECT_EQ(confirm(mailbox), "confirmed");
    EXPECT_EQ(mailbox.files(), "acks/7 read/7");
}

TEST(Confirm, TellsAndRecordsAnAnswerThatCannotBeWritten) {
    SKIP_UNLESS_ROOT();
    EXPECT_EQ(told([](const heard_mailbox &mailbox) {
                  refuse_call(SYS_fsync, EIO);
                  own_mailbox box = mailbox.open();
                  const confirmation outcome = answer_confirm(&box, 7, channel::terminal);
                  printf("%s: %s\n", name_of(outcome.result), strerror(outcome.error));
                  mailbox.print_files_and_events();
              }),
              "failed: Input/output error\ninbox/7\n"
              "CONFIRMATION_FAILED 7 user=root details=Input/output error author=\n");
}

TEST(Confirm, TakesAnAnswerBackWhoseFolderCannotBeSynced) {
    SKIP_UNLESS_ROOT();
    EXPECT_EQ(told([](const heard_mailbox &mailbox) {
                  trap_call(SYS_fsync, [](long fd) -> long { return is_folder(fd) ? -EIO : 0; });
                  print_line(confirm(mailbox));
                  mailbox.print_files_and_events();
              }),
              "failed\ninbox/7\n"
              "CONFIRMATION_FAILED 7 user=root details=Input/output error author=\n");
}

TEST(Confirm, NeedsNoSyncOfFoldersWhereTheFileSystemHasNone) {
    SKIP_UNLESS_ROOT();
    EXPECT_EQ(told([](const heard_mailbox &mailbox) {
                  trap_call(SYS_fsync, [](long fd) -> long { return is_folder(fd) ? -EINVAL : 0; });
                  print_line(confirm(mailbox));
                  mailbox.print_files_and_events();
              }),
              "confirmed\nacks/7 read/7\nCONFIRMED 7 user=root details= author=\n");
}

TEST(Confirm, WaitsForNoPipeThatComesInAFoldersPlace) {
    const mailbox_with_7 mailbox;
    std::filesystem::remove(mailbox.file("acks"));
    own_mailbox box = mailbox.open();
    make_fifo(mailbox.file("acks"));
    const child_result child = run_in_child([&box] {
        alarm(20);
        const confirmation outcome = answer_confirm(&box, 7, channel::terminal);
        printf("%s: %s", name_of(outcome.result), strerror(outcome.error));
    });
    EXPECT_EQ(child.out, "failed: Not a directory");
}

TEST(Confirm, ThatCannotMoveTheCopyIsNotRecordedAgainByTheNextRun) {
    SKIP_UNLESS_ROOT();
    EXPECT_EQ(told([](const heard_mailbox &mailbox) {
                  std::filesystem::remove(mailbox.file("read"));
                  mailbox.put("read", "in the way");
                  own_mailbox box;
                  (void)mailbox_open(mailbox.owner, &box); // as far as it goes
                  std::filesystem::remove(mailbox.file("read"));
                  box = mailbox.open();
                  mailbox.put("read", "in the way");
                  printf("%s\n", name_of(answer_confirm(&box, 7, channel::terminal).result));
                  mailbox.print_files_and_events();
                  std::filesystem::remove(mailbox.file("read"));
                  box = mailbox.open();
                  answer_finish_interrupted(&box);
                  mailbox.print_files_and_events();
              }),
              "confirmed\nacks/7 inbox/7 read\nCONFIRMED 7 user=root details= author=\n"
              "acks/7 read/7\n");
}

TEST(Confirm, KeepsAnAnswerThatAnotherProgramHasRecordedAndMoved) {
    SKIP_UNLESS_ROOT();
    EXPECT_EQ(told([](const heard_mailbox &mailbox) {
                  own_mailbox box = mailbox.open();
                  // As on a file system without locks, once the answer is there.
                  trap_call(SYS_fsync, [](long) -> long {
                      if (heard->has("acks/7") && heard->has("inbox/7"))
                          rename(heard->file("inbox/7").c_str(), heard->file("read/7").c_str());
                      return 0;
                  });
                  print_line(name_of(answer_confirm(&box, 7, channel::terminal).result));
                  mailbox.print_files_and_events();
              }),
              "confirmed\nacks/7 read/7\n");
}

TEST(Confirm, HoldsTheAnswerUntilItIsRecorded) {
    SKIP_UNLESS_ROOT();
    EXPECT_EQ(told([](const heard_mailbox &mailbox) {
                  static int error_of_another;
                  error_of_another = 0;
                  own_mailbox box = mailbox.open();
                  trap_call(SYS_fsync, [](long) -> long {
                      const unique_fd other(::open(heard->file("acks/7").c_str(), O_RDWR));
                      if (other && heard->has("inbox/7") &&
                          flock(other.get(), LOCK_EX | LOCK_NB) != 0)
                          error_of_another = errno;
                      return 0;
                  });
                  print_line(name_of(answer_confirm(&box, 7, channel::terminal).result));
                  print_line(strerror(error_of_another));
              }),
              "confirmed\nResource temporarily unavailable\n");
}

TEST(Confirm, RemovesTheAnswerToAMessageThatIsWithdrawnMeanwhile) {
    SKIP_UNLESS_ROOT();
    EXPECT_EQ(told([](const heard_mailbox &mailbox) {
                  own_mailbox box = mailbox.open();
                  trap_call(SYS_fsync, [](long) -> long {
                      unlink(heard->file("inbox/7").c_str());
                      return 0;
                  });
                  print_line(name_of(answer_confirm(&box, 7, channel::terminal).result));
                  mailbox.print_files_and_events();
              }),
              "withdrawn\n\n");
}

// ---- Several at once ----------------------------------------------------------------------

TEST(Confirm, ByManyAtOnceMakesOneAnswerAndOneRecord) {
    SKIP_UNLESS_ROOT();
    EXPECT_EQ(told([](const heard_mailbox &mailbox) {
                  const int sum = sum_of(40, [] {
                      own_mailbox box = heard->open();
                      answer_finish_interrupted(&box);
                      const confirmation outcome = answer_confirm(&box, 7, channel::terminal);
                      answer_finish_interrupted(&box);
                      return status_of(outcome.result);
                  });
                  printf("%d ", sum);
                  mailbox.print_files_and_events();
              }),
              "10 acks/7 read/7\nCONFIRMED 7 user=root details= author=\n");
}

TEST(Confirm, ByManyAtOnceMakesOneAnswerWithoutUnnamedFilesToo) {
    SKIP_UNLESS_ROOT();
    EXPECT_EQ(told([](const heard_mailbox &mailbox) {
                  refuse_unnamed_files();
                  const int sum = sum_of(40, [] {
                      own_mailbox box = heard->open();
                      return status_of(answer_confirm(&box, 7, channel::terminal).result);
                  });
                  printf("%d %zu ", sum, mailbox.text("acks/7").size());
                  mailbox.print_files_and_events();
              }),
              "10 20 acks/7 read/7\nCONFIRMED 7 user=root details= author=\n");
}

TEST(Marks, OfManyAtOnceAreAllWrittenWithoutUnnamedFilesToo) {
    SKIP_UNLESS_ROOT();
    EXPECT_EQ(told([](const heard_mailbox &mailbox) {
                  refuse_unnamed_files();
                  const int many = 8; // the journal keeps ten records
                  const int sum = sum_of(many, [] { return postpone(*heard) == 0 ? 0 : 1; });
                  printf("%d %s %s", sum, mailbox.files().c_str(),
                         mailbox.text("state/7.term").c_str());
              }),
              "0 inbox/7 state/7.term postponed\n");
}

TEST(MailboxLock, IsOneForAllAndNotWaitedForLongerThanAllowed) {
    const tried_mailbox mailbox;
    const own_mailbox box = mailbox.open();
    mailbox_lock first = mailbox_lock::take(box, 0);
    EXPECT_TRUE(first.is_held());
    EXPECT_FALSE(mailbox_lock::take(box, 20).is_held());
    first = mailbox_lock();
    EXPECT_TRUE(mailbox_lock::take(box, 0).is_held());
}

// ---- Tidying up ---------------------------------------------------------------------------

TEST(Interrupted, AnAnswerIsRecordedAndItsCopyMoved) {
    SKIP_UNLESS_ROOT();
    EXPECT_EQ(told([](const heard_mailbox &mailbox) {
                  mailbox.put("acks/7", "1790000000 desktop\n");
                  finish_interrupted(mailbox);
                  mailbox.print_files_and_events();
              }),
              "acks/7 read/7\nCONFIRMED 7 user=root details= author=\n");
}

TEST(Interrupted, AnAnswerThatSomebodyIsStillWritingIsLeftToThem) {
    SKIP_UNLESS_ROOT();
    EXPECT_EQ(told([](const heard_mailbox &mailbox) {
                  mailbox.put("acks/7", "1790000000 desktop\n");
                  const unique_fd other(::open(mailbox.file("acks/7").c_str(), O_RDONLY));
                  flock(other.get(), LOCK_EX);
                  finish_interrupted(mailbox);
                  mailbox.print_files_and_events();
              }),
              "acks/7 inbox/7\n");
}

TEST(Interrupted, AnAnswerIsLockedWhereOnlyWritableFilesCanBe) {
    SKIP_UNLESS_ROOT();
    EXPECT_EQ(told([](const heard_mailbox &mailbox) {
                  mailbox.put("acks/7", "1790000000 desktop\n");
                  own_mailbox box = mailbox.open();
                  // As on a network file system, while another program holds the lock.
                  trap_call(SYS_flock, [](long fd) -> long {
                      const int flags = fcntl(static_cast<int>(fd), F_GETFL);
                      return (flags & O_ACCMODE) == O_RDONLY ? -EBADF : -EWOULDBLOCK;
                  });
                  answer_finish_interrupted(&box);
                  mailbox.print_files_and_events();
              }),
              "acks/7 inbox/7\n");
}

TEST(Interrupted, AnAnswerIsLeftToItsWriterForSomeSecondsWhereNothingCanBeLocked) {
    SKIP_UNLESS_ROOT();
    EXPECT_EQ(told([](const heard_mailbox &mailbox) {
                  mailbox.put("acks/7", "1790000000 desktop\n");
                  own_mailbox box = mailbox.open();
                  trap_call(SYS_flock, [](long) -> long { return -ENOLCK; });
                  answer_finish_interrupted(&box);
                  print_line(mailbox.files());
                  mailbox.age("acks/7", -10);
                  answer_finish_interrupted(&box);
                  printf("%s\n%s", mailbox.files().c_str(), mailbox.journal.events().c_str());
              }),
              "acks/7 inbox/7\nacks/7 read/7\nCONFIRMED 7 user=root details= author=\n");
}

TEST(Interrupted, AnAnswerIsNotRecordedAgainAndAgainWhereNothingCanBeChanged) {
    SKIP_UNLESS_ROOT();
    EXPECT_EQ(told([](const heard_mailbox &mailbox) {
                  own_mailbox box = mailbox.open();
                  refuse_call(SYS_renameat, EIO);
                  refuse_call(SYS_fchmod, EIO);
                  print_line(name_of(answer_confirm(&box, 7, channel::terminal).result));
                  for (int run = 0; run < 3; run++)
                      answer_finish_interrupted(&box);
                  mailbox.print_files_and_events();
              }),
              "confirmed\nacks/7 inbox/7\nCONFIRMED 7 user=root details= author=\n");
}

TEST(Interrupted, AnAnswerWhoseModeCannotBeChangedIsMovedFirst) {
    SKIP_UNLESS_ROOT();
    EXPECT_EQ(told([](const heard_mailbox &mailbox) {
                  mailbox.put("acks/7", "1790000000 desktop\n");
                  own_mailbox box = mailbox.open();
                  refuse_call(SYS_fchmod, EPERM);
                  for (int run = 0; run < 2; run++)
                      answer_finish_interrupted(&box);
                  mailbox.print_files_and_events();
              }),
              "acks/7 read/7\nCONFIRMED 7 user=root details= author=\n");
}

TEST(Interrupted, ACopyThatWasDeliveredAgainIsMovedWithoutARecord) {
    SKIP_UNLESS_ROOT();
    EXPECT_EQ(told([](const heard_mailbox &mailbox) {
                  mailbox.put("acks/7", "1790000000 desktop\n");
                  mailbox.put("read/7", "the first copy");
                  finish_interrupted(mailbox);
                  mailbox.print_files_and_events();
              }),
              "acks/7 read/7\n");
}

TEST(Leftovers, AreTheHiddenFilesOfAnswersAndMarksAndNoOthers) {
    const tried_mailbox mailbox;
    for (const char *name : {"acks/.7.tmp", "read/.8.tmp", "state/.9.term.tmp", "state/.9.gui.tmp",
                             "acks/.7.12-345.tmp", "state/.9.term.12-345.tmp", "acks/.7.12a.tmp",
                             "acks/.x.tmp", "acks/7.tmp", "acks/.7", "state/.9.other.tmp",
                             "state/.prompt", "inbox/.7.tmp", "acks/..tmp"})
        mailbox.put(name, "");
    const own_mailbox box = mailbox.open();
    answer_remove_leftovers(box, mailbox_lock());
    EXPECT_TRUE(mailbox.has("acks/.7.tmp"));
    answer_remove_leftovers(box, mailbox_lock::take(box, 0));
    EXPECT_EQ(mailbox.files(),
              "acks/..tmp acks/.7 acks/.7.12a.tmp acks/.x.tmp acks/7.tmp inbox/.7.tmp "
              "state/.9.other.tmp state/.prompt");
}

TEST(Leftovers, ThatSomebodyIsStillWritingStay) {
    const tried_mailbox mailbox;
    mailbox.put("acks/.7.12-345.tmp", "17");
    const own_mailbox box = mailbox.open();
    unique_fd writer(::open(mailbox.file("acks/.7.12-345.tmp").c_str(), O_WRONLY));
    ASSERT_EQ(flock(writer.get(), LOCK_EX), 0);
    answer_remove_leftovers(box, mailbox_lock::take(box, 0));
    EXPECT_EQ(mailbox.files(), "acks/.7.12-345.tmp");
    writer.reset();
    answer_remove_leftovers(box, mailbox_lock::take(box, 0));
    EXPECT_EQ(mailbox.files(), "");
}

// ---- Marks --------------------------------------------------------------------------------

TEST(Shown, IsTheMomentInTheChannelsMark) {
    const mailbox_with_7 mailbox;
    ASSERT_EQ(mark_shown(mailbox, now() - 20), 0);
    EXPECT_EQ(mailbox.files(), "inbox/7 state/7.term");
    EXPECT_EQ(mailbox.text("state/7.term"), "shown\n");
    EXPECT_GE(mark_age(mailbox, "state/7.term"), 20);
    ASSERT_EQ(mark_shown(mailbox, now() - 10), 0);
    EXPECT_LT(mark_age(mailbox, "state/7.term"), 20);
    EXPECT_EQ(mailbox.files(), "inbox/7 state/7.term");
}

TEST(Shown, ReplacesNoYoungerMarkAndNoPostponementThatHolds) {
    const mailbox_with_7 mailbox;
    mailbox.put("state/7.term", "shown\n");
    mailbox.age("state/7.term", -10);
    ASSERT_EQ(mark_shown(mailbox, now() - 20), 0);
    EXPECT_LT(mark_age(mailbox, "state/7.term"), 20);
    mailbox.put("state/7.term", "postponed\n");
    mailbox.age("state/7.term", -1000);
    ASSERT_EQ(mark_shown(mailbox, now()), 0);
    EXPECT_EQ(mailbox.text("state/7.term"), "postponed\n");
}

TEST(Shown, ReplacesAPostponementThatIsOverAndAMarkFromTheFuture) {
    const mailbox_with_7 mailbox;
    mailbox.put("state/7.term", "postponed\n");
    mailbox.age("state/7.term", -HALF_AN_HOUR);
    ASSERT_EQ(mark_shown(mailbox, now()), 0);
    EXPECT_EQ(mailbox.text("state/7.term"), "shown\n");
    mailbox.put("state/7.term", "postponed\n");
    mailbox.age("state/7.term", 5000);
    ASSERT_EQ(mark_shown(mailbox, now()), 0);
    EXPECT_EQ(mailbox.text("state/7.term"), "shown\n");
    EXPECT_GE(mark_age(mailbox, "state/7.term"), 0);
}

TEST(Shown, ReplacesALinkAndNotWhatItPointsTo) {
    const mailbox_with_7 mailbox;
    write_file(mailbox.path("elsewhere"), "kept");
    std::filesystem::create_symlink(mailbox.path("elsewhere"), mailbox.file("state/7.term"));
    ASSERT_EQ(mark_shown(mailbox, now()), 0);
    EXPECT_EQ(mailbox.text("state/7.term"), "shown\n");
    EXPECT_EQ(read_file(mailbox.path("elsewhere")), "kept");
}

TEST(Marks, AreNotMadeForAMessageThatIsGoneOrAnswered) {
    const tried_mailbox mailbox;
    EXPECT_EQ(mark_shown(mailbox, now()), -1);
    EXPECT_EQ(errno, ENOENT);
    mailbox.put_message(7);
    mailbox.put("acks/7", "1790000000 desktop\n");
    EXPECT_EQ(mark_shown(mailbox, now()), -1);
    EXPECT_EQ(errno, EALREADY);
    EXPECT_EQ(postpone(mailbox), -1);
    EXPECT_EQ(errno, EALREADY);
    EXPECT_EQ(mailbox.files(), "acks/7 inbox/7");
}

TEST(Marks, AreNotMadeWhereAFolderStands) {
    const mailbox_with_7 mailbox;
    write_file(mailbox.file("state/7.term/inside"), "");
    EXPECT_EQ(postpone(mailbox), -1);
    EXPECT_EQ(errno, EISDIR);
    EXPECT_EQ(mark_shown(mailbox, now()), -1);
    EXPECT_EQ(errno, EISDIR);
    EXPECT_EQ(mailbox.files(), "inbox/7 state/7.term/inside");
}

TEST(Shown, ReplacesAnOldMarkWhereFilesCannotBeExchanged) {
    SKIP_UNLESS_ROOT();
    for (const int error : {EINVAL, ENOSYS, EIO}) {
        static int refused;
        refused = error;
        EXPECT_EQ(told([](const heard_mailbox &mailbox) {
                      mailbox.put("state/7.term", "postponed\n");
                      mailbox.age("state/7.term", -HALF_AN_HOUR);
                      refuse_call(SYS_renameat2, static_cast<uint32_t>(refused));
                      const int result = mark_shown(mailbox, now());
                      printf("%d %s %s", result, mailbox.files().c_str(),
                             mailbox.text("state/7.term").c_str());
                  }),
                  error == EIO ? "-1 inbox/7 state/7.term postponed\n"
                               : "0 inbox/7 state/7.term shown\n");
    }
}

TEST(Marks, GoWithAMessageThatIsWithdrawnMeanwhile) {
    SKIP_UNLESS_ROOT();
    EXPECT_EQ(told([](const heard_mailbox &mailbox) {
                  own_mailbox box = mailbox.open();
                  trap_call(SYS_utimensat, [](long) -> long {
                      unlink(heard->file("inbox/7").c_str());
                      return 0;
                  });
                  if (answer_shown(&box, 7, channel::terminal, now(), HALF_AN_HOUR) != 0)
                      print_line(strerror(errno));
                  mailbox.put_message(7);
                  if (answer_postpone(&box, 7, channel::terminal) != 0)
                      print_line(strerror(errno));
                  printf("%s%s", mailbox.files().c_str(), mailbox.journal.events().c_str());
              }),
              "No such file or directory\nNo such file or directory\n");
}

TEST(Shown, LeavesAFolderThatComesMeanwhile) {
    SKIP_UNLESS_ROOT();
    EXPECT_EQ(told([](const heard_mailbox &mailbox) {
                  mailbox.put("state/7.term", "shown\n");
                  mailbox.age("state/7.term", -HALF_AN_HOUR);
                  own_mailbox box = mailbox.open();
                  // Between the look at the mark and its exchange.
                  trap_call(SYS_utimensat, [](long) -> long {
                      if (unlink(heard->file("state/7.term").c_str()) != 0)
                          return 0; // done already
                      return mkdir(heard->file("state/7.term").c_str(), 0755);
                  });
                  printf("%d\n", answer_shown(&box, 7, channel::terminal, now(), HALF_AN_HOUR));
                  printf("%d %s\n", is_directory(mailbox.file("state/7.term").c_str()),
                         mailbox.files().c_str());
              }),
              "-1\n1 inbox/7\n");
}

TEST(Postpone, WritesTheMarkAndRecordsIt) {
    SKIP_UNLESS_ROOT();
    EXPECT_EQ(told([](const heard_mailbox &mailbox) {
                  mailbox.put("state/7.gui", "shown\n");
                  print_line(std::to_string(postpone(mailbox, channel::desktop)));
                  print_line(mailbox.files());
                  printf("%s%s", mailbox.text("state/7.gui").c_str(),
                         mailbox.journal.events().c_str());
              }),
              "0\ninbox/7 state/7.gui\npostponed\nPOSTPONED 7 user=root details= author=\n");
}

TEST(PromptMark, GetsTheTimeOfTheLook) {
    const tried_mailbox mailbox;
    own_mailbox box = mailbox.open();
    ASSERT_EQ(answer_touch_prompt(&box), 0);
    mailbox.age("state/.prompt", -100);
    ASSERT_EQ(answer_touch_prompt(&box), 0);
    EXPECT_LT(mark_age(mailbox, "state/.prompt"), 50);
    EXPECT_EQ(mailbox.text("state/.prompt"), "");
}

TEST(PromptMark, IsNotMadeWithoutItsFolder) {
    const tried_mailbox mailbox;
    std::filesystem::remove(mailbox.file("state"));
    own_mailbox box = mailbox.open();
    mailbox.put("state", "in the way");
    EXPECT_EQ(answer_touch_prompt(&box), -1);
    EXPECT_EQ(errno, ENOTDIR);
}

TEST(PromptMark, IsNotTouchedThroughALinkOrAPipe) {
    const tried_mailbox mailbox;
    write_file(mailbox.path("elsewhere"), "kept");
    std::filesystem::create_symlink(mailbox.path("elsewhere"), mailbox.file("state/.prompt"));
    own_mailbox box = mailbox.open();
    EXPECT_EQ(answer_touch_prompt(&box), -1);
    std::filesystem::remove(mailbox.file("state/.prompt"));
    make_fifo(mailbox.file("state/.prompt"));
    EXPECT_EQ(answer_touch_prompt(&box), -1);
    const unique_fd reader(::open(mailbox.file("state/.prompt").c_str(), O_RDONLY | O_NONBLOCK));
    EXPECT_EQ(answer_touch_prompt(&box), -1);
    EXPECT_EQ(errno, EINVAL);
}

} // namespace
