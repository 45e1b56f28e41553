// A store with one message, told as `list`, `status` and the interface tell it. The parts of the
// input are the names of its markers, the message file, the recipients, the delivery log and what
// the marker "revoked" holds. Only pat and sam have accounts.
#include "frame.h"
#include "fuzz.h"
#include "tbx/command.h"
#include "tbx/sent.h"
#include "tbx/status.h"
#include "tbx/tui/list.h"

#include <pwd.h>

#include <algorithm>
#include <cstring>

extern "C" {
int getpwnam_r(const char *name, passwd *storage, char *, size_t, passwd **result) {
    static char pat_name[] = "pat";
    *storage = {};
    storage->pw_name = pat_name;
    storage->pw_uid = 1001;
    *result = strcmp(name, "pat") == 0 || strcmp(name, "sam") == 0 ? storage : nullptr;
    return 0;
}
}

static constexpr const char *MARKERS[] = {"incomplete", "revoking", "failed"};

static void furnish(const std::vector<std::string_view> &parts) {
    const std::string message = state_path("sent/7/");
    remove_all(message);
    make_folder(message);
    for (const std::string_view name : lines_of(parts[0]))
        if (std::ranges::find(MARKERS, name) != std::end(MARKERS))
            put_file(message + std::string(name), "");
    put_file(message + "msg", parts[1]);
    put_file(message + "recipients", parts[2]);
    put_file(message + "delivery", parts[3]);
    if (!parts[4].empty())
        put_file(message + "revoked", parts[4]);
}

static bool has_failed(std::string_view markers) {
    return std::ranges::count(lines_of(markers), "failed") > 0;
}

static void check_summary(const std::vector<std::string_view> &parts, bool is_listed) {
    confirmation_cache cache;
    message_summary summary;
    strlist recipients;
    CHECK(sent_read_recipients(7, &recipients) == lookup::found);
    CHECK(message_summary_load(7, &cache, &summary) ==
          (is_listed ? lookup::found : lookup::absent));
    if (!is_listed)
        return;
    CHECK(summary.message.id == 7);
    CHECK(summary.confirmed == 0); // there are no mailboxes
    CHECK(static_cast<size_t>(summary.delivered + summary.sent) == recipients.count);
    CHECK(summary.revoked == !parts[4].empty());

    std::vector<recipient_line> lines;
    CHECK(recipient_state_lines(7, summary.message, &cache, &lines) == 0);
    CHECK(lines.size() == recipients.count);
    CHECK(std::ranges::count(lines, delivery_state::delivered, &recipient_line::state) ==
          summary.delivered);
    for (size_t i = 0; i < lines.size(); i++)
        CHECK(lines[i].user == recipients.items[i] && !drives_terminal(lines[i].text));
}

// "ID    DATE         " is 19 columns wide, the text 40.
// Cleaned text, as it is stored, holds no NUL byte, which would end the line.
static void check_list(bool failed, bool is_listed, bool has_nul) {
    static constexpr size_t TEXT_COLUMN = 19;
    static constexpr size_t TEXT_COLUMNS = 40;
    const std::string output = output_of(cmd_list);
    const auto lines = lines_of(output);
    CHECK(lines.size() == (failed || is_listed ? 2 : 1));
    if (!is_listed || has_nul)
        return;
    const std::string_view counts = lines[1].substr(lines[1].rfind("  "));
    const std::string_view before = lines[1].substr(0, lines[1].size() - counts.size());
    CHECK(columns_of(before) == TEXT_COLUMN + TEXT_COLUMNS);
}

static void check_status(bool failed, bool has_message) {
    std::string output;
    const auto message = message_at_end([&output] { output = output_of([] { cmd_status("7"); }); });
    CHECK(message.has_value() == (failed || !has_message));
    CHECK(message || output.starts_with("Message 7 · "));
}

static void check_interface(bool is_listed) {
    message_list list;
    message_list_load(&list, "");
    CHECK(list.rows.size() == (is_listed ? 1 : 0));
    for (const int columns : {80, 111}) {
        tui.screen_cols = columns;
        tui.screen_rows = 20;
        for (const bool colour_on : {false, true}) {
            tui_styles_set(colour_on);
            tui_screen page;
            message_list_render(&page.lines, list, 0, 0, "sought");
            check_frame(page);
        }
    }
}

void fuzz_one(std::string_view input) {
    const auto parts = parts_of(input, 5);
    furnish(parts);
    message_record record;
    const bool has_message = message_parse(parts[1].data(), parts[1].size(), &record) == 0;
    const bool failed = has_failed(parts[0]);
    const bool has_recipients = parts[2].find_first_not_of(" \t\n") != input.npos;
    const bool is_listed = !failed && has_message && has_recipients;
    check_summary(parts, is_listed);
    check_list(failed, is_listed, parts[1].find('\0') != input.npos);
    check_status(failed, has_message);
    check_interface(is_listed);
}
