#include "tbx/guide/browser.h"
#include "tbx/guide/keys.h"
#include "tbx/guide/manual.h"
#include "tbx/guide/texts.h"

#include "hostile.h"
#include "support.h"

#include <gmock/gmock.h>

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <csignal>
#include <sstream>
#include <thread>
#include <vector>

using testing::ElementsAre;

namespace {

constexpr const char *THREE_ITEMS[] = {
    "list¦Lists.",
    "send TEXT¦Sends a text that is too long for one line of this narrow page.",
    "bare",
};

std::string kinds_and_texts(const guide_lines &lines) {
    std::string all;
    for (const guide_line &line : lines)
        all += std::string(1, line.kind) + "|" + line.text + "\n";
    return all;
}

// The frame without its first and last sequence, plain, as lines of text.
std::vector<std::string> drawn(guide_view *view) {
    styles_set(false);
    strbuf frame;
    guide_clamp(view);
    guide_render(*view, &frame);
    std::string text(frame.view());
    EXPECT_EQ(text.substr(0, 3), "\033[H");
    EXPECT_EQ(text.substr(text.size() - 3), "\033[J");
    std::istringstream rows(text.substr(3, text.size() - 6));
    std::vector<std::string> lines;
    for (std::string row; std::getline(rows, row);)
        lines.push_back(row);
    return lines;
}

std::string printed(bool colour, int width) {
    char *text = nullptr;
    size_t size = 0;
    FILE *stream = open_memstream(&text, &size);
    manual_print(stream, colour, width);
    fclose(stream);
    const owned_cstring owned(text);
    return {text, size};
}

struct byte_pipe {
    byte_pipe() {
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) != 0)
            throw_errno("pipe2");
        out = unique_fd(ends[0]);
        in = unique_fd(ends[1]);
    }
    void write(std::string_view bytes) const {
        if (write_all(in.get(), bytes.data(), bytes.size()) != 0)
            throw_errno("pipe");
    }
    // Whether nothing is left to be read.
    [[nodiscard]] bool is_empty() const {
        int left = 0;
        if (ioctl(out.get(), FIONREAD, &left) != 0)
            throw_errno("FIONREAD");
        return left == 0;
    }
    unique_fd out;
    unique_fd in;
};

guide_key read_key(tui_input *input) {
    tui_character character = {};
    const tui_key key = tui_read_key(input, GUIDE_KEY_RULES, GUIDE_KEY_RULES.wait_ms, character);
    return guide_key_of(key, character);
}

guide_key read_key(int fd) {
    tui_input input;
    input.fd = fd;
    return read_key(&input);
}

// The keys in `bytes`, after which nothing more comes for now.
std::vector<guide_key> keys_in(std::string_view bytes) {
    const byte_pipe pipe;
    pipe.write(bytes);
    std::vector<guide_key> keys;
    tui_input input;
    input.fd = pipe.out.get();
    do
        keys.push_back(read_key(&input));
    while (!pipe.is_empty() || tui_input_waits(input));
    return keys;
}

// The key read when `rest` is typed as soon as `first` has been taken.
guide_key typed_in_pieces(std::string_view first, std::string_view rest) {
    const byte_pipe pipe;
    pipe.write(first);
    std::thread typist([&] {
        while (!pipe.is_empty())
            std::this_thread::yield();
        pipe.write(rest);
    });
    const guide_key key = read_key(pipe.out.get());
    typist.join();
    return key;
}

} // namespace

// ---- Manual page --------------------------------------------------------------------------

TEST(Manual, TableHasEachTermAboveItsDescription) {
    styles_set(false);
    strbuf page;
    manual_append_table(&page, THREE_ITEMS, 60);
    EXPECT_EQ(page.view(), "       list\n"
                           "              Lists.\n"
                           "       send TEXT\n"
                           "              Sends a text that is too long for one line of\n"
                           "              this narrow page.\n"
                           "       bare\n");
}

TEST(Manual, TermsAreGreenInColour) {
    styles_set(true);
    strbuf page;
    manual_append_table(&page, guide_table(THREE_ITEMS).first(1), 60);
    EXPECT_EQ(page.view(), "       \033[1;32mlist\033[0m\n"
                           "              Lists.\n");
    styles_set(false);
}

TEST(Manual, HeaderAndFooterReachFromEdgeToEdge) {
    const std::string page = printed(false, 60);
    EXPECT_EQ(page.substr(0, page.find('\n')),
              "TBX(1)                   tbx manual                   TBX(1)");
    EXPECT_THAT(page, testing::EndsWith(
                          "\n\ntbx 0.2.0                                             TBX(1)\n"));
}

TEST(Manual, HeaderPutsTheOddSpaceOnTheRight) {
    const std::string page = printed(false, 61);
    EXPECT_EQ(page.substr(0, page.find('\n')),
              "TBX(1)                   tbx manual                    TBX(1)");
}

TEST(Manual, IsNeverNarrowerThan60OrWiderThan100Columns) {
    EXPECT_EQ(printed(true, 40), printed(true, 60));
    EXPECT_EQ(printed(true, 200), printed(true, 100));
    EXPECT_NE(printed(true, 61), printed(true, 60));
    EXPECT_NE(printed(true, 99), printed(true, 100));
}

TEST(Manual, PrintsNoEscapeSequenceWithoutColour) {
    EXPECT_EQ(printed(false, 80).find('\033'), std::string::npos);
}

// ---- Tabs to lines ------------------------------------------------------------------------

TEST(GuideTab, TableSeparatesItsItemsByAnEmptyLine) {
    guide_lines lines;
    guide_append_table(&lines, THREE_ITEMS, 40);
    EXPECT_EQ(kinds_and_texts(lines), "F| list\n"
                                      "T|    Lists.\n"
                                      "T|\n"
                                      "F| send TEXT\n"
                                      "T|    Sends a text that is too long for\n"
                                      "T|    one line of this narrow page.\n"
                                      "T|\n"
                                      "F| bare\n");
}

TEST(GuideTab, BeginsWithItsHeadingAndAnEmptyLine) {
    const char *const headings[] = {"Commands", "Send options", "Examples", "Files and log"};
    for (size_t tab = 1; tab < GUIDE_TABS; tab++)
        EXPECT_THAT(kinds_and_texts(guide_tab_lines(tab, 76)),
                    testing::StartsWith(std::string("H|") + headings[tab - 1] + "\nT|\nF| "));
}

TEST(GuideTab, InfoShowsTheFreeTexts) {
    const guide_lines lines = guide_tab_lines(0, 76);
    EXPECT_THAT(kinds_and_texts(lines),
                testing::StartsWith("H|NAME\n"
                                    "T|   tbx — messages to users with read confirmation\n"
                                    "T|\n"
                                    "H|SYNOPSIS\n"
                                    "T|   tbx send --to DEST [options] [TEXT]\n"
                                    "T|   tbx list\n"));
    EXPECT_EQ(lines.back().text, "   Tellbox 0.2.0 · complete manual: "
                                 "/usr/local/share/doc/tellbox/User Manual.html");
}

// ---- Lines to frame -----------------------------------------------------------------------

TEST(GuideFrame, FillsTheSmallestTerminal) {
    guide_view view = {.rows = 10, .columns = 44, .tab = 2, .scroll = {}};
    EXPECT_THAT(drawn(&view), ElementsAre("┌─ tbx — guide ────────────────────────────┐",
                                          "│ Info  Commands >Options< Examples  Files │",
                                          "├──────────────────────────────────────────┤",
                                          "│ Send options                             │",
                                          "│                                          │",
                                          "│  --to DEST                               │",
                                          "│     Recipients, separated by commas      │",
                                          "├──────────────────────────────────────────┤",
                                          "│ ←/→ tabs · q quit           lines 1-4/20 │",
                                          "└──────────────────────────────────────────┘"));
}

TEST(GuideFrame, MarksTheCurrentTabInReverseAndDimsTheOthers) {
    styles_set(true);
    guide_view view = {.rows = 10, .columns = 44, .tab = 1, .scroll = {}};
    strbuf frame;
    guide_render(view, &frame);
    styles_set(false);
    EXPECT_THAT(std::string(frame.view()), testing::HasSubstr("\n\033[2m│\033[0m"
                                                              "\033[2m Info \033[0m"
                                                              "\033[7;1m Commands \033[0m"
                                                              "\033[2m Options \033[0m"
                                                              "\033[2m Examples \033[0m"
                                                              "\033[2m Files \033[0m"
                                                              "\033[2m│\033[0m\n"));
}

TEST(GuideFrame, HasOneRowPerTerminalRowAtAnySize) {
    for (const int columns : {1, 2, 5, 11, 12, 16, 30, 43, 44, 66, 200})
        for (const int rows : {1, 2, 6, 7, 10, 60}) {
            guide_view view = {.rows = rows, .columns = columns, .tab = 4, .scroll = {}};
            EXPECT_EQ(drawn(&view).size(), static_cast<size_t>(rows)) << columns << "x" << rows;
        }
}

TEST(GuideFrame, HasRowsExactlyAsWideAsTheTerminal) {
    for (int columns = 7; columns <= 120; columns++)
        for (size_t tab = 0; tab < GUIDE_TABS; tab++) {
            guide_view view = {.rows = 12, .columns = columns, .tab = tab, .scroll = {}};
            for (const std::string &row : drawn(&view))
                EXPECT_LE(columns_of(without_styles(row)), static_cast<size_t>(columns)) << row;
        }
}

TEST(GuideFrame, BringsTheScrollPositionIntoTheContent) {
    guide_view view = {.rows = 24, .columns = 80, .tab = 1, .scroll = {0, 999'999, 0, 0, 0}};
    EXPECT_THAT(drawn(&view)[22], testing::HasSubstr("lines 26-43/43"));
    EXPECT_EQ(view.scroll[1], 25);
    view.scroll[1] = -3;
    EXPECT_THAT(drawn(&view)[22], testing::HasSubstr("lines 1-18/43"));
    EXPECT_EQ(view.scroll[1], 0);
}

TEST(GuideFrame, DropsHintsThatDoNotFitButNotTheOneToQuit) {
    const std::vector<std::pair<int, std::string>> shown_at = {
        {66, "│ ←/→ tabs · ↑/↓ scroll · PgUp/PgDn · g/G · q quit  lines 1-4/17 │"},
        {65, "│ ←/→ tabs · ↑/↓ scroll · PgUp/PgDn · q quit       lines 1-4/17 │"},
        {59, "│ ←/→ tabs · ↑/↓ scroll · q quit             lines 1-4/18 │"},
        {47, "│ ←/→ tabs · q quit              lines 1-4/20 │"},
        {34, "│ q quit            lines 1-4/25 │"},
    };
    for (const auto &[columns, footer] : shown_at) {
        guide_view view = {.rows = 10, .columns = columns, .tab = 4, .scroll = {}};
        EXPECT_EQ(drawn(&view)[8], footer);
    }
}

// ---- Keys to view -------------------------------------------------------------------------

TEST(GuidePress, PageIsSevenRowsLessThanTheTerminal) {
    guide_view view = {.rows = 24, .columns = 80, .tab = 0, .scroll = {}};
    guide_press(&view, guide_key::page_down);
    EXPECT_EQ(view.scroll[0], 17);
    guide_press(&view, guide_key::page_up);
    EXPECT_EQ(view.scroll[0], 0);
}

TEST(GuidePress, PageIsAtLeastOneLineOnATerminalMadeTooLow) {
    guide_view view = {.rows = 5, .columns = 80, .tab = 0, .scroll = {}};
    guide_press(&view, guide_key::page_down);
    EXPECT_EQ(view.scroll[0], 1);
}

TEST(GuidePress, TabsWrapAround) {
    guide_view view;
    guide_press(&view, guide_key::previous_tab);
    EXPECT_EQ(view.tab, 4U);
    guide_press(&view, guide_key::next_tab);
    EXPECT_EQ(view.tab, 0U);
}

TEST(GuidePress, ScrollsTheCurrentTabOnly) {
    guide_view view;
    guide_press(&view, guide_key::tab_3);
    guide_press(&view, guide_key::line_down);
    guide_press(&view, guide_key::tab_5);
    guide_press(&view, guide_key::last_page);
    EXPECT_THAT(view.scroll, ElementsAre(0, 0, 1, 0, 999'999));
}

// ---- Bytes to key -------------------------------------------------------------------------

TEST(GuideKeys, OneByteEach) {
    using enum guide_key;
    EXPECT_THAT(keys_in("\t\n\rlh"),
                ElementsAre(next_tab, next_tab, next_tab, next_tab, previous_tab));
    EXPECT_THAT(keys_in("12345"), ElementsAre(tab_1, tab_2, tab_3, tab_4, tab_5));
    EXPECT_THAT(keys_in("jk bgG"),
                ElementsAre(line_down, line_up, page_down, page_up, first_line, last_page));
    EXPECT_THAT(keys_in("qQ"), ElementsAre(quit, quit));
}

TEST(GuideKeys, OtherBytesMeanNothing) {
    const std::vector<guide_key> keys = keys_in("06789aBHJKLN\x01\x7f\xc3\xa9");
    EXPECT_THAT(keys, testing::Each(guide_key::none));
    EXPECT_EQ(keys.size(), 15U);
}

TEST(GuideKeys, CursorKeysInBothForms) {
    using enum guide_key;
    EXPECT_THAT(keys_in("\033[A\033[B\033[C\033[D\033[H\033[F"),
                ElementsAre(line_up, line_down, next_tab, previous_tab, first_line, last_page));
    EXPECT_THAT(keys_in("\033OA\033OB\033OC\033OD\033OH\033OF"),
                ElementsAre(line_up, line_down, next_tab, previous_tab, first_line, last_page));
}

TEST(GuideKeys, ShiftTabAfterABracketOnly) {
    EXPECT_THAT(keys_in("\033[Z"), ElementsAre(guide_key::previous_tab));
    EXPECT_THAT(keys_in("\033OZ"), ElementsAre(guide_key::none));
}

TEST(GuideKeys, NumberedKeysByTheirLastDigit) {
    using enum guide_key;
    EXPECT_THAT(keys_in("\033[1~\033[2~\033[3~\033[4~\033[5~\033[6~\033[7~\033[8~\033[9~\033[0~"),
                ElementsAre(first_line, none, none, last_page, page_up, page_down, first_line,
                            last_page, none, none));
    EXPECT_THAT(keys_in("\033[15~\033[24~\033[51~"), ElementsAre(page_up, last_page, first_line));
    EXPECT_THAT(keys_in("\033[~"), ElementsAre(none));
}

TEST(GuideKeys, LetterAfterDigitsMeansNothing) {
    EXPECT_THAT(keys_in("\033[5A\033[1Z"), ElementsAre(guide_key::none, guide_key::none));
}

TEST(GuideKeys, SequencesWithModifiersAreDroppedWhole) {
    EXPECT_THAT(keys_in("\033[1;5C\033[5;5~\033[1;2Zq"),
                ElementsAre(guide_key::none, guide_key::none, guide_key::none, guide_key::quit));
}

TEST(GuideKeys, EscapeBeforeAnotherByteDropsBoth) {
    EXPECT_THAT(keys_in("\033qQ"), ElementsAre(guide_key::none, guide_key::quit));
}

TEST(GuideKeys, EscapeAloneQuits) {
    EXPECT_THAT(keys_in("\033"), ElementsAre(guide_key::quit));
}

TEST(GuideKeys, SequenceThatStopsHalfwayMeansNothing) {
    EXPECT_THAT(keys_in("\033["), ElementsAre(guide_key::none));
    EXPECT_THAT(keys_in("\033O"), ElementsAre(guide_key::none));
    EXPECT_THAT(keys_in("\033[5"), ElementsAre(guide_key::none));
}

TEST(GuideKeys, SequenceMayArriveInPieces) {
    guide_key key = typed_in_pieces("\033", "[B");
    for (int tries = 1; key == guide_key::quit && tries < 100; tries++)
        key = typed_in_pieces("\033", "[B"); // the second piece was late: a busy machine
    EXPECT_EQ(key, guide_key::line_down);
}

TEST(GuideKeys, SilenceIsATimeout) {
    const byte_pipe pipe;
    EXPECT_EQ(read_key(pipe.out.get()), guide_key::timeout);
}

TEST(GuideKeys, EndOfInputIsAFailureWhereverItComes) {
    for (const char *bytes : {"", "\033", "\033[", "\033O", "\033[5"}) {
        byte_pipe pipe;
        pipe.write(bytes);
        pipe.in.reset();
        tui_input input;
        input.fd = pipe.out.get();
        guide_key key = guide_key::none; // of a sequence that breaks off
        while (key == guide_key::none)
            key = read_key(&input);
        EXPECT_TRUE(key == guide_key::failed || key == guide_key::quit) << bytes;
    }
}

TEST(GuideKeys, DescriptorThatCannotBeReadIsAFailure) {
    const unique_fd directory(open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    EXPECT_EQ(read_key(directory.get()), guide_key::failed);
}

TEST(GuideKeys, WaitThatASignalInterruptsIsATimeout) {
    const child_result result = run_in_child([] {
        const byte_pipe pipe;
        struct sigaction action = {};
        action.sa_handler = [](int) {};
        sigaction(SIGALRM, &action, nullptr);
        const itimerval soon = {.it_interval = {}, .it_value = {.tv_sec = 0, .tv_usec = 1000}};
        setitimer(ITIMER_REAL, &soon, nullptr);
        return read_key(pipe.out.get()) == guide_key::timeout ? 0 : 1;
    });
    EXPECT_EQ(result.exit_status, 0);
}
