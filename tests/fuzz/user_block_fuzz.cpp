// The block in a shell's file in /etc: put in, taken out, by a simpler reading of the lines.
#include "fuzz.h"
#include "user/shell.h"

#include <algorithm>

namespace {

// The lines of a file; its final newline, if it has one, ends the last.
std::vector<std::string> whole_lines(std::string_view text) {
    std::vector<std::string> lines;
    while (!text.empty()) {
        const size_t end = std::min(text.find('\n'), text.size() - 1);
        lines.emplace_back(text.substr(0, end + 1));
        text.remove_prefix(end + 1);
    }
    return lines;
}

bool is_line(std::string line, std::string_view wanted) {
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r'))
        line.pop_back();
    return line == wanted;
}

bool begins(const std::string &line) {
    return is_line(line, "# >>> tellbox >>>");
}

bool ends(const std::string &line) {
    return is_line(line, "# <<< tellbox <<<");
}

// What stands outside of the blocks; nothing if one of them is not whole.
std::optional<std::string> outside_of_blocks(std::string_view text) {
    std::string outside;
    bool is_inside = false;
    for (const std::string &line : whole_lines(text)) {
        if (is_inside ? begins(line) : ends(line))
            return std::nullopt;
        if (begins(line) || ends(line))
            is_inside = begins(line);
        else if (!is_inside)
            outside += line;
    }
    return is_inside ? std::nullopt : std::optional(outside);
}

size_t count_of(std::string_view text, bool is_wanted(const std::string &)) {
    return static_cast<size_t>(std::ranges::count_if(whole_lines(text), is_wanted));
}

} // namespace

void fuzz_one(std::string_view input) {
    std::string off;
    std::string on;
    const std::optional<std::string> outside = outside_of_blocks(input);
    CHECK(without_block(input, &off) == outside.has_value());
    CHECK(with_block(input, &on) == outside.has_value());
    if (!outside)
        return;
    // A block can say that the line before it had no end.
    CHECK(off == *outside || off + "\n" == *outside);
    CHECK(count_of(input, begins) > 0 || off == input);

    std::string again;
    CHECK(count_of(on, begins) == 1 && count_of(on, ends) == 1);
    CHECK(on.find(". /etc/profile.d/tellbox.sh") != std::string::npos);
    CHECK(with_block(on, &again) && again == on);
    CHECK(without_block(on, &again) && again == off);
    CHECK(without_block(off, &again) && again == off);
}
