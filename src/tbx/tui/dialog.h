// The dialogs: a box painted over a page, and what is asked or shown in it.
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

// Columns that a line may have which is shown whole in the widest box.
[[nodiscard]] int tui_box_max_cols();

// Asks for one line of text. Nothing when it was cancelled.
[[nodiscard]] std::optional<std::string> tui_prompt(tui_screen *page, const std::string &title,
                                                    std::string_view prompt,
                                                    const std::string &initial);

// Asks for y or n. True for y. What was typed before the question is no answer to it.
[[nodiscard]] bool tui_confirm(tui_screen *page, const std::string &title, const strlist &body);

// Shows lines as they are until a key is pressed.
void tui_show_lines(tui_screen *page, const std::string &title, const strlist &body);

// Runs a command as tui_run_command(). One that takes its time is said to be at work, in a box.
[[nodiscard]] job_result tui_run_in_box(tui_screen *page, const std::string &title,
                                        const tui_job &job, std::string_view input);

// Shows what came of a command until a key is pressed that was typed after it: what it printed,
// or else "Done." or "Interrupted.".
void tui_message_box(tui_screen *page, const std::string &title, const job_result &result);

// Both: runs a command and shows what came of it.
void tui_run_and_tell(tui_screen *page, const std::string &title, const tui_job &job);

// Ask, act on one message, and show the result.
void tui_remind_dialog(tui_screen *page, const message_summary &summary);
void tui_revoke_dialog(tui_screen *page, const message_summary &summary);
