// The words that the user's programs say, in the user's language.
#pragma once

// The user's wording of a sentence, which the source has in English.
// NOLINTNEXTLINE(bugprone-reserved-identifier): the name that tools for translators look for
[[nodiscard]] inline const char *__attribute__((format_arg(1))) _(const char *text) {
    return text;
}
