// The keys of the tabbed guide, from the bytes of the terminal.
#pragma once

enum class guide_key {
    none,    // bytes without a meaning, or half a sequence
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

// Waits up to 300 ms for a key on `fd`. A wait that a signal interrupts has timed out.
[[nodiscard]] guide_key guide_read_key(int fd);
