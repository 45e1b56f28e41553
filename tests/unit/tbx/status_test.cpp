#include "tbx/status.h"

#include "support.h"
#include "tbx/command.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <functional>

namespace {

constexpr int64_t NOON = 1'759'579'200; // 4 October 2025, 12:00
constexpr const char *NEVER_YET = "9000000000";

// A store in test mode whose times are shown in UTC, with messages to write.
struct listed_store : scratch_store {
    void write_message(const std::string &id, const std::string &header,
                       const std::string &text) const {
        write("sent/" + id + "/msg", "id: " + id + "\nfrom: root\ndate: " + std::to_string(NOON) +
                                         "\n" + header + "\n" + text);
    }
    void write_message(const std::string &id, const std::string &text = "Hello\n") const {
        write_message(id, "", text);
        write("sent/" + id + "/recipients", "pat\n");
    }
    // Recipients pat, sam and gone; pat confirmed, sam delivered to, gone not.
    void write_mixed_message() const {
        write_message("7");
        write("sent/7/recipients", "pat\nsam\ngone\n");
        write("sent/7/delivery", "pat " + std::to_string(NOON) + " 2\nsam 100 1\n");
        write("users/pat/acks/7", std::to_string(NOON + 60) + " desktop\n");
    }

private:
    environment_variable zone_{"TZ", "UTC"};
};

child_result run_there(const std::function<void()> &body) {
    return run_on(machine_of_pat_and_sam(), body);
}

std::string printed(const std::function<void()> &body) {
    const child_result child = run_there(body);
    EXPECT_EQ(child.exit_status, 0) << child.err;
    EXPECT_EQ(child.err, "");
    return child.out;
}

std::string summary_of(int64_t id) {
    return printed([id] {
        confirmation_cache cache;
        message_summary summary;
        if (message_summary_load(id, &cache, &summary) != lookup::found) {
            printf("none");
            return;
        }
        printf("%lld: %d %d %d%s%s %lld", static_cast<long long>(summary.message.id),
               summary.confirmed, summary.delivered, summary.sent,
               summary.revoked ? " revoked" : "", summary.expired ? " expired" : "",
               static_cast<long long>(summary.revoked_at));
    });
}

std::string counts_text(int confirmed, int delivered, int sent) {
    message_summary summary;
    summary.confirmed = confirmed;
    summary.delivered = delivered;
    summary.sent = sent;
    strbuf out;
    strbuf_append_str(&out, "|");
    summary_text(summary, &out);
    return std::string(out.view());
}

// "USER: TEXT" per recipient of message 7, expiring at `expires`.
std::string state_lines(int64_t expires = 0) {
    return printed([expires] {
        message_record message;
        message.expires = expires;
        confirmation_cache cache;
        std::vector<recipient_line> lines;
        EXPECT_EQ(recipient_state_lines(7, message, &cache, &lines), 0);
        for (const recipient_line &line : lines)
            printf("%s: %s\n", line.user.c_str(), line.text.c_str());
    });
}

void set_time(const std::string &path, int64_t seconds) {
    const timespec times[2] = {{seconds, 0}, {seconds, 0}};
    if (utimensat(AT_FDCWD, path.c_str(), times, 0) != 0)
        throw_errno(path);
}

} // namespace

// ---- The summary --------------------------------------------------------------------------

TEST(MessageSummary, CountsTheRecipientsInEachState) {
    SKIP_UNLESS_ROOT();
    const listed_store store;
    store.write_mixed_message();
    EXPECT_EQ(summary_of(7), "7: 1 1 1 0");
}

TEST(MessageSummary, TellsARevokedMessageAndWhen) {
    SKIP_UNLESS_ROOT();
    const listed_store store;
    store.write_mixed_message();
    store.write("sent/7/revoked", std::to_string(NOON) + "\n"); // before pat confirmed
    EXPECT_EQ(summary_of(7), "7: 0 2 1 revoked 1759579200");
    store.write("sent/7/revoked", ""); // no time: nothing came after it
    EXPECT_EQ(summary_of(7), "7: 1 1 1 revoked 0");
}

TEST(MessageSummary, TellsAnExpiredMessage) {
    SKIP_UNLESS_ROOT();
    const listed_store store;
    store.write_mixed_message();
    store.write_message("7", "expires: " + std::to_string(NOON + 60) + "\n", "Hello\n");
    EXPECT_EQ(summary_of(7), "7: 1 1 1 expired 0");
    store.write_message("7", std::string("expires: ") + NEVER_YET + "\n", "Hello\n");
    EXPECT_EQ(summary_of(7), "7: 1 1 1 0");
}

TEST(MessageSummary, IsOfTheMessageThatStandsThere) {
    SKIP_UNLESS_ROOT();
    const listed_store store;
    store.write("sent/7/msg", "id: 8\ndate: 5\n");
    store.write("sent/7/recipients", "pat\n");
    EXPECT_EQ(summary_of(7), "7: 0 0 1 0");
}

TEST(MessageSummary, IsNoneOfACancelledMessage) {
    SKIP_UNLESS_ROOT();
    const listed_store store;
    store.write_message("7");
    store.write("sent/7/failed", "5\n");
    EXPECT_EQ(summary_of(7), "none");
}

TEST(MessageSummary, IsNoneWithoutTheCopyOrRecipients) {
    SKIP_UNLESS_ROOT();
    const listed_store store;
    EXPECT_EQ(summary_of(7), "none");
    store.write("sent/7/recipients", "pat\n");
    EXPECT_EQ(summary_of(7), "none");
    store.write("sent/7/msg", "no date\n");
    EXPECT_EQ(summary_of(7), "none");
    store.write("sent/7/msg", "date: 5\n");
    store.write("sent/7/recipients", "\n");
    EXPECT_EQ(summary_of(7), "none");
}

TEST(MessageSummary, FailsWhereAFileCannotBeRead) {
    SKIP_UNLESS_ROOT();
    for (const char *file : {"msg", "recipients", "delivery"}) {
        const listed_store store;
        store.write_mixed_message();
        EXPECT_EQ(printed([file] {
                      make_unreadable(sent_path(7, file));
                      confirmation_cache cache;
                      message_summary summary;
                      const lookup loaded = message_summary_load(7, &cache, &summary);
                      printf("%d %s", loaded == lookup::failed, strerror(errno));
                  }),
                  "1 Input/output error")
            << file;
    }
}

TEST(SummaryText, SaysWhenAllHaveConfirmed) {
    EXPECT_EQ(counts_text(3, 0, 0), "|all confirmed (3)");
    EXPECT_EQ(counts_text(0, 0, 0), "|all confirmed (0)");
}

TEST(SummaryText, JoinsTheCountsThatAreNotZero) {
    EXPECT_EQ(counts_text(1, 2, 0), "|1 confirmed · 2 delivered");
    EXPECT_EQ(counts_text(0, 2, 1), "|2 delivered · 1 sent");
    EXPECT_EQ(counts_text(1, 2, 3), "|1 confirmed · 2 delivered · 3 sent");
    EXPECT_EQ(counts_text(1, 0, 3), "|1 confirmed · 3 sent");
    EXPECT_EQ(counts_text(0, 0, 1), "|1 sent");
    EXPECT_EQ(counts_text(0, 12, 0), "|12 delivered");
}

// ---- The state of each recipient ----------------------------------------------------------

TEST(RecipientStateLines, ComeInTheOrderOfTheRecipients) {
    SKIP_UNLESS_ROOT();
    const listed_store store;
    store.write_mixed_message();
    EXPECT_EQ(state_lines(), "pat: confirmed on 04/10 12:01 (desktop)\n"
                             "sam: delivered, written to 1 terminal\n"
                             "gone: sent, not delivered\n");
}

TEST(RecipientStateLines, CarryTheState) {
    SKIP_UNLESS_ROOT();
    const listed_store store;
    store.write_mixed_message();
    EXPECT_EQ(printed([] {
                  confirmation_cache cache;
                  std::vector<recipient_line> lines;
                  EXPECT_EQ(recipient_state_lines(7, {}, &cache, &lines), 0);
                  for (const recipient_line &line : lines)
                      printf("%d ", static_cast<int>(line.state));
              }),
              "2 1 0 ");
}

TEST(RecipientStateLines, ConfirmedWithoutAChannelIsAQuestionMark) {
    SKIP_UNLESS_ROOT();
    const listed_store store;
    store.write_mixed_message();
    store.write("sent/7/recipients", "pat\n");
    for (const char *channel : {"", " ", " \x1b[31m\r\x07\n"}) {
        store.write("users/pat/acks/7", std::to_string(NOON) + channel);
        EXPECT_EQ(state_lines(), "pat: confirmed on 04/10 12:00 (?)\n") << channel;
    }
}

TEST(RecipientStateLines, ChannelIsCleaned) {
    SKIP_UNLESS_ROOT();
    const listed_store store;
    store.write_mixed_message();
    store.write("sent/7/recipients", "pat\n");
    store.write("users/pat/acks/7",
                std::to_string(NOON) + " \x1b[31mdesk\x1b]0;x\x07top\xc2\x9b\n");
    EXPECT_EQ(state_lines(), "pat: confirmed on 04/10 12:00 (desktop)\n");
}

TEST(RecipientStateLines, MalformedTimeIsTheEpoch) {
    SKIP_UNLESS_ROOT();
    const listed_store store;
    store.write_mixed_message();
    store.write("sent/7/recipients", "pat\n");
    store.write("users/pat/acks/7", "soon desktop\n");
    EXPECT_EQ(state_lines(), "pat: confirmed on 01/01 00:00 (desktop)\n");
}

TEST(RecipientStateLines, TellHowManyTerminalsWereWritten) {
    SKIP_UNLESS_ROOT();
    const listed_store store;
    store.write_message("7");
    const std::pair<const char *, const char *> cases[] = {
        {"pat 100 0\n", ""},
        {"pat 100 1\n", ", written to 1 terminal"},
        {"pat 100 2\n", ", written to 2 terminals"},
        {"pat 100 007\n", ", written to 7 terminals"},
        {"pat 100\n", ""},
        {"pat 100 -1\n", ""},
        {"pat 100 2x\n", ""},
        {"pat 100 1000000000000000000\n", ""},
        {"pat 100 999999999999999999\n", ", written to 999999999999999999 terminals"}};
    for (const auto &[log, text] : cases) {
        store.write("sent/7/delivery", log);
        EXPECT_EQ(state_lines(), std::string("pat: delivered") + text + "\n") << log;
    }
}

TEST(RecipientStateLines, TellWhenTheMessageWasPostponed) {
    SKIP_UNLESS_ROOT();
    const listed_store store;
    store.write_message("7");
    store.write("users/pat/state/7.gui", "");
    set_time(store.path("users/pat/state/7.gui"), NOON);
    store.write("sent/7/delivery", "pat 100 0\n");
    EXPECT_EQ(state_lines(), "pat: delivered, postponed on 04/10 12:00\n");
    store.write("sent/7/delivery", "pat 100 3\n");
    EXPECT_EQ(state_lines(), "pat: delivered, written to 3 terminals, postponed on 04/10 12:00\n");
}

TEST(RecipientStateLines, TimeShownDoesNotMatterOnceItIsConfirmed) {
    SKIP_UNLESS_ROOT();
    const listed_store store;
    store.write_mixed_message();
    store.write("sent/7/recipients", "pat\n");
    store.write("users/pat/state/7.gui", "");
    EXPECT_EQ(state_lines(), "pat: confirmed on 04/10 12:01 (desktop)\n");
}

TEST(RecipientStateLines, DeliveredOfARevokedMessage) {
    SKIP_UNLESS_ROOT();
    const listed_store store;
    store.write_mixed_message();
    store.write("sent/7/revoked", std::to_string(NOON) + "\n"); // a minute before pat confirmed
    EXPECT_EQ(state_lines(), "pat: delivered, not confirmed (revoked)\n"
                             "sam: delivered, not confirmed (revoked)\n"
                             "gone: sent, not delivered\n");
}

TEST(RecipientStateLines, ConfirmedBeforeTheRevocationStaysConfirmed) {
    SKIP_UNLESS_ROOT();
    const listed_store store;
    store.write_mixed_message();
    store.write("sent/7/recipients", "pat\n");
    store.write("sent/7/revoked", std::to_string(NOON + 60) + "\n");
    EXPECT_EQ(state_lines(), "pat: confirmed on 04/10 12:01 (desktop)\n");
}

TEST(RecipientStateLines, DeliveredOfAnExpiredMessage) {
    SKIP_UNLESS_ROOT();
    const listed_store store;
    store.write_mixed_message();
    EXPECT_EQ(state_lines(NOON + 59),
              "pat: delivered, not confirmed (expired; confirmation arrived after the expiry)\n"
              "sam: delivered, not confirmed (expired)\n"
              "gone: sent, not delivered\n");
}

TEST(RecipientStateLines, RevocationIsToldBeforeTheExpiry) {
    SKIP_UNLESS_ROOT();
    const listed_store store;
    store.write_mixed_message();
    store.write("sent/7/recipients", "pat\nsam\n");
    store.write("sent/7/revoked", "5\n");
    EXPECT_EQ(state_lines(NOON), "pat: delivered, not confirmed (revoked)\n"
                                 "sam: delivered, not confirmed (revoked)\n");
}

TEST(RecipientStateLines, NotDeliveredOfAMessageThatIsIncomplete) {
    SKIP_UNLESS_ROOT();
    const listed_store store;
    store.write_message("7");
    store.write("sent/7/incomplete", "");
    EXPECT_EQ(state_lines(), "pat: sent, not delivered: the copy could not be written (see the "
                             "log; the next tbx command will retry)\n");
}

TEST(RecipientStateLines, FailWhereTheFilesCannotBeRead) {
    SKIP_UNLESS_ROOT();
    for (const char *file : {"recipients", "delivery"}) {
        const listed_store store;
        store.write_mixed_message();
        const child_result child = run_there([file] {
            make_unreadable(sent_path(7, file));
            confirmation_cache cache;
            std::vector<recipient_line> lines;
            const int result = recipient_state_lines(7, {}, &cache, &lines);
            printf("%d %s", result, strerror(errno));
        });
        EXPECT_EQ(child.out, "-1 Input/output error") << file;
    }
}

TEST(RecipientStateLines, EndTheProcessWhereTheyAreNeeded) {
    SKIP_UNLESS_ROOT();
    const listed_store store;
    store.write_message("7");
    const child_result child = run_there([] {
        make_unreadable(sent_path(7, "recipients"));
        (void)recipient_state_lines_or_die(7, {});
    });
    EXPECT_EQ(child.exit_status, 1);
    EXPECT_EQ(child.err, "tbx: " + store.path("sent/7") + ": Input/output error\n");
}

TEST(RecipientStateLines, OfAForeignFileNameNobody) {
    const listed_store store;
    store.write("sent/7/elsewhere", "pat\n");
    std::filesystem::create_symlink("elsewhere", store.path("sent/7/recipients"));
    EXPECT_TRUE(recipient_state_lines_or_die(7, {}).empty());
}

// ---- list ---------------------------------------------------------------------------------

namespace {

const std::string HEADING = "ID    DATE         TEXT                                      "
                            "RECIPIENTS\n";

std::string forty(const std::string &text, size_t columns) {
    return text + std::string(40 - columns, ' ');
}

} // namespace

TEST(List, OfNothingSaysSo) {
    const scratch_state state;
    EXPECT_EQ(run_in_child(cmd_list).out, "No messages sent.\n");
    std::filesystem::create_directory(state.path("sent"));
    state.write("sent/.seq", "7\n");
    EXPECT_EQ(run_in_child(cmd_list).out, "No messages sent.\n");
}

TEST(List, WhereTheStoreIsNoDirectorySaysSo) {
    const scratch_state state;
    state.write("elsewhere/7/msg", "date: 5\n");
    std::filesystem::create_directory_symlink("elsewhere", state.path("sent"));
    EXPECT_EQ(run_in_child(cmd_list).out, "No messages sent.\n");
}

TEST(List, OfAStoreThatCannotBeReadSaysWhy) {
    SKIP_UNLESS_ROOT();
    const scratch_store store;
    std::filesystem::permissions(store.path(), std::filesystem::perms(0755));
    std::filesystem::permissions(store.path("sent"), std::filesystem::perms(0700));
    const child_result child = run_in_child([] {
        if (setresuid(PAT_UID, PAT_UID, PAT_UID) != 0)
            throw_errno("setresuid");
        cmd_list();
    });
    EXPECT_EQ(child.exit_status, 1);
    EXPECT_EQ(child.err, "tbx: " + store.path("sent") + ": Permission denied\n");
}

TEST(List, ShowsEachMessageByNumber) {
    SKIP_UNLESS_ROOT();
    const listed_store store;
    for (const char *id : {"12", "9", "123456"})
        store.write_message(id, "Hello from " + std::string(id) + "\nsecond line\n");
    const std::string sent = "  1 sent\n";
    EXPECT_EQ(printed(cmd_list), HEADING + "9     04/10 12:00  " + forty("Hello from 9", 12) +
                                     sent + "12    04/10 12:00  " + forty("Hello from 12", 13) +
                                     sent + "123456 04/10 12:00  " +
                                     forty("Hello from 123456", 17) + sent);
}

TEST(List, ShowsTheCounts) {
    SKIP_UNLESS_ROOT();
    const listed_store store;
    store.write_mixed_message();
    EXPECT_EQ(printed(cmd_list), HEADING + "7     04/10 12:00  " + forty("Hello", 5) +
                                     "  1 confirmed · 1 delivered · 1 sent\n");
}

TEST(List, MarksRevokedAndExpiredMessages) {
    SKIP_UNLESS_ROOT();
    const listed_store store;
    store.write_message("7");
    store.write("sent/7/revoked", "5\n");
    store.write_message("8");
    store.write_message("8", "expires: 5\n", "Hello\n");
    store.write_message("9");
    store.write_message("9", "expires: 5\n", "Hello\n");
    store.write("sent/9/revoked", "5\n");
    EXPECT_EQ(printed(cmd_list),
              HEADING + "7     04/10 12:00  " + forty("[revoked] Hello", 15) + "  1 sent\n" +
                  "8     04/10 12:00  " + forty("[expired] Hello", 15) + "  1 sent\n" +
                  "9     04/10 12:00  " + forty("[revoked] [expired] Hello", 25) + "  1 sent\n");
}

TEST(List, ShowsACancelledSend) {
    SKIP_UNLESS_ROOT();
    const listed_store store;
    store.write("sent/7/failed", "5\n");
    store.write("sent/7/msg", "");
    EXPECT_EQ(printed(cmd_list),
              HEADING + "7     -            [send cancelled: interrupted before it was saved]\n");
}

TEST(List, PassesOverWhatItCannotRead) {
    SKIP_UNLESS_ROOT();
    const listed_store store;
    store.write("sent/5", "a file");
    store.make_message("6");
    store.write("sent/7/msg", "no date\n");
    store.write("sent/7/recipients", "pat\n");
    store.write_message("8");
    std::filesystem::remove(store.path("sent/8/recipients"));
    EXPECT_EQ(printed(cmd_list), HEADING);
}

TEST(List, TextColumnHasFortyCharacters) {
    SKIP_UNLESS_ROOT();
    std::string umlauts;
    for (int i = 0; i < 50; i++)
        umlauts += "ä";
    const std::pair<std::string, std::string> cases[] = {
        {"", std::string(40, ' ')},
        {"\nsecond line\n", std::string(40, ' ')},
        {std::string(39, 'x') + "\n", std::string(39, 'x') + " "},
        {std::string(40, 'x') + "\n", std::string(40, 'x')},
        {std::string(41, 'x') + "\n", std::string(40, 'x')},
        {umlauts + "\n", umlauts.substr(0, 80)},
        {"ä€😀\n", "ä€😀" + std::string(37, ' ')},
        {"\x80" + std::string(50, 'x'), "\x80" + std::string(40, 'x')}};
    for (const auto &[text, column] : cases) {
        const listed_store store;
        store.write_message("7", text);
        EXPECT_EQ(printed(cmd_list), HEADING + "7     04/10 12:00  " + column + "  1 sent\n");
    }
}

TEST(List, ShowsAQuestionMarkForAnImpossibleDate) {
    SKIP_UNLESS_ROOT();
    const listed_store store;
    store.write("sent/7/msg", "date: 999999999999999999\n\nHello\n");
    store.write("sent/7/recipients", "pat\n");
    EXPECT_EQ(printed(cmd_list),
              HEADING + "7     ?            " + forty("Hello", 5) + "  1 sent\n");
}

// ---- status -------------------------------------------------------------------------------

namespace {

std::string status_of(const char *id) {
    return printed([id] { cmd_status(id); });
}

const std::string TABLE_HEADING = "USER             STATE\n";
const std::string PAT_SENT = "pat              sent, not delivered\n";

} // namespace

TEST(Status, ShowsTheMessageAndItsRecipients) {
    SKIP_UNLESS_ROOT();
    const listed_store store;
    store.write_mixed_message();
    store.write_message("7", "title: Reboot\n", "At noon.\n\n  Save all.\n");
    store.write("sent/7/recipients", "pat\na-user-with-a-long-name\n");
    EXPECT_EQ(status_of("7"), "Message 7 · Reboot · 04/10 12:00 · from root\n"
                              "  │ At noon.\n"
                              "  │ \n"
                              "  │   Save all.\n"
                              "\n"
                              "USER             STATE\n"
                              "pat              confirmed on 04/10 12:01 (desktop)\n"
                              "a-user-with-a-long-name sent, not delivered\n");
}

TEST(Status, OfAnUntitledMessageShowsTheDate) {
    SKIP_UNLESS_ROOT();
    const listed_store store;
    store.write_message("7");
    EXPECT_EQ(status_of("7"),
              "Message 7 · 04/10 12:00 · from root\n  │ Hello\n\n" + TABLE_HEADING + PAT_SENT);
}

TEST(Status, TextWithoutALastLineEndIsShownTheSame) {
    SKIP_UNLESS_ROOT();
    const listed_store store;
    store.write_message("7", "a\nb");
    EXPECT_EQ(status_of("7"),
              "Message 7 · 04/10 12:00 · from root\n  │ a\n  │ b\n\n" + TABLE_HEADING + PAT_SENT);
}

TEST(Status, TellsRevocationAndExpiry) {
    SKIP_UNLESS_ROOT();
    const listed_store store;
    store.write_message("7");
    store.write_message("7", "expires: 5\n", "");
    store.write("sent/7/revoked", std::to_string(NOON) + "\n");
    EXPECT_EQ(status_of("7"), "Message 7 · 04/10 12:00 · from root\n"
                              "REVOKED on 04/10 12:00\n"
                              "EXPIRED\n\n" +
                                  TABLE_HEADING + PAT_SENT);
}

TEST(Status, NumberMayHaveLeadingZeros) {
    SKIP_UNLESS_ROOT();
    const listed_store store;
    store.write_message("7");
    EXPECT_EQ(status_of("007").substr(0, 10), "Message 7 ");
}

TEST(Status, OfACancelledSendIsRefused) {
    const scratch_state state;
    state.write("sent/7/msg", "date: 5\n");
    state.write("sent/7/failed", "5\n");
    const child_result child = run_in_child([] { cmd_status("7"); });
    EXPECT_EQ(child.exit_status, 1);
    EXPECT_EQ(child.out, "");
    EXPECT_EQ(child.err,
              "tbx: message 7 was cancelled: sending was interrupted before it was saved\n");
}

TEST(Status, OfAMessageWithoutItsCopyIsRefused) {
    const scratch_state state;
    state.write("sent/7/failed", "5\n");
    state.write("sent/7/msg", "");
    EXPECT_EQ(run_in_child([] { cmd_status("7"); }).err, "tbx: no such message: 7\n");
}
