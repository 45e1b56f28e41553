#include "tbx/confirmation.h"

#include "support.h"
#include "tbx/mailbox.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <vector>

namespace {

const resolved_user PAT = {"pat", PAT_UID, PAT_UID};

// "ID ACK SHOWN" of each entry, one per line; "-" where there is no confirmation.
std::string entries(const confirmation_list &list) {
    std::string lines;
    for (const confirmation_entry &entry : list.entries)
        lines += std::to_string(entry.id) + " " + (entry.ack ? "'" + *entry.ack + "'" : "-") + " " +
                 std::to_string(entry.shown) + "\n";
    return lines;
}

std::string parsed(std::string_view report) {
    confirmation_list list;
    confirmation_parse(report, &list);
    return entries(list);
}

void set_time(const std::string &path, time_t seconds) {
    const timespec times[2] = {{seconds, 0}, {seconds, 999'999'999}};
    if (utimensat(AT_FDCWD, path.c_str(), times, 0) != 0)
        throw_errno(path);
}

// A mailbox in test mode, and the child's report of it.
struct reported_mailbox : scratch_state {
    void put(const std::string &name, std::string_view text) const {
        write("users/pat/" + name, text);
    }
    void put_shown(const std::string &name, time_t seconds) const {
        put(name, "");
        set_time(path("users/pat/" + name), seconds);
    }
    [[nodiscard]] std::string report_on(std::string_view identifiers) const {
        std::string mailbox = path("users/pat");
        strbuf output;
        EXPECT_TRUE(run_as_user(PAT, mailbox_report_confirmations, mailbox.data(), &identifiers,
                                &output, SIZE_MAX, MAILBOX_TIMEOUT_SECONDS)
                        .succeeded());
        return std::string(output.view());
    }
    // A single identifier is looked for by name, several in a list of the folder: it is the same.
    [[nodiscard]] std::string report(std::string_view identifiers) const {
        EXPECT_EQ(report_on(std::string("999999\n").append(identifiers)), report_on(identifiers));
        return report_on(identifiers);
    }
    // More than there are identifiers, so that the folder is not worth listing.
    void crowd(const std::string &folder) const {
        for (int i = 0; i < 20; i++)
            put(folder + "/other" + std::to_string(i), "");
    }
    void crowd_folders() const {
        crowd("acks");
        crowd("state");
    }
};

} // namespace

// ---- Parsing a report ---------------------------------------------------------------------

TEST(ConfirmationParse, TakesConfirmationsAndTimesShown) {
    EXPECT_EQ(parsed("A 7 100 desktop\nS 7 90\nS 8 50\n"), "7 '100 desktop' 90\n8 - 50\n");
}

TEST(ConfirmationParse, EntriesComeInOrderOfFirstAppearance) {
    EXPECT_EQ(parsed("S 9 1\nA 7 \nA 9 x\nS 8 2\n"), "9 'x' 1\n7 '' 0\n8 - 2\n");
}

TEST(ConfirmationParse, FirstConfirmationCounts) {
    EXPECT_EQ(parsed("A 7 100 a\nA 7 200 b\n"), "7 '100 a' 0\n");
    EXPECT_EQ(parsed("A 7 \nA 7 200 b\n"), "7 '' 0\n");
}

TEST(ConfirmationParse, LatestTimeShownCounts) {
    EXPECT_EQ(parsed("S 7 50\nS 7 90\nS 7 70\n"), "7 - 90\n");
}

TEST(ConfirmationParse, TimeShownMustBeANumber) {
    for (const char *time : {"", "-5", "5x", " 5", "1000000000000000000", "x"})
        EXPECT_EQ(parsed(std::string("S 7 ") + time + "\n"), "7 - 0\n") << time;
}

TEST(ConfirmationParse, UnknownLetterCreatesAnEmptyEntry) {
    EXPECT_EQ(parsed("B 7 x\na 8 x\n"), "7 - 0\n8 - 0\n");
}

TEST(ConfirmationParse, TextIsTakenAsItIs) {
    EXPECT_EQ(parsed("A 7   x \n"), "7 '  x ' 0\n");
    EXPECT_EQ(parsed("A 7 \x1b[m\r\n"), "7 '\x1b[m\r' 0\n");
}

TEST(ConfirmationParse, OtherLinesAreSkipped) {
    for (const char *line : {"", "A", "A ", "A7 x", "AA 7 x", "AA7 x", "A\t7 x", "A 7", "A  7 x",
                             "A x 1", "A -7 x", "A 7a x", "A 1000000000000000000 x"})
        EXPECT_EQ(parsed(std::string(line) + "\nA 9 y\n"), "9 'y' 0\n") << line;
}

TEST(ConfirmationParse, LastLineNeedsNoLineEnd) {
    EXPECT_EQ(parsed("A 7 x"), "7 'x' 0\n");
}

TEST(ConfirmationParse, EqualNumbersAreOneEntry) {
    EXPECT_EQ(parsed("A 007 x\nS 7 5\n"), "7 'x' 5\n");
}

TEST(ConfirmationParse, AddsToWhatTheListHolds) {
    confirmation_list list;
    confirmation_parse("A 7 x\n", &list);
    confirmation_parse("S 7 5\nA 8 y\n", &list);
    EXPECT_EQ(entries(list), "7 'x' 5\n8 'y' 0\n");
}

TEST(ConfirmationFind, GivesTheEntryOrNone) {
    confirmation_list list;
    confirmation_parse("A 7 x\nA 8 y\n", &list);
    ASSERT_NE(confirmation_find(list, 8), nullptr);
    EXPECT_EQ(confirmation_find(list, 8)->ack, "y");
    EXPECT_EQ(confirmation_find(list, 9), nullptr);
    EXPECT_EQ(confirmation_find({}, 7), nullptr);
}

TEST(ConfirmationFind, TellsManyFromManyOthers) {
    constexpr int64_t MESSAGES = 20'000;
    std::string report;
    for (int64_t id = 1; id <= MESSAGES; id += 3)
        report +=
            xasprintf("A %lld %lld\n", static_cast<long long>(id), static_cast<long long>(id));
    confirmation_list list;
    confirmation_parse(report, &list);
    for (int64_t id = 0; id <= 2 * MESSAGES; id++) {
        const confirmation_entry *entry = confirmation_find(list, id);
        const bool is_there = id % 3 == 1 && id <= MESSAGES;
        ASSERT_EQ(entry != nullptr, is_there) << id;
        ASSERT_EQ(is_there ? *entry->ack : "", is_there ? std::to_string(id) : "");
    }
}

TEST(ConfirmationListFree, LeavesAnEmptyList) {
    confirmation_list list;
    confirmation_parse("A 7 x\n", &list);
    confirmation_list_free(&list);
    EXPECT_EQ(entries(list), "");
    EXPECT_EQ(confirmation_find(list, 7), nullptr);
}

// ---- The child's report: confirmations ----------------------------------------------------

TEST(ConfirmationReport, GivesTheFirstLineOfEachConfirmation) {
    const reported_mailbox mailbox;
    mailbox.put("acks/7", "100 desktop\nsecond line\n");
    mailbox.put("acks/8", "200 terminal");
    EXPECT_EQ(mailbox.report("7\n8\n9\n"), "A 7 100 desktop\nA 8 200 terminal\n");
}

TEST(ConfirmationReport, EmptyFileIsAConfirmation) {
    const reported_mailbox mailbox;
    mailbox.put("acks/7", "");
    mailbox.put("acks/8", "\n100 x");
    EXPECT_EQ(mailbox.report("7\n8\n"), "A 7 \nA 8 \n");
}

TEST(ConfirmationReport, ReadsTwoHundredBytes) {
    const reported_mailbox mailbox;
    mailbox.put("acks/7", std::string(200, 'x') + "y");
    mailbox.put("acks/8", std::string(199, 'x') + "\n");
    EXPECT_EQ(mailbox.report("7\n8\n"),
              "A 7 " + std::string(200, 'x') + "\nA 8 " + std::string(199, 'x') + "\n");
}

TEST(ConfirmationReport, NulByteEndsTheText) {
    const reported_mailbox mailbox;
    mailbox.put("acks/7", std::string_view("100 a\0b\n", 8));
    EXPECT_EQ(mailbox.report("7\n"), "A 7 100 a\n");
}

TEST(ConfirmationReport, PassesOverWhatIsNoFile) {
    for (const bool crowded : {false, true}) {
        const reported_mailbox mailbox;
        std::filesystem::create_directories(mailbox.path("users/pat/acks/7"));
        make_fifo(mailbox.path("users/pat/acks/8")); // nobody writes: it must not block
        std::filesystem::create_symlink("8", mailbox.path("users/pat/acks/9"));
        std::filesystem::create_symlink("/dev/zero", mailbox.path("users/pat/acks/10"));
        std::filesystem::create_symlink("nowhere", mailbox.path("users/pat/acks/11"));
        if (crowded)
            mailbox.crowd_folders();
        EXPECT_EQ(mailbox.report("7\n8\n9\n10\n11\n"), "");
    }
}

TEST(ConfirmationReport, OnlyTheExactNameCounts) {
    const reported_mailbox mailbox;
    for (const char *name : {"7.tmp", "77", "07", "7 ", ".7"})
        mailbox.put(std::string("acks/") + name, "100 x\n");
    EXPECT_EQ(mailbox.report("7\n"), "");
}

// ---- The child's report: times shown ------------------------------------------------------

TEST(ConfirmationReport, GivesTheLaterTimeShown) {
    const reported_mailbox mailbox;
    mailbox.put_shown("state/7.term", 100);
    mailbox.put_shown("state/7.gui", 200);
    mailbox.put_shown("state/8.term", 400);
    mailbox.put_shown("state/8.gui", 300);
    EXPECT_EQ(mailbox.report("7\n8\n"), "S 7 200\nS 8 400\n");
}

TEST(ConfirmationReport, OneMarkIsEnough) {
    const reported_mailbox mailbox;
    mailbox.put_shown("state/7.gui", 200);
    mailbox.put_shown("state/8.term", 300);
    EXPECT_EQ(mailbox.report("7\n8\n"), "S 7 200\nS 8 300\n");
}

TEST(ConfirmationReport, TimeZeroIsNotShown) {
    const reported_mailbox mailbox;
    mailbox.put_shown("state/7.gui", 0);
    EXPECT_EQ(mailbox.report("7\n"), "");
}

TEST(ConfirmationReport, MarkThatIsNoFileIsNotShown) {
    const reported_mailbox mailbox;
    std::filesystem::create_directories(mailbox.path("users/pat/state/7.gui"));
    make_fifo(mailbox.path("users/pat/state/7.term"));
    EXPECT_EQ(mailbox.report("7\n"), "");
}

TEST(ConfirmationReport, OtherSuffixesAreNotShown) {
    const reported_mailbox mailbox;
    for (const char *name : {"7", "7.guix", "7.tmp", "7.gui.tmp", "77.gui"})
        mailbox.put_shown(std::string("state/") + name, 100);
    EXPECT_EQ(mailbox.report("7\n"), "");
}

// ---- The child's report: identifiers ------------------------------------------------------

TEST(ConfirmationReport, KeepsTheOrderOfTheIdentifiers) {
    const reported_mailbox mailbox;
    for (const char *id : {"7", "8", "9"}) {
        mailbox.put(std::string("acks/") + id, id);
        mailbox.put_shown(std::string("state/") + id + ".gui", 100);
    }
    EXPECT_EQ(mailbox.report("9\n7\n8\n"), "A 9 9\nS 9 100\nA 7 7\nS 7 100\nA 8 8\nS 8 100\n");
}

TEST(ConfirmationReport, TakesIdentifiersOfUpToTwentyThreeDigits) {
    const reported_mailbox mailbox;
    const std::string longest(23, '1');
    const std::string too_long(24, '1');
    mailbox.put("acks/" + longest, "a");
    mailbox.put("acks/" + too_long, "b");
    EXPECT_EQ(mailbox.report(too_long + "\n" + longest + "\n"), "A " + longest + " a\n");
}

TEST(ConfirmationReport, IgnoresOtherLines) {
    for (const bool crowded : {false, true}) {
        const reported_mailbox mailbox;
        for (const char *name : {"-7", "+7", "7a", "a", "7 "})
            mailbox.put(std::string("acks/") + name, "100 x\n");
        if (crowded)
            mailbox.crowd_folders();
        EXPECT_EQ(mailbox.report("-7\n+7\n7a\na\n7 \n\n..\n../acks/a\n"), "");
    }
}

TEST(ConfirmationReport, NulByteIsNoPartOfAnIdentifier) {
    const reported_mailbox mailbox;
    mailbox.put("acks/7", "100 x\n");
    mailbox.crowd_folders(); // each identifier is tried by name
    EXPECT_EQ(mailbox.report(std::string_view("7\0\n", 3)), "");
}

TEST(ConfirmationReport, LastIdentifierNeedsNoLineEnd) {
    const reported_mailbox mailbox;
    mailbox.put("acks/7", "100 x\n");
    EXPECT_EQ(mailbox.report("7"), "A 7 100 x\n");
}

TEST(ConfirmationReport, ReadsSoManyIdentifiersAndNoMore) {
    const reported_mailbox mailbox;
    mailbox.put("acks/7", "x");
    mailbox.put("acks/78", "y");
    const std::string last = "\n78";
    const std::string others(4'194'304 - last.size(), 'x');
    EXPECT_EQ(mailbox.report_on(others + last), "A 78 y\n");
    EXPECT_EQ(mailbox.report_on(others + "x" + last), "A 7 x\n"); // one digit too many
}

TEST(ConfirmationReport, WithoutAMailboxOrIdentifiersIsEmpty) {
    const reported_mailbox mailbox;
    EXPECT_EQ(mailbox.report("7\n"), "");
    mailbox.put("acks/7", "x");
    EXPECT_EQ(mailbox.report(""), "");
    EXPECT_EQ(mailbox.report("\n"), "");
}

TEST(ConfirmationReport, IsTheSameWithAndWithoutAListOfEachFolder) {
    const std::vector<std::vector<std::string>> cases = {
        {}, {"acks"}, {"state"}, {"acks", "state"}};
    for (const std::vector<std::string> &crowded : cases) {
        const reported_mailbox mailbox;
        mailbox.put("acks/7", "100 desktop\n");
        mailbox.put("acks/08", "200\n");
        mailbox.put_shown("state/7.gui", 90);
        mailbox.put_shown("state/9.term", 50);
        for (const std::string &folder : crowded)
            mailbox.crowd(folder);
        EXPECT_EQ(mailbox.report("7\n08\n9\n10\n8\n"),
                  "A 7 100 desktop\nS 7 90\nA 08 200\nS 9 50\n")
            << crowded.size() << " not listed";
    }
}

TEST(ConfirmationReport, TakesAFolderThatIsJustWorthListing) {
    const reported_mailbox mailbox;
    for (const std::string id : {"7", "8"}) {
        mailbox.put("acks/" + id, id);
        mailbox.put_shown("state/" + id + ".term", 50);
        mailbox.put_shown("state/" + id + ".gui", 60);
    }
    EXPECT_EQ(mailbox.report("7\n8\n"), "A 7 7\nS 7 60\nA 8 8\nS 8 60\n");
}

// ---- Reading a user's confirmations -------------------------------------------------------

namespace {

// What pat's mailbox says of the messages, read on a real machine into a list that holds
// something already.
std::string read_on(const real_state &state, const std::vector<std::string> &ids) {
    const child_result child = run_for_real(state, machine_of_pat_and_sam(), [&ids] {
        strlist list;
        for (const std::string &id : ids)
            strlist_push_dup(&list, id.c_str());
        confirmation_list found;
        confirmation_parse("A 99 old\n", &found);
        if (mailbox_read_confirmations(PAT, list, &found) != 0)
            fputs("failed", stdout);
        fputs(entries(found).c_str(), stdout);
    });
    EXPECT_EQ(child.exit_status, 0) << child.err;
    return child.out;
}

int forks; // counted in a child that asks for it

void count_fork() {
    forks++;
}

} // namespace

TEST(ReadConfirmations, GivesWhatTheMailboxRecords) {
    SKIP_UNLESS_ROOT();
    const real_mailbox mailbox;
    mailbox.make_folders();
    mailbox.put("acks/7", "100 desktop\n");
    mailbox.put("state/8.gui", "");
    set_time(mailbox.file("state/8.gui"), 90);
    mailbox.put("acks/9", "not asked for\n");
    EXPECT_EQ(read_on(mailbox, {"6", "7", "8"}), "7 '100 desktop' 0\n8 - 90\n");
}

TEST(ReadConfirmations, WithoutAMailboxAreNone) {
    SKIP_UNLESS_ROOT();
    const real_mailbox mailbox;
    EXPECT_EQ(read_on(mailbox, {"7"}), "");
}

TEST(ReadConfirmations, LinkInPlaceOfTheMailboxIsNoMailbox) {
    SKIP_UNLESS_ROOT();
    const real_mailbox mailbox;
    write_file(mailbox.state_path("users/sam/acks/7"), "100 x\n");
    std::filesystem::create_symlink("sam", mailbox.file());
    EXPECT_EQ(read_on(mailbox, {"7"}), "");
}

TEST(ReadConfirmations, StartNoChildForNothing) {
    const child_result child = run_in_child([] {
        const scratch_state state;
        pthread_atfork(count_fork, nullptr, nullptr);
        strlist ids;
        confirmation_list list;
        state.write("users/pat/acks/7", "");
        const int without_ids = mailbox_read_confirmations(PAT, ids, &list);
        strlist_push_dup(&ids, "7");
        const int without_mailbox = mailbox_read_confirmations({"nobody", 1, 1}, ids, &list);
        if (without_ids != 0 || without_mailbox != 0 || forks != 0)
            return 20;
        const int read = mailbox_read_confirmations(PAT, ids, &list);
        return read == 0 && forks == 1 ? 10 : 30; // one child for everything
    });
    EXPECT_EQ(child.exit_status, 10) << child.err;
}

TEST(ReadConfirmations, FoldersThatCannotBeListedAreReadByName) {
    SKIP_UNLESS_ROOT();
    const real_mailbox mailbox;
    mailbox.make_folders();
    mailbox.put("acks/7", "100 desktop\n");
    mailbox.put("state/8.gui", "");
    set_time(mailbox.file("state/8.gui"), 90);
    for (const char *folder : {"acks", "state"})
        std::filesystem::permissions(mailbox.file(folder), std::filesystem::perms(0311));
    EXPECT_EQ(read_on(mailbox, {"6", "7", "8"}), "7 '100 desktop' 0\n8 - 90\n");
}

TEST(ReadConfirmations, NothingThatTheUserCannotReadIsRead) {
    SKIP_UNLESS_ROOT();
    const real_mailbox mailbox;
    write_file(mailbox.state_path("secret"), "100 secret\n");
    std::filesystem::permissions(mailbox.state_path("secret"), std::filesystem::perms(0600));
    mailbox.make_folders();
    std::filesystem::create_symlink("../../../secret", mailbox.file("acks/7"));
    mailbox.put("acks/8", "100 x\n");
    std::filesystem::permissions(mailbox.file("acks/8"), std::filesystem::perms(0000));
    mailbox.put("acks/9", "100 x\n");
    EXPECT_EQ(read_on(mailbox, {"7", "8", "9"}), "9 '100 x' 0\n");
}

TEST(ReadConfirmations, MailboxThatTheUserCannotEnterIsEmpty) {
    SKIP_UNLESS_ROOT();
    const real_mailbox mailbox;
    mailbox.make_folders();
    mailbox.put("acks/7", "100 x\n");
    give_file_to(mailbox.file(), SAM_UID);
    std::filesystem::permissions(mailbox.file(), std::filesystem::perms(0700));
    EXPECT_EQ(read_on(mailbox, {"7"}), "");
}

TEST(ReadConfirmations, UserWhoCannotBeBecomeIsNotCalledOneWithout) {
    SKIP_UNLESS_ROOT();
    const real_mailbox mailbox;
    mailbox.make_folders();
    mailbox.put("acks/7", "100 x\n");
    const child_result child = run_for_real(mailbox, machine_of_pat_and_sam(), [] {
        strlist ids;
        strlist_push_dup(&ids, "7");
        confirmation_list list;
        const int result = mailbox_read_confirmations({"pat", 0, 0}, ids, &list);
        return result == -1 && list.entries.empty() ? 10 : 20;
    });
    EXPECT_EQ(child.exit_status, 10) << child.err;
}

TEST(ReadConfirmations, WithoutDescriptorsAreNotCalledNone) {
    const child_result child = run_in_child([] {
        const scratch_state state;
        state.write("users/pat/acks/7", "100 x\n");
        strlist ids;
        strlist_push_dup(&ids, "7");
        leave_descriptors(1);
        confirmation_list list;
        return mailbox_read_confirmations(PAT, ids, &list) == -1 && errno == EMFILE ? 10 : 20;
    });
    EXPECT_EQ(child.exit_status, 10) << child.err;
}

TEST(ReadConfirmations, ReportIsCutAtItsLimit) {
    const environment_variable in_memory("TMPDIR", "/dev/shm"); // many files
    const reported_mailbox mailbox;
    mailbox.put("acks/10000", std::string(191, 'x')); // with "A 10000 " and the end, 200 bytes
    strlist ids;
    constexpr size_t WHOLE_LINES = 4'194'304 / 200;
    for (size_t i = 0; i < WHOLE_LINES + 100; i++) {
        const std::string id = std::to_string(10'000 + i);
        strlist_push_dup(&ids, id.c_str());
        if (i > 0)
            std::filesystem::create_hard_link(mailbox.path("users/pat/acks/10000"),
                                              mailbox.path("users/pat/acks/" + id));
    }
    confirmation_list list;
    ASSERT_EQ(mailbox_read_confirmations(PAT, ids, &list), 0);
    ASSERT_EQ(list.entries.size(), WHOLE_LINES + 1); // the last one cut
    EXPECT_EQ(list.entries[WHOLE_LINES - 1].ack->size(), 191U);
    EXPECT_LT(list.entries[WHOLE_LINES].ack->size(), 191U);
}
