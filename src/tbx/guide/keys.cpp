#include "tbx/guide/keys.h"

#include <algorithm>
#include <iterator>

static constexpr struct {
    tui_key key;
    guide_key meaning;
} KEYS[] = {
    {KEY_TIMEOUT, guide_key::timeout},   {KEY_ERROR, guide_key::failed},
    {KEY_ESC, guide_key::quit},          {KEY_TAB, guide_key::next_tab},
    {KEY_ENTER, guide_key::next_tab},    {KEY_RIGHT, guide_key::next_tab},
    {KEY_LEFT, guide_key::previous_tab}, {KEY_BACKTAB, guide_key::previous_tab},
    {KEY_DOWN, guide_key::line_down},    {KEY_UP, guide_key::line_up},
    {KEY_PGDN, guide_key::page_down},    {KEY_PGUP, guide_key::page_up},
    {KEY_HOME, guide_key::first_line},   {KEY_END, guide_key::last_page},
};

static constexpr struct {
    std::string_view character;
    guide_key meaning;
} CHARACTERS[] = {
    {"l", guide_key::next_tab},   {"h", guide_key::previous_tab}, {"j", guide_key::line_down},
    {"k", guide_key::line_up},    {" ", guide_key::page_down},    {"b", guide_key::page_up},
    {"g", guide_key::first_line}, {"G", guide_key::last_page},    {"q", guide_key::quit},
    {"Q", guide_key::quit},       {"1", guide_key::tab_1},        {"2", guide_key::tab_2},
    {"3", guide_key::tab_3},      {"4", guide_key::tab_4},        {"5", guide_key::tab_5},
};

guide_key guide_key_of(tui_key key, std::string_view character) {
    if (key == KEY_CHAR) {
        const auto *found = std::ranges::find_if(
            CHARACTERS, [&](const auto &one) { return one.character == character; });
        return found != std::end(CHARACTERS) ? found->meaning : guide_key::none;
    }
    const auto *found = std::ranges::find_if(KEYS, [&](const auto &one) { return one.key == key; });
    return found != std::end(KEYS) ? found->meaning : guide_key::none;
}
