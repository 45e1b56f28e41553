// The guide as a manual page.
#pragma once

#include "common/style.h"
#include "tbx/guide/texts.h"

#include <cstdio>

constexpr int MANUAL_DEFAULT_COLUMNS = 80;

// Prints the manual page, laid out for `width` columns (clamped to 60 to 100). A failed write, such
// as to a pager that has ended, is not an error.
void manual_print(FILE *stream, bool colour, int width);

// Appends the items of a table: each term on a line of its own, its description below it.
void manual_append_table(strbuf *page, guide_table items, int width);
