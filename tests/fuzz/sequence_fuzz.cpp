// Sequence files. The first part of the input is ".seq", the second tells which of the identifiers
// behind it are taken: lines of 1 to 9.
#include "fuzz.h"
#include "tbx/sent.h"

#include <algorithm>
#include <cstring>
#include <set>

static constexpr size_t SEQUENCE_FILE_MAX_BYTES = 64;

static int64_t last_identifier(std::string_view text) {
    if (text.size() > SEQUENCE_FILE_MAX_BYTES)
        return 0;
    return decimal(text.substr(0, text.find('\n'))).value_or(0);
}

static std::set<int64_t> taken_after(int64_t last, std::string_view lines) {
    std::set<int64_t> taken;
    for (const std::string_view line : lines_of(lines))
        if (line.size() == 1 && decimal(line).value_or(0) > 0)
            taken.insert(last + *decimal(line));
    return taken;
}

static void check_next(int64_t last, std::set<int64_t> *taken) {
    int64_t expected = last + 1;
    while (taken->contains(expected))
        expected++;
    int64_t id = 0;
    const std::string path = state_path("sent/.seq");
    const std::string before = contents_of(path);
    const auto message = message_at_end([&id] { id = sent_allocate_id(); });
    CHECK(message.has_value() == (expected > ID_MAX));
    if (message) {
        CHECK(*message == "tbx: " + path + ": " + strerror(EOVERFLOW) + "\n");
        CHECK(contents_of(path) == before);
        return;
    }
    CHECK(id == expected);
    CHECK(is_directory(sent_message_dir(id).c_str()));
    CHECK(contents_of(path) == std::to_string(id) + "\n");
    CHECK(!path_exists((path + ".tmp").c_str()));
    taken->insert(id);
}

void fuzz_one(std::string_view input) {
    remove_all(state_path("sent"));
    make_folder(state_path("sent"));
    const auto parts = parts_of(input, 2);
    const int64_t last = last_identifier(parts[0]);
    std::set<int64_t> taken = taken_after(last, parts[1]);
    for (const int64_t id : taken)
        make_folder(sent_message_dir(id));
    put_file(state_path("sent/.seq"), parts[0]);
    check_next(last, &taken);
    check_next(last, &taken); // goes on behind the one before
}
