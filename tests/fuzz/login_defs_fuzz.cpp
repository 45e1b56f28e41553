// /etc/login.defs, against the pattern that its lines are told by.
#include "fuzz.h"
#include "tbx/accounts.h"

#include <cstdio>

static int64_t number_by_the_rules(std::string_view text, std::string_view key, int64_t fallback) {
    int64_t result = fallback;
    for (const std::string_view line : lines_of(text)) {
        char word[64];
        long number = 0;
        // NOLINTNEXTLINE(cert-err34-c): just this conversion is the rule
        if (sscanf(std::string(line).c_str(), "%63s %ld", word, &number) == 2 && key == word)
            result = number;
    }
    return result;
}

void fuzz_one(std::string_view input) {
    for (const char *key : {"UID_MIN", "UID_MAX"})
        CHECK(login_defs_parse(input, key, 1000) == number_by_the_rules(input, key, 1000));
}
