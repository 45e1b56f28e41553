// The cleaning of untrusted text.
#include "common/message.h"
#include "fuzz.h"
#include "hostile.h"

#include <algorithm>

static std::string cleaned(std::string_view text) {
    strbuf out;
    sanitize_text(text.data(), text.size(), &out);
    return std::string(out.view());
}

// ---- The rules, pass by pass --------------------------------------------------------------

// Position behind the sequence that stands at `at`, or `at` where there is none.
static size_t behind_csi(std::string_view line, size_t at) {
    if (line.substr(at, 2) != "\033[")
        return at;
    const size_t final = line.find_first_not_of("0123456789;?", at + 2);
    return final != line.npos && byte_between(line[final], 0x40, 0x7e) ? final + 1 : at;
}

static size_t behind_osc(std::string_view line, size_t at) {
    const size_t bell = line.find('\a', at);
    return line.substr(at, 2) != "\033]" || bell == line.npos ? at : bell + 1;
}

static std::string without(std::string_view line, size_t (*behind)(std::string_view, size_t)) {
    std::string rest;
    for (size_t at = 0; at < line.size();) {
        const size_t next = behind(line, at);
        if (next == at)
            rest += line[at++];
        else
            at = next;
    }
    return rest;
}

static std::string clean_line_by_the_rules(std::string_view line) {
    std::string text = without(without(line, behind_csi), behind_osc);
    std::erase_if(text, [](char c) { return c != '\t' && (byte_between(c, 0, 31) || c == 127); });
    for (size_t at = 1; at < text.size();) {
        const bool is_pair = text[at - 1] == '\xc2' && byte_between(text[at], 0x80, 0x9f);
        if (is_pair)
            text.erase(at - 1, 2);
        at = is_pair ? std::max<size_t>(at - 1, 1) : at + 1; // what now meets may be a pair, too
    }
    return text;
}

static std::string clean_by_the_rules(std::string_view text) {
    std::string result;
    for (size_t end = text.find('\n'); end != text.npos; end = text.find('\n')) {
        result.append(clean_line_by_the_rules(text.substr(0, end))).append("\n");
        text.remove_prefix(end + 1);
    }
    return result + clean_line_by_the_rules(text);
}

// ---- The target ---------------------------------------------------------------------------

static bool is_subsequence(std::string_view part, std::string_view whole) {
    for (const char byte : whole)
        if (!part.empty() && part.front() == byte)
            part.remove_prefix(1);
    return part.empty();
}

static bool is_harmless(char byte) {
    return byte == '\t' || byte == '\n' || byte_between(byte, ' ', '~') ||
           byte_between(byte, 0xa0, 0xff);
}

void fuzz_one(std::string_view input) {
    const std::string text = cleaned(input);
    CHECK(!drives_terminal(text));
    CHECK(text.find('\033') == text.npos);
    CHECK(cleaned(text) == text);
    CHECK(is_subsequence(text, input));
    CHECK(std::ranges::count(text, '\n') == std::ranges::count(input, '\n'));
    CHECK(!std::ranges::all_of(input, is_harmless) || text == input);
    CHECK(text == clean_by_the_rules(input));

    strbuf behind;
    strbuf_append_str(&behind, "\xc2"); // belongs to what stands before
    sanitize_text(input.data(), input.size(), &behind);
    CHECK(behind.view().substr(1) == text);
}
