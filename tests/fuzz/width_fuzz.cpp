// Measuring text in columns, and walking over its characters.
#include "common/style.h"
#include "fuzz.h"
#include "hostile.h"
#include "tbx/screen/width.h"
#include "tbx/tui/text.h"

#include <algorithm>

// Forth over all characters, and back over each of them.
static void check_walk(std::string_view text) {
    size_t steps = 0;
    for (size_t at = 0; at < text.size(); steps++) {
        const size_t next = tui_next_character(text, at);
        CHECK(next > at && next <= text.size());
        CHECK(tui_previous_character(text, next) == at);
        at = next;
    }
    const bool begins_inside = !text.empty() && columns_of(text.substr(0, 1)) == 0;
    CHECK(steps == columns_of(text) + (begins_inside ? 1 : 0));
    CHECK(tui_next_character(text, text.size()) == text.size());
    CHECK(tui_previous_character(text, 0) == 0);
}

// The clusters are all of the text, and each of them is taken apart in the same way alone.
static void check_clusters(std::string_view text) {
    int columns = 0;
    while (!text.empty()) {
        const text_cluster cluster = next_cluster(text);
        CHECK(cluster.bytes > 0 && cluster.bytes <= text.size());
        CHECK(cluster.shown_bytes > 0 && cluster.shown_bytes <= cluster.bytes);
        CHECK(cluster.columns >= 0 && cluster.columns <= 2);
        CHECK(next_cluster(text.substr(0, cluster.bytes)).columns == cluster.columns);
        columns += cluster.columns;
        text.remove_prefix(cluster.bytes);
    }
    CHECK(columns >= 0);
}

static void check_window(std::string_view text, int first, int columns) {
    const std::string_view window = tui_window(text, first, columns);
    CHECK(window.data() >= text.data() &&
          window.data() + window.size() <= text.data() + text.size());
    CHECK(columns_of_text(window) <= columns);
    if (is_well_formed(text))
        CHECK(is_well_formed(window));
    if (is_well_formed(text) && is_narrow(text))
        CHECK(columns_of_text(window) ==
              std::min(columns, std::max(columns_of_text(text) - first, 0)));
}

void fuzz_one(std::string_view input) {
    const auto first = static_cast<int>(take_byte(&input) % 32);
    const auto columns = static_cast<int>(take_byte(&input) % 32);
    const std::string text(up_to_nul(input));
    CHECK(text_character_count(text.c_str()) == columns_of(text));
    CHECK(columns_of_text(input) <= 2 * static_cast<int>(columns_of(input)));
    if (is_narrow(input))
        CHECK(columns_of_text(input) == static_cast<int>(columns_of(input)));
    check_clusters(input);
    CHECK(tui_blank_controls(input).size() == input.size());
    check_walk(input);
    check_window(input, first, columns);
    CHECK(tui_window(input, 0, columns_of_text(input) + 1) == input);
    for (int column = 0; column < 8; column++) {
        const int whole = tui_whole_column(input, column);
        CHECK(whole >= std::min(column, columns_of_text(input)) && whole <= column + 1);
    }
}
