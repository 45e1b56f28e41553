#include "common/width.h"

#include "common/characters.h"

#include <algorithm>
#include <clocale>
#include <cwchar>
#include <locale.h>

// ---- Characters ---------------------------------------------------------------------------

// Returns the length of the character at the start of `text`: its first byte and the continuation
// bytes that belong to it. A single continuation byte counts as a character.
static size_t character_bytes(std::string_view text) {
    const size_t limit = std::min(announced_bytes(text.front()), text.size());
    size_t bytes = 1;
    while (bytes < limit && is_continuation_byte(text[bytes]))
        bytes++;
    return bytes;
}

// Returns the code point of one character, or INVALID_CHARACTER when it is incomplete, overlong, a
// surrogate or beyond Unicode.
static uint32_t code_of(std::string_view character) {
    static constexpr uint32_t smallest[] = {0, 0, 0x80, 0x800, 0x10000};
    const auto lead = static_cast<unsigned char>(character.front());
    const size_t bytes = character.size();
    if (bytes != announced_bytes(character.front()) || lead > 0xf4)
        return INVALID_CHARACTER;
    if (bytes == 1)
        return lead < 0x80 ? lead : INVALID_CHARACTER;
    uint32_t code = lead & (0xffU >> (bytes + 1));
    for (const char byte : character.substr(1))
        code = code << 6 | (static_cast<unsigned char>(byte) & 0x3fU);
    const bool is_surrogate = code >= 0xd800 && code <= 0xdfff;
    return code < smallest[bytes] || code > 0x10ffff || is_surrogate ? INVALID_CHARACTER : code;
}

decoded_character decode_character(std::string_view text) {
    const size_t bytes = character_bytes(text);
    return {bytes, code_of(text.substr(0, bytes))};
}

// ---- Columns of one character -------------------------------------------------------------

static constexpr uint32_t FIRST_OF_OTHER_WIDTH = 0x300; // all codes below take one column

// Returns the width that the system's library knows, or -1. Uses a UTF-8 locale of its own: sudo or
// a console may have left that of the process at "C".
static int library_width(uint32_t code) {
    static const locale_t utf8 = newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
    if (utf8 == nullptr)
        return -1;
    const locale_t before = uselocale(utf8);
    const int columns = wcwidth(static_cast<wchar_t>(code));
    uselocale(before);
    return columns;
}

static bool is_between(uint32_t code, uint32_t first, uint32_t last) {
    return code >= first && code <= last;
}

static int character_columns(uint32_t code) {
    if (code < FIRST_OF_OTHER_WIDTH || code == INVALID_CHARACTER)
        return 1;
    const int columns = library_width(code);
    if (columns >= 0)
        return columns;
    return is_between(code, 0x1f300, 0x1faff) ? 2 : 1; // an emoji that is newer than the library
}

// ---- Clusters -----------------------------------------------------------------------------

static constexpr uint32_t JOINER = 0x200d;
static constexpr uint32_t EMOJI_SELECTOR = 0xfe0f; // draws the character before it as an emoji
static constexpr uint32_t FIRST_SYMBOL = 0x203c;   // the first emoji beyond ASCII and Latin 1

static constexpr size_t SHOWN_CHARACTERS_MAX = 12; // of one cluster

static bool is_flag_letter(uint32_t code) {
    return is_between(code, 0x1f1e6, 0x1f1ff);
}

static bool is_skin_tone(uint32_t code) {
    return is_between(code, 0x1f3fb, 0x1f3ff);
}

static bool is_symbol(uint32_t code) {
    return code >= FIRST_SYMBOL && code != INVALID_CHARACTER;
}

// Whether the character `next` belongs to the cluster that begins with `base`.
static bool belongs(uint32_t base, uint32_t last, uint32_t next, size_t characters) {
    if (character_columns(next) == 0)
        return true;
    if (is_flag_letter(base) && is_flag_letter(next))
        return characters == 1;
    return is_symbol(base) && (is_skin_tone(next) || (last == JOINER && is_symbol(next)));
}

static int cluster_columns(int before, uint32_t base, uint32_t next) {
    const bool is_emoji = next == EMOJI_SELECTOR || is_flag_letter(next) || is_skin_tone(next);
    return before == 1 && is_emoji && base != INVALID_CHARACTER ? 2 : before;
}

text_cluster next_cluster(std::string_view text) {
    if (is_continuation_byte(text.front()))
        return {.bytes = 1, .shown_bytes = 1, .columns = 0, .is_plain = true};
    const decoded_character base = decode_character(text);
    text_cluster cluster = {base.bytes, base.bytes, character_columns(base.code)};
    cluster.is_plain = cluster.columns == 1;
    uint32_t last = base.code;
    size_t characters = 1;
    while (cluster.bytes < text.size()) {
        const char lead = text[cluster.bytes];
        if (static_cast<unsigned char>(lead) < 0xcc)
            break; // no character before U+0300 belongs to one before it
        const decoded_character next = decode_character(text.substr(cluster.bytes));
        if (next.code == INVALID_CHARACTER || !belongs(base.code, last, next.code, characters))
            break;
        cluster.columns = cluster_columns(cluster.columns, base.code, next.code);
        cluster.is_plain = false;
        cluster.bytes += next.bytes;
        if (++characters <= SHOWN_CHARACTERS_MAX)
            cluster.shown_bytes = cluster.bytes;
        last = next.code;
    }
    return cluster;
}

// ---- Texts --------------------------------------------------------------------------------

int columns_of_text(std::string_view text) {
    int columns = 0;
    while (!text.empty()) {
        const text_cluster cluster = next_cluster(text);
        columns += cluster.columns;
        text.remove_prefix(cluster.bytes);
    }
    return columns;
}

std::string_view first_columns(std::string_view text, int columns) {
    size_t bytes = 0;
    while (bytes < text.size() && columns > 0) {
        const text_cluster cluster = next_cluster(text.substr(bytes));
        if (cluster.columns > columns)
            break;
        columns -= cluster.columns;
        bytes += cluster.bytes;
    }
    return text.substr(0, bytes);
}
