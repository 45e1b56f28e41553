// Configuration files: as text and as a file, against the rules of their lines.
#include "common/environment.h"
#include "fuzz.h"

static bool is_same(const config &a, const config &b) {
    return a.remind_minutes == b.remind_minutes && a.agent_poll == b.agent_poll;
}

static std::string compact(std::string_view line) {
    std::string text(line.substr(0, line.find('#')));
    std::erase_if(
        text, [](char c) { return std::string_view(" \t\v\f\r").find(c) != std::string::npos; });
    return text;
}

static void apply_by_the_rules(std::string_view line, config *settings) {
    const std::string text = compact(line);
    for (auto [key, setting] : {std::pair("TBX_REMIND_MINUTES=", &settings->remind_minutes),
                                std::pair("TBX_AGENT_POLL=", &settings->agent_poll)}) {
        if (text.size() > 255 || !text.starts_with(key))
            continue;
        const std::string value = text.substr(std::string_view(key).size());
        if (value.size() <= 6 && decimal(value).value_or(0) > 0)
            *setting = *decimal(value);
    }
}

void fuzz_one(std::string_view input) {
    const std::string text(up_to_nul(input));
    config expected;
    for (const std::string_view line : lines_of(text))
        apply_by_the_rules(line, &expected);

    config settings;
    parse_config_text(text.c_str(), &settings);
    CHECK(is_same(settings, expected));
    parse_config_text(text.c_str(), &settings);
    CHECK(is_same(settings, expected));

    put_file(state_path("tellbox.conf"), input);
    load_config(&settings);
    CHECK(is_same(settings, input.size() <= CONFIG_MAX_BYTES ? expected : config()));
}
