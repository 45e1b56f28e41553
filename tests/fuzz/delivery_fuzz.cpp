// Delivery logs. The input is a log: read, mended, and appended to.
#include "fuzz.h"
#include "tbx/sent.h"

#include <algorithm>
#include <cstdio>

struct delivered_user {
    std::string name;
    std::string terminals;
    bool operator==(const delivered_user &) const = default;
};

// The first line of each user, read by the pattern that the format is told by.
static std::vector<delivered_user> users_in(std::string_view log) {
    std::vector<delivered_user> users;
    for (const std::string_view line : lines_of(log)) {
        char name[256];
        char terminals[32] = "0";
        if (sscanf(std::string(line).c_str(), "%255s %*s %31s", name, terminals) >= 1 &&
            std::ranges::find(users, name, &delivered_user::name) == users.end())
            users.push_back({name, terminals});
    }
    return users;
}

static std::vector<delivered_user> users_of(const delivery_table &table) {
    CHECK(table.users.size() == table.terminals.size());
    std::vector<delivered_user> users;
    for (size_t i = 0; i < table.users.size(); i++)
        users.push_back({std::string(table.users[i]), std::string(table.terminals[i])});
    return users;
}

static std::vector<delivered_user> users_read() {
    delivery_table table;
    CHECK(sent_read_delivery(7, &table) == lookup::found);
    for (size_t place = 0; place < table.users.size(); place++)
        CHECK(delivery_find(table, table.users[place]) == static_cast<ptrdiff_t>(place));
    CHECK(delivery_find(table, "nobody at all") == -1);
    return users_of(table);
}

static void check_appending(std::string_view whole_lines) {
    std::vector<delivered_user> expected = users_in(whole_lines);
    if (std::ranges::find(expected, "pat", &delivered_user::name) == expected.end())
        expected.push_back({"pat", "3"});
    sent_append_delivery(7, "pat", 3);
    CHECK(users_read() == expected);
}

void fuzz_one(std::string_view input) {
    const std::string path = state_path("sent/7/delivery");
    make_folder(state_path("sent/7"));
    put_file(path, input);
    const std::vector<delivered_user> users = users_read();
    const bool is_text = input.find('\0') == input.npos; // the pattern reads no further
    CHECK(!is_text || users == users_in(input));

    CHECK(sent_mend_delivery(7) == 0);
    const std::string_view whole_lines = input.substr(0, input.rfind('\n') + 1);
    CHECK(contents_of(path) == whole_lines);
    if (is_text)
        check_appending(whole_lines);
}
