// The names in the own mailbox. Each line of the input is one entry: a byte for its folder, one for
// what it is (a file, a folder, a pipe, a link), then its name.
#include "common/environment.h"
#include "fuzz.h"
#include "user/answer.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <regex>

static constexpr const char *FOLDERS[] = {"inbox", "read", "acks", "state"};

static std::string place(const std::string &name) {
    static const std::string owner = [] {
        std::string found;
        CHECK(own_account(&found) == 0);
        return found;
    }();
    return state_path("users/" + owner + "/" + name);
}

// What stands there, by its path below the mailbox.
using entries = std::map<std::string, mode_t>;

static entries all_entries() {
    entries found;
    for (const std::string folder : FOLDERS) {
        DIR *listing = opendir(place(folder).c_str());
        CHECK(listing != nullptr);
        while (const dirent *entry = readdir(listing)) {
            const std::string name = folder + "/" + entry->d_name;
            struct stat status = {};
            CHECK(lstat(place(name).c_str(), &status) == 0);
            if (!name.ends_with("/.") && !name.ends_with("/.."))
                found[name] = status.st_mode & S_IFMT;
        }
        closedir(listing);
    }
    return found;
}

static void put(unsigned kind, const std::string &path) {
    switch (kind % 4) {
    case 0:
        (void)mkdir(path.c_str(), 0755); // there may be something already
        break;
    case 1:
        (void)mkfifo(path.c_str(), 0600);
        break;
    case 2:
        (void)!symlink("/nonexistent", path.c_str());
        break;
    default:
        if (!path_exists(path.c_str()))
            put_file(path, "text");
    }
}

static void furnish(std::string_view input) {
    remove_all(state_path("users"));
    for (const char *folder : FOLDERS)
        make_folder(place(folder));
    for (std::string_view line : lines_of(input)) {
        const std::string folder = FOLDERS[take_byte(&line) % 4];
        const unsigned kind = take_byte(&line);
        const std::string name(up_to_nul(line));
        if (!name.empty() && name.size() < NAME_MAX && name.find('/') == std::string::npos)
            put(kind, place(folder + "/" + name));
    }
}

// A file that a run of ours was writing: ".NAME.tmp", or with its writer in front of the end.
static bool is_leftover(const std::string &path) {
    static const std::regex PATTERN("(acks|read|state)/\\.[0-9]{1,18}(\\.term|\\.gui)?"
                                    "(\\.[0-9-]*)?\\.tmp");
    return std::regex_match(path, PATTERN);
}

static std::vector<int64_t> ids_in(const entries &present, const std::string &folder) {
    std::vector<int64_t> ids;
    for (const auto &[path, kind] : present) {
        const std::string name = path.substr(path.find('/') + 1);
        if (path.starts_with(folder + "/") && decimal(name) && name[0] != '0')
            ids.push_back(*decimal(name));
    }
    std::ranges::sort(ids);
    return ids;
}

void fuzz_one(std::string_view input) {
    furnish(input);
    const entries before = all_entries();
    own_mailbox box;
    std::string owner;
    CHECK(own_account(&owner) == 0 && mailbox_open(owner, &box) == mailbox_look::found);

    std::vector<int64_t> ids;
    CHECK(folder_ids(box.inbox, &ids) == 0 && ids == ids_in(before, "inbox"));
    CHECK(folder_ids(box.read, &ids) == 0 && ids == ids_in(before, "read"));
    std::vector<pending_message> pending;
    std::vector<waiting_message> waiting;
    CHECK(inbox_pending(box, now(), &pending) == 0);
    CHECK(inbox_waiting(box, now(), &waiting) == 0 && waiting.empty()); // none is a message
    for (const pending_message &one : pending)
        CHECK(!before.contains("acks/" + std::to_string(one.id)));

    const mailbox_lock lock = mailbox_lock::take(box);
    CHECK(lock.is_held());
    answer_remove_leftovers(box, lock);
    const entries after = all_entries();
    for (const auto &[path, kind] : before) {
        const bool goes = is_leftover(path) && kind != S_IFDIR;
        CHECK(after.contains(path) != goes);
    }
    CHECK(std::ranges::all_of(after,
                              [&](const auto &entry) { return before.contains(entry.first); }));
}
