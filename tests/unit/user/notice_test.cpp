#include "user/notice.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

static message_record message(const std::string &text, const std::string &title = "") {
    return {7, "root", 5, title, 0, text};
}

TEST(FirstCharacters, CutsBetweenCharacters) {
    EXPECT_EQ(first_characters("äöü", 3), "äöü");
    EXPECT_EQ(first_characters("äöü", 2), "äö…");
    EXPECT_EQ(first_characters("", 0), "");
}

TEST(NotificationEscape, LeavesNoMarkup) {
    EXPECT_EQ(notification_escape("<b>&amp;"), "&lt;b&gt;&amp;amp;");
}

TEST(Notice, LeadsToTheWindow) {
    const notice made = make_notice(message("text\n\n", "Title"), /*has_window=*/true);
    EXPECT_EQ(made.id, 7);
    EXPECT_EQ(made.body, "Title\ntext");
    EXPECT_THAT(made.actions, ElementsAre(Pair("show", "Show")));
    EXPECT_THAT(made.drawn_actions, IsEmpty());
}

TEST(Notice, WithoutAWindowAsksOnlyIfTheTextIsWhole) {
    const notice whole = make_notice(message(std::string(400, 'x')), /*has_window=*/false);
    EXPECT_EQ(whole.body, std::string(400, 'x') + "\nAnswer in a terminal with: tellbox");
    EXPECT_THAT(whole.answers, ElementsAre("read", "later"));
    EXPECT_THAT(whole.drawn_actions,
                ElementsAre(Pair("read", "I have read it"), Pair("later", "Later")));
    const notice cut = make_notice(message(std::string(401, 'x')), /*has_window=*/false);
    EXPECT_THAT(cut.drawn_actions, ElementsAre(Pair("later", "Later")));
    EXPECT_EQ(cut.body, std::string(400, 'x') + "…\nAnswer in a terminal with: tellbox");
}

TEST(Notice, CountsTheTitleAsPartOfTheText) {
    const notice made =
        make_notice(message(std::string(200, 'x'), std::string(200, 't')), /*has_window=*/false);
    EXPECT_THAT(made.drawn_actions, ElementsAre(Pair("later", "Later")));
}
