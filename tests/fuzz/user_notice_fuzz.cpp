// The notification of a message: its title and its text, separated by a line of "%".
#include "fuzz.h"
#include "hostile.h"
#include "user/inbox.h"
#include "user/notice.h"

#include <algorithm>

static size_t characters_of(const std::string &text) {
    return static_cast<size_t>(
        std::ranges::count_if(text, [](char byte) { return !byte_between(byte, 0x80, 0xbf); }));
}

// What a service shows that reads the three entities, and nothing else.
static std::string unescaped(std::string_view text) {
    std::string plain;
    while (!text.empty()) {
        CHECK(text.front() != '<' && text.front() != '>');
        size_t taken = 1;
        char shown = text.front();
        for (const auto &[entity, meaning] :
             {std::pair{"&amp;", '&'}, std::pair{"&lt;", '<'}, std::pair{"&gt;", '>'}})
            if (text.starts_with(entity)) {
                taken = std::string_view(entity).size();
                shown = meaning;
            }
        CHECK(text.front() != '&' || taken > 1);
        plain += shown;
        text.remove_prefix(taken);
    }
    return plain;
}

static void check_cut(const std::string &text, size_t max) {
    const std::string cut = first_characters(text, max);
    CHECK(is_well_formed(cut));
    if (characters_of(text) <= max)
        CHECK(cut == text);
    else
        CHECK(characters_of(cut) == max + 1 && cut.ends_with("…") &&
              text.starts_with(cut.substr(0, cut.size() - std::string_view("…").size())));
}

static void check_notice(const message_record &message, bool has_window) {
    const notice made = make_notice(message, has_window);
    CHECK(made.id == message.id && !made.summary.empty() && is_well_formed(made.body));
    CHECK(unescaped(notification_escape(made.body)) == made.body);
    CHECK(characters_of(made.body) <= WHOLE_TEXT_MAX_CHARACTERS + 100);
    const bool offers_read = std::ranges::any_of(
        made.drawn_actions, [](const auto &action) { return action.first == "read"; });
    const std::string text = message.text.substr(0, message.text.find_last_not_of('\n') + 1);
    // Only who can see the whole of it may confirm it there.
    CHECK(!offers_read || (!has_window && made.body.find(message.title) != std::string::npos &&
                           made.body.find(text) != std::string::npos));
}

void fuzz_one(std::string_view input) {
    const std::vector<std::string_view> parts = parts_of(input, 2);
    message_record message;
    message.id = 7;
    message.title = clean_line(parts[0]);
    message.text = clean_text(parts[1]);
    for (const size_t max : {size_t{1}, size_t{7}, FIRST_WORDS_MAX_CHARACTERS})
        check_cut(message.text, max);
    check_notice(message, /*has_window=*/true);
    check_notice(message, /*has_window=*/false);
}
