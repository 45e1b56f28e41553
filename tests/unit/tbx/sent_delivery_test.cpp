// The lists of a message: its recipients, and the log of whom it was delivered to.
#include "tbx/sent.h"

#include "support.h"

#include <gmock/gmock.h>

#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

using testing::MatchesRegex;
using testing::StartsWith;

namespace {

struct read_list {
    lookup result;
    std::string text; // in one line
};

read_list read_recipients() {
    strlist list;
    const lookup result = sent_read_recipients(7, &list);
    return {result, joined(list)};
}

// "USER TERMINALS, USER TERMINALS".
std::string shown(const delivery_table &table) {
    std::string text;
    for (size_t i = 0; i < table.users.size(); i++)
        text.append(i > 0 ? ", " : "")
            .append(table.users[i])
            .append(" ")
            .append(table.terminals[i]);
    return text;
}

read_list read_delivery() {
    delivery_table table;
    const lookup result = sent_read_delivery(7, &table);
    EXPECT_EQ(table.users.size(), table.terminals.size());
    return {result, shown(table)};
}

std::string delivery_of(std::string_view log) {
    const scratch_store store;
    store.write("sent/7/delivery", log);
    const read_list read = read_delivery();
    EXPECT_EQ(read.result, lookup::found);
    return read.text;
}

// What is left of a delivery log after its mending.
std::string mended(std::string_view log) {
    const scratch_store store;
    store.write("sent/7/delivery", log);
    EXPECT_EQ(sent_mend_delivery(7), 0);
    return store.read("sent/7/delivery");
}

} // namespace

// ---- Recipients ---------------------------------------------------------------------------

TEST(SentRecipients, AreSeparatedByBlanksTabsAndNewlines) {
    const scratch_store store;
    store.write("sent/7/recipients", "pat\nsam\n\n  ann\tbob \n");
    EXPECT_EQ(read_recipients().text, "pat sam ann bob");
    EXPECT_EQ(read_recipients().result, lookup::found);
}

TEST(SentRecipients, LastOneNeedsNoLineEnd) {
    const scratch_store store;
    store.write("sent/7/recipients", "pat\nsam");
    EXPECT_EQ(read_recipients().text, "pat sam");
}

TEST(SentRecipients, OtherBytesBelongToTheNames) {
    const scratch_store store;
    store.write("sent/7/recipients", "pat\r\nsam\v\xc3\xa9\n");
    EXPECT_EQ(read_recipients().text, "pat\r sam\v\xc3\xa9");
}

TEST(SentRecipients, ComeInTheirOrderInPlaceOfWhatTheListHeld) {
    const scratch_store store;
    store.write("sent/7/recipients", "sam\npat\nsam\n");
    strlist list;
    strlist_push_dup(&list, "before");
    EXPECT_EQ(sent_read_recipients(7, &list), lookup::found);
    EXPECT_EQ(joined(list), "sam pat sam");
}

TEST(SentRecipients, OfAnEmptyFileAreNone) {
    const scratch_store store;
    for (const char *text : {"", "\n \t\n"}) {
        store.write("sent/7/recipients", text);
        EXPECT_EQ(read_recipients().result, lookup::found);
        EXPECT_EQ(read_recipients().text, "");
    }
}

TEST(SentRecipients, MissingFileYieldsNothing) {
    const scratch_store store;
    EXPECT_EQ(read_recipients().result, lookup::absent);
    EXPECT_EQ(read_recipients().text, "");
}

TEST(SentRecipients, FileHasAtMostFourMebibytes) {
    const scratch_store store;
    const std::string exact = std::string(4'194'304 - 4, '\n') + "pat\n";
    store.write("sent/7/recipients", exact);
    EXPECT_EQ(read_recipients().text, "pat");
    store.write("sent/7/recipients", exact + "\n");
    EXPECT_EQ(read_recipients().result, lookup::absent);
    EXPECT_EQ(read_recipients().text, "");
}

TEST(SentRecipients, OnlyAFileIsRead) {
    const scratch_store store;
    store.write("sent/7/elsewhere", "pat\n");
    std::filesystem::create_symlink("elsewhere", store.path("sent/7/recipients"));
    EXPECT_EQ(read_recipients().result, lookup::absent);
    std::filesystem::remove(store.path("sent/7/recipients"));
    make_fifo(store.path("sent/7/recipients"));
    EXPECT_EQ(read_recipients().result, lookup::absent);
}

// ---- Reading the delivery log -------------------------------------------------------------

TEST(DeliveryLog, FirstLineOfAUserWins) {
    EXPECT_EQ(delivery_of("pat 100 2\npat 200 0\nsam 150\n"), "pat 2, sam 0");
}

TEST(DeliveryLog, KeepsTheOrderOfFirstAppearance) {
    EXPECT_EQ(delivery_of("sam 1 1\nann 2 2\npat 3 3\nann 4 4\n"), "sam 1, ann 2, pat 3");
}

TEST(DeliveryLog, LinesWithoutAFieldAreSkipped) {
    EXPECT_EQ(delivery_of("\n \t \npat 100 2\n\n"), "pat 2");
}

TEST(DeliveryLog, FieldsMayBeSpacedAtWill) {
    EXPECT_EQ(delivery_of("  pat \t 100\v\f 2 \r\n"), "pat 2");
    EXPECT_EQ(delivery_of("pat\v100\f2\r\n"), "pat 2");
}

TEST(DeliveryLog, LineMayLackItsTimeAndCount) {
    EXPECT_EQ(delivery_of("pat\nsam 100\n"), "pat 0, sam 0");
}

TEST(DeliveryLog, CountIsKeptAsText) {
    EXPECT_EQ(delivery_of("pat x many\nsam 100 -1 and more\n"), "pat many, sam -1");
}

TEST(DeliveryLog, LastLineNeedsNoLineEnd) {
    EXPECT_EQ(delivery_of("pat 100 2"), "pat 2");
}

TEST(DeliveryLog, NamesHaveAtMost255Bytes) {
    const std::string name(255, 'n');
    EXPECT_EQ(delivery_of(name + " 100 2\n"), name + " 2");
    // The rest of a longer name passes for the time, and the time for the count.
    EXPECT_EQ(delivery_of(name + "more 100 2\n"), name + " 100");
}

TEST(DeliveryLog, CountsHaveAtMost31Bytes) {
    EXPECT_EQ(delivery_of("pat 100 " + std::string(40, '1') + "\n"), "pat " + std::string(31, '1'));
}

TEST(DeliveryLog, TimesMayHaveAnyLength) {
    EXPECT_EQ(delivery_of("pat " + std::string(5000, '1') + " 2\n"), "pat 2");
}

TEST(DeliveryLog, OfAnEmptyFileIsEmpty) {
    EXPECT_EQ(delivery_of(""), "");
}

TEST(DeliveryLog, MissingFileYieldsNothing) {
    const scratch_store store;
    EXPECT_EQ(read_delivery().result, lookup::absent);
    EXPECT_EQ(read_delivery().text, "");
}

TEST(DeliveryLog, NulByteEndsANumber) {
    EXPECT_EQ(delivery_of(std::string_view("pat 100 2\0x\nsam 100 \0\n", 22)), "pat 2, sam ");
}

TEST(DeliveryLog, FillsTheTableAnew) {
    const scratch_store store;
    store.write("sent/7/delivery", "pat 100 2\n");
    store.write("sent/8/delivery", "sam 100 1\n");
    delivery_table table;
    EXPECT_EQ(sent_read_delivery(7, &table), lookup::found);
    EXPECT_EQ(sent_read_delivery(8, &table), lookup::found);
    EXPECT_EQ(shown(table), "sam 1");
    EXPECT_EQ(delivery_find(table, "pat"), -1);
    EXPECT_EQ(sent_read_delivery(9, &table), lookup::absent);
    EXPECT_EQ(shown(table), "");
    EXPECT_EQ(delivery_find(table, "sam"), -1);
}

TEST(DeliveryLog, FileHasAtMostSixteenMebibytes) {
    const scratch_store store;
    const std::string exact = std::string(16'777'216 - 10, '\n') + "pat 100 2\n";
    store.write("sent/7/delivery", exact);
    EXPECT_EQ(read_delivery().text, "pat 2");
    store.write("sent/7/delivery", exact + "\n");
    EXPECT_EQ(read_delivery().result, lookup::absent);
    EXPECT_EQ(read_delivery().text, "");
}

TEST(DeliveryLog, OnlyAFileIsRead) {
    const scratch_store store;
    store.write("sent/7/elsewhere", "pat 100 2\n");
    std::filesystem::create_symlink("elsewhere", store.path("sent/7/delivery"));
    EXPECT_EQ(read_delivery().result, lookup::absent);
    std::filesystem::remove(store.path("sent/7/delivery"));
    make_fifo(store.path("sent/7/delivery"));
    EXPECT_EQ(read_delivery().result, lookup::absent);
}

TEST(DeliveryFind, GivesThePositionOfAUser) {
    const scratch_store store;
    store.write("sent/7/delivery", "pat 100 2\nsam 100 1\n");
    delivery_table table;
    ASSERT_EQ(sent_read_delivery(7, &table), lookup::found);
    EXPECT_EQ(delivery_find(table, "pat"), 0);
    EXPECT_EQ(delivery_find(table, "sam"), 1);
    EXPECT_EQ(delivery_find(table, "sa"), -1);
    EXPECT_EQ(delivery_find(table, ""), -1);
}

TEST(DeliveryFind, FindsEachOfManyAndNobodyElse) {
    const scratch_store store;
    constexpr int USERS = 5000; // the table grows several times
    std::string log;
    for (int round = 0; round < 2; round++) // the second line of a user does not count
        for (int i = 0; i < USERS; i++)
            log += xasprintf("user%d 100 %d\n", i, round * USERS + i);
    store.write("sent/7/delivery", log);
    delivery_table table;
    ASSERT_EQ(sent_read_delivery(7, &table), lookup::found);
    ASSERT_EQ(table.users.size(), size_t{USERS});
    for (int i = 0; i < USERS; i++) {
        ASSERT_EQ(delivery_find(table, xasprintf("user%d", i)), i);
        ASSERT_EQ(table.terminals[static_cast<size_t>(i)], std::to_string(i));
        ASSERT_EQ(delivery_find(table, xasprintf("other%d", i)), -1);
    }
}

TEST(DeliveryFind, WorksInATableThatWasMoved) {
    const scratch_store store;
    store.write("sent/7/delivery", "pat 100 2\n");
    delivery_table table;
    ASSERT_EQ(sent_read_delivery(7, &table), lookup::found);
    const delivery_table moved = std::move(table);
    EXPECT_EQ(delivery_find(moved, "pat"), 0);
}

// ---- Appending to the delivery log --------------------------------------------------------

TEST(AppendDelivery, WritesNameTimeAndTerminals) {
    const scratch_store store;
    store.make_message("7");
    const int64_t before = now();
    sent_append_delivery(7, "pat", 2);
    const int64_t after = now();
    const std::string log = store.read("sent/7/delivery");
    EXPECT_THAT(log, MatchesRegex("pat [0-9]+ 2\n"));
    const int64_t written = std::stoll(log.substr(4));
    EXPECT_LE(before, written);
    EXPECT_LE(written, after);
}

TEST(AppendDelivery, AddsALineToAPrivateFile) {
    const scratch_store store;
    store.make_message("7");
    sent_append_delivery(7, "pat", 0);
    sent_append_delivery(7, "sam", 13);
    EXPECT_THAT(store.read("sent/7/delivery"), MatchesRegex("pat [0-9]+ 0\nsam [0-9]+ 13\n"));
    EXPECT_THAT(mode_and_owner(store.path("sent/7/delivery")), StartsWith("0600"));
}

TEST(AppendDelivery, LineHasAtMost399Bytes) {
    const scratch_store store;
    store.make_message("7");
    const size_t rest = (" " + std::to_string(now()) + " 0\n").size();
    const std::string name(399 - rest, 'n');
    sent_append_delivery(7, (name + "n").c_str(), 0);
    EXPECT_FALSE(store.exists("sent/7/delivery"));
    sent_append_delivery(7, name.c_str(), 0);
    EXPECT_EQ(store.read("sent/7/delivery").size(), 399U);
}

TEST(AppendDelivery, DoesNotFollowALink) {
    const scratch_store store;
    store.write("sent/7/elsewhere", "kept");
    std::filesystem::create_symlink("elsewhere", store.path("sent/7/delivery"));
    sent_append_delivery(7, "pat", 0);
    EXPECT_EQ(store.read("sent/7/elsewhere"), "kept");
}

TEST(AppendDelivery, NamedPipeInItsPlaceDoesNotBlock) {
    const scratch_store store;
    store.make_message("7");
    make_fifo(store.path("sent/7/delivery"));
    const size_t before = open_descriptors();
    sent_append_delivery(7, "pat", 0);
    EXPECT_EQ(open_descriptors(), before);
}

TEST(AppendDelivery, FailureIsNotReported) {
    const scratch_store store;
    const child_result child = run_in_child([] { sent_append_delivery(7, "pat", 0); });
    EXPECT_EQ(child.exit_status, 0);
    EXPECT_EQ(child.out + child.err, "");
    EXPECT_FALSE(store.exists("sent/7"));
}

TEST(AppendDelivery, FailedWriteLeavesNoHalfLine) {
    const scratch_store store;
    store.write("sent/7/delivery", "sam 1 2\n");
    const child_result child = run_in_child([] {
        limit_files(12); // four bytes more
        sent_append_delivery(7, "pat", 0);
    });
    EXPECT_EQ(child.exit_status, 0) << child.err;
    EXPECT_EQ(store.read("sent/7/delivery"), "sam 1 2\n");
}

TEST(AppendDelivery, LinesOfSeveralRunsDoNotMix) {
    const scratch_store store;
    store.make_message("7");
    pid_t runs[4];
    for (pid_t &run : runs)
        run = start_process([] {
            for (int i = 0; i < 200; i++)
                sent_append_delivery(7, xasprintf("user%d.%d", getpid(), i).c_str(), 1);
            return 0;
        });
    for (const pid_t run : runs)
        EXPECT_EQ(exit_status_of(run), 0);
    delivery_table table;
    ASSERT_EQ(sent_read_delivery(7, &table), lookup::found);
    EXPECT_EQ(table.users.size(), 800U);
    for (const std::string_view terminals : table.terminals)
        EXPECT_EQ(terminals, "1");
}

// ---- Mending the delivery log -------------------------------------------------------------

TEST(MendDelivery, CutsALastLineThatIsNotWhole) {
    EXPECT_EQ(mended("pat 100 2\nsam 15"), "pat 100 2\n");
    EXPECT_EQ(mended("pat 100 2\n\nsam"), "pat 100 2\n\n");
    EXPECT_EQ(mended("pa"), "");
}

TEST(MendDelivery, LeavesAWholeLogAlone) {
    EXPECT_EQ(mended("pat 100 2\n"), "pat 100 2\n");
    EXPECT_EQ(mended("\n"), "\n");
    EXPECT_EQ(mended(""), "");
}

TEST(MendDelivery, CreatesNothing) {
    const scratch_store store;
    store.make_message("7");
    EXPECT_EQ(sent_mend_delivery(7), 0);
    EXPECT_FALSE(store.exists("sent/7/delivery"));
}

TEST(MendDelivery, DoesNotFollowALink) {
    const scratch_store store;
    store.write("sent/7/elsewhere", "pat 100 2\nsam");
    std::filesystem::create_symlink("elsewhere", store.path("sent/7/delivery"));
    EXPECT_EQ(sent_mend_delivery(7), 0);
    EXPECT_EQ(store.read("sent/7/elsewhere"), "pat 100 2\nsam");
}

TEST(MendDelivery, NamedPipeInItsPlaceDoesNotBlock) {
    const scratch_store store;
    store.make_message("7");
    make_fifo(store.path("sent/7/delivery"));
    const size_t before = open_descriptors();
    EXPECT_EQ(sent_mend_delivery(7), 0);
    EXPECT_EQ(open_descriptors(), before);
}

TEST(MendDelivery, NextLineStandsOnItsOwn) {
    const scratch_store store;
    store.write("sent/7/delivery", "pat 100 2\nsa");
    EXPECT_EQ(sent_mend_delivery(7), 0);
    sent_append_delivery(7, "ann", 1);
    EXPECT_EQ(read_delivery().text, "pat 2, ann 1");
}

TEST(MendDelivery, FailsWhereItCannotBeToldWhetherItIsNeeded) {
    const scratch_store store;
    store.write("sent/7/delivery", "pat 100 2\nsa");
    const child_result child = run_in_child([] {
        leave_descriptors(0);
        return sent_mend_delivery(7) == 0 ? 10 : 20;
    });
    EXPECT_EQ(child.exit_status, 20);
}

TEST(MendDelivery, FailsWhereTheLogCannotBeWritten) {
    SKIP_UNLESS_ROOT();
    const scratch_store store;
    store.write("sent/7/delivery", "pat 100 2\nsa");
    std::filesystem::permissions(store.path(), std::filesystem::perms(0755));
    const child_result child = run_in_child([] {
        if (setresuid(PAT_UID, PAT_UID, PAT_UID) != 0)
            throw_errno("setresuid");
        return sent_mend_delivery(7) == 0 ? 10 : 20;
    });
    EXPECT_EQ(child.exit_status, 20) << child.err;
    EXPECT_EQ(store.read("sent/7/delivery"), "pat 100 2\nsa");
}
