// Markers: what stands in the place of "revoked", and its time. The first byte of the input tells
// what it is (a file, a link, a folder, a pipe), the rest is what the file holds.
#include "fuzz.h"
#include "tbx/sent.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

static constexpr size_t TIME_FILE_MAX_BYTES = 64;

static bool has_file(char kind) {
    return kind != 'd' && kind != 'l' && kind != 'p';
}

static void put_marker(char kind, const std::string &path, std::string_view text) {
    if (kind == 'd') {
        make_folder(path);
    } else if (kind == 'p') {
        CHECK(mkfifo(path.c_str(), 0600) == 0);
    } else if (kind == 'l') {
        put_file(state_path("elsewhere"), text);
        CHECK(symlink("../../elsewhere", path.c_str()) == 0);
    } else {
        put_file(path, text);
    }
}

static int64_t revocation_time() {
    int64_t time = -1;
    CHECK(sent_revocation_time(7, &time) == 0);
    return time;
}

static void check_new_marker() {
    const int64_t before = now();
    CHECK(sent_marker_look_up(7, "failed") == lookup::absent);
    CHECK(sent_marker_write_time(7, "failed") == 0);
    const std::string text = contents_of(state_path("sent/7/failed"));
    CHECK(text.ends_with('\n'));
    const auto time = decimal(std::string_view(text).substr(0, text.size() - 1));
    CHECK(time && *time >= before && *time <= now());
}

void fuzz_one(std::string_view input) {
    const std::string path = state_path("sent/7/revoked");
    remove_all(state_path("sent/7"));
    make_folder(state_path("sent/7"));
    put_file(state_path("elsewhere"), "");
    CHECK(sent_marker_look_up(7, "revoked") == lookup::absent);
    CHECK(revocation_time() == 0);

    const char kind = static_cast<char>(take_byte(&input));
    put_marker(kind, path, input);
    CHECK(sent_marker_look_up(7, "revoked") == lookup::found);
    const bool is_readable = has_file(kind) && input.size() <= TIME_FILE_MAX_BYTES;
    const std::string_view first_line = input.substr(0, input.find('\n'));
    const int64_t stands = is_readable ? decimal(first_line).value_or(0) : 0;
    CHECK(revocation_time() == stands);

    // What stands there keeps its time.
    errno = 0;
    CHECK(sent_marker_write_time(7, "revoked") == -1 && errno == EEXIST);
    CHECK(revocation_time() == stands);
    CHECK(!path_exists((path + ".tmp").c_str()));
    CHECK(contents_of(state_path("elsewhere")) == (kind == 'l' ? input : ""));
    check_new_marker();
}
