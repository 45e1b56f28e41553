// Confirmation reports, as the parent reads what a child wrote. The input is a report.
#include "fuzz.h"
#include "tbx/confirmation.h"

#include <algorithm>

using entries = std::vector<confirmation_entry>;

static bool is_same(const entries &a, const entries &b) {
    return std::ranges::equal(a, b, [](const confirmation_entry &x, const confirmation_entry &y) {
        return x.id == y.id && x.ack == y.ack && x.shown == y.shown;
    });
}

static void take_line(std::string_view line, entries *found) {
    const size_t blank = line.find(' ', 2);
    if (line.size() < 3 || line[1] != ' ' || blank == line.npos)
        return;
    const auto id = decimal(line.substr(2, blank - 2));
    if (!id)
        return;
    auto entry = std::ranges::find(*found, *id, &confirmation_entry::id);
    if (entry == found->end())
        entry = found->insert(found->end(), {*id, std::nullopt, 0});
    const std::string_view rest = line.substr(blank + 1);
    if (line[0] == 'A' && !entry->ack)
        entry->ack = rest;
    if (line[0] == 'S')
        entry->shown = std::max(entry->shown, decimal(rest).value_or(0));
}

static std::string report_of(const confirmation_list &list) {
    std::string report;
    for (const confirmation_entry &entry : list.entries) {
        const std::string id = std::to_string(entry.id);
        if (entry.ack)
            report.append("A ").append(id).append(" ").append(*entry.ack).append("\n");
        report.append("S ").append(id).append(" ").append(std::to_string(entry.shown)).append("\n");
    }
    return report;
}

void fuzz_one(std::string_view input) {
    entries expected;
    for (const std::string_view line : lines_of(input))
        take_line(line, &expected);
    confirmation_list list;
    confirmation_parse(input, &list);
    CHECK(is_same(list.entries, expected));
    for (const confirmation_entry &entry : list.entries)
        CHECK(confirmation_find(list, entry.id) == &entry);

    confirmation_parse(input, &list); // says nothing new
    CHECK(is_same(list.entries, expected));
    confirmation_list again;
    confirmation_parse(report_of(list), &again);
    CHECK(is_same(again.entries, expected));
}
