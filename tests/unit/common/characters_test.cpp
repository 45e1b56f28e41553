#include "common/characters.h"

#include "support.h"

#include <string>

namespace {

// All bytes for which `holds` is true.
template <typename Predicate> std::string bytes_where(Predicate holds) {
    std::string found;
    for (int byte = 0; byte < 256; byte++)
        if (holds(static_cast<char>(byte)))
            found += static_cast<char>(byte);
    return found;
}

std::string bytes_from_to(int first, int last) {
    std::string all;
    for (int byte = first; byte <= last; byte++)
        all += static_cast<char>(byte);
    return all;
}

std::string bytes_that_announce(size_t count) {
    return bytes_where([&](char byte) { return announced_bytes(byte) == count; });
}

} // namespace

TEST(AsciiLetter, IsNoDigitNoSignAndNoByteOfALongerCharacter) {
    EXPECT_EQ(bytes_where(is_ascii_letter), "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz");
}

TEST(ContinuationByte, HasTheTwoHighestBitsOneAndZero) {
    EXPECT_EQ(bytes_where(is_continuation_byte), bytes_from_to(0x80, 0xbf));
}

TEST(AnnouncedBytes, GrowWithTheHighestBitsOfTheFirstByte) {
    EXPECT_EQ(bytes_that_announce(1), bytes_from_to(0x00, 0xbf));
    EXPECT_EQ(bytes_that_announce(2), bytes_from_to(0xc0, 0xdf));
    EXPECT_EQ(bytes_that_announce(3), bytes_from_to(0xe0, 0xef));
    EXPECT_EQ(bytes_that_announce(4), bytes_from_to(0xf0, 0xff));
}
