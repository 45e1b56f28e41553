// Texts that were found by trying many: how they are measured, cut and wrapped.
#include "support.h"
#include "tbx/tui/text.h"

namespace {

std::string wrapped(std::string_view text, int width) {
    strlist lines;
    tui_wrap(text, width, &lines);
    std::string shown;
    for (const char *line : lines)
        shown.append(line).append("|");
    return shown;
}

} // namespace

TEST(Wrapping, ByteThatContinuesNoCharacterTakesNoColumn) {
    EXPECT_EQ(wrapped("\xb6"
                      "abcd",
                      4),
              "\xb6"
              "abcd|");
    EXPECT_EQ(wrapped("ab \xb6"
                      "cd ef",
                      2),
              "ab|\xb6"
              "cd|ef|");
}
