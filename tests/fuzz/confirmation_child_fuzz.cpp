// The child that looks into a mailbox, as the user. The first part of the input is what it reads
// on standard input; each further part is a file of the mailbox: its name ("acks/7",
// "state/7.gui") on the first line, behind it what it holds. A "|" before the name makes it a
// pipe, a ">" a link to the file named by what it holds, a "/" a folder. Of state files the
// number that they hold is the time.
#include "fuzz.h"
#include "tbx/confirmation.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <map>

static constexpr size_t FILES_MAX = 12;
static constexpr size_t ACK_MAX_BYTES = 200;
static constexpr size_t IDENTIFIER_MAX_DIGITS = 23;

// ---- The mailbox --------------------------------------------------------------------------

static bool is_file_name(std::string_view name) {
    const bool has_folder = name.starts_with("acks/") || name.starts_with("state/");
    const size_t slash = name.find('/');
    return has_folder && name.size() > slash + 1 && name.size() < slash + 40 &&
           name.find_first_not_of("0123456789.termgui", slash + 1) == name.npos &&
           name.substr(slash + 1) != "." && name.substr(slash + 1) != "..";
}

static void set_time(const std::string &path, std::string_view seconds) {
    const timespec time = {.tv_sec = decimal(seconds.substr(0, 10)).value_or(0), .tv_nsec = 0};
    const timespec times[] = {time, time};
    CHECK(utimensat(AT_FDCWD, path.c_str(), times, 0) == 0);
}

static void put_in_mailbox(char kind, const std::string &path, std::string_view text) {
    if (path_exists(path.c_str()))
        return;
    if (kind == '/') {
        make_folder(path);
    } else if (kind == '|') {
        CHECK(mkfifo(path.c_str(), 0600) == 0);
    } else if (kind == '>') {
        const std::string target(is_file_name(text) ? "../" + std::string(text) : "nowhere");
        CHECK(symlink(target.c_str(), path.c_str()) == 0);
    } else {
        put_file(path, text);
        set_time(path, text);
    }
}

static void furnish(const std::string &mailbox, const std::vector<std::string_view> &parts) {
    remove_all(mailbox);
    make_folder(mailbox + "/acks");
    make_folder(mailbox + "/state");
    for (size_t i = 1; i < std::min(parts.size(), FILES_MAX + 1); i++) {
        std::string_view name = parts[i].substr(0, parts[i].find('\n'));
        const std::string_view text = parts[i].substr(std::min(name.size() + 1, parts[i].size()));
        const char kind = name.empty() ? '\0' : name.front();
        if (kind == '/' || kind == '|' || kind == '>')
            name.remove_prefix(1);
        if (is_file_name(name))
            put_in_mailbox(kind, mailbox + "/" + std::string(name), text);
    }
}

// ---- What the report must say -------------------------------------------------------------

static bool is_regular(const std::string &path) {
    struct stat status = {};
    return stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
}

static int64_t time_of(const std::string &path) {
    struct stat status = {};
    return is_regular(path) && stat(path.c_str(), &status) == 0 ? status.st_mtime : 0;
}

static std::string report_by_the_rules(const std::string &mailbox, std::string_view identifiers) {
    std::string report;
    for (const std::string_view line : lines_of(identifiers)) {
        if (line.empty() || line.size() > IDENTIFIER_MAX_DIGITS ||
            line.find_first_not_of("0123456789") != line.npos)
            continue;
        const std::string id(line);
        const std::string ack = mailbox + "/acks/" + id;
        if (is_regular(ack)) {
            const std::string text = contents_of(ack).substr(0, ACK_MAX_BYTES);
            const std::string_view first_line = up_to_nul(text).substr(0, text.find('\n'));
            report.append("A ").append(id).append(" ").append(first_line).append("\n");
        }
        const int64_t shown = std::max(time_of(mailbox + "/state/" + id + ".term"),
                                       time_of(mailbox + "/state/" + id + ".gui"));
        if (shown != 0)
            report.append("S ").append(id).append(" ").append(std::to_string(shown)).append("\n");
    }
    return report;
}

// ---- Running the child's part -------------------------------------------------------------

// A file in memory in the place of a standard descriptor.
static int standard_file(int fd) {
    const int memory = memfd_create("standard", MFD_CLOEXEC);
    CHECK(memory >= 0 && dup2(memory, fd) == fd);
    return memory;
}

static void refill(int fd, std::string_view text) {
    CHECK(ftruncate(fd, 0) == 0 && lseek(fd, 0, SEEK_SET) == 0);
    CHECK(write_all(fd, text.data(), text.size()) == 0 && lseek(fd, 0, SEEK_SET) == 0);
}

static std::string reported(std::string mailbox, std::string_view identifiers) {
    static const int input = standard_file(STDIN_FILENO);
    static const int output = standard_file(STDOUT_FILENO);
    static const int home = open(".", O_PATH | O_DIRECTORY | O_CLOEXEC);
    refill(input, identifiers);
    refill(output, "");
    CHECK(mailbox_report_confirmations(mailbox.data()) == 0);
    CHECK(fchdir(home) == 0); // the fuzzer's own paths may be relative
    return contents_of("/proc/self/fd/" + std::to_string(output));
}

void fuzz_one(std::string_view input) {
    const std::string mailbox = state_path("users/pat");
    const auto parts = parts_of(input, 1);
    furnish(mailbox, parts);
    const std::string report = reported(mailbox, parts[0]);
    CHECK(report == report_by_the_rules(mailbox, parts[0]));

    confirmation_list list;
    confirmation_parse(report, &list);
    for (const std::string_view id : lines_of(parts[0]))
        CHECK(!is_regular(mailbox + "/acks/" + std::string(id)) || !decimal(id) ||
              confirmation_find(list, *decimal(id)) != nullptr);
}
