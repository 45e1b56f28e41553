// A message on a recipient's screen: cleaned, repaired, cut to a prompt. The first two bytes of the
// input are the rows and columns of the screen.
#include "fuzz.h"
#include "hostile.h"
#include "user/command.h"
#include "user/prompt.h"

#include <algorithm>

static bool is_control(char c) {
    const auto byte = static_cast<unsigned char>(c);
    return (byte < ' ' && c != '\n' && c != '\t') || byte == 0x7f;
}

static void check_clean(const std::string &text) {
    CHECK(is_well_formed(text));
    CHECK(std::ranges::none_of(text, is_control));
    CHECK(text.find("\xc2\x80") == std::string::npos && text.find("\xc2\x9f") == std::string::npos);
    CHECK(clean_text(text) == text);
}

static waiting_message message_of(const std::string &text, const std::string &title) {
    waiting_message waiting;
    waiting.id = 7;
    waiting.message = {7, "root", 1'790'000'000, title, 0, text};
    return waiting;
}

static void check_prompt(const std::string &text, int rows, int columns) {
    std::vector<int64_t> shown;
    const std::string one = prompt_text({message_of(text, "")}, 0, rows, columns, &shown);
    CHECK(shown == std::vector<int64_t>{7});
    CHECK(is_well_formed(one));
    // On a screen where the frame itself has room.
    if (rows >= 15 && columns >= 80)
        CHECK(rows_of(one, columns) <= static_cast<size_t>(rows) * 2 / 3);
    if (rows_of(text, columns) + 4 <= static_cast<size_t>(rows) * 2 / 3 && columns >= 80)
        CHECK(one.find(text.substr(0, text.find_last_not_of('\n') + 1)) != std::string::npos);
}

void fuzz_one(std::string_view input) {
    const auto rows = static_cast<int>(take_byte(&input) % 64) + 1;
    const auto columns = static_cast<int>(take_byte(&input)) + 1;
    const std::string text = clean_text(input);
    check_clean(text);
    const std::string line = clean_line(input);
    check_clean(line);
    CHECK(line.find_first_of("\n\t") == std::string::npos);
    if (is_well_formed(input) && std::ranges::none_of(input, is_control) &&
        input.find('\xc2') == std::string_view::npos)
        CHECK(text == input);
    check_prompt(text, rows, columns);
}
