// What the keys mean in the tabbed guide.
#pragma once

#include "tbx/screen/keys.h"

#include <string_view>

enum class guide_key {
    none,    // unknown bytes, or an incomplete sequence
    timeout, // nothing arrived in time
    failed,  // the terminal cannot be read any more
    quit,
    next_tab,
    previous_tab,
    tab_1, // tab_1 to tab_5 are consecutive
    tab_2,
    tab_3,
    tab_4,
    tab_5,
    line_down,
    line_up,
    page_down,
    page_up,
    first_line,
    last_page,
};

// How the guide reads keys; of a numbered sequence the last digit counts.
constexpr key_rules GUIDE_KEY_RULES = {
    .wait_ms = 300,
    .sequence_wait_ms = 50,
    .last_digit_counts = true,
    .has_back_tab_after_o = false,
    .has_paste = false,
};

// Returns the meaning of a key in the guide. `character` is that of a KEY_CHAR.
[[nodiscard]] guide_key guide_key_of(tui_key key, std::string_view character);
