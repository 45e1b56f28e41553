// The words that the user's programs say, in the user's language.
#pragma once

// Returns the translation of an English sentence. The name is what tools for translators look for.
// NOLINTNEXTLINE(bugprone-reserved-identifier)
[[nodiscard]] inline const char *__attribute__((format_arg(1))) _(const char *text) {
    return text;
}
