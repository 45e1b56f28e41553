// floor_start: one line from a program that is linked with the same libraries.
#include "floor_event.h"

#include <cstdio>

int main() {
    sd_journal_close(nullptr); // does nothing, but needs the library
    for (const std::string &word : words_of("started"))
        printf("%s\n", word.c_str());
    return 0;
}
