// Recipients files. The input is a file; what is read is written again as the program does it.
#include "fuzz.h"
#include "tbx/sent.h"

#include <algorithm>

static std::vector<std::string> names_in(std::string_view file) {
    static constexpr std::string_view SEPARATORS = " \t\n";
    std::vector<std::string> names;
    for (size_t at = file.find_first_not_of(SEPARATORS); at != file.npos;
         at = file.find_first_not_of(SEPARATORS, at)) {
        const size_t end = std::min(file.find_first_of(SEPARATORS, at), file.size());
        names.emplace_back(up_to_nul(file.substr(at, end - at)));
        at = end;
    }
    return names;
}

static std::vector<std::string> names_read(std::string_view file) {
    put_file(state_path("sent/7/recipients"), file);
    strlist names;
    CHECK(sent_read_recipients(7, &names) == lookup::found);
    return items_of(names);
}

void fuzz_one(std::string_view input) {
    make_folder(state_path("sent/7"));
    std::vector<std::string> names = names_read(input);
    CHECK(names == names_in(input));

    std::erase(names, ""); // a NUL byte at the start of a name leaves nothing of it
    std::string again;
    for (const std::string &name : names)
        again.append(name).append("\n");
    CHECK(names_read(again) == names);
}
