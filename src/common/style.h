// The vocabulary of terminal output: styles, rules, framed rows, word wrap, display width.
// Every character takes one column; there is no table of wide characters.
#pragma once

#include "common/core.h"

#include <string>

// Each is an escape sequence or empty. Set by styles_set(); empty at the start.
struct style_strings {
    const char *reset = "";
    const char *bold = "";
    const char *dim = "";
    const char *green = "";
    const char *yellow = "";
    const char *cyan = "";
    const char *reverse = "";
};
extern style_strings style;

// Columns of the screen, for rules and rows; the guide sets it.
extern int style_columns;

// Switches every style on, or to the empty string.
void styles_set(bool enabled);

// Returns the number of UTF-8 characters in `text`; those of escape sequences count too.
[[nodiscard]] size_t text_character_count(const char *text);

// Appends a rule across the screen between the end pieces `left` and `right`, and writes `title`
// into it unless it is empty.
void rule_append(strbuf *buffer, const char *left, const char *right, const char *title);

// Appends "│ TEXT │", exactly as wide as the screen.
//   kind  'F' a term (green), 'H' a heading (yellow), anything else plain
void box_row_append(strbuf *buffer, char kind, const char *text);

// Breaks `text` into lines of at most `width` columns that begin with `indent` spaces, and appends
// them. A word longer than the line is not broken and gets a line of its own.
void wrap_words(const char *text, int width, int indent, strlist *lines);

// Splits a guide item at "¦"; without one, the whole item is the term.
void split_term(const char *item, std::string *term, std::string *description);
