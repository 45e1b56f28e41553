// The vocabulary of terminal output: styles, rules, framed rows, word wrap, display width.
// Every character takes one column; there is no table of wide characters.
#pragma once

#include "common/core.h"

#include <string>

// Each either an escape sequence or empty; set by styles_set(), plain at the start.
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

// Columns of the screen that rules and rows are drawn for; the guide sets it.
extern int style_columns;

// Switches every style on, or to the empty string.
void styles_set(bool enabled);

// Columns that UTF-8 `text` takes once its escape sequences are drawn.
[[nodiscard]] size_t text_display_width(const char *text);

// UTF-8 characters in `text`, escape sequences counted like any other bytes.
[[nodiscard]] size_t text_character_count(const char *text);

// Appends a rule across the screen between the end pieces `left` and `right`, with `title`
// set into it when it is not empty.
void rule_append(strbuf *buffer, const char *left, const char *right, const char *title);

// Appends "│ TEXT │", exactly as wide as the screen.
//   kind  'F' a term (green), 'H' a heading (yellow), anything else plain
void box_row_append(strbuf *buffer, char kind, const char *text);

// Breaks `text` into lines of at most `width` columns that begin with `indent` spaces, and
// appends them. A word longer than the line stands alone, unbroken.
void wrap_words(const char *text, int width, int indent, strlist *lines);

// Splits a guide item at "¦"; without one, the whole item is the term.
void split_term(const char *item, std::string *term, std::string *description);
