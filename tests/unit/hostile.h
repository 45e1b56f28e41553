// The judge of tests with hostile texts: what a terminal would obey in a string of bytes, decided
// from how terminals read bytes and not from how the program cleans them.
#pragma once

#include <cstddef>
#include <cstdlib>
#include <numeric>
#include <string>
#include <string_view>
#include <vector>

enum class control_kind {
    byte,     // 0x00 to 0x1F, 0x7F
    c1_utf8,  // U+0080 to U+009F as UTF-8 writes it
    c1_alone, // a byte 0x80 to 0x9F that belongs to no well-formed character
};

struct found_control {
    size_t offset;
    control_kind kind;
};

[[nodiscard]] inline bool byte_between(char byte, unsigned char low, unsigned char high) {
    const auto value = static_cast<unsigned char>(byte);
    return value >= low && value <= high;
}

// Bytes of the well-formed UTF-8 character at the start of `text` (the table of Unicode, chapter
// 3), 0 where there is none.
[[nodiscard]] inline size_t well_formed_bytes(std::string_view text) {
    struct row {
        unsigned char lead_low, lead_high, second_low, second_high;
        size_t bytes;
    };
    static constexpr row TABLE[] = {
        {0x00, 0x7f, 0x00, 0x00, 1}, {0xc2, 0xdf, 0x80, 0xbf, 2}, {0xe0, 0xe0, 0xa0, 0xbf, 3},
        {0xe1, 0xec, 0x80, 0xbf, 3}, {0xed, 0xed, 0x80, 0x9f, 3}, {0xee, 0xef, 0x80, 0xbf, 3},
        {0xf0, 0xf0, 0x90, 0xbf, 4}, {0xf1, 0xf3, 0x80, 0xbf, 4}, {0xf4, 0xf4, 0x80, 0x8f, 4},
    };
    for (const row &form : TABLE) {
        if (text.empty() || !byte_between(text[0], form.lead_low, form.lead_high))
            continue;
        if (text.size() < form.bytes)
            return 0;
        if (form.bytes > 1 && !byte_between(text[1], form.second_low, form.second_high))
            return 0;
        for (size_t i = 2; i < form.bytes; i++)
            if (!byte_between(text[i], 0x80, 0xbf))
                return 0;
        return form.bytes;
    }
    return 0;
}

[[nodiscard]] inline bool is_well_formed(std::string_view text) {
    while (!text.empty()) {
        const size_t bytes = well_formed_bytes(text);
        if (bytes == 0)
            return false;
        text.remove_prefix(bytes);
    }
    return true;
}

// Everything in `text` that a terminal may obey, but for the bytes in `allowed`.
[[nodiscard]] inline std::vector<found_control> controls_in(std::string_view text,
                                                            std::string_view allowed = "\t\n") {
    std::vector<found_control> found;
    for (size_t at = 0; at < text.size();) {
        const size_t bytes = well_formed_bytes(text.substr(at));
        const bool is_control_byte = byte_between(text[at], 0, 0x1f) || text[at] == 0x7f;
        if (is_control_byte && allowed.find(text[at]) == std::string_view::npos)
            found.push_back({at, control_kind::byte});
        else if (bytes == 2 && text[at] == '\xc2' && byte_between(text[at + 1], 0x80, 0x9f))
            found.push_back({at, control_kind::c1_utf8});
        else if (bytes == 0 && byte_between(text[at], 0x80, 0x9f))
            found.push_back({at, control_kind::c1_alone});
        at += bytes > 0 ? bytes : 1;
    }
    return found;
}

// Whether a terminal would obey something. Single bytes 0x80 to 0x9F outside of any character do
// not count: message texts keep them, and a terminal in UTF-8 takes them for broken characters.
[[nodiscard]] inline bool drives_terminal(std::string_view text,
                                          std::string_view allowed = "\t\n") {
    for (const found_control &control : controls_in(text, allowed))
        if (control.kind != control_kind::c1_alone)
            return true;
    return false;
}

// Whether a terminal of eight-bit characters would obey something, too.
[[nodiscard]] inline bool holds_any_control(std::string_view text,
                                            std::string_view allowed = "\t\n") {
    return !controls_in(text, allowed).empty();
}

// Bytes of a sequence at the start of `text` that the program itself draws rows with: a style,
// ESC [ K, ESC [ COLUMN G, ESC [ ? 7 h or l. 0 for none.
[[nodiscard]] inline size_t own_sequence_bytes(std::string_view text) {
    if (text.starts_with("\033[?7h") || text.starts_with("\033[?7l"))
        return 5;
    const size_t end = text.starts_with("\033[") ? text.find_first_not_of("0123456789;", 2) : 0;
    const bool is_own = end != 0 && end != std::string_view::npos &&
                        std::string_view("mKG").find(text[end]) != std::string_view::npos;
    return is_own ? end + 1 : 0;
}

// The text without these. Any other escape stays, for the judge to find.
[[nodiscard]] inline std::string without_own_sequences(std::string_view text) {
    std::string plain;
    while (!text.empty()) {
        const size_t bytes = own_sequence_bytes(text);
        if (bytes == 0)
            plain += text.front();
        text.remove_prefix(bytes > 0 ? bytes : 1);
    }
    return plain;
}

// The column that the cursor stands in behind a row that was written from column 0 on, on a
// terminal that draws every character in one column.
[[nodiscard]] inline size_t ending_column(std::string_view row) {
    size_t column = 0;
    while (!row.empty()) {
        const size_t bytes = own_sequence_bytes(row);
        if (bytes == 0)
            column += byte_between(row.front(), 0x80, 0xbf) ? 0 : 1;
        else if (row[bytes - 1] == 'G')
            column = std::stoul("0" + std::string(row.substr(2, bytes - 3))) - 1;
        row.remove_prefix(bytes > 0 ? bytes : 1);
    }
    return column;
}

// The text without the style sequences that the program itself draws with: ESC [ digits and
// semicolons m. Any other escape stays, for the judge to find.
[[nodiscard]] inline std::string without_styles(std::string_view text) {
    std::string plain;
    while (!text.empty()) {
        if (text.starts_with("\033[")) {
            const size_t end = text.find_first_not_of("0123456789;", 2);
            if (end != std::string_view::npos && text[end] == 'm') {
                text.remove_prefix(end + 1);
                continue;
            }
        }
        plain += text.front();
        text.remove_prefix(1);
    }
    return plain;
}

// Whether every character of the text surely takes one column: none is beyond U+02FF.
[[nodiscard]] inline bool is_narrow(std::string_view text) {
    for (const char byte : text)
        if (byte_between(byte, 0xcc, 0xff))
            return false;
    return true;
}

// Columns of a text without sequences: one for each byte that continues no character.
[[nodiscard]] inline size_t columns_of(std::string_view text) {
    size_t columns = 0;
    for (const char byte : text)
        columns += byte_between(byte, 0x80, 0xbf) ? 0 : 1;
    return columns;
}

// ---- All that is tried --------------------------------------------------------------------

constexpr int BYTES = 256;

[[nodiscard]] inline std::string pair_of(int first, int second) {
    return {static_cast<char>(first), static_cast<char>(second)};
}

// The first bytes of the pairs: all of them. With sanitizers, which take ten times as long, one or
// two of each kind; all of them if the environment has TBX_EVERY_PAIR.
[[nodiscard]] inline std::vector<int> first_bytes() {
#ifdef TBX_SANITIZED
    if (getenv("TBX_EVERY_PAIR") == nullptr)
        return {'\0', '\b', '\t', '\n', '\r', '\033', ' ',  '[',  'm',  0x7f, 0x80,
                0x9b, 0xbf, 0xc0, 0xc2, 0xd0, 0xe0,   0xe2, 0xed, 0xf0, 0xf4, 0xff};
#endif
    std::vector<int> bytes(BYTES);
    std::iota(bytes.begin(), bytes.end(), 0);
    return bytes;
}

// Calls `visit` with every pair of a byte of first_bytes() and another byte.
template <typename Visit> void for_each_pair(Visit visit) {
    for (const int first : first_bytes())
        for (int second = 0; second < BYTES; second++)
            visit(pair_of(first, second));
}

// A text for messages about it: "1B 5B 41".
[[nodiscard]] inline std::string in_hexadecimal(std::string_view text) {
    static constexpr char DIGITS[] = "0123456789ABCDEF";
    std::string shown;
    for (const char byte : text) {
        const auto value = static_cast<unsigned char>(byte);
        shown += shown.empty() ? "" : " ";
        shown += {DIGITS[value >> 4U], DIGITS[value & 15U]};
    }
    return shown;
}
