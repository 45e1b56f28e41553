// Styled text for the interface: its style strings, cutting and padding to columns, wrapping. Style
// sequences take no column; a character takes as many as it does on a terminal.
#pragma once

#include "common/core.h"
#include "common/width.h"
#include "tbx/screen/width.h"

#include <string>
#include <string_view>

// Each is an escape sequence or empty. Set by tui_styles_set(); empty at the start.
struct tui_styles {
    bool colour_on = false;
    const char *selection = "";
    const char *green = "";   // confirmed
    const char *yellow = "";  // delivered, not confirmed
    const char *red = "";     // sent, not delivered; errors
    const char *grey = "";    // secondary text
    const char *dim = "";     // the page's frame
    const char *bold = "";    // a dialog's frame, titles
    const char *key = "";     // names of keys
    const char *heading = ""; // column headings
    const char *title = "";   // the page's title
    const char *reset = "";
};
extern tui_styles tui_style;

// Switches every style on, or to the empty string.
void tui_styles_set(bool colour_on);

// ---- Columns ------------------------------------------------------------------------------

// Returns the first column from `column` on at which a character begins.
[[nodiscard]] int tui_whole_column(std::string_view text, int column);

// Returns the line without its style sequences.
[[nodiscard]] std::string tui_without_styles(std::string_view line);

// Return the byte offset of the character after, or before, the one at `at`; they stop at the ends
// of `text`.
[[nodiscard]] size_t tui_next_character(std::string_view text, size_t at);
[[nodiscard]] size_t tui_previous_character(std::string_view text, size_t at);

// Returns the characters of `text` that are whole within the `columns` columns from `first` on.
[[nodiscard]] std::string_view tui_window(std::string_view text, int first, int columns);

// Returns the longest beginning of `text` in which every character begins before byte `limit`. A
// field that accepts characters while it is shorter than `limit` takes exactly that.
[[nodiscard]] std::string_view tui_beginning(std::string_view text, size_t limit);

// ---- Appending ----------------------------------------------------------------------------

// Appends the beginning of `text`, at most `width` columns, and returns its columns. Control
// bytes become blanks, broken characters U+FFFD; style sequences pass.
int tui_cut(strbuf *out, std::string_view text, int width);

// Appends `text` cut or padded to exactly `width` columns, then the reset style.
void tui_fit(strbuf *out, std::string_view text, int width);

// The same without the reset style, so that the padding keeps the style before it.
void tui_pad(strbuf *out, std::string_view text, int width);

// Appends `piece` `count` times; none for a count below 1.
void tui_repeat(strbuf *out, const char *piece, int count);

// ---- Lines --------------------------------------------------------------------------------

void tui_add_line(strlist *lines, const char *format, ...) __attribute__((format(printf, 2, 3)));

// Appends the lines of `text`, broken at the last blank that leaves at most `width` columns before
// it; if there is none, at `width`. A final newline adds no empty line.
void tui_wrap(std::string_view text, int width, strlist *lines);

// Appends the lines of `text` as they are. A final newline adds no empty line.
void tui_split_lines(std::string_view text, strlist *lines);

// ---- Text from outside --------------------------------------------------------------------

// Returns the text without escape sequences and control characters, except tab and newline.
[[nodiscard]] std::string tui_clean(std::string_view text);

// Returns the text with a blank in place of every control byte, Esc included. Its length stays the
// same.
[[nodiscard]] std::string tui_blank_controls(std::string_view text);

// Returns pasted text cleaned, with every line end a newline.
[[nodiscard]] std::string tui_clean_paste(std::string_view pasted);

// Returns it in one line: line ends become blanks.
[[nodiscard]] std::string tui_on_one_line(std::string_view pasted);

// ---- How far a message got ----------------------------------------------------------------

// Appends the bar of twelve cells.
void tui_confirm_bar(strbuf *out, int confirmed, int delivered, int sent);

// Appends "2 confirmed · 1 delivered", each part in its colour, or "all confirmed (3)".
void tui_counts(strbuf *out, int confirmed, int delivered, int sent);
