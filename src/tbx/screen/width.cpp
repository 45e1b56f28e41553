#include "tbx/screen/width.h"

#include "common/characters.h"
#include "common/width.h"

#include <algorithm>

size_t tui_sequence_bytes(std::string_view text) {
    if (text.size() < 2 || text[0] != '\033' || text[1] != '[')
        return 0;
    const auto letter = std::find_if(text.begin() + 2, text.end(), is_ascii_letter);
    return static_cast<size_t>(letter - text.begin()) + (letter != text.end() ? 1 : 0);
}

int tui_line_columns(std::string_view line) {
    int columns = 0;
    while (!line.empty()) {
        size_t bytes = tui_sequence_bytes(line);
        if (bytes == 0) {
            const text_cluster cluster = next_cluster(line);
            columns += cluster.columns;
            bytes = cluster.bytes;
        }
        line.remove_prefix(bytes);
    }
    return columns;
}
