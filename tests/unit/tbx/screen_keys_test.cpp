#include "tbx/screen/keys.h"

#include "tui_support.h"

#include <gmock/gmock.h>

#include <thread>

using testing::ElementsAre;

namespace {

constexpr key_rules RULES = {.wait_ms = 500,
                             .sequence_wait_ms = 40,
                             .last_digit_counts = false,
                             .has_back_tab_after_o = true,
                             .has_paste = true};

// Every key that `bytes` give until the end of input, characters as their text.
std::vector<std::string> keys_in(std::string_view bytes) {
    const typed_bytes typed(bytes);
    tui_input input;
    input.fd = typed.reader.get();
    std::vector<std::string> keys;
    while (true) {
        tui_character character = {};
        const tui_key key = tui_read_key(&input, RULES, RULES.wait_ms, character);
        if (key == KEY_ERROR)
            return keys;
        keys.push_back(key == KEY_CHAR ? character : std::to_string(key));
    }
}

// The only key in `bytes`, or -1 when there is another number of them.
int key_of(std::string_view bytes) {
    const std::vector<std::string> keys = keys_in(bytes);
    return keys.size() == 1 ? std::stoi(keys.front()) : -1;
}

tui_key next_key(tui_input *input, int timeout_ms) {
    tui_character character = {};
    return tui_read_key(input, RULES, timeout_ms, character);
}

} // namespace

// ---- Bytes --------------------------------------------------------------------------------

TEST(TuiBytes, ComeInTheOrderTyped) {
    const typed_bytes typed("ab");
    tui_input input;
    input.fd = typed.reader.get();
    EXPECT_EQ(tui_read_byte(&input, 0), 'a');
    EXPECT_TRUE(tui_input_waits(input));
    EXPECT_EQ(tui_read_byte(&input, 0), 'b');
    EXPECT_FALSE(tui_input_waits(input));
}

TEST(TuiBytes, AboveAsciiAreNotNegative) {
    const typed_bytes typed("\xff");
    tui_input input;
    input.fd = typed.reader.get();
    EXPECT_EQ(tui_read_byte(&input, 0), 255);
}

TEST(TuiBytes, TimeOutWhileNothingIsTyped) {
    const typed_bytes typed("", /*stays_open=*/true);
    tui_input input;
    input.fd = typed.reader.get();
    EXPECT_EQ(tui_read_byte(&input, 0), TUI_BYTE_TIMEOUT);
}

TEST(TuiBytes, FailAtTheEndOfInput) {
    const typed_bytes typed("");
    tui_input input;
    input.fd = typed.reader.get();
    EXPECT_EQ(tui_read_byte(&input, 0), TUI_BYTE_ERROR);
}

TEST(TuiBytes, FailOnADescriptorThatCannotBeRead) {
    const unique_fd directory(open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    tui_input input;
    input.fd = directory.get();
    EXPECT_EQ(tui_read_byte(&input, 0), TUI_BYTE_ERROR);
}

TEST(TuiBytes, ASignalEndsTheWaitAsATimeOut) {
    const child_result child = run_in_child([] {
        const typed_bytes typed("", /*stays_open=*/true);
        tui_input input;
        input.fd = typed.reader.get();
        interrupt_calls([] {});
        return tui_read_byte(&input, 600'000) == TUI_BYTE_TIMEOUT ? 0 : 1;
    });
    EXPECT_EQ(child.exit_status, 0);
}

// ---- Keys ---------------------------------------------------------------------------------

TEST(TuiKeys, NothingTypedIsATimeOut) {
    const typed_bytes typed("", /*stays_open=*/true);
    tui_input input;
    input.fd = typed.reader.get();
    EXPECT_EQ(next_key(&input, 0), KEY_TIMEOUT);
}

TEST(TuiKeys, TheEndOfInputIsAnError) {
    const typed_bytes typed("");
    tui_input input;
    input.fd = typed.reader.get();
    EXPECT_EQ(next_key(&input, 0), KEY_ERROR);
}

TEST(TuiKeys, CursorKeysComeInBothForms) {
    for (const char *introducer : {"\033[", "\033O"}) {
        const std::string begin = introducer;
        EXPECT_EQ(key_of(begin + "A"), KEY_UP);
        EXPECT_EQ(key_of(begin + "B"), KEY_DOWN);
        EXPECT_EQ(key_of(begin + "C"), KEY_RIGHT);
        EXPECT_EQ(key_of(begin + "D"), KEY_LEFT);
        EXPECT_EQ(key_of(begin + "F"), KEY_END);
        EXPECT_EQ(key_of(begin + "H"), KEY_HOME);
        EXPECT_EQ(key_of(begin + "Z"), KEY_BACKTAB);
    }
}

TEST(TuiKeys, NumberedKeysHaveOneDigit) {
    const int expected[] = {KEY_NONE, KEY_HOME, KEY_NONE, KEY_DELETE, KEY_END,
                            KEY_PGUP, KEY_PGDN, KEY_HOME, KEY_END,    KEY_NONE};
    for (int digit = 0; digit <= 9; digit++)
        EXPECT_EQ(key_of("\033[" + std::to_string(digit) + "~"), expected[digit]) << digit;
}

TEST(TuiKeys, SequencesWithMoreInThemGiveNoKeyAndNoText) {
    for (const char *sequence : {"\033[15~", "\033[1;5C", "\033[3;2~", "\033[201~", "\033[?1;2c",
                                 "\033[M", "\033O5A", "\033OP", "\033[[A", "\033[1$", "\033[1A"})
        EXPECT_EQ(key_of(sequence), KEY_NONE) << sequence + 1;
}

TEST(TuiKeys, AFunctionKeyBetweenCharactersLeavesThemAlone) {
    EXPECT_THAT(keys_in("a\033[15~b\033[[Ac"), ElementsAre("a", "0", "b", "0", "c"));
}

TEST(TuiKeys, ASequenceThatBreaksOffDoesNotSwallowTheNextKey) {
    EXPECT_THAT(keys_in("\033[1\033[A"), ElementsAre("0", std::to_string(KEY_UP)));
}

TEST(TuiKeys, ASequenceThatIsNeverFinishedIsNoKey) {
    EXPECT_EQ(key_of("\033["), KEY_NONE);
    EXPECT_EQ(key_of("\033[5"), KEY_NONE);
    EXPECT_EQ(key_of("\033O"), KEY_NONE);
}

TEST(TuiKeys, EscAloneIsEsc) {
    const typed_bytes typed("\033", /*stays_open=*/true);
    tui_input input;
    input.fd = typed.reader.get();
    EXPECT_EQ(next_key(&input, 0), KEY_ESC);
    EXPECT_EQ(next_key(&input, 0), KEY_TIMEOUT);
}

TEST(TuiKeys, EscBeforeTheEndOfInputIsEsc) {
    EXPECT_EQ(key_of("\033"), KEY_ESC);
}

TEST(TuiKeys, KeysHeldWithAltGiveNoKeyAndNoText) {
    for (const char *bytes : {"\033x", "\033é", "\033\033[A", "\033\033OB", "\033\033"})
        EXPECT_EQ(key_of(bytes), KEY_NONE) << bytes + 1;
}

TEST(TuiKeys, ControlBytesAreTheirKeys) {
    EXPECT_EQ(key_of("\x05"), KEY_CTRL_E);
    EXPECT_EQ(key_of("\x08"), KEY_BACKSPACE);
    EXPECT_EQ(key_of("\x7f"), KEY_BACKSPACE);
    EXPECT_EQ(key_of("\t"), KEY_TAB);
    EXPECT_EQ(key_of("\n"), KEY_ENTER);
    EXPECT_EQ(key_of("\r"), KEY_ENTER);
    EXPECT_EQ(key_of("\x13"), KEY_CTRL_S);
}

TEST(TuiKeys, EveryOtherControlByteIsNone) {
    const std::string_view meaningful("\x05\x08\t\n\r\x13\x1b");
    for (char byte = 0; byte < ' '; byte++) {
        if (meaningful.find(byte) != std::string_view::npos)
            continue;
        EXPECT_EQ(key_of({&byte, 1}), KEY_NONE) << static_cast<int>(byte);
    }
}

TEST(TuiKeys, CharactersOfEveryLengthComeWhole) {
    EXPECT_THAT(keys_in(" a~é€😀z"), ElementsAre(" ", "a", "~", "é", "€", "😀", "z"));
}

TEST(TuiKeys, ACharacterTypedInPiecesComesWhole) {
    const typed_bytes typed("\xe2", /*stays_open=*/true);
    tui_input input;
    input.fd = typed.reader.get();
    std::thread rest([&] { typed.type("\x82\xac"); });
    tui_character character = {};
    EXPECT_EQ(tui_read_key(&input, RULES, RULES.wait_ms, character), KEY_CHAR);
    rest.join();
    EXPECT_STREQ(character, "€");
}

TEST(TuiKeys, AContinuationByteAloneIsACharacterOfOneByte) {
    EXPECT_THAT(keys_in("\x80z"), ElementsAre("\x80", "z"));
}

TEST(TuiKeys, ABrokenCharacterDoesNotSwallowTheNextKey) {
    EXPECT_THAT(keys_in("\xe9\033[A\xc3x"),
                ElementsAre("\xe9", std::to_string(KEY_UP), "\xc3", "x"));
}

TEST(TuiKeys, ABrokenCharacterLeavesANulByteToTheNextKey) {
    using namespace std::string_view_literals;
    EXPECT_THAT(keys_in("\xc3\0x"sv), ElementsAre("\xc3", std::to_string(KEY_NONE), "x"));
}

TEST(TuiKeys, ACharacterThatBreaksOffComesAsFarAsItGot) {
    EXPECT_THAT(keys_in("a\xe2\x82"), ElementsAre("a", "\xe2\x82"));
}

// ---- Pastes -------------------------------------------------------------------------------

namespace {

// Every key in `bytes`, pastes as their text in brackets.
std::vector<std::string> keys_and_pastes_in(std::string_view bytes) {
    const typed_bytes typed(bytes);
    tui_input input;
    input.fd = typed.reader.get();
    std::vector<std::string> keys;
    while (true) {
        tui_character character = {};
        const tui_key key = tui_read_key(&input, RULES, RULES.wait_ms, character);
        if (key == KEY_ERROR)
            return keys;
        keys.push_back(key == KEY_PASTE  ? "[" + input.pasted + "]"
                       : key == KEY_CHAR ? character
                                         : std::to_string(key));
    }
}

const std::string BEGIN = "\033[200~";
const std::string END = "\033[201~";

} // namespace

TEST(TuiPaste, IsOneKeyWhateverItHolds) {
    EXPECT_THAT(keys_and_pastes_in("a" + BEGIN + "y\r\n\t\033[A\033 é" + END + "b"),
                ElementsAre("a", "[y\r\n\t\033[A\033 é]", "b"));
    EXPECT_THAT(keys_and_pastes_in(BEGIN + END), ElementsAre("[]"));
}

TEST(TuiPaste, WithoutAnEndGoesToTheEndOfInput) {
    EXPECT_THAT(keys_and_pastes_in(BEGIN + "half" + "\033[20"), ElementsAre("[half\033[20]"));
}

TEST(TuiPaste, BehindAnEscIsAPaste) {
    EXPECT_THAT(keys_and_pastes_in("\033" + BEGIN + "y" + END), ElementsAre("[y]"));
}

TEST(TuiPaste, ThatComesInPiecesIsSeveralKeysNoneOfThemBroken) {
    const typed_bytes typed(BEGIN + "one\r", /*stays_open=*/true);
    tui_input input;
    input.fd = typed.reader.get();
    std::string pieces;
    const auto read_piece = [&] {
        tui_character character = {};
        const tui_key key = tui_read_key(&input, RULES, /*timeout_ms=*/0, character);
        pieces += key == KEY_PASTE ? input.pasted + "|" : std::to_string(key) + "|";
    };
    read_piece();
    read_piece();
    typed.type("\n\xe2\x82");
    read_piece();
    typed.type("\xac\033[20");
    read_piece();
    typed.type("1~x");
    read_piece();
    read_piece();
    EXPECT_EQ(pieces, "one|1|\r\n|€||" + std::to_string(KEY_CHAR) + "|");
}

TEST(TuiPaste, WhoseEndIsLostIsOverAfterALongSilence) {
    const typed_bytes typed(BEGIN, /*stays_open=*/true);
    tui_input input;
    input.fd = typed.reader.get();
    tui_character character = {};
    int silences = 0;
    while (tui_read_key(&input, RULES, /*timeout_ms=*/0, character) == KEY_TIMEOUT)
        ASSERT_LT(++silences, 100);
    EXPECT_EQ(input.pasted, "");
    typed.type("x");
    EXPECT_EQ(tui_read_key(&input, RULES, 0, character), KEY_CHAR);
}

// Reads from a paste that has been silent for a second, of which `before` and then `after` arrived.
static std::vector<std::string> keys_after_silence(const std::string &before,
                                                   const std::vector<std::string> &after) {
    const typed_bytes typed(BEGIN + before, /*stays_open=*/true);
    tui_input input;
    input.fd = typed.reader.get();
    std::vector<std::string> keys;
    const auto read_all = [&] {
        tui_character character = {};
        tui_key key = KEY_NONE;
        for (int silences = 0; silences < 3;) {
            key = tui_read_key(&input, RULES, /*timeout_ms=*/0, character);
            silences += key == KEY_TIMEOUT ? 1 : 0;
            if (key != KEY_TIMEOUT)
                keys.push_back(key == KEY_PASTE  ? "[" + input.pasted + "]"
                               : key == KEY_CHAR ? character
                                                 : std::to_string(key));
        }
    };
    read_all();
    for (const std::string &bytes : after) {
        typed.type(bytes);
        read_all();
    }
    return keys;
}

TEST(TuiPaste, WhoseEndIsLostEndsWithTheNextKeyThatIsTyped) {
    const std::string down = std::to_string(KEY_DOWN);
    EXPECT_THAT(keys_after_silence("half", {"y"}), ElementsAre("[half]", "[]", "y"));
    EXPECT_THAT(keys_after_silence("half", {"\033[B", "é"}),
                ElementsAre("[half]", "[]", down, "é"));
    EXPECT_THAT(keys_after_silence("half", {"\033"}),
                ElementsAre("[half]", "[]", std::to_string(KEY_ESC)));
    EXPECT_THAT(keys_after_silence("half\r", {"y"}), ElementsAre("[half]", "[\r]", "y"));
}

TEST(TuiPaste, ThatStallsGoesOn) {
    EXPECT_THAT(keys_after_silence("half", {" and the other half" + END}),
                ElementsAre("[half]", "[ and the other half]"));
    EXPECT_THAT(keys_after_silence("half", {"y" + END, "x"}), ElementsAre("[half]", "[y]", "x"));
    EXPECT_THAT(keys_after_silence("half", {END, "x"}), ElementsAre("[half]", "[]", "x"));
    EXPECT_THAT(keys_after_silence("half\033[20", {"1~", "x"}), ElementsAre("[half]", "[]", "x"));
    EXPECT_THAT(keys_after_silence("half", {"\033[20", "1~", "x"}),
                ElementsAre("[half]", "[]", "x"));
}

TEST(TuiPaste, OfGreatLengthIsHandedOverInPieces) {
    const std::string text(300'000, 't');
    typed_bytes typed("", /*stays_open=*/true);
    std::thread typist([&] {
        typed.type(BEGIN);
        for (int i = 0; i < 10; i++)
            typed.type(text);
        typed.type(END);
        typed.writer.reset();
    });
    tui_input input;
    input.fd = typed.reader.get();
    std::string pasted;
    size_t pieces = 0;
    tui_character character = {};
    for (; tui_read_key(&input, RULES, RULES.wait_ms, character) == KEY_PASTE; pieces++)
        pasted += input.pasted;
    typist.join();
    EXPECT_EQ(pasted.size(), 3'000'000U);
    EXPECT_GE(pieces, 3U);
}

TEST(TuiKeys, OnlyCharactersHaveText) {
    const typed_bytes typed("x\t");
    tui_input input;
    input.fd = typed.reader.get();
    tui_character character = {};
    EXPECT_EQ(tui_read_key(&input, RULES, 0, character), KEY_CHAR);
    EXPECT_EQ(tui_read_key(&input, RULES, 0, character), KEY_TAB);
    EXPECT_STREQ(character, "");
}
