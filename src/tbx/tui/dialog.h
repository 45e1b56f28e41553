// The dialogs: a box painted over a page, and what is asked or shown in it.
#pragma once

#include "common/core.h"
#include "tbx/status.h"
#include "tbx/tui/screen.h"

#include <optional>
#include <string>
#include <string_view>

// Paints a centred box over the lines of a page.
void tui_overlay_box(strlist *lines, std::string_view title, const strlist &body,
                     std::string_view button_line);

// Draws a copy of `page` with the box over it. False as tui_draw().
bool tui_draw_with_box(const tui_screen &page, std::string_view title, const strlist &body,
                       std::string_view button_line, std::string_view footer);

// Asks for one line of text. Nothing when it was cancelled.
[[nodiscard]] std::optional<std::string> tui_prompt(tui_screen *page, const std::string &title,
                                                    std::string_view prompt,
                                                    const std::string &initial);

// Asks for y or n. True for y.
[[nodiscard]] bool tui_confirm(tui_screen *page, const std::string &title, const strlist &body);

// Shows lines as they are until a key is pressed.
void tui_show_lines(tui_screen *page, const std::string &title, const strlist &body);

// Shows what a command printed, "Done." for nothing, until a key is pressed.
void tui_message_box(tui_screen *page, const std::string &title, std::string_view output);

// Ask, act on one message, and show the result.
void tui_remind_dialog(tui_screen *page, const message_summary &summary);
void tui_revoke_dialog(tui_screen *page, const message_summary &summary);
