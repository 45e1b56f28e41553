// Message files: the parser against the rules of the format, and a record through the file text
// and back. The input is a file.
#include "common/message.h"
#include "fuzz.h"

#include <cerrno>

static bool is_same(const message_record &a, const message_record &b) {
    return a.id == b.id && a.from == b.from && a.date == b.date && a.title == b.title &&
           a.expires == b.expires && a.text == b.text;
}

// The header ends with the first empty line, the file if there is none.
static void split_file(std::string_view file, std::string_view *header, std::string_view *text) {
    const bool is_headless = file.starts_with('\n');
    const size_t end = is_headless ? 0 : file.find("\n\n");
    *header = is_headless ? "" : file.substr(0, end);
    *text = end == file.npos ? "" : file.substr(end + (is_headless ? 1 : 2));
}

static std::optional<message_record> read_by_the_rules(std::string_view file) {
    std::string_view header;
    message_record record;
    std::string_view text;
    split_file(file, &header, &text);
    std::optional<int64_t> date;
    for (const std::string_view line : lines_of(header)) {
        const size_t colon = line.find(": ");
        if (colon == line.npos && !line.ends_with(':'))
            continue;
        const std::string_view key = line.substr(0, colon == line.npos ? line.size() - 1 : colon);
        const std::string_view value = colon == line.npos ? "" : line.substr(colon + 2);
        if (key == "id")
            record.id = decimal(value).value_or(record.id);
        else if (key == "from")
            record.from = value;
        else if (key == "date")
            date = decimal(value);
        else if (key == "title")
            record.title = value;
        else if (key == "expires")
            record.expires = decimal(value).value_or(0);
    }
    if (!date)
        return std::nullopt;
    record.date = *date;
    record.text = text;
    return record;
}

// A one-line field is written up to a NUL byte, which no field that the program makes holds.
static void check_written_and_read(message_record record) {
    record.from = up_to_nul(record.from);
    record.title = up_to_nul(record.title);
    strbuf file;
    message_format(record, &file);
    message_record again;
    CHECK(message_parse(file.data, file.len, &again) == 0);
    CHECK(is_same(again, record));
}

void fuzz_one(std::string_view input) {
    message_record record;
    record.title = "left from before";
    const bool is_message = message_parse(input.data(), input.size(), &record) == 0;
    const int error = errno;
    const std::optional<message_record> expected = read_by_the_rules(input);
    CHECK(is_message == expected.has_value());
    CHECK(is_message || error == EINVAL);
    CHECK(is_same(record, expected.value_or(message_record{})));
    if (is_message)
        check_written_and_read(std::move(record));
}
