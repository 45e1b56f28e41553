// Shared by the tests of the interface: a screen of a chosen size, keys that are typed, and
// what is drawn.
#pragma once

#include "support.h"

#include "tbx/tui/screen.h"
#include "tbx/tui/text.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <string_view>
#include <vector>

// The tests read keys without having started a session. A question takes an answer at once.
struct interface_rules : testing::Environment {
    void SetUp() override { tui.rules = &rules; }
    static session_rules unguarded() {
        session_rules changed = TUI_RULES;
        changed.guard_ms = 0;
        return changed;
    }
    const session_rules rules = unguarded();
};
inline testing::Environment *const rules_for_all_tests =
    testing::AddGlobalTestEnvironment(new interface_rules);

// A screen without colour, and as it was before once the test is over.
class scratch_screen {
public:
    explicit scratch_screen(int cols = 80, int rows = 24) { resize(cols, rows); }
    scratch_screen(const scratch_screen &) = delete;
    scratch_screen &operator=(const scratch_screen &) = delete;
    ~scratch_screen() {
        resize(80, 24);
        tui_styles_set(false);
    }
    void resize(int cols, int rows) const {
        tui.screen_cols = cols;
        tui.screen_rows = rows;
        tui.screen_changes++;
    }
    void colour() const { tui_styles_set(true); }
};

[[nodiscard]] inline std::vector<std::string> items(const strlist &list) {
    return {list.begin(), list.end()};
}

[[nodiscard]] inline strlist list_of(const std::vector<std::string> &lines) {
    strlist list;
    for (const std::string &line : lines)
        strlist_push_view(&list, line);
    return list;
}

// A pipe that holds `bytes`, its other end closed unless `stays_open`.
struct typed_bytes {
    explicit typed_bytes(std::string_view bytes, bool stays_open = false) {
        int fds[2];
        if (pipe2(fds, O_CLOEXEC) != 0)
            throw_errno("pipe2");
        reader.reset(fds[0]);
        writer.reset(fds[1]);
        type(bytes);
        if (!stays_open)
            writer.reset();
    }
    void type(std::string_view bytes) const {
        if (write_all(writer.get(), bytes.data(), bytes.size()) != 0)
            throw_errno("write");
    }
    unique_fd reader;
    unique_fd writer;
};

// Runs `body` in a child in which `keys` are typed, and then the terminal is gone. Its output
// holds the frames that were written.
template <typename Body> child_result run_with_keys(std::string_view keys, Body &&body) {
    return run_in_child([&] {
        const typed_bytes typed(keys);
        tui.input = {};
        tui.input.fd = typed.reader.get();
        return body();
    });
}

// How many times a dialog has been written to standard output, a memory file, as a whole.
[[nodiscard]] inline size_t dialogs_written() {
    const std::string output = read_file("/proc/self/fd/1");
    size_t dialogs = 0;
    for (size_t end = output.find("\033[J"); end != std::string::npos;
         end = output.find("\033[J", end + 1)) {
        const size_t start = output.rfind("\033[H", end);
        const std::string frame = output.substr(start, end - start);
        if (frame.find(" n  Cancel ") != std::string::npos ||
            frame.find("any key to continue") != std::string::npos)
            dialogs++;
    }
    return dialogs;
}

// Runs `body` in a process of its own as long as this object lives: somebody who acts while the
// interface runs. A thread could hold a lock of the allocator at the moment when the interface
// forks; its child would wait for that lock for ever.
class bystander {
public:
    explicit bystander(const std::function<void()> &body) : pid_(fork()) {
        if (pid_ < 0)
            throw_errno("fork");
        if (pid_ == 0) {
            body();
            _exit(0);
        }
    }
    bystander(const bystander &) = delete;
    bystander &operator=(const bystander &) = delete;
    ~bystander() {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }

private:
    pid_t pid_;
};

// The same in steps: each but the first is typed when one more dialog stands on the screen.
template <typename Body>
child_result run_with_steps(const std::vector<std::string> &steps, Body &&body) {
    return run_in_child([&] {
        typed_bytes typed(steps.front(), /*stays_open=*/true);
        tui.input = {};
        tui.input.fd = typed.reader.get();
        const bystander typist([&] {
            for (size_t step = 1; step < steps.size(); step++) {
                while (dialogs_written() < step)
                    usleep(1000);
                typed.type(steps[step]);
            }
        });
        typed.writer.reset(); // the last one ends with the typist
        return body();
    });
}

// Puts message `id`, delivered to root, into the store.
inline void add_message(const scratch_state &state, int id, const std::string &title,
                        const std::string &text) {
    const std::string number = std::to_string(id);
    const std::string dir = "sent/" + number + "/";
    state.write(dir + "msg", "format: 1\nid: " + number + "\nfrom: pat\ndate: " + number +
                                 "\ntitle: " + title + "\nexpires: \n\n" + text);
    state.write(dir + "recipients", "root\n");
    state.write(dir + "delivery", "root 1 0\n");
}

// The whole frames in `output`, one after the other, their lines ended by newlines, without
// styles.
[[nodiscard]] inline std::vector<std::string> frames_in(const std::string &output) {
    std::vector<std::string> frames;
    size_t end = 0;
    for (size_t start = output.find("\033[H"); start != std::string::npos;
         start = output.find("\033[H", end)) {
        end = output.find("\033[J", start);
        if (end == std::string::npos)
            break;
        std::string frame = output.substr(start + 3, end - start - 3) + "\n";
        for (size_t at = frame.find('\033'); at != std::string::npos; at = frame.find('\033'))
            frame.erase(at, frame.find('m', at) - at + 1);
        frames.push_back(frame);
    }
    return frames;
}

// The last of them, empty when there is none.
[[nodiscard]] inline std::string last_frame(const std::string &output) {
    const std::vector<std::string> frames = frames_in(output);
    return frames.empty() ? "" : frames.back();
}

// The last one that shows a confirmation or a message box, empty when there is none.
[[nodiscard]] inline std::string last_dialog(const std::string &output) {
    std::string found;
    for (const std::string &frame : frames_in(output))
        if (frame.find("any key to continue") != std::string::npos ||
            frame.find(" n  Cancel ") != std::string::npos)
            found = frame;
    return found;
}
