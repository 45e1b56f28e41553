#include "common/core.h"

#include "support.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <climits>
#include <cstring>
#include <new>
#include <vector>

// Lets a refused allocation come back null under the address sanitizer too.
extern "C" const char *__asan_default_options();  // NOLINT(bugprone-reserved-identifier)
extern "C" const char *__asan_default_options() { // NOLINT(bugprone-reserved-identifier)
    return "allocator_may_return_null=1";
}

namespace {

bool is_open(int fd) {
    return fcntl(fd, F_GETFD) >= 0;
}

int open_null() {
    const int fd = open("/dev/null", O_RDWR | O_CLOEXEC);
    if (fd < 0)
        throw_errno("/dev/null");
    return fd;
}

// More than any machine gives, and nothing that a compiler can see through.
size_t more_than_there_is() {
    volatile size_t bytes = SIZE_MAX / 4;
    return bytes;
}

strlist list_of(const std::vector<const char *> &items) {
    strlist list;
    for (const char *item : items)
        strlist_push_dup(&list, item);
    return list;
}

// The text without the line in which the address sanitizer tells of a refused allocation.
std::string without_sanitizer_line(const std::string &text) {
    return text.starts_with("==") ? text.substr(text.find('\n') + 1) : text;
}

void expect_out_of_memory(const child_result &child) {
    EXPECT_EQ(child.exit_status, 1);
    EXPECT_EQ(without_sanitizer_line(child.err), "tbx: out of memory\n");
}

} // namespace

// ---- Descriptors --------------------------------------------------------------------------

TEST(UniqueFd, ClosesWhatItOwns) {
    const int fd = open_null();
    {
        const unique_fd owner(fd);
        EXPECT_TRUE(owner);
        EXPECT_EQ(owner.get(), fd);
    }
    EXPECT_FALSE(is_open(fd));
}

TEST(UniqueFd, IsEmptyAtFirst) {
    const unique_fd owner;
    EXPECT_FALSE(owner);
    EXPECT_EQ(owner.get(), -1);
}

TEST(UniqueFd, MovesItsDescriptor) {
    unique_fd first(open_null());
    const int fd = first.get();
    unique_fd second(std::move(first));
    unique_fd third(open_null());
    const int replaced = third.get();
    third = std::move(second);
    EXPECT_EQ(third.get(), fd);
    EXPECT_TRUE(is_open(fd));
    EXPECT_FALSE(is_open(replaced));
}

TEST(UniqueFd, ReleasedDescriptorStaysOpen) {
    unique_fd owner(open_null());
    const int fd = owner.release();
    EXPECT_FALSE(owner);
    EXPECT_TRUE(is_open(fd));
    close(fd);
}

TEST(UniqueFd, ResetClosesTheOldAndKeepsErrno) {
    const int closed_already = open_null();
    close(closed_already);
    unique_fd owner(closed_already);
    errno = ENOSPC;
    owner.reset(); // the close fails with EBADF
    EXPECT_EQ(errno, ENOSPC);
}

TEST(UniqueFd, CloseSaysHowItWent) {
    unique_fd owner(open_null());
    EXPECT_EQ(owner.close(), 0);
    EXPECT_FALSE(owner);
    EXPECT_EQ(owner.close(), -1);
    EXPECT_EQ(errno, EBADF);
}

// ---- Diagnostics --------------------------------------------------------------------------

TEST(Die, WritesItsMessageAndEndsWithStatusOne) {
    const child_result child = run_in_child([] { die("no such message: %s", "7"); });
    EXPECT_EQ(child.exit_status, 1);
    EXPECT_EQ(child.err, "tbx: no such message: 7\n");
    EXPECT_EQ(child.out, "");
}

TEST(Die, FlushesStandardOutputFirst) {
    const child_result child = run_in_child([] {
        dup2(STDOUT_FILENO, STDERR_FILENO);
        printf("printed before\n");
        die("failed");
    });
    EXPECT_EQ(child.out, "printed before\ntbx: failed\n");
}

TEST(Warn, WritesTheSameAndReturns) {
    const child_result child = run_in_child([] {
        dup2(STDOUT_FILENO, STDERR_FILENO);
        printf("printed before\n");
        warn("%d left", 3);
        printf("printed after\n");
        return 5;
    });
    EXPECT_EQ(child.exit_status, 5);
    EXPECT_EQ(child.out, "printed before\ntbx: 3 left\nprinted after\n");
}

TEST(ProgramName, PrefixesDiagnostics) {
    const child_result child = run_in_child([] {
        set_program_name("other");
        die("failed");
    });
    EXPECT_EQ(child.err, "other: failed\n");
}

// ---- Memory -------------------------------------------------------------------------------

TEST(Memory, RequestForNothingYieldsSomething) {
    void *memory = xmalloc(0);
    ASSERT_NE(memory, nullptr);
    memory = xrealloc(memory, 0);
    EXPECT_NE(memory, nullptr);
    free(memory);
}

TEST(Memory, ResizingKeepsTheContents) {
    char *text = static_cast<char *>(xmalloc(4));
    memcpy(text, "abc", 4);
    text = static_cast<char *>(xrealloc(text, 4000));
    EXPECT_STREQ(text, "abc");
    free(text);
}

TEST(Memory, RefusedAllocationEndsTheProcess) {
    expect_out_of_memory(run_in_child([] { free(xmalloc(more_than_there_is())); }));
}

TEST(Memory, RefusedResizingEndsTheProcess) {
    void *memory = xmalloc(1);
    expect_out_of_memory(
        run_in_child([&memory] { memory = xrealloc(memory, more_than_there_is()); }));
    free(memory);
}

TEST(Memory, HandlerEndsTheProcessForTheStandardLibraryToo) {
    expect_out_of_memory(run_in_child([] {
        install_out_of_memory_handler();
        std::get_new_handler()(); // what operator new calls when it finds nothing
    }));
}

TEST(Xstrdup, CopiesTheText) {
    const char *text = "abc";
    const owned_cstring copy = xstrdup(text);
    EXPECT_STREQ(copy.get(), "abc");
    EXPECT_NE(copy.get(), text);
}

TEST(Xasprintf, FormatsTextOfAnyLength) {
    const std::string longer_than_a_buffer(5000, 'x');
    EXPECT_EQ(xasprintf("%s/%d", longer_than_a_buffer.c_str(), 7), longer_than_a_buffer + "/7");
    EXPECT_EQ(xasprintf("%s", ""), "");
}

// ---- strbuf -------------------------------------------------------------------------------

TEST(Strbuf, HasNothingAtFirst) {
    const strbuf buffer;
    EXPECT_EQ(buffer.data, nullptr);
    EXPECT_EQ(buffer.len, 0U);
    EXPECT_EQ(buffer.cap, 0U);
    EXPECT_EQ(buffer.view(), "");
}

TEST(Strbuf, AppendingNothingReservesSixtyFourBytes) {
    strbuf buffer;
    strbuf_append(&buffer, nullptr, 0);
    EXPECT_EQ(buffer.cap, 64U);
    EXPECT_EQ(buffer.len, 0U);
    EXPECT_STREQ(buffer.data, "");
}

TEST(Strbuf, SixtyThreeBytesFitTheFirstReservation) {
    strbuf buffer;
    strbuf_append_str(&buffer, std::string(63, 'x').c_str());
    EXPECT_EQ(buffer.cap, 64U);
}

TEST(Strbuf, SixtyFourBytesNeedTheNextSize) {
    strbuf buffer;
    strbuf_append_str(&buffer, std::string(64, 'x').c_str());
    EXPECT_EQ(buffer.cap, 128U);
    EXPECT_EQ(buffer.view(), std::string(64, 'x'));
    EXPECT_EQ(buffer.data[64], '\0');
}

TEST(Strbuf, GrowsByDoubling) {
    strbuf buffer;
    for (const size_t size : {128U, 256U, 512U, 1024U}) {
        strbuf_reserve(&buffer, size / 2); // with the NUL one more than half
        EXPECT_EQ(buffer.cap, size);
    }
    strbuf_reserve(&buffer, 5000);
    EXPECT_EQ(buffer.cap, 8192U);
}

TEST(Strbuf, ReservingWhatIsThereChangesNothing) {
    strbuf buffer;
    strbuf_append_str(&buffer, "abc");
    const char *before = buffer.data;
    strbuf_reserve(&buffer, 60); // 3 + 60 + 1 = 64
    EXPECT_EQ(buffer.data, before);
    EXPECT_EQ(buffer.cap, 64U);
    EXPECT_EQ(buffer.view(), "abc");
}

TEST(Strbuf, ReservationIsTerminated) {
    strbuf buffer;
    strbuf_reserve(&buffer, 1);
    EXPECT_STREQ(buffer.data, "");
}

TEST(Strbuf, ReservationBeyondTheAddressSpaceIsOutOfMemory) {
    expect_out_of_memory(run_in_child([] {
        strbuf buffer;
        strbuf_append_str(&buffer, "abc");
        strbuf_reserve(&buffer, SIZE_MAX - 3); // 3 bytes and the NUL would wrap around
    }));
}

TEST(Strbuf, ReservationThatTheSystemRefusesIsOutOfMemory) {
    for (const size_t bytes : {more_than_there_is(), size_t{SIZE_MAX / 2 + 10}, SIZE_MAX - 5})
        expect_out_of_memory(run_in_child([bytes] {
            strbuf buffer;
            strbuf_append_str(&buffer, "abc");
            strbuf_reserve(&buffer, bytes);
        }));
}

TEST(Strbuf, AppendsBytesTextsViewsAndCharacters) {
    strbuf buffer;
    strbuf_append(&buffer, "ab", 2);
    strbuf_append_str(&buffer, "cd");
    strbuf_append_view(&buffer, std::string_view("efgh").substr(0, 2));
    strbuf_append_char(&buffer, 'g');
    EXPECT_STREQ(buffer.data, "abcdefg");
    EXPECT_EQ(buffer.len, 7U);
}

TEST(Strbuf, MayHoldNulBytes) {
    strbuf buffer;
    strbuf_append(&buffer, "a\0b", 3);
    strbuf_append_char(&buffer, '\0');
    EXPECT_EQ(buffer.view(), std::string_view("a\0b\0", 4));
    EXPECT_EQ(buffer.data[4], '\0');
}

TEST(Strbuf, AppendsFormattedText) {
    strbuf buffer;
    strbuf_append_str(&buffer, "id ");
    strbuf_printf(&buffer, "%lld of %s", 12LL, std::string(200, 'x').c_str());
    EXPECT_EQ(buffer.view(), "id 12 of " + std::string(200, 'x'));
    EXPECT_EQ(buffer.data[buffer.len], '\0');
}

TEST(Strbuf, FormatThatTheSystemRefusesEndsTheProcess) {
    const child_result child = run_in_child([] {
        strbuf buffer;
        strbuf_printf(&buffer, "%ls", L"\U0001F600"); // has no form in the C locale
    });
    EXPECT_EQ(child.exit_status, 1);
    EXPECT_EQ(child.err, "tbx: invalid format\n");
}

TEST(Strbuf, ResetEmptiesAndKeepsTheAllocation) {
    strbuf buffer;
    strbuf_append_str(&buffer, std::string(100, 'x').c_str());
    strbuf_reset(&buffer);
    EXPECT_EQ(buffer.len, 0U);
    EXPECT_EQ(buffer.cap, 128U);
    EXPECT_STREQ(buffer.data, "");
}

TEST(Strbuf, ResetOfAnUnusedBufferIsHarmless) {
    strbuf buffer;
    strbuf_reset(&buffer);
    EXPECT_EQ(buffer.data, nullptr);
}

TEST(Strbuf, FreeReleasesAndAllowsReuse) {
    strbuf buffer;
    strbuf_append_str(&buffer, "abc");
    strbuf_free(&buffer);
    EXPECT_EQ(buffer.data, nullptr);
    EXPECT_EQ(buffer.len, 0U);
    EXPECT_EQ(buffer.cap, 0U);
    strbuf_append_str(&buffer, "again");
    EXPECT_STREQ(buffer.data, "again");
}

TEST(Strbuf, MovesItsContents) {
    strbuf first;
    strbuf_append_str(&first, "abc");
    strbuf second(std::move(first));
    strbuf third;
    third = std::move(second);
    EXPECT_EQ(third.view(), "abc");
}

// ---- strlist ------------------------------------------------------------------------------

TEST(Strlist, GrowsFromSixteenByDoubling) {
    strlist list;
    EXPECT_EQ(list.cap, 0U);
    strlist_push_dup(&list, "first");
    EXPECT_EQ(list.cap, 16U);
    for (int i = 0; i < 16; i++)
        strlist_push_dup(&list, "more");
    EXPECT_EQ(list.cap, 32U);
    for (int i = 0; i < 16; i++)
        strlist_push_dup(&list, "last");
    EXPECT_EQ(list.cap, 64U);
    EXPECT_EQ(list.count, 33U);
    EXPECT_STREQ(list.items[0], "first");
    EXPECT_STREQ(list.items[32], "last");
}

TEST(Strlist, TakesOverWhatIsPushed) {
    strlist list;
    owned_cstring text = xstrdup("abc");
    const char *address = text.get();
    strlist_push(&list, std::move(text));
    EXPECT_EQ(list.items[0], address);
}

TEST(Strlist, CopiesWhatIsDuplicated) {
    strlist list;
    std::string text = "abc";
    strlist_push_dup(&list, text.c_str());
    strlist_push_view(&list, std::string_view(text).substr(1));
    text = "xyz";
    EXPECT_EQ(joined(list), "abc bc");
}

TEST(Strlist, ContainsComparesByteForByte) {
    const strlist list = list_of({"pat", "sam"});
    EXPECT_EQ(strlist_contains(&list, "sam"), 1);
    EXPECT_EQ(strlist_contains(&list, "Sam"), 0);
    EXPECT_EQ(strlist_contains(&list, "sa"), 0);
    EXPECT_EQ(strlist_contains(&list, ""), 0);
    const strlist empty;
    EXPECT_EQ(strlist_contains(&empty, "sam"), 0);
}

TEST(Strlist, SortsInByteOrder) {
    strlist list = list_of({"b", "a", "B", "\xc3\xa9", "ab", "-"});
    strlist_sort(&list);
    EXPECT_EQ(joined(list), "- B a ab b \xc3\xa9");
}

TEST(Strlist, ShortListsAreLeftAlone) {
    strlist empty;
    strlist_sort(&empty);
    EXPECT_EQ(empty.count, 0U);
    strlist one = list_of({"only"});
    strlist_sort(&one);
    EXPECT_EQ(joined(one), "only");
}

TEST(Strlist, FreeReleasesAndAllowsReuse) {
    strlist list = list_of({"a", "b"});
    strlist_free(&list);
    EXPECT_EQ(list.items, nullptr);
    EXPECT_EQ(list.count, 0U);
    EXPECT_EQ(list.cap, 0U);
    strlist_push_dup(&list, "again");
    EXPECT_EQ(joined(list), "again");
}

TEST(Strlist, MovesItsItems) {
    strlist first = list_of({"a", "b"});
    strlist second(std::move(first));
    strlist third;
    third = std::move(second);
    EXPECT_EQ(joined(third), "a b");
}

// ---- place_index --------------------------------------------------------------------------

namespace {

constexpr size_t KEYS = 1000; // the table grows several times

// The index of so many keys, of which `hash_of` gives the hash, and who is found where.
void expect_every_key_at_its_place(uint32_t (*hash_of)(size_t key)) {
    place_index index;
    const auto place_of = [&](size_t key) {
        return index.find(hash_of(key), [key](size_t place) { return place == key; });
    };
    EXPECT_EQ(place_of(0), -1);
    for (size_t key = 0; key < KEYS; key++)
        index.add(hash_of(key), key);
    for (size_t key = 0; key < KEYS; key++)
        ASSERT_EQ(place_of(key), static_cast<ptrdiff_t>(key));
    ASSERT_EQ(place_of(KEYS), -1);
    index.clear();
    EXPECT_EQ(place_of(0), -1);
}

} // namespace

TEST(PlaceIndex, FindsEveryKeyAtItsPlace) {
    expect_every_key_at_its_place([](size_t key) { return static_cast<uint32_t>(key); });
}

TEST(PlaceIndex, KeepsKeysOfTheSameHashApart) {
    expect_every_key_at_its_place([](size_t key) { return static_cast<uint32_t>(key / 7); });
}

TEST(PlaceIndex, KeepsKeysOfTheSameSlotApart) {
    expect_every_key_at_its_place([](size_t key) { return static_cast<uint32_t>(key) << 20; });
}

TEST(PlaceIndex, GoesOnFromTheLastSlotAtTheFirst) {
    expect_every_key_at_its_place(
        [](size_t key) { return UINT32_MAX - static_cast<uint32_t>(key % 3); });
}

TEST(PlaceIndex, AsksOnlyAboutPlacesOfTheSameHash) {
    place_index index;
    index.add(2, 0);
    const auto anything = [](size_t) { return true; };
    EXPECT_EQ(index.find(2, anything), 0);
    EXPECT_EQ(index.find(2 + 64, anything), -1); // the same slot
    EXPECT_EQ(index.find(1, anything), -1);
}

TEST(PlaceIndex, BeginsAnewOnceItWasClearedOrMoved) {
    place_index index;
    for (uint32_t key = 0; key < KEYS; key++)
        index.add(key, key);
    const place_index moved = std::move(index);
    index = place_index();
    index.add(KEYS, 0);
    EXPECT_EQ(index.find(KEYS, [](size_t place) { return place == 0; }), 0);
    EXPECT_EQ(moved.find(7, [](size_t place) { return place == 7; }), 7);
    index.clear();
    index.add(7, 0);
    EXPECT_EQ(index.find(7, [](size_t place) { return place == 0; }), 0);
    EXPECT_EQ(index.find(KEYS, [](size_t) { return true; }), -1);
}

// ---- Predicates and parsing ---------------------------------------------------------------

TEST(IsAllDigits, WantsAtLeastOneDigitAndNothingElse) {
    for (const char *text : {"0", "0123456789", "99999999999999999999999"})
        EXPECT_EQ(is_all_digits(text), 1) << text;
    for (const char *text : {"", "-1", "+1", " 1", "1 ", "1a", "0x1", "\xd9\xa1"})
        EXPECT_EQ(is_all_digits(text), 0) << text;
}

TEST(ParseId, TakesOneToEighteenDigits) {
    int64_t id = -1;
    EXPECT_EQ(parse_id("7", &id), 1);
    EXPECT_EQ(id, 7);
    EXPECT_EQ(parse_id("0", &id), 1);
    EXPECT_EQ(id, 0);
    EXPECT_EQ(parse_id("999999999999999999", &id), 1);
    EXPECT_EQ(id, ID_MAX);
}

TEST(ParseId, TakesLeadingZeros) {
    int64_t id = -1;
    EXPECT_EQ(parse_id("007", &id), 1);
    EXPECT_EQ(id, 7);
    EXPECT_EQ(parse_id("000000000000000001", &id), 1);
    EXPECT_EQ(id, 1);
}

TEST(ParseId, RefusesAnythingElseAndLeavesTheValueAlone) {
    for (const char *text : {"", "-1", "+1", "1 ", " 1", "1\n", "0x1", "a", "1000000000000000000",
                             "0000000000000000001"}) {
        int64_t id = 42;
        EXPECT_EQ(parse_id(text, &id), 0) << text;
        EXPECT_EQ(id, 42) << text;
    }
}

TEST(ParseId, LooksAtTheWholeView) {
    int64_t id = 42;
    EXPECT_EQ(parse_id(std::string_view("123").substr(0, 2), &id), 1);
    EXPECT_EQ(id, 12);
    EXPECT_EQ(parse_id(std::string_view("1\0", 2), &id), 0);
    EXPECT_EQ(parse_id(std::string_view(), &id), 0);
}

TEST(CompareLengthThenText, OrdersNumbersByValue) {
    EXPECT_LT(compare_length_then_text("9", "10"), 0);
    EXPECT_GT(compare_length_then_text("100", "99"), 0);
    EXPECT_LT(compare_length_then_text("12", "13"), 0);
    EXPECT_GT(compare_length_then_text("21", "12"), 0);
    EXPECT_EQ(compare_length_then_text("12", "12"), 0);
    EXPECT_LT(compare_length_then_text("", "0"), 0);
}

// ---- Time ---------------------------------------------------------------------------------

TEST(Now, IsTheClock) {
    using std::chrono::system_clock;
    const time_t before = system_clock::to_time_t(system_clock::now());
    const time_t told = now();
    const time_t after = system_clock::to_time_t(system_clock::now());
    EXPECT_LE(before, told);
    EXPECT_LE(told, after);
}

TEST(FormatTimeShort, ShowsDayMonthHourAndMinute) {
    const environment_variable zone("TZ", "UTC");
    char text[SHORT_TIME_BYTES];
    format_time_short(1'759'579'200, text); // 4 October 2025, 12:00
    EXPECT_STREQ(text, "04/10 12:00");
    format_time_short(0, text);
    EXPECT_STREQ(text, "01/01 00:00");
}

TEST(FormatTimeShort, IsLocalTime) {
    const environment_variable zone("TZ", "XXX-2"); // two hours east
    char text[SHORT_TIME_BYTES];
    format_time_short(1'759'579'200, text);
    EXPECT_STREQ(text, "04/10 14:00");
}

TEST(FormatTimeShort, TimeThatHasNoDateIsAQuestionMark) {
    char text[SHORT_TIME_BYTES];
    format_time_short(INT64_MAX, text);
    EXPECT_STREQ(text, "?");
    format_time_short(INT64_MIN, text);
    EXPECT_STREQ(text, "?");
}
