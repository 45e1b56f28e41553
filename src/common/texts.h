// The words of the recipients' programs, in the user's language: English in the source, other
// languages in the catalogues of po/. The administrator's command speaks English only.
#pragma once

// Looks the words up from now on, in the language that the environment names. Called once, after
// init_environment(). What programs read (events, the window's answers) is never looked up.
void init_texts();

// Marks an English text in a table, to be looked up when it is shown.
// NOLINTNEXTLINE(readability-identifier-naming): the name that tools for translators look for
[[nodiscard]] consteval const char *N_(const char *text) {
    return text;
}

// Returns the translation of an English text, in UTF-8; without one, the text itself.
// NOLINTNEXTLINE(bugprone-reserved-identifier): the name that tools for translators look for
[[nodiscard]] const char *_(const char *text) __attribute__((format_arg(1)));

// The same of a text that depends on a number.
[[nodiscard]] const char *plural(const char *one, const char *many, unsigned long number)
    __attribute__((format_arg(1), format_arg(2)));
