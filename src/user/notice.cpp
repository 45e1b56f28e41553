#include "user/notice.h"

#include "common/characters.h"
#include "common/style.h"
#include "user/texts.h"

std::string first_characters(const std::string &text, size_t max) {
    size_t characters = 0;
    for (size_t at = 0; at < text.size(); at++) {
        if (is_continuation_byte(text[at]))
            continue;
        if (characters == max)
            return text.substr(0, at) + "…";
        characters++;
    }
    return text;
}

static std::string without_final_newlines(std::string text) {
    text.erase(text.find_last_not_of('\n') + 1);
    return text;
}

// The title on a line of its own, then the text.
static std::string with_title(const message_record &message, const std::string &text) {
    return message.title.empty() ? text : message.title + "\n" + text;
}

notice make_notice(const message_record &message, bool has_window) {
    const std::string text = without_final_newlines(message.text);
    notice made;
    made.id = message.id;
    made.summary = _("Message from the administrator");
    if (has_window) {
        made.body = with_title(message, first_characters(text, FIRST_WORDS_MAX_CHARACTERS));
        made.body = first_characters(made.body, WHOLE_TEXT_MAX_CHARACTERS);
        made.actions = {{"show", _("Show")}};
        return made;
    }
    const std::string whole = with_title(message, text);
    // Some services say that they draw actions and draw none: the text always tells how to answer.
    made.body = first_characters(whole, WHOLE_TEXT_MAX_CHARACTERS) + "\n" +
                _("Answer in a terminal with: tellbox");
    if (text_character_count(whole.c_str()) <= WHOLE_TEXT_MAX_CHARACTERS)
        made.drawn_actions.emplace_back("read", _("I have read it"));
    made.drawn_actions.emplace_back("later", _("Later"));
    made.answers = {"read", "later"};
    return made;
}

notice make_failure_notice(int64_t id, const char *reason) {
    notice made;
    made.id = id;
    made.summary = _("Your answer was not saved");
    made.body = reason;
    return made;
}

notice make_withdrawn_notice(int64_t id) {
    notice made;
    made.id = id;
    made.summary = _("Your answer does not count");
    made.body = xasprintf(_("Message %lld was withdrawn meanwhile."), static_cast<long long>(id));
    return made;
}
