#include "common/event.h"

#include "support.h"

#include <gmock/gmock.h>

#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <functional>
#include <vector>

using testing::MatchesRegex;

namespace {

struct inputs {
    const char *user = "";
    const char *channel = "";
    const char *details = "";
    const char *author = "";
};

// The sentence of an event of message 7, or "unknown".
std::string told(const char *event, const inputs &in = {}) {
    strbuf out;
    const bool known = event_describe(event, 7, in.user, in.channel, in.details, in.author, &out);
    return known ? std::string(out.view()) : "unknown";
}

} // namespace

// ---- Sentences ----------------------------------------------------------------------------

TEST(EventSentence, SentNamesAuthorAndRecipients) {
    EXPECT_EQ(told("SENT", {.details = "pat sam", .author = "root"}),
              "message 7 sent by root to: pat sam");
    EXPECT_EQ(told("SENT"), "message 7 sent by  to: ");
}

TEST(EventSentence, DeliveredCountsTheTerminals) {
    EXPECT_EQ(told("DELIVERED", {.user = "pat", .details = "0"}),
              "message 7 delivered to pat (terminals written: 0)");
    EXPECT_EQ(told("DELIVERED", {.user = "pat", .details = "1"}),
              "message 7 delivered to pat (terminals written: 1)");
}

TEST(EventSentence, DeliveredWithoutDetailsIsByRecovery) {
    EXPECT_EQ(told("DELIVERED", {.user = "pat"}), "message 7 delivered to pat (recovery)");
}

TEST(EventSentence, NotDeliveredIsAnError) {
    EXPECT_EQ(told("NOT_DELIVERED", {.user = "pat"}), "message 7: ERROR, copy for pat not written");
}

TEST(EventSentence, CancelledSaysWhy) {
    EXPECT_EQ(told("CANCELLED"), "message 7: sending interrupted before it was saved, cancelled");
}

TEST(EventSentence, RecoveredCountsTheRecipients) {
    EXPECT_EQ(told("RECOVERED", {.details = "1"}),
              "message 7: delivery completed for 1 recipient after an interruption");
    EXPECT_EQ(told("RECOVERED", {.details = "3"}),
              "message 7: delivery completed for 3 recipients after an interruption");
}

TEST(EventSentence, DeletedNamesTheAgeLimit) {
    EXPECT_EQ(told("DELETED", {.details = "90d", .author = "root"}),
              "message 7 deleted by root (older than 90d)");
}

TEST(EventSentence, RemindedCountsTheRecipients) {
    EXPECT_EQ(told("REMINDED", {.details = "1", .author = "root"}),
              "message 7: 1 recipient reminded by root");
    EXPECT_EQ(told("REMINDED", {.details = "0", .author = "root"}),
              "message 7: 0 recipients reminded by root");
    EXPECT_EQ(told("REMINDED", {.details = "3", .author = "root"}),
              "message 7: 3 recipients reminded by root");
}

TEST(EventSentence, OnlyTheDetailsOneAreSingular) {
    EXPECT_EQ(told("REMINDED", {.details = "01", .author = "root"}),
              "message 7: 01 recipients reminded by root");
    EXPECT_EQ(told("RECOVERED", {.details = "1 "}),
              "message 7: delivery completed for 1  recipients after an interruption");
    EXPECT_EQ(told("RECOVERED"),
              "message 7: delivery completed for  recipients after an interruption");
}

TEST(EventSentence, RevokedNamesTheAuthor) {
    EXPECT_EQ(told("REVOKED", {.author = "root"}), "message 7 revoked by root");
}

TEST(EventSentence, PostponedNamesUserAndChannel) {
    EXPECT_EQ(told("POSTPONED", {.user = "pat", .channel = "desktop", .details = "ignored"}),
              "user pat: postponed message 7 (desktop)");
}

TEST(EventSentence, ConfirmedNamesUserAndChannel) {
    EXPECT_EQ(told("CONFIRMED", {.user = "pat", .channel = "terminal", .details = "ignored"}),
              "user pat: confirmed reading message 7 (terminal)");
}

TEST(EventSentence, ConfirmationFailedGivesTheError) {
    EXPECT_EQ(
        told("CONFIRMATION_FAILED", {.user = "pat", .channel = "desktop", .details = "disk full"}),
        "user pat: ERROR, confirmation of message 7 not recorded (desktop): disk full");
}

TEST(EventSentence, ConfirmationFailedWithoutDetailsIsAnUnknownError) {
    EXPECT_EQ(told("CONFIRMATION_FAILED", {.user = "pat", .channel = "desktop"}),
              "user pat: ERROR, confirmation of message 7 not recorded (desktop): unknown error");
}

TEST(EventSentence, NameIsComparedExactly) {
    for (const char *name : {"FOO", "", "sent", "SENT ", "SEN", "REVOKE", "DELIVERED_"})
        EXPECT_EQ(told(name), "unknown") << name;
}

TEST(EventSentence, IsAppended) {
    strbuf out;
    strbuf_append_str(&out, "10:04  ");
    EXPECT_TRUE(event_describe("REVOKED", 7, "", "", "", "root", &out));
    EXPECT_FALSE(event_describe("FOO", 7, "", "", "", "root", &out));
    EXPECT_EQ(out.view(), "10:04  message 7 revoked by root");
}

TEST(EventSentence, InputsAreTakenAsTheyAre) {
    EXPECT_EQ(told("SENT", {.user = "pat", .details = "{user} %s {", .author = "{details}"}),
              "message 7 sent by {details} to: {user} %s {");
}

TEST(EventSentence, IdentifierMayHaveEighteenDigits) {
    strbuf out;
    EXPECT_TRUE(event_describe("REVOKED", 999'999'999'999'999'999, "", "", "", "root", &out));
    EXPECT_EQ(out.view(), "message 999999999999999999 revoked by root");
}

// ---- Records ------------------------------------------------------------------------------

namespace {

// A socket that takes what is sent to `path`, as the journal or the system log does.
class receiver {
public:
    explicit receiver(const char *path) {
        std::filesystem::create_directories(std::filesystem::path(path).parent_path());
        socket_ = unique_fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        sockaddr_un address = {.sun_family = AF_UNIX, .sun_path = {}};
        strncpy(address.sun_path, path, sizeof address.sun_path - 1);
        if (bind(socket_.get(), reinterpret_cast<sockaddr *>(&address), sizeof address) != 0)
            throw_errno(path);
    }

    // The next datagram that has arrived, or what is in the file that came with it. None: "".
    [[nodiscard]] std::string take() const {
        std::string data(1 << 20, '\0');
        iovec part = {.iov_base = data.data(), .iov_len = data.size()};
        alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
        msghdr message = {};
        message.msg_iov = &part;
        message.msg_iovlen = 1;
        message.msg_control = control;
        message.msg_controllen = sizeof control;
        const ssize_t length = recvmsg(socket_.get(), &message, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
        if (length < 0)
            return {};
        if (const cmsghdr *header = CMSG_FIRSTHDR(&message)) {
            int fd = -1;
            memcpy(&fd, CMSG_DATA(header), sizeof fd);
            const unique_fd file(fd);
            return "in a file:\n" + read_file("/proc/self/fd/" + std::to_string(fd));
        }
        data.resize(static_cast<size_t>(length));
        return data;
    }

private:
    unique_fd socket_;
};

constexpr const char *JOURNAL = "/run/systemd/journal/socket";
constexpr const char *SYSTEM_LOG = "/dev/log";

// Decodes one record of the journal's protocol into lines "NAME=VALUE". A value with a newline
// comes as NAME, newline, eight bytes of length (little-endian), value, newline; it is shown as
// "NAME:=VALUE".
std::string decoded(std::string_view record) {
    std::string text;
    while (!record.empty()) {
        const std::string_view line = record.substr(0, record.find('\n'));
        record.remove_prefix(line.size() + 1);
        text += line;
        if (line.find('=') == line.npos && record.size() >= sizeof(uint64_t)) {
            uint64_t length = 0;
            memcpy(&length, record.data(), sizeof length);
            text.append(":=").append(record.substr(sizeof length, length));
            record.remove_prefix(sizeof length + length + 1);
        }
        text += '\n';
    }
    return text;
}

// What `body` prints on a machine with an empty /dev, without journal and system log.
std::string said_on_machine(const std::function<void()> &body) {
    const child_result child = run_on(private_machine(), [&body] {
        if (mount("tmpfs", "/dev", "tmpfs", 0, nullptr) != 0)
            throw_errno("/dev");
        body();
    });
    EXPECT_EQ(child.exit_status, 0) << child.err;
    return child.out;
}

// What the journal receives while `body` runs, decoded; a second record would show as well.
std::string journaled(const std::function<void()> &body) {
    return said_on_machine([&body] {
        const receiver journal(JOURNAL);
        const receiver system_log(SYSTEM_LOG);
        body();
        fputs(decoded(journal.take()).c_str(), stdout);
        fputs(decoded(journal.take()).c_str(), stdout);
        fputs(system_log.take().c_str(), stdout);
    });
}

// What the system log receives while `body` runs.
std::string system_logged(const std::function<void()> &body) {
    return said_on_machine([&body] {
        const receiver system_log(SYSTEM_LOG);
        body();
        fputs(system_log.take().c_str(), stdout);
        fputs(system_log.take().c_str(), stdout);
    });
}

void log_delivery() {
    event_log("DELIVERED", 7, "pat", /*channel=*/nullptr, "2", /*author=*/nullptr);
}

// A system log's datagram of `sentence`: facility user, priority informational, a time.
auto is_system_log_line(const std::string &sentence) {
    return MatchesRegex("<14>[A-Z][a-z][a-z] [ 0-9]+ [0-9]+:[0-9]+:[0-9]+ tbx: " + sentence);
}

} // namespace

TEST(EventRecord, HasEveryFieldInOrder) {
    SKIP_UNLESS_ROOT();
    EXPECT_EQ(journaled([] { event_log("SENT", 7, "ann", "desktop", "pat sam", "root"); }),
              "CODE_FILE=src/event\n"
              "CODE_LINE=75\n"
              "CODE_FUNC=event\n"
              "MESSAGE=message 7 sent by root to: pat sam\n"
              "SYSLOG_IDENTIFIER=tbx\n"
              "PRIORITY=6\n"
              "TBX_EVENT=SENT\n"
              "TBX_MESSAGE=7\n"
              "TBX_USER=ann\n"
              "TBX_CHANNEL=desktop\n"
              "TBX_DETAILS=pat sam\n"
              "TBX_AUTHOR=root\n");
}

TEST(EventRecord, MissingTextsAreEmptyFields) {
    SKIP_UNLESS_ROOT();
    EXPECT_EQ(journaled([] {
                  event_log("CANCELLED", 999'999'999'999'999'999, /*user=*/nullptr,
                            /*channel=*/nullptr, /*details=*/nullptr, /*author=*/nullptr);
              }),
              "CODE_FILE=src/event\n"
              "CODE_LINE=75\n"
              "CODE_FUNC=event\n"
              "MESSAGE=message 999999999999999999: sending interrupted before it was saved, "
              "cancelled\n"
              "SYSLOG_IDENTIFIER=tbx\n"
              "PRIORITY=6\n"
              "TBX_EVENT=CANCELLED\n"
              "TBX_MESSAGE=999999999999999999\n"
              "TBX_USER=\n"
              "TBX_CHANNEL=\n"
              "TBX_DETAILS=\n"
              "TBX_AUTHOR=\n");
}

TEST(EventRecord, ErrorIsInformationalToo) {
    SKIP_UNLESS_ROOT();
    EXPECT_THAT(journaled([] { event_log("NOT_DELIVERED", 7, "pat", "", "", ""); }),
                testing::HasSubstr("MESSAGE=message 7: ERROR, copy for pat not written\n"
                                   "SYSLOG_IDENTIFIER=tbx\n"
                                   "PRIORITY=6\n"));
}

TEST(EventRecord, NewlinesInDetailsAreBlanks) {
    SKIP_UNLESS_ROOT();
    const std::string record =
        journaled([] { event_log("CONFIRMATION_FAILED", 7, "pat", "desktop", "two\nlines", ""); });
    EXPECT_THAT(record, testing::HasSubstr("\nTBX_DETAILS=two lines\n"));
    EXPECT_THAT(record, testing::HasSubstr("not recorded (desktop): two lines\n"));
}

TEST(EventRecord, NewlinesElsewhereAreKept) {
    SKIP_UNLESS_ROOT();
    const std::string record = journaled([] { event_log("REVOKED", 7, "", "", "", "a\nb"); });
    EXPECT_THAT(record, testing::HasSubstr("\nMESSAGE:=message 7 revoked by a\nb\n"));
    EXPECT_THAT(record, testing::HasSubstr("\nTBX_AUTHOR:=a\nb\n"));
}

TEST(EventRecord, MessageOfAnUnknownEventIsItsName) {
    SKIP_UNLESS_ROOT();
    const std::string record = journaled([] { event_log("FOO", 7, "pat", "", "", ""); });
    EXPECT_THAT(record, testing::HasSubstr("\nMESSAGE=FOO\n"));
    EXPECT_THAT(record, testing::HasSubstr("\nTBX_EVENT=FOO\n"));
}

TEST(EventRecord, TextsAreNoFormats) {
    SKIP_UNLESS_ROOT();
    const std::string record = journaled([] { event_log("SENT", 7, "%n", "%s", "%d%n", "%s"); });
    EXPECT_THAT(record, testing::HasSubstr("\nMESSAGE=message 7 sent by %s to: %d%n\n"));
    EXPECT_THAT(record, testing::HasSubstr("\nTBX_USER=%n\nTBX_CHANNEL=%s\nTBX_DETAILS=%d%n\n"));
}

TEST(EventRecord, TooLargeForADatagramComesInAFile) {
    SKIP_UNLESS_ROOT();
    const std::string recipients(3'000'000, 'p');
    const std::string record = said_on_machine([&recipients] {
        const receiver journal(JOURNAL);
        event_log("SENT", 7, "", "", recipients.c_str(), "root");
        fputs(journal.take().c_str(), stdout);
    });
    EXPECT_EQ(record, "in a file:\n"
                      "CODE_FILE=src/event\n"
                      "CODE_LINE=75\n"
                      "CODE_FUNC=event\n"
                      "MESSAGE=message 7 sent by root to: " +
                          recipients +
                          "\n"
                          "SYSLOG_IDENTIFIER=tbx\n"
                          "PRIORITY=6\n"
                          "TBX_EVENT=SENT\n"
                          "TBX_MESSAGE=7\n"
                          "TBX_USER=\n"
                          "TBX_CHANNEL=\n"
                          "TBX_DETAILS=" +
                          recipients +
                          "\n"
                          "TBX_AUTHOR=root\n");
}

// ---- Without a journal --------------------------------------------------------------------

TEST(EventWithoutJournal, SentenceReachesTheSystemLog) {
    SKIP_UNLESS_ROOT();
    EXPECT_THAT(system_logged(log_delivery),
                is_system_log_line("message 7 delivered to pat .terminals written: 2."));
}

TEST(EventWithoutJournal, SocketThatNobodyReadsIsNoJournal) {
    SKIP_UNLESS_ROOT();
    EXPECT_THAT(system_logged([] {
                    { const receiver stale(JOURNAL); } // closed; its name stays
                    log_delivery();
                }),
                is_system_log_line("message 7 delivered to pat .terminals written: 2."));
}

TEST(EventWithoutJournal, NameOfAnUnknownEventReachesTheSystemLog) {
    SKIP_UNLESS_ROOT();
    EXPECT_THAT(system_logged([] { event_log("FOO", 7, "", "", "", ""); }),
                is_system_log_line("FOO"));
}

TEST(EventWithoutJournal, SentenceIsNoFormatForTheSystemLog) {
    SKIP_UNLESS_ROOT();
    EXPECT_THAT(system_logged([] { event_log("DELETED", 7, "", "", "%n%s", "root"); }),
                is_system_log_line("message 7 deleted by root .older than %n%s."));
}

TEST(EventWithoutJournal, MissingSystemLogIsIgnored) {
    SKIP_UNLESS_ROOT();
    EXPECT_EQ(said_on_machine([] {
                  log_delivery();
                  puts("went on");
              }),
              "went on\n");
}
