#include "tbx/tui/list.h"

#include "tbx/sent.h"
#include "tbx/tui/screen.h"
#include "tui_support.h"

#include <gmock/gmock.h>

#include <ctime>

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

namespace {

constexpr const char *BAR = "▒▒▒▒▒▒▒▒▒▒▒▒";
constexpr const char *LEGEND = "█ confirmed   ▒ delivered   ░ sent";

// The list on a screen of this size, with UTC as local time.
struct list_screen : scratch_screen {
    using scratch_screen::scratch_screen;
    environment_variable zone{"TZ", "UTC"};
};

message_summary row_of(int64_t id, const std::string &title, const std::string &text) {
    message_summary row;
    row.message.id = id;
    row.message.date = 86'400 + 3'600; // 02/01 01:00
    row.message.title = title;
    row.message.text = text;
    row.delivered = 1;
    return row;
}

message_list list_of_rows(int count) {
    message_list list;
    for (int i = 0; i < count; i++)
        list.rows.push_back(row_of(count - i, "", "text"));
    return list;
}

std::vector<std::string> rendered(const message_list &list, int selected = -1, int top = 0,
                                  const std::string &search_text = "") {
    strlist lines;
    message_list_render(&lines, list, selected, top, search_text);
    return items(lines);
}

// The one row of a list with this message alone.
std::string rendered_row(const message_summary &row, int selected = -1) {
    message_list list;
    list.rows.push_back(row);
    return rendered(list, selected)[1];
}

std::vector<int64_t> loaded_ids(const std::string &search_text = "") {
    message_list list;
    message_list_load(&list, search_text);
    std::vector<int64_t> ids;
    for (const message_summary &row : list.rows)
        ids.push_back(row.message.id);
    return ids;
}

} // namespace

// ---- Lines --------------------------------------------------------------------------------

TEST(ListPage, HasALineForEveryRowOfTheBody) {
    const list_screen screen(80, 20);
    for (const int rows : {0, 1, 13, 14, 100})
        EXPECT_EQ(rendered(list_of_rows(rows)).size(), 16U) << rows;
}

TEST(ListPage, BeginsWithTheHeadingAndEndsWithTheLegend) {
    const list_screen screen(80, 20);
    const std::vector<std::string> lines = rendered(list_of_rows(1));
    EXPECT_EQ(lines.front(), "  ID  DATE         MESSAGE" + std::string(29, ' ') + "  RECIPIENTS");
    EXPECT_EQ(lines.back(), LEGEND);
}

TEST(ListPage, SaysWhenThereIsNothing) {
    const list_screen screen;
    EXPECT_EQ(rendered({})[1], "   No messages sent.");
    EXPECT_EQ(rendered({}, 0, 0, "x")[1], "   No message contains the search text.");
}

TEST(ListPage, NamesTheSearchInTheLegend) {
    const list_screen screen;
    EXPECT_EQ(rendered({}, 0, 0, "disk").back(),
              std::string(LEGEND) + "      search: «disk» (Esc to clear)");
}

TEST(ListPage, ShowsTheRowsFromTheTopOn) {
    const list_screen screen(80, 20);
    const std::vector<std::string> lines = rendered(list_of_rows(100), -1, 10);
    EXPECT_THAT(lines[1], StartsWith("  90  "));
    EXPECT_THAT(lines[13], StartsWith("  78  "));
    EXPECT_EQ(lines[14], "");
}

// ---- Rows ---------------------------------------------------------------------------------

TEST(ListRow, ShowsTheMessageAndTheCounts) {
    const list_screen screen(80, 24);
    EXPECT_EQ(rendered_row(row_of(7, "Notice", "The text\nsecond")),
              "   7  02/01 01:00  Notice · The text                     " + std::string(BAR) +
                  "  0/1");
}

TEST(ListRow, WithoutATitleShowsTheTextAlone) {
    const list_screen screen;
    EXPECT_THAT(rendered_row(row_of(7, "", "The text\n")), HasSubstr("01:00  The text  "));
}

TEST(ListRow, MarksWhatIsRevokedOrExpired) {
    const list_screen screen;
    message_summary row = row_of(7, "T", "x");
    row.revoked = true;
    EXPECT_THAT(rendered_row(row), HasSubstr("  [revoked] T · x "));
    row.expired = true;
    EXPECT_THAT(rendered_row(row), HasSubstr("  [revoked] [expired] T · x "));
}

TEST(ListRow, MarksTheSelection) {
    const list_screen screen;
    EXPECT_THAT(rendered_row(row_of(7, "", "x"), 0), StartsWith(">  7  "));
}

TEST(ListRow, HighlightsTheSelectionToTheEndOfTheLine) {
    const list_screen screen(80, 24);
    screen.colour();
    const std::string row = rendered_row(row_of(7, "T", "x"), 0);
    EXPECT_EQ(row, "\033[7;1m>  7  02/01 01:00  T · x" + std::string(31, ' ') + "  " + BAR +
                       "  0/1  \033[0m");
}

TEST(ListRow, ColoursItsParts) {
    const list_screen screen(80, 24);
    screen.colour();
    message_summary row = row_of(7, "T", "x");
    row.revoked = true;
    EXPECT_THAT(rendered_row(row),
                HasSubstr("\033[90m[revoked] \033[0m\033[1mT\033[0m · x\033[0m     "));
}

TEST(ListRow, SpellsTheRecipientsOutFrom110ColumnsOn) {
    list_screen screen(109, 24);
    EXPECT_THAT(rendered_row(row_of(7, "", "x")), HasSubstr("▒  0/1"));
    screen.resize(110, 24);
    EXPECT_THAT(rendered_row(row_of(7, "", "x")), HasSubstr("▒  1 delivered"));
}

TEST(ListRow, ShowsAPercentageWhereTheNumbersWouldBeCut) {
    const list_screen screen(80, 24);
    const auto recipients = [](int id, int confirmed, int total) {
        message_summary row = row_of(id, "", "x");
        row.confirmed = confirmed;
        row.delivered = total - confirmed;
        row.sent = 0;
        const std::string line = rendered_row(row);
        return line.substr(line.rfind("  ") + 2);
    };
    EXPECT_EQ(recipients(1, 12, 20), "12/20");
    EXPECT_EQ(recipients(1, 10, 100), "10%");
    EXPECT_EQ(recipients(1, 9, 100), "9/100");
    EXPECT_EQ(recipients(1, 999, 1000), "99%"); // rounded down
    EXPECT_EQ(recipients(1, 3000, 3000), "100%");
    EXPECT_EQ(recipients(1234, 10, 20), "50%"); // a long identifier leaves four columns
    EXPECT_EQ(recipients(12345, 10, 20), "50%");
    EXPECT_EQ(recipients(12345, 20, 20), "100%"); // the message makes room
    EXPECT_EQ(recipients(123456789, 20, 20), "100%");
    EXPECT_EQ(recipients(1, 0, 0), "0/0");
}

TEST(ListRow, MessageColumnTakesWhatTheOthersLeave) {
    list_screen screen;
    const auto message_cols = [&](int cols) {
        screen.resize(cols, 24);
        const std::string row = rendered_row(row_of(7, "", std::string(300, 'x')));
        return std::count(row.begin(), row.end(), 'x');
    };
    EXPECT_EQ(message_cols(80), 36);
    EXPECT_EQ(message_cols(109), 65);
    EXPECT_EQ(message_cols(110), 29);
    EXPECT_EQ(message_cols(200), 119);
    EXPECT_EQ(message_cols(40), 10);
}

// ---- Loading ------------------------------------------------------------------------------

TEST(ListLoad, PutsTheNewestFirst) {
    const scratch_state state;
    for (const int id : {2, 10, 9})
        add_message(state, id, "", "text\n");
    EXPECT_THAT(loaded_ids(), ElementsAre(10, 9, 2));
}

TEST(ListLoad, LeavesOutWhatCannotBeRead) {
    const scratch_state state;
    add_message(state, 1, "", "text\n");
    add_message(state, 2, "", "text\n");
    state.write("sent/2/msg", "damaged");
    std::filesystem::create_directory(state.path("sent/3"));
    EXPECT_THAT(loaded_ids(), ElementsAre(1));
}

TEST(ListLoad, WithoutAStoreIsEmpty) {
    const scratch_state state;
    EXPECT_THAT(loaded_ids(), IsEmpty());
}

TEST(ListLoad, SearchesTextAndTitleWithoutRegardToCase) {
    const scratch_state state;
    add_message(state, 1, "Backup", "text\n");
    add_message(state, 2, "", "the BACKUP runs\n");
    add_message(state, 3, "", "text\n");
    add_message(state, 4, "Other", "text\n");
    EXPECT_THAT(loaded_ids("backup"), ElementsAre(2, 1));
    EXPECT_THAT(loaded_ids("bacKUP r"), ElementsAre(2));
    EXPECT_THAT(loaded_ids("backup "), ElementsAre(2));
    EXPECT_THAT(loaded_ids("nothing"), IsEmpty());
    EXPECT_THAT(loaded_ids("no title"), IsEmpty());
}

TEST(ListLoad, SearchKnowsTheCaseOfLettersBeyondAsciiApart) {
    const scratch_state state;
    add_message(state, 6, "", "one\nÜbung\n");
    EXPECT_THAT(loaded_ids("Übung"), ElementsAre(6));
    EXPECT_THAT(loaded_ids("BUNG"), ElementsAre(6));
    EXPECT_THAT(loaded_ids("übung"), IsEmpty());
}

TEST(ListLoad, ReadsConfirmationsAfresh) {
    const scratch_state state;
    add_message(state, 1, "", "text\n");
    message_list list;
    message_list_load(&list, "");
    EXPECT_EQ(list.rows[0].confirmed, 0);
    state.write("users/root/acks/1", "5 terminal\n");
    message_list_load(&list, "");
    EXPECT_EQ(list.rows[0].confirmed, 1);
}

TEST(ListLoad, CleansWhatCouldDriveTheTerminal) {
    const scratch_state state;
    add_message(state, 1, "T\033[31mitle", "te\033[2Jxt\n");
    message_list list;
    message_list_load(&list, "");
    EXPECT_EQ(list.rows[0].message.title, "Title");
    EXPECT_EQ(list.rows[0].message.text, "text\n");
}
