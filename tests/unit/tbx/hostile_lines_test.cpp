// Every pair of bytes in every field of a message, in each line that the program makes of it: the
// banner, the listings, a recipient's state, the history's sentence.
#include "common/event.h"
#include "hostile.h"
#include "support.h"
#include "tbx/command.h"
#include "tbx/sent.h"
#include "tbx/status.h"
#include "tbx/terminal.h"
#include "tbx/tui/text.h"

#include <pwd.h>

#include <algorithm>
#include <span>

namespace {

// As `send` stores a title.
std::string title_of(std::string_view typed) {
    std::string title = tui_clean(typed);
    std::ranges::replace_if(
        title, [](char c) { return c == '\t' || c == '\n'; }, ' ');
    return title;
}

std::string banner_of(std::string_view title, std::string_view text) {
    message_record message;
    message.date = 1790000000;
    message.title = title_of(title);
    message.text = tui_clean(text) + "\n";
    strbuf banner;
    terminal_banner_build(message, &banner);
    return std::string(banner.view());
}

// Whether a carriage return stands before every newline, and nowhere else.
bool has_terminal_line_ends(std::string_view text) {
    for (size_t at = 0; at < text.size(); at++) {
        const bool is_return = text[at] == '\r';
        const bool before_newline = at + 1 < text.size() && text[at + 1] == '\n';
        if (is_return != before_newline)
            return false;
    }
    return true;
}

bool is_harmless_banner(const std::string &banner) {
    return !drives_terminal(banner, "\t\r\n") && has_terminal_line_ends(banner);
}

// The account that runs the tests, whose mailbox they may furnish.
std::string own_name() {
    const passwd *account = getpwuid(getuid());
    return account ? account->pw_name : "root";
}

// All pairs in texts of one line, some to each. A blank, which neither goes on nor ends a sequence,
// keeps them apart; one that ends the line stands last.
std::vector<std::string> lines_of_pairs() {
    static constexpr size_t LINE_BYTES = 36;
    std::vector<std::string> lines;
    for (const int first : first_bytes()) {
        lines.emplace_back();
        for (int second = 0; second < BYTES; second++) {
            const std::string pair = pair_of(first, second);
            lines.back() += pair + " ";
            const bool ends_line = pair.find_first_of(std::string_view("\n\0", 2)) != pair.npos;
            if (ends_line || lines.back().size() >= LINE_BYTES)
                lines.emplace_back();
        }
    }
    return lines;
}

// Calls `visit` with some of the lines at a time, MESSAGES at most.
constexpr size_t MESSAGES = 300;
template <typename Visit> void for_each_batch(Visit visit) {
    const std::vector<std::string> lines = lines_of_pairs();
    for (size_t at = 0; at < lines.size(); at += MESSAGES)
        visit(std::span(lines).subspan(at, std::min(MESSAGES, lines.size() - at)));
}

// A store with messages 1 to MESSAGES, delivered to the account that runs the tests.
class store_of_messages : public scratch_store {
public:
    store_of_messages() {
        for (size_t id = 1; id <= MESSAGES; id++) {
            make_message(std::to_string(id));
            write(file(id, "msg"), "date: 1790000000\n\nHello\n");
            write(file(id, "recipients"), own_name() + "\n");
            write(file(id, "delivery"), own_name() + " 1790000000 0\n");
        }
    }

    // Replaces a file; one that is written over instead would be waited for on some systems.
    void replace(const std::string &name, std::string_view text) const {
        std::filesystem::remove(path(name));
        write(name, text);
    }

    static std::string file(size_t id, const std::string &name) {
        return "sent/" + std::to_string(id) + "/" + name;
    }
};

} // namespace

// ---- The banner ---------------------------------------------------------------------------

TEST(HostileBanner, EveryPairIsHarmlessInTitleAndText) {
    for_each_pair([](const std::string &pair) {
        ASSERT_TRUE(is_harmless_banner(banner_of(pair, pair))) << in_hexadecimal(pair);
    });
}

TEST(HostileBanner, EveryPairIsHarmlessThatBeginsInTheTitleAndEndsInTheText) {
    for_each_pair([](const std::string &pair) {
        const std::string banner = banner_of("x" + pair.substr(0, 1), pair.substr(1) + "y");
        ASSERT_TRUE(is_harmless_banner(banner)) << in_hexadecimal(pair);
    });
}

TEST(HostileBanner, SequencesAreHarmlessThatBeginInTheTitleAndEndInTheText) {
    for (const auto &[title, text] : {std::pair("\x1b", "[2J"),
                                      {"\x1b[", "2J"},
                                      {"\x1b]0;", "t\x07"},
                                      {"\xc2", "\x9b"},
                                      {"\x1b]", "\x07"},
                                      {"\x1bP", "\x1b\\"}})
        EXPECT_TRUE(is_harmless_banner(banner_of(title, text))) << in_hexadecimal(title);
}

// ---- Listings -----------------------------------------------------------------------------

TEST(HostileListing, EveryPairIsHarmlessInTheTextThatListShows) {
    const store_of_messages store;
    for_each_batch([&](std::span<const std::string> lines) {
        for (size_t i = 0; i < lines.size(); i++)
            store.replace(store_of_messages::file(i + 1, "msg"),
                          "date: 1790000000\n\n" + tui_clean(lines[i]) + "\n");
        const child_result result = run_in_child([] { cmd_list(); });
        ASSERT_EQ(std::ranges::count(result.out, '\n'), 1 + MESSAGES);
        ASSERT_FALSE(drives_terminal(result.out, "\t\n")) << in_hexadecimal(lines[0]);
    });
}

// `status` shows the text line by line: as many pairs as a message has room for at a time.
TEST(HostileListing, EveryPairIsHarmlessInTheTextAndTitleThatStatusShows) {
    constexpr int FIRSTS = 16;
    const scratch_store store;
    store.make_message("7");
    store.write("sent/7/recipients", own_name() + "\n");
    for (int start = 0; start < BYTES; start += FIRSTS) {
        std::string lines;
        for (int i = 0; i < FIRSTS * BYTES; i++)
            lines += pair_of(start + i / BYTES, i % BYTES) + "\n";
        store.write("sent/7/msg", "date: 1790000000\nfrom: root\ntitle: " + title_of(lines) +
                                      "\n\n" + tui_clean(lines));
        const child_result result = run_in_child([] { cmd_status("7"); });
        ASSERT_EQ(result.exit_status, 0);
        ASSERT_GT(std::ranges::count(result.out, '\n'), FIRSTS * BYTES) << start;
        ASSERT_FALSE(drives_terminal(result.out, "\t\n")) << start;
    }
}

// The user writes the confirmation, and what it says comes to the administrator's terminal.
TEST(HostileListing, EveryPairIsHarmlessInTheDetailOfAConfirmation) {
    const store_of_messages store;
    const std::string acks = "users/" + own_name() + "/acks/";
    const message_record message;
    for_each_batch([&](std::span<const std::string> details) {
        for (size_t i = 0; i < details.size(); i++)
            store.replace(acks + std::to_string(i + 1), "1790000001 " + details[i]);
        confirmation_cache cache;
        for (size_t i = 0; i < details.size(); i++) {
            std::vector<recipient_line> lines;
            ASSERT_EQ(recipient_state_lines(static_cast<int64_t>(i) + 1, message, &cache, &lines),
                      0);
            ASSERT_EQ(lines.size(), 1U);
            ASSERT_EQ(lines[0].state, delivery_state::confirmed);
            ASSERT_FALSE(drives_terminal(lines[0].text, "\t")) << in_hexadecimal(details[i]);
        }
    });
}

// ---- The history --------------------------------------------------------------------------

// A line of the history is cleaned as a whole, so that fields cannot join.
TEST(HostileHistory, EveryPairIsHarmlessThatBeginsInOneFieldAndEndsInTheNext) {
    for (const char *event : {"SENT", "DELIVERED", "REMINDED", "DELETED", "CONFIRMATION_FAILED"})
        for_each_pair([event](const std::string &pair) {
            const std::string first = "x" + pair.substr(0, 1);
            const std::string second = pair.substr(1) + "y";
            strbuf line;
            ASSERT_TRUE(event_describe(event, 7, first.c_str(), second.c_str(), second.c_str(),
                                       first.c_str(), &line));
            ASSERT_FALSE(drives_terminal(tui_clean(line.view()), "\t\n")) << in_hexadecimal(pair);
        });
}
