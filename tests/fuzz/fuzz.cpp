#include "fuzz.h"

#include "common/environment.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>

// Status of a process that was ended while message_at_end() runs.
struct ended_process {
    int status;
};

static bool survives_exit = false;

// The linker puts this in the place of exit() (see CMakeLists.txt).
// NOLINTBEGIN(bugprone-reserved-identifier): the linker's names
extern "C" {
[[noreturn]] void __real_exit(int status);
[[noreturn]] void __wrap_exit(int status);
void __wrap_exit(int status) {
    if (survives_exit)
        throw ended_process{status};
    __real_exit(status);
}
// NOLINTEND(bugprone-reserved-identifier)
int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);
int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    fuzz_one({reinterpret_cast<const char *>(data), size});
    return 0;
}
}

void check_failed(const char *file, int line, const char *condition) {
    fprintf(stderr, "%s:%d: does not hold: %s\n", file, line, condition);
    abort();
}

// ---- Inputs -------------------------------------------------------------------------------

std::vector<std::string_view> lines_of(std::string_view text) {
    std::vector<std::string_view> lines;
    while (!text.empty()) {
        const size_t end = text.find('\n');
        lines.push_back(text.substr(0, end));
        text.remove_prefix(std::min(lines.back().size() + 1, text.size()));
    }
    return lines;
}

std::vector<std::string_view> parts_of(std::string_view input, size_t count) {
    static constexpr std::string_view SEPARATOR = "\n%\n";
    std::vector<std::string_view> parts;
    for (size_t at = input.find(SEPARATOR); at != input.npos; at = input.find(SEPARATOR)) {
        parts.push_back(input.substr(0, at));
        input.remove_prefix(at + SEPARATOR.size());
    }
    parts.push_back(input);
    parts.resize(std::max(parts.size(), count));
    return parts;
}

unsigned take_byte(std::string_view *input) {
    if (input->empty())
        return 0;
    const auto byte = static_cast<unsigned char>(input->front());
    input->remove_prefix(1);
    return byte;
}

// ---- Models -------------------------------------------------------------------------------

std::optional<int64_t> decimal(std::string_view text) {
    if (text.empty() || text.size() > 18 ||
        text.find_first_not_of("0123456789") != std::string_view::npos)
        return std::nullopt;
    return std::stoll(std::string(text));
}

std::string_view up_to_nul(std::string_view text) {
    return text.substr(0, text.find('\0'));
}

std::vector<std::string> items_of(const strlist &list) {
    return {list.begin(), list.end()};
}

// ---- Files --------------------------------------------------------------------------------

namespace {

class state_directory {
public:
    state_directory() {
        const char *chosen = getenv("TMPDIR");
        const char *folder = chosen ? chosen : "/dev/shm";
        path_ = std::string(access(folder, W_OK) == 0 ? folder : "/tmp") + "/tbx-fuzz-XXXXXX";
        CHECK(mkdtemp(path_.data()) != nullptr);
        setenv("TBX_TEST", "1", 1);
        setenv("TBX_VAR", path_.c_str(), 1);
        setenv("TBX_CONF", (path_ + "/tellbox.conf").c_str(), 1);
        init_environment("tbx");
    }
    ~state_directory() { remove_all(path_); }
    state_directory(const state_directory &) = delete;
    state_directory &operator=(const state_directory &) = delete;

    [[nodiscard]] const std::string &path() const { return path_; }

private:
    std::string path_;
};

} // namespace

std::string state_path(const std::string &name) {
    static const state_directory directory; // for as long as the process
    return directory.path() + "/" + name;
}

void make_folder(const std::string &path) {
    std::error_code error;
    std::filesystem::create_directories(path, error);
    CHECK(!error);
}

void put_file(const std::string &path, std::string_view text) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file << text << std::flush;
    CHECK(file.good());
}

void remove_all(const std::string &path) {
    std::error_code error;
    std::filesystem::remove_all(path, error);
    CHECK(!error);
}

std::string contents_of(const std::string &path) {
    std::ifstream file(path, std::ios::binary);
    CHECK(file.good());
    return {std::istreambuf_iterator<char>(file), {}};
}

// ---- Functions that end the process -------------------------------------------------------

namespace {

// Puts a stream of memory in the place of standard output or error for its lifetime.
class captured_stream {
public:
    explicit captured_stream(FILE **stream) : place_(stream), original_(*stream) {
        *place_ = open_memstream(&text_, &size_);
        CHECK(*place_ != nullptr);
    }
    ~captured_stream() {
        (void)text();
        free(text_);
    }
    captured_stream(const captured_stream &) = delete;
    captured_stream &operator=(const captured_stream &) = delete;

    // Puts the original back.
    std::string text() {
        if (*place_ != original_) {
            fclose(*place_);
            *place_ = original_;
        }
        return {text_, size_};
    }

private:
    FILE **place_;
    FILE *original_;
    char *text_ = nullptr;
    size_t size_ = 0;
};

} // namespace

std::optional<std::string> message_at_end(const std::function<void()> &body) {
    captured_stream errors(&stderr);
    try {
        survives_exit = true;
        body();
        survives_exit = false;
        return std::nullopt;
    } catch (const ended_process &end) {
        survives_exit = false;
        const std::string message = errors.text();
        CHECK(end.status == 1);
        return message;
    }
}

std::string output_of(const std::function<void()> &body) {
    captured_stream output(&stdout);
    body();
    return output.text();
}

std::string errors_of(const std::function<void()> &body) {
    captured_stream errors(&stderr);
    try {
        survives_exit = true;
        body();
    } catch (const ended_process &end) {
        CHECK(end.status == 1);
    }
    survives_exit = false;
    return errors.text();
}
