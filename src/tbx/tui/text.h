// Styled text for the interface: its style strings, cutting and padding to columns, wrapping.
// Style sequences take no column; a character takes as many as terminals draw it in.
#pragma once

#include "common/core.h"
#include "tbx/screen/width.h"

#include <string>
#include <string_view>

// Each either an escape sequence or empty; set by tui_styles_set(), plain at the start.
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

// Columns of `text`, which holds no style sequences; of a line that may, tui_line_columns().
[[nodiscard]] int tui_columns(std::string_view text);

// The first column from `column` on at which a character begins.
[[nodiscard]] int tui_whole_column(std::string_view text, int column);

// The line without its style sequences.
[[nodiscard]] std::string tui_without_styles(std::string_view line);

// Byte offsets of the characters behind and before the one at `at`; they stop at the ends.
[[nodiscard]] size_t tui_next_character(std::string_view text, size_t at);
[[nodiscard]] size_t tui_previous_character(std::string_view text, size_t at);

// The characters of `text` that stand whole from column `first` on, in `columns` at most.
[[nodiscard]] std::string_view tui_window(std::string_view text, int first, int columns);

// The beginning of `text` in which every character begins before byte `limit`: as much as a field
// takes that accepts characters while it is shorter than that.
[[nodiscard]] std::string_view tui_beginning(std::string_view text, size_t limit);

// ---- Appending ----------------------------------------------------------------------------

// Appends the beginning of `text`, at most `width` columns, and returns its columns. Control
// bytes become blanks, broken characters U+FFFD; style sequences pass.
int tui_cut(strbuf *out, std::string_view text, int width);

// Appends `text` cut or padded to exactly `width` columns, with the reset style behind it.
void tui_fit(strbuf *out, std::string_view text, int width);

// The same without the reset style, so that the padding keeps the style before it.
void tui_pad(strbuf *out, std::string_view text, int width);

// Appends `piece` `count` times; none for a count below 1.
void tui_repeat(strbuf *out, const char *piece, int count);

// ---- Lines --------------------------------------------------------------------------------

void tui_add_line(strlist *lines, const char *format, ...) __attribute__((format(printf, 2, 3)));

// Appends the lines of `text`, broken at the last blank that leaves at most `width` columns
// before it, or hard.
// A final newline adds no empty line.
void tui_wrap(std::string_view text, int width, strlist *lines);

// Appends the lines of `text` as they are. A final newline adds no empty line.
void tui_split_lines(std::string_view text, strlist *lines);

// ---- Text from outside --------------------------------------------------------------------

// The text without escape sequences and control characters, tab and newline excepted.
[[nodiscard]] std::string tui_clean(std::string_view text);

// The text with every control byte, Esc too, as a blank: byte for byte as long as it was.
[[nodiscard]] std::string tui_blank_controls(std::string_view text);

// Text that was pasted: cleaned, every line end a newline.
[[nodiscard]] std::string tui_clean_paste(std::string_view pasted);

// The same in one line: line ends are blanks.
[[nodiscard]] std::string tui_on_one_line(std::string_view pasted);

// ---- How far a message got ----------------------------------------------------------------

// Appends the bar of twelve cells.
void tui_confirm_bar(strbuf *out, int confirmed, int delivered, int sent);

// Appends "2 confirmed · 1 delivered", each part in its colour, or "all confirmed (3)".
void tui_counts(strbuf *out, int confirmed, int delivered, int sent);
