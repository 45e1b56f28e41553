#include "common/message.h"

#include "support.h"

#include <cerrno>

namespace {

std::string formatted(const message_record &message) {
    strbuf text;
    message_format(message, &text);
    return std::string(text.view());
}

struct parse_result {
    int result;
    int error;
    message_record message;
};

// Parses into a record that holds something already.
parse_result parse(std::string_view text) {
    parse_result parsed = {};
    parsed.message = {99, "someone", 99, "before", 99, "before"};
    errno = 0;
    parsed.result = message_parse(text.data(), text.size(), &parsed.message);
    parsed.error = errno;
    return parsed;
}

void expect_zeroed(const message_record &message) {
    EXPECT_EQ(message.id, 0);
    EXPECT_EQ(message.from, "");
    EXPECT_EQ(message.date, 0);
    EXPECT_EQ(message.title, "");
    EXPECT_EQ(message.expires, 0);
    EXPECT_EQ(message.text, "");
}

void expect_refused(const parse_result &parsed) {
    EXPECT_EQ(parsed.result, -1);
    EXPECT_EQ(parsed.error, EINVAL);
    expect_zeroed(parsed.message);
}

std::string headline(const std::string &title, int64_t date) {
    const environment_variable zone("TZ", "UTC");
    message_record message;
    message.title = title;
    message.date = date;
    strbuf text;
    message_headline(message, &text);
    return std::string(text.view());
}

// What is left of `text` after a load error with the expected errno.
void expect_load_error(const std::string &path, int error) {
    message_record message = {99, "someone", 99, "before", 99, "before"};
    EXPECT_EQ(message_load(path.c_str(), &message), -1);
    EXPECT_EQ(errno, error);
    expect_zeroed(message);
}

} // namespace

// ---- Writing ------------------------------------------------------------------------------

TEST(MessageFormat, WithoutTitleAndExpiryKeepsTheirLines) {
    EXPECT_EQ(formatted({12, "root", 1'790'000'000, "", 0, "Hello\n"}),
              "format: 1\nid: 12\nfrom: root\ndate: 1790000000\ntitle: \nexpires: \n\nHello\n");
}

TEST(MessageFormat, WithEverything) {
    EXPECT_EQ(formatted({ID_MAX, "pat", 5, "Reboot: now", 1'800'000'000, "a\n\nb"}),
              "format: 1\nid: 999999999999999999\nfrom: pat\ndate: 5\ntitle: Reboot: now\n"
              "expires: 1800000000\n\na\n\nb");
}

TEST(MessageFormat, Appends) {
    strbuf text;
    strbuf_append_str(&text, "before ");
    message_format({1, "", 1, "", 0, ""}, &text);
    EXPECT_EQ(text.view(), "before format: 1\nid: 1\nfrom: \ndate: 1\ntitle: \nexpires: \n\n");
}

TEST(MessageFormat, IsReadBackByTheParser) {
    const message_record written = {12, "root", 1'790'000'000, "A title", 1'800'000'000, "a\nb\n"};
    const parse_result parsed = parse(formatted(written));
    EXPECT_EQ(parsed.result, 0);
    EXPECT_EQ(formatted(parsed.message), formatted(written));
}

// ---- Parsing ------------------------------------------------------------------------------

TEST(MessageParse, DateAloneIsEnough) {
    const parse_result parsed = parse("date: 5");
    EXPECT_EQ(parsed.result, 0);
    EXPECT_EQ(parsed.message.date, 5);
    EXPECT_EQ(parsed.message.id, 0);
    EXPECT_EQ(parsed.message.from, "");
    EXPECT_EQ(parsed.message.title, "");
    EXPECT_EQ(parsed.message.expires, 0);
    EXPECT_EQ(parsed.message.text, "");
}

TEST(MessageParse, HeaderMayComeInAnyOrder) {
    const parse_result parsed =
        parse("expires: 9\ntitle: T\ndate: 5\nid: 3\nfrom: pat\nformat: 1\n\ntext");
    EXPECT_EQ(formatted(parsed.message),
              "format: 1\nid: 3\nfrom: pat\ndate: 5\ntitle: T\nexpires: 9\n\ntext");
}

TEST(MessageParse, TextIsEverythingAfterTheFirstEmptyLine) {
    EXPECT_EQ(parse("date: 5\n\n\ntitle: no\n\nend").message.text, "\ntitle: no\n\nend");
    EXPECT_EQ(parse("date: 5\n\n").message.text, "");
    EXPECT_EQ(parse("date: 5\n").message.text, "");
}

TEST(MessageParse, HeaderAfterTheEmptyLineIsText) {
    const parse_result parsed = parse("date: 5\n\ndate: x\ntitle: T\n");
    EXPECT_EQ(parsed.result, 0);
    EXPECT_EQ(parsed.message.title, "");
}

TEST(MessageParse, WithoutADateIsRefused) {
    for (const char *text :
         {"", "\n", "id: 1\nfrom: pat\n\ntext", "date:\n", "date: \n", "date: -5\n", "date: 5 \n",
          "date:5\n", "Date: 5\n", " date: 5\n", "date: 1000000000000000000\n", "\ndate: 5\n"}) {
        SCOPED_TRACE(text);
        expect_refused(parse(text));
    }
}

TEST(MessageParse, LastDateDecides) {
    EXPECT_EQ(parse("date: 5\ndate: 6\n").message.date, 6);
    EXPECT_EQ(parse("date: x\ndate: 6\n").result, 0);
    expect_refused(parse("date: 5\ndate: x\n"));
}

TEST(MessageParse, LaterFromTitleAndExpiryReplaceTheEarlier) {
    const parse_result parsed =
        parse("date: 5\nfrom: a\nfrom: b\ntitle: c\ntitle: d\nexpires: 7\nexpires: 8\n");
    EXPECT_EQ(parsed.message.from, "b");
    EXPECT_EQ(parsed.message.title, "d");
    EXPECT_EQ(parsed.message.expires, 8);
}

TEST(MessageParse, MalformedIdentifierLeavesTheEarlierOne) {
    EXPECT_EQ(parse("date: 5\nid: 3\nid: x\n").message.id, 3);
    EXPECT_EQ(parse("date: 5\nid: -3\n").message.id, 0);
    EXPECT_EQ(parse("date: 5\nid: 1000000000000000000\n").message.id, 0);
}

TEST(MessageParse, MalformedExpiryIsNone) {
    for (const char *line : {"expires:", "expires: ", "expires: x", "expires: -1", "expires: 7 "})
        EXPECT_EQ(parse(std::string("date: 5\nexpires: 7\n") + line + "\n").message.expires, 0)
            << line;
}

TEST(MessageParse, ValueIsTakenVerbatim) {
    EXPECT_EQ(parse("date: 5\ntitle:  a: b:\t \n").message.title, " a: b:\t ");
    EXPECT_EQ(parse("date: 5\nfrom: pat\r\n").message.from, "pat\r");
}

TEST(MessageParse, KeyWithoutAValueMayEndInItsColon) {
    EXPECT_EQ(parse("date: 5\ntitle: x\ntitle:\n").message.title, "");
    EXPECT_EQ(parse("date: 5\nfrom: x\nfrom:").message.from, "");
}

TEST(MessageParse, OtherLinesAreIgnored) {
    const parse_result parsed =
        parse("format: 99\nTitle: x\ntitle:x\ntitle\n:\n: \nunknown: y\ntitle : z\ndate: 5\n");
    EXPECT_EQ(parsed.result, 0);
    EXPECT_EQ(parsed.message.title, "");
}

TEST(MessageParse, LineWithoutAColonIsIgnored) {
    EXPECT_EQ(parse("date: 5\ntitle: x\ntitle!\ntitle\n").message.title, "x");
}

TEST(MessageParse, SplitsAtTheFirstColonAndBlank) {
    EXPECT_EQ(parse("date: 5\ntitle:x: y\n").message.title, ""); // the key is "title:x"
}

TEST(MessageParse, TextMayHoldAnyByte) {
    const std::string_view text("date: 5\n\na\0\xff\r", 13);
    EXPECT_EQ(parse(text).message.text, std::string_view("a\0\xff\r", 4));
}

// ---- Loading ------------------------------------------------------------------------------

TEST(MessageLoad, ReadsAMessageFile) {
    const scratch_directory scratch;
    scratch.write("msg", formatted({12, "root", 5, "T", 0, "Hello\n"}));
    message_record message;
    EXPECT_EQ(message_load(scratch.path("msg").c_str(), &message), 0);
    EXPECT_EQ(message.id, 12);
    EXPECT_EQ(message.text, "Hello\n");
}

TEST(MessageLoad, TakesAFileOfExactlyTheLimit) {
    const scratch_directory scratch;
    const std::string header = "date: 5\n\n";
    scratch.write("msg", header + std::string(73'728 - header.size(), 'x'));
    message_record message;
    EXPECT_EQ(message_load(scratch.path("msg").c_str(), &message), 0);
    EXPECT_EQ(message.text.size(), 73'728 - header.size());
}

TEST(MessageLoad, RefusesALongerFile) {
    const scratch_directory scratch;
    const std::string header = "date: 5\n\n";
    scratch.write("msg", header + std::string(73'729 - header.size(), 'x'));
    expect_load_error(scratch.path("msg"), EFBIG);
}

TEST(MessageLoad, ReportsAMissingFile) {
    const scratch_directory scratch;
    expect_load_error(scratch.path("msg"), ENOENT);
}

TEST(MessageLoad, RefusesASymbolicLink) {
    const scratch_directory scratch;
    scratch.write("target", "date: 5\n");
    std::filesystem::create_symlink("target", scratch.path("msg"));
    expect_load_error(scratch.path("msg"), ELOOP);
}

TEST(MessageLoad, RefusesWhatIsNoFile) {
    const scratch_directory scratch;
    expect_load_error(scratch.path(), EINVAL);
    make_fifo(scratch.path("pipe"));
    expect_load_error(scratch.path("pipe"), EINVAL);
}

TEST(MessageLoad, RefusesAnEmptyFileAndOneWithoutADate) {
    const scratch_directory scratch;
    scratch.write("empty", "");
    scratch.write("undated", "id: 3\n\ntext");
    expect_load_error(scratch.path("empty"), EINVAL);
    expect_load_error(scratch.path("undated"), EINVAL);
}

TEST(MessageFree, ZeroesTheRecordAndKeepsErrno) {
    message_record message = {12, "root", 5, "T", 7, "Hello\n"};
    errno = ENOSPC;
    message_free(&message);
    EXPECT_EQ(errno, ENOSPC);
    expect_zeroed(message);
}

// ---- Expiry and headline ------------------------------------------------------------------

TEST(MessageIsExpired, FromTheSecondOfItsExpiryOn) {
    message_record message;
    message.expires = 100;
    EXPECT_FALSE(message_is_expired(message, 99));
    EXPECT_TRUE(message_is_expired(message, 100));
    EXPECT_TRUE(message_is_expired(message, 101));
}

TEST(MessageIsExpired, NeverWithoutAnExpiry) {
    const message_record message;
    EXPECT_FALSE(message_is_expired(message, 0));
    EXPECT_FALSE(message_is_expired(message, INT64_MAX));
}

TEST(MessageHeadline, ShowsTitleAndDate) {
    EXPECT_EQ(headline("Reboot", 1'759'579'200), "Reboot · 04/10 12:00");
}

TEST(MessageHeadline, OfAnUntitledMessageIsTheDate) {
    EXPECT_EQ(headline("", 1'759'579'200), "04/10 12:00");
}

TEST(MessageHeadline, ShowsAQuestionMarkForAnImpossibleDate) {
    EXPECT_EQ(headline("Reboot", INT64_MAX), "Reboot · ?");
}

TEST(MessageHeadline, Appends) {
    const environment_variable zone("TZ", "UTC");
    strbuf text;
    strbuf_append_str(&text, "before ");
    message_headline({}, &text);
    EXPECT_EQ(text.view(), "before 01/01 00:00");
}
