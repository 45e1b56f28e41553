// A manual page for man(1), printed piece by piece.
#pragma once

#include <span>
#include <string>
#include <string_view>

// `text` with what roff would read or draw as something else.
[[nodiscard]] std::string roff_text(std::string_view text);

void roff_print_section(const char *name);
// The sections NAME, from "program — purpose", and SYNOPSIS, under these headings.
void roff_print_name(const char *heading, std::string_view line);
void roff_print_synopsis(const char *heading, std::span<const char *const> lines);
// A paragraph.
void roff_print_text(std::string_view text);
// A section of terms, each with its description behind "¦".
void roff_print_table(const char *section, std::span<const char *const> items);
