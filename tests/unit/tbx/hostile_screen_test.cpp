// Every pair of bytes in every text of the interface's pages: what is written to the terminal holds
// nothing but well-formed text, line ends and the interface's own sequences.
#include "hostile.h"
#include "support.h"
#include "tbx/tui/compose_draw.h"
#include "tbx/tui/dialog.h"
#include "tbx/tui/list.h"
#include "tbx/tui/screen.h"

namespace {

void screen_size(int columns, int rows) {
    tui.screen_cols = columns;
    tui.screen_rows = rows;
}

// The rows of a frame, without the sequences around them.
std::string shown(const tui_screen &page) {
    strbuf frame;
    tui_render(page, &frame);
    std::string_view rows = frame.view();
    rows.remove_prefix(rows.find("\033[H") + 3);
    return std::string(rows.substr(0, rows.rfind("\033[J")));
}

// The frame is as large as the screen, and nothing in it drives a terminal.
testing::AssertionResult is_harmless(const tui_screen &page) {
    const std::string rows = shown(page);
    const std::string text = without_own_sequences(rows);
    if (holds_any_control(text, "\n"))
        return testing::AssertionFailure() << "a control at byte " << controls_in(text)[0].offset;
    if (!is_well_formed(text))
        return testing::AssertionFailure() << "no UTF-8";
    int lines = 0;
    for (size_t at = 0; at <= rows.size(); lines++) {
        const std::string_view line = std::string_view(rows).substr(at, rows.find('\n', at) - at);
        if (ending_column(line) != static_cast<size_t>(tui.screen_cols))
            return testing::AssertionFailure() << "line " << lines << ": " << line;
        at += line.size() + 1;
    }
    if (lines != tui.screen_rows)
        return testing::AssertionFailure() << lines << " lines";
    return testing::AssertionSuccess();
}

// A row of the list, its texts cleaned as those of every message that is loaded.
message_summary row_of(const std::string &title, const std::string &text) {
    message_summary row;
    row.message.id = 1;
    row.message.title = title;
    row.message.text = text + "\n";
    tui_clean_message(&row.message);
    return row;
}

class HostileScreen : public testing::TestWithParam<bool> {
public:
    HostileScreen() { tui_styles_set(GetParam()); }
};

INSTANTIATE_TEST_SUITE_P(WithAndWithoutColour, HostileScreen, testing::Bool());

} // namespace

// ---- The list -----------------------------------------------------------------------------

TEST_P(HostileScreen, EveryPairIsHarmlessInTheRowsOfTheList) {
    screen_size(120, BYTES + 7);
    for (const int first : first_bytes()) {
        message_list list;
        for (int second = 0; second < BYTES; second++)
            list.rows.push_back(row_of(pair_of(first, second), pair_of(first, second)));
        tui_screen page;
        message_list_render(&page.lines, list, 0, 0, "");
        ASSERT_TRUE(is_harmless(page)) << first;
    }
}

TEST_P(HostileScreen, EveryPairIsHarmlessThatBeginsInTheTitleAndEndsInTheText) {
    screen_size(80, BYTES + 7);
    for (const int first : first_bytes()) {
        message_list list;
        for (int second = 0; second < BYTES; second++) {
            const std::string pair = pair_of(first, second);
            list.rows.push_back(row_of(pair.substr(0, 1), pair.substr(1)));
        }
        tui_screen page;
        message_list_render(&page.lines, list, 0, 0, "");
        ASSERT_TRUE(is_harmless(page)) << first;
    }
}

// The selected row is drawn in another way.
TEST_P(HostileScreen, EveryPairIsHarmlessInTheSelectedRow) {
    screen_size(80, 8); // one row
    for_each_pair([](const std::string &pair) {
        message_list list;
        list.rows.push_back(row_of(pair, pair));
        strlist lines;
        message_list_render(&lines, list, 0, 0, "");
        strbuf row;
        tui_fit(&row, lines.items[1], tui_body_cols());
        ASSERT_FALSE(holds_any_control(without_own_sequences(row.view()), ""))
            << in_hexadecimal(pair);
    });
}

TEST_P(HostileScreen, EveryPairIsHarmlessInTheTextThatIsSearched) {
    screen_size(80, 8);
    for_each_pair([](const std::string &pair) {
        strlist lines;
        message_list_render(&lines, message_list(), 0, 0, pair);
        strbuf legend;
        tui_fit(&legend, lines.items[lines.count - 1], tui_body_cols());
        ASSERT_FALSE(holds_any_control(without_own_sequences(legend.view()), ""))
            << in_hexadecimal(pair);
    });
}

// ---- Dialogs ------------------------------------------------------------------------------

// What a command printed, and the title of a message.
TEST_P(HostileScreen, EveryPairIsHarmlessInABox) {
    screen_size(100, BYTES + 9);
    for (const int first : first_bytes()) {
        strlist body;
        std::string title;
        for (int second = 0; second < BYTES; second++) {
            const std::string text = tui_clean(pair_of(first, second));
            tui_split_lines(text.empty() ? "\n" : text, &body);
            title += text + " ";
        }
        tui_screen page;
        page.title = title;
        tui_overlay_box(&page.lines, title, body, "any key to continue");
        ASSERT_TRUE(is_harmless(page)) << first;
    }
}

// ---- The form -----------------------------------------------------------------------------

// An editor can bring back any bytes.
TEST_P(HostileScreen, EveryPairIsHarmlessInTheTextOfTheForm) {
    screen_size(80, BYTES + 16);
    for (const int first : first_bytes()) {
        std::string text;
        for (int second = 0; second < BYTES; second++)
            text += pair_of(first, second) + "\n";
        compose_form form;
        compose_set_text(&form.text, text);
        tui_screen page;
        compose_scroll(&form);
        compose_build(form, &page);
        ASSERT_TRUE(is_harmless(page)) << first;
    }
}

TEST_P(HostileScreen, EveryPairIsHarmlessInTheFieldsOfTheForm) {
    screen_size(40, 15); // with one line of text
    for_each_pair([](const std::string &pair) {
        compose_form form;
        for (compose_field &field : form.fields)
            field.value = pair;
        tui_screen page;
        compose_scroll(&form);
        compose_build(form, &page);
        for (const size_t line : {size_t{1}, size_t{3}, size_t{5}}) {
            strbuf row;
            tui_fit(&row, page.lines.items[line], tui_body_cols());
            ASSERT_FALSE(holds_any_control(without_own_sequences(row.view()), ""))
                << in_hexadecimal(pair);
        }
    });
}
