// Bytes of UTF-8 and ASCII, as whoever cuts or counts text needs to know them.
#pragma once

#include <cstddef>

[[nodiscard]] constexpr bool is_ascii_letter(char byte) {
    return (byte >= 'A' && byte <= 'Z') || (byte >= 'a' && byte <= 'z');
}

// Whether the byte continues a character of several bytes: 0x80 to 0xBF.
[[nodiscard]] constexpr bool is_continuation_byte(char byte) {
    return (static_cast<unsigned char>(byte) & 0xc0) == 0x80;
}

// Returns the length, 1 to 4, that the first byte of a character announces. Invalid first bytes are
// not found here: 0x80 to 0xBF announce 1, 0xF8 and above 4.
[[nodiscard]] constexpr size_t announced_bytes(char first) {
    const auto lead = static_cast<unsigned char>(first);
    if (lead >= 0xf0)
        return 4;
    if (lead >= 0xe0)
        return 3;
    return lead >= 0xc0 ? 2 : 1;
}
