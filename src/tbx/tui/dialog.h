// The dialogs: a box drawn over a page, with a question or a text in it.
#pragma once

#include "common/core.h"
#include "tbx/status.h"
#include "tbx/tui/job.h"
#include "tbx/tui/screen.h"

#include <optional>
#include <string>
#include <string_view>

// Paints a centred box over the lines of a page.
void tui_overlay_box(strlist *lines, std::string_view title, const strlist &body,
                     std::string_view button_line);

// Returns how many columns of a line the widest box shows.
[[nodiscard]] int tui_box_max_cols();

// Asks for one line of text. Returns nothing when it was cancelled.
[[nodiscard]] std::optional<std::string> tui_prompt(tui_screen *page, const std::string &title,
                                                    std::string_view prompt,
                                                    const std::string &initial);

// Asks for y or n. Returns true for y. Only a key that is pressed alone, a moment after the
// question has appeared, counts: every other one was typed or pasted for something else.
[[nodiscard]] bool tui_confirm(tui_screen *page, const std::string &title, const strlist &body);

// Shows lines as they are until a key is pressed.
void tui_show_lines(tui_screen *page, const std::string &title, const strlist &body);

// Runs a command like tui_run_command(). While a slow command runs, a box says so.
[[nodiscard]] job_result tui_run_in_box(tui_screen *page, const std::string &title,
                                        const tui_job &job, std::string_view input);

// Shows lines until a key is pressed that would answer a question.
void tui_tell(tui_screen *page, const std::string &title, const strlist &body);

// Shows the result of a command until a key is pressed: what it printed, or else "Done." or
// "Interrupted.". Only a key that would answer a question closes it.
void tui_message_box(tui_screen *page, const std::string &title, const job_result &result);

// Runs a command and shows its result.
void tui_run_and_tell(tui_screen *page, const std::string &title, const tui_job &job);

// Ask, act on one message, and show the result.
void tui_remind_dialog(tui_screen *page, const message_summary &summary);
void tui_revoke_dialog(tui_screen *page, const message_summary &summary);
