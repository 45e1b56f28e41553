#include "tbx/tui/compose_form.h"

#include "tui_support.h"

#include <gmock/gmock.h>

using testing::ElementsAre;

namespace {

// Presses the keys in `bytes`, as the terminal sends them.
void type(compose_form *form, std::string_view bytes) {
    const typed_bytes typed(bytes);
    tui_input input;
    input.fd = typed.reader.get();
    tui_character character = {};
    for (tui_key key = tui_read_key(&input, TUI_RULES.keys, 0, character); key != KEY_ERROR;
         key = tui_read_key(&input, TUI_RULES.keys, 0, character))
        compose_press(form, key, character);
}

constexpr const char *UP = "\033[A";
constexpr const char *DOWN = "\033[B";
constexpr const char *RIGHT = "\033[C";
constexpr const char *LEFT = "\033[D";
constexpr const char *HOME = "\033[H";
constexpr const char *END = "\033[F";
constexpr const char *DELETE = "\033[3~";
constexpr const char *BACK_TAB = "\033[Z";

// The To field after `keys`, with "|" at the cursor.
std::string to_after(const std::vector<std::string> &keys) {
    compose_form form;
    for (const std::string &key : keys)
        type(&form, key);
    std::string value = form.fields[COMPOSE_TO].value;
    return value.insert(form.fields[COMPOSE_TO].cursor, "|");
}

// The text after `keys`, with "|" at the cursor and "/" between the lines.
std::string text_after(const std::vector<std::string> &keys) {
    compose_form form;
    form.focus = COMPOSE_TEXT;
    for (const std::string &key : keys)
        type(&form, key);
    form.text.lines[form.text.line].insert(form.text.cursor, "|");
    std::string joined = compose_text_joined(form.text);
    std::replace(joined.begin(), joined.end(), '\n', '/');
    return joined;
}

int focus_after(int focus, const char *key) {
    compose_form form;
    form.focus = focus;
    type(&form, key);
    return form.focus;
}

} // namespace

// ---- Fields -------------------------------------------------------------------------------

TEST(ComposeField, TakesCharactersAtTheCursor) {
    EXPECT_EQ(to_after({"aé€"}), "aé€|");
    EXPECT_EQ(to_after({"ab", LEFT, "é"}), "aé|b");
    EXPECT_EQ(to_after({"ab", HOME, "q?/nrmp "}), "q?/nrmp |ab");
    EXPECT_EQ(to_after({"\U00010348"
                        "b",
                        LEFT, LEFT, RIGHT, "X"}),
              "\U00010348X|b");
}

TEST(ComposeField, TheCursorMovesByWholeCharacters) {
    EXPECT_EQ(to_after({"aé€", LEFT, LEFT}), "a|é€");
    EXPECT_EQ(to_after({"aé€", LEFT, LEFT, RIGHT}), "aé|€");
    EXPECT_EQ(to_after({"aé", LEFT, LEFT, LEFT, LEFT}), "|aé");
    EXPECT_EQ(to_after({"aé", RIGHT}), "aé|");
    EXPECT_EQ(to_after({"aé", HOME}), "|aé");
    EXPECT_EQ(to_after({"aé", HOME, END}), "aé|");
}

TEST(ComposeField, DeletesWholeCharacters) {
    EXPECT_EQ(to_after({"aé€", "\x7f"}), "aé|");
    EXPECT_EQ(to_after({"aé€", LEFT, "\x7f"}), "a|€");
    EXPECT_EQ(to_after({"aé€", HOME, "\x7f"}), "|aé€");
    EXPECT_EQ(to_after({"aé€", HOME, RIGHT, DELETE}), "a|€");
    EXPECT_EQ(to_after({"aé€", DELETE}), "aé€|");
    EXPECT_EQ(to_after({"a\U00010348", "\x7f"}), "a|");
    EXPECT_EQ(to_after({"\x7f", DELETE, LEFT, RIGHT, HOME, END}), "|");
}

TEST(ComposeField, TakesACharacterWhileShorterThan1000Bytes) {
    EXPECT_EQ(to_after({std::string(999, 'x'), "€", "y"}), std::string(999, 'x') + "€|");
    EXPECT_EQ(to_after({std::string(1000, 'x'), "y"}), std::string(1000, 'x') + "|");
}

TEST(ComposeField, ArrowsAndEnterGoToTheNextOne) {
    for (const char *key : {DOWN, "\r", "\n"}) {
        EXPECT_EQ(focus_after(COMPOSE_TO, key), COMPOSE_TITLE);
        EXPECT_EQ(focus_after(COMPOSE_TITLE, key), COMPOSE_EXPIRES);
        EXPECT_EQ(focus_after(COMPOSE_EXPIRES, key), COMPOSE_TEXT);
        EXPECT_EQ(focus_after(COMPOSE_TEXT, key), COMPOSE_TEXT);
    }
    EXPECT_EQ(focus_after(COMPOSE_TEXT, UP), COMPOSE_EXPIRES);
    EXPECT_EQ(focus_after(COMPOSE_EXPIRES, UP), COMPOSE_TITLE);
    EXPECT_EQ(focus_after(COMPOSE_TITLE, UP), COMPOSE_TO);
    EXPECT_EQ(focus_after(COMPOSE_TO, UP), COMPOSE_TO);
}

TEST(ComposeField, TabGoesAround) {
    EXPECT_EQ(focus_after(COMPOSE_TO, "\t"), COMPOSE_TITLE);
    EXPECT_EQ(focus_after(COMPOSE_TITLE, "\t"), COMPOSE_EXPIRES);
    EXPECT_EQ(focus_after(COMPOSE_EXPIRES, "\t"), COMPOSE_TEXT);
    EXPECT_EQ(focus_after(COMPOSE_TEXT, "\t"), COMPOSE_TO);
    for (const char *key : {BACK_TAB, "\033OZ"}) {
        EXPECT_EQ(focus_after(COMPOSE_TO, key), COMPOSE_TEXT);
        EXPECT_EQ(focus_after(COMPOSE_TEXT, key), COMPOSE_EXPIRES);
        EXPECT_EQ(focus_after(COMPOSE_EXPIRES, key), COMPOSE_TITLE);
        EXPECT_EQ(focus_after(COMPOSE_TITLE, key), COMPOSE_TO);
    }
}

TEST(ComposeField, IsEnteredAtItsEnd) {
    EXPECT_EQ(to_after({"abc", HOME, DOWN, UP}), "abc|");
}

TEST(ComposeField, OtherKeysChangeNothing) {
    EXPECT_EQ(to_after({"ab", LEFT, "\033[5~\033[6~\033[15~\x01"}), "a|b");
}

// ---- Text ---------------------------------------------------------------------------------

TEST(ComposeText, TakesCharactersAtTheCursor) {
    EXPECT_EQ(text_after({"aé", LEFT, "€"}), "a€|é");
}

TEST(ComposeText, EnterSplitsTheLine) {
    EXPECT_EQ(text_after({"abcd", LEFT, LEFT, "\r"}), "ab/|cd");
    EXPECT_EQ(text_after({"\r\r"}), "//|");
}

TEST(ComposeText, BackspaceDeletesOrJoinsToTheLineAbove) {
    EXPECT_EQ(text_after({"é", "\x7f"}), "|");
    EXPECT_EQ(text_after({"ab\rcd", HOME, "\x7f"}), "ab|cd");
    EXPECT_EQ(text_after({"ab\r\rcd", HOME, "\x7f"}), "ab/|cd");
    EXPECT_EQ(text_after({"aé\rb", HOME, "\x7f", "\x7f"}), "a|b");
    EXPECT_EQ(text_after({"ab\rcd", UP, HOME, "\x7f"}), "|ab/cd");
    EXPECT_EQ(text_after({"a\U00010348", "\x7f"}), "a|");
    EXPECT_EQ(text_after({"\x7f"}), "|");
}

TEST(ComposeText, DeleteDeletesOrJoinsTheNextLine) {
    EXPECT_EQ(text_after({"é€", HOME, DELETE}), "|€");
    EXPECT_EQ(text_after({"ab\rcd", UP, DELETE}), "ab|cd");
    EXPECT_EQ(text_after({"ab", DELETE}), "ab|");
    EXPECT_EQ(text_after({"ab\rcd", DELETE}), "ab/cd|");
}

TEST(ComposeText, TheCursorGoesOnAtTheNextLine) {
    EXPECT_EQ(text_after({"ab\rcd", HOME, LEFT}), "ab|/cd");
    EXPECT_EQ(text_after({"ab\rcd", HOME, LEFT, RIGHT}), "ab/|cd");
    EXPECT_EQ(text_after({"ab", HOME, LEFT}), "|ab");
    EXPECT_EQ(text_after({"ab", RIGHT}), "ab|");
}

TEST(ComposeText, HomeAndEndStayInTheLine) {
    EXPECT_EQ(text_after({"ab\rcd", HOME}), "ab/|cd");
    EXPECT_EQ(text_after({"ab\rcd", UP, HOME, END}), "ab|/cd");
}

TEST(ComposeText, UpAndDownKeepTheColumn) {
    EXPECT_EQ(text_after({"äöü\rabc", LEFT, UP}), "äö|ü/abc");
    EXPECT_EQ(text_after({"a\rbcd", UP}), "a|/bcd");
    EXPECT_EQ(text_after({"abcd\rab", UP}), "ab|cd/ab");
    EXPECT_EQ(text_after({"ab\rc", UP, DOWN}), "ab/c|");
    EXPECT_EQ(text_after({"ab\rc", DOWN}), "ab/c|");
}

TEST(ComposeText, UpFromTheFirstLineGoesToTheEndOfExpires) {
    compose_form form;
    form.focus = COMPOSE_EXPIRES;
    type(&form, std::string("2h") + HOME + DOWN + UP);
    EXPECT_EQ(form.focus, COMPOSE_EXPIRES);
    EXPECT_EQ(form.fields[COMPOSE_EXPIRES].cursor, 2U);
}

TEST(ComposeText, KeepsItsPlaceWhileTheFocusIsElsewhere) {
    EXPECT_EQ(text_after({"ab\rcd", LEFT, "\t", "\033[Z", "x"}), "ab/cx|d");
}

TEST(ComposeText, IsJoinedAndMeasuredWithItsNewlines) {
    compose_text text;
    text.lines = {"ä", "", "b"};
    EXPECT_EQ(compose_text_joined(text), "ä\n\nb");
    EXPECT_EQ(compose_text_bytes(text), 5U);
}

TEST(ComposeText, IsReplacedWithoutTrailingNewlines) {
    compose_text text;
    text.top = 5;
    compose_set_text(&text, "one\n\ntwo\n\n\n");
    EXPECT_THAT(text.lines, ElementsAre("one", "", "two"));
    EXPECT_EQ(text.line, 2U);
    EXPECT_EQ(text.cursor, 3U);
    EXPECT_EQ(text.top, 0U);
}

TEST(ComposeText, ReplacedByNothingIsOneEmptyLine) {
    compose_text text;
    compose_set_text(&text, "\n\n");
    EXPECT_THAT(text.lines, ElementsAre(""));
    EXPECT_EQ(text.cursor, 0U);
}

// ---- The form -----------------------------------------------------------------------------

TEST(ComposeForm, IsEmptyUntilSomethingIsWritten) {
    compose_form form;
    EXPECT_TRUE(compose_is_empty(form));
    for (compose_field &field : form.fields) {
        field.value = "x";
        EXPECT_FALSE(compose_is_empty(form));
        field.value.clear();
    }
    type(&form, "\t\t\t\r");
    EXPECT_FALSE(compose_is_empty(form));
}
