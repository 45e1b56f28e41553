// The words of `tellbox read`, `later` and `show`: a byte for the command, then one word a line. In
// the mailbox the messages 1 and 12 wait, 3 is answered, and 5 has expired.
#include "common/environment.h"
#include "fuzz.h"
#include "hostile.h"
#include "silent_journal.h"
#include "user/command.h"

#include <algorithm>
#include <set>

static std::string place(const std::string &name) {
    static const std::string owner = own_account_or_die();
    return state_path("users/" + owner + "/" + name);
}

static void put_message(const std::string &folder, int64_t id, const std::string &expires) {
    put_file(place(folder + "/" + std::to_string(id)),
             "format: 1\nid: " + std::to_string(id) + "\nfrom: root\ndate: 1790000000\ntitle: \n" +
                 "expires: " + expires + "\n\nHello\n");
}

static void furnish() {
    remove_all(state_path("users"));
    for (const char *folder : {"inbox", "read", "acks", "state"})
        make_folder(place(folder));
    put_message("inbox", 1, "");
    put_message("inbox", 12, "");
    put_message("inbox", 5, "1790000001");
    put_message("read", 3, "");
    put_file(place("acks/3"), "1790000000 desktop\n");
}

static void check_printable(std::string_view text, bool is_diagnostic) {
    CHECK(text.empty() || text.ends_with('\n'));
    for (const std::string_view line : lines_of(text)) {
        CHECK(is_well_formed(line));
        CHECK(
            std::ranges::none_of(line, [](char c) { return byte_between(c, 0, 31) || c == 127; }));
        CHECK(!is_diagnostic || line.starts_with("tbx: "));
    }
}

// The messages that the words name.
static std::set<int64_t> named(const arguments &words) {
    std::set<int64_t> ids;
    for (const std::string &word : words)
        ids.insert(decimal(word).value_or(0));
    return ids;
}

static bool are_all_in(const std::set<int64_t> &ids, const std::set<int64_t> &good) {
    return std::ranges::includes(good, ids);
}

static void check_read(const std::set<int64_t> &ids, bool has_words, int status) {
    CHECK((status == 0) == (has_words && are_all_in(ids, {1, 3, 5, 12})));
    for (const int64_t id : {1, 5, 12})
        CHECK(path_exists(place("acks/" + std::to_string(id)).c_str()) == ids.contains(id));
    CHECK(contents_of(place("acks/3")) == "1790000000 desktop\n");
}

static void check_later(const std::set<int64_t> &ids, bool has_words, int status) {
    CHECK((status == 0) == (has_words && are_all_in(ids, {1, 12})));
    for (const int64_t id : {1, 3, 5, 12})
        CHECK(path_exists(place("state/" + std::to_string(id) + ".term").c_str()) ==
              (ids.contains(id) && id != 3 && id != 5));
}

void fuzz_one(std::string_view input) {
    const unsigned verb = take_byte(&input) % 3;
    arguments words;
    for (const std::string_view line : lines_of(input))
        words.emplace_back(up_to_nul(line));
    furnish();
    int status = 1;
    std::string output;
    const std::string errors = errors_of([&] {
        output = output_of([&] {
            status = verb == 0 ? cmd_read(words) : verb == 1 ? cmd_later(words) : cmd_show(words);
        });
    });
    check_printable(errors, /*is_diagnostic=*/true);
    check_printable(output, /*is_diagnostic=*/false);
    CHECK(status == 0 || !errors.empty());
    if (verb == 0)
        check_read(named(words), !words.empty(), status);
    else if (verb == 1)
        check_later(named(words), !words.empty(), status);
}
