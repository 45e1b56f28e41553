// Every byte, every pair of bytes, and what surrounds them: nothing of it drives a terminal once
// it is cleaned. What is kept all the same is listed here.
#include "common/message.h"
#include "hostile.h"
#include "support.h"
#include "tbx/tui/text.h"

namespace {

std::string cleaned(std::string_view text) {
    strbuf out;
    sanitize_text(text.data(), text.size(), &out);
    return std::string(out.view());
}

// The first of the texts `before` PAIR `after` that is not harmless once it is cleaned, or that
// cleaning twice changes again; empty if there is none.
std::string first_harmful(const std::string &before, const std::string &after) {
    std::string harmful;
    for_each_pair([&](const std::string &pair) {
        const std::string text = cleaned(before + pair + after);
        if (harmful.empty() && (drives_terminal(text) || cleaned(text) != text))
            harmful = in_hexadecimal(before + pair + after);
    });
    return harmful;
}

} // namespace

// ---- The judge itself ---------------------------------------------------------------------

TEST(Judge, FindsEveryKindOfControl) {
    EXPECT_TRUE(drives_terminal("a\x1b[2J"));
    EXPECT_TRUE(drives_terminal("a\x07"));
    EXPECT_TRUE(drives_terminal("a\x7f"));
    EXPECT_TRUE(drives_terminal("a\rb"));
    EXPECT_TRUE(drives_terminal("a\xc2\x9b"));
    EXPECT_FALSE(drives_terminal("a\tb\n\xc2\xa0 \xc3\xa9 \xe2\x94\x80 \xf0\x9f\x98\x80"));
}

TEST(Judge, TellsSingleC1BytesFromPartsOfCharacters) {
    EXPECT_TRUE(holds_any_control("a\x9b"
                                  "2J"));
    EXPECT_TRUE(holds_any_control("\xe0\x80\x9b")); // longer than it need be: no character
    EXPECT_TRUE(holds_any_control("\xc3\x9b\x9b"));
    EXPECT_FALSE(holds_any_control("\xc3\x9b \xe2\x94\x80"));
    EXPECT_FALSE(drives_terminal("a\x9b"
                                 "2J"));
}

// ---- Cleaned text -------------------------------------------------------------------------

TEST(HostileText, EveryByteIsKeptOrDroppedByTheRule) {
    for (int byte = 0; byte < BYTES; byte++) {
        const std::string text(1, static_cast<char>(byte));
        const bool is_kept = byte == '\t' || byte == '\n' || (byte >= ' ' && byte != 0x7f);
        EXPECT_EQ(cleaned(text), is_kept ? text : "") << byte;
    }
}

TEST(HostileText, EveryPairIsHarmlessAlone) {
    EXPECT_EQ(first_harmful("", ""), "");
}

TEST(HostileText, EveryPairIsHarmlessInsideAText) {
    EXPECT_EQ(first_harmful("before ", " behind"), "");
    EXPECT_EQ(first_harmful("1\n", "\n2"), "");
}

TEST(HostileText, EveryPairIsHarmlessBehindTheBeginningOfASequence) {
    for (const char *beginning : {"\x1b", "\x1b[", "\x1b[31", "\x1b]", "\x1b]0;", "\x1bP", "\xc2"})
        EXPECT_EQ(first_harmful(beginning, ""), "");
}

TEST(HostileText, EveryPairIsHarmlessBeforeTheEndOfASequence) {
    for (const char *end : {"[31m", "31m", "m", "\x07", "\x1b\\", "\x9b", "\x85"})
        EXPECT_EQ(first_harmful("", end), "");
}

TEST(HostileText, EveryPairIsHarmlessBetweenBeginningAndEnd) {
    EXPECT_EQ(first_harmful("\x1b", "31m"), "");
    EXPECT_EQ(first_harmful("\x1b[", "m"), "");
    EXPECT_EQ(first_harmful("\x1b]", "\x07"), "");
    EXPECT_EQ(first_harmful("\xc2", "\x9b"), "");
    EXPECT_EQ(first_harmful("\xc2\xc2", "\x9b\x9b"), "");
}

// Escape sequences of other forms lose their escape, and nothing else.
TEST(HostileText, EveryEscapeLosesItsEscapeAtLeast) {
    for (int byte = 0; byte < BYTES; byte++)
        EXPECT_EQ(cleaned(pair_of(0x1b, byte)), cleaned(std::string(1, static_cast<char>(byte))))
            << byte;
}

TEST(HostileText, EveryC1ControlIsRemovedInItsTwoByteForm) {
    for (int byte = 0x80; byte < BYTES; byte++) {
        const std::string text = pair_of(0xc2, byte);
        EXPECT_EQ(cleaned("a" + text + "b"), byte <= 0x9f ? "ab" : "a" + text + "b") << byte;
    }
}

// ---- The exceptions -----------------------------------------------------------------------

// Text is cleaned of bytes and not of characters: where it is no UTF-8, it may be in another
// encoding, of which these bytes are letters. Terminals of eight-bit characters obey them; those
// in UTF-8 show a broken character.
TEST(HostileText, SingleBytesFrom80To9fAreTheOnlyControlsThatAreKept) {
    for_each_pair([](const std::string &pair) {
        for (const found_control &control : controls_in(cleaned(pair))) {
            ASSERT_EQ(control.kind, control_kind::c1_alone) << in_hexadecimal(pair);
            ASSERT_NE(pair.find_first_of(cleaned(pair)[control.offset]), std::string::npos);
        }
    });
    EXPECT_EQ(cleaned("a\x9b"
                      "31mb\x85"
                      "c"),
              "a\x9b"
              "31mb\x85"
              "c");
}

// A pair that two cleaned texts would make where they meet is none of either.
TEST(HostileText, CleanedTextsJoinToAControlOnlyAtALoneC2) {
    for_each_pair([](const std::string &pair) {
        const std::string joined = cleaned(pair.substr(0, 1)) + cleaned(pair.substr(1));
        const bool is_c1 = pair[0] == '\xc2' && byte_between(pair[1], 0x80, 0x9f);
        ASSERT_EQ(drives_terminal(joined), is_c1) << in_hexadecimal(pair);
    });
}

// ---- On the screen, no exception ----------------------------------------------------------

TEST(HostileText, NothingThatIsDrawnHoldsAControl) {
    for_each_pair([](const std::string &pair) {
        strbuf drawn;
        tui_fit(&drawn, tui_clean(pair), 4);
        const std::string text = without_own_sequences(drawn.view());
        ASSERT_FALSE(holds_any_control(text, "")) << in_hexadecimal(pair);
        ASSERT_TRUE(is_well_formed(text)) << in_hexadecimal(pair);
        ASSERT_EQ(tui_line_columns(drawn.view()), 4) << in_hexadecimal(pair);
    });
}

TEST(HostileText, WhatIsTypedIsDrawnWithoutControlsToo) {
    for_each_pair([](const std::string &pair) {
        strbuf drawn;
        tui_fit(&drawn, tui_blank_controls(pair), 4);
        const std::string text = without_own_sequences(drawn.view());
        ASSERT_FALSE(holds_any_control(text, "")) << in_hexadecimal(pair);
        ASSERT_EQ(tui_line_columns(drawn.view()), 4) << in_hexadecimal(pair);
    });
}
