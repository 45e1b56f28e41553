// Shared by the tests of the recipients' programs: a mailbox of whoever runs the test, in test
// mode.
#pragma once

#include "support.h"
#include "user/answer.h"
#include "user/events.h"
#include "user/inbox.h"

#include <gmock/gmock.h>

#include <ucontext.h>

#include <algorithm>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

constexpr int64_t HALF_AN_HOUR = 1800;

struct tried_mailbox : scratch_state {
    tried_mailbox() {
        if (own_account(&owner) != 0)
            throw_errno("own account");
        for (const char *folder : {"inbox", "read", "acks", "state"})
            std::filesystem::create_directories(file(folder));
    }

    [[nodiscard]] std::string file(const std::string &name) const {
        return path("users/" + owner + "/" + name);
    }
    void put(const std::string &name, std::string_view text) const { write_file(file(name), text); }
    // A message that expires at `expires`, 0 for never.
    void put_message(int64_t id, const std::string &text = "Hello\n", int64_t expires = 0) const {
        message_record message = {id, "root", 1'790'000'000, "", expires, text};
        strbuf contents;
        message_format(message, &contents);
        put("inbox/" + std::to_string(id), contents.view());
    }
    [[nodiscard]] bool has(const std::string &name) const {
        return path_exists(file(name).c_str()) != 0;
    }
    [[nodiscard]] std::string text(const std::string &name) const { return read_file(file(name)); }
    // Moves a file's time to that many seconds from now, into the past if it is negative.
    void age(const std::string &name, int64_t seconds) const {
        const timespec times[] = {{now() + seconds, 0}, {now() + seconds, 0}};
        if (utimensat(AT_FDCWD, file(name).c_str(), times, AT_SYMLINK_NOFOLLOW) != 0)
            throw_errno(name);
    }
    [[nodiscard]] own_mailbox open() const {
        own_mailbox box;
        if (mailbox_open(owner, &box) != mailbox_look::found)
            throw_errno(box.path);
        return box;
    }
    // Every file in the mailbox, in order.
    [[nodiscard]] std::string files() const {
        std::vector<std::string> names;
        for (const auto &entry : std::filesystem::recursive_directory_iterator(file("")))
            if (!entry.is_directory() || entry.is_symlink())
                names.push_back(std::filesystem::relative(entry.path(), file("")));
        std::ranges::sort(names);
        std::string line;
        for (const std::string &name : names)
            line += (line.empty() ? "" : " ") + name;
        return line;
    }

    std::string owner;
};

// ---- The event loop -----------------------------------------------------------------------

[[nodiscard]] inline unique_loop new_loop() {
    sd_event *loop = nullptr;
    if (sd_event_new(&loop) < 0)
        throw std::runtime_error("no event loop");
    return unique_loop(loop);
}

// Lets the loop do what there is to do now, for a while at most.
inline void run_what_is_ready(const unique_loop &loop) {
    constexpr int ROUNDS_MAX = 1000;
    for (int round = 0; round < ROUNDS_MAX && sd_event_run(loop.get(), 0) > 0; round++) {
    }
}

// ---- Calls that do something else ---------------------------------------------------------
// For a child only.

// Makes the system unable to create files without a name, as some file systems are.
inline void refuse_unnamed_files() {
    sock_filter program[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_openat, 0, 4),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, args[2])),
        BPF_STMT(BPF_ALU | BPF_AND | BPF_K, O_TMPFILE),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, O_TMPFILE, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EOPNOTSUPP),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    filter_calls(program);
}

// Runs `action`, with the call's first argument, in place of every call of this number. What it
// returns is the call's result: 0 or more, or a negative errno. It must not make that call itself.
inline void trap_call(uint32_t number, long (*action)(long first)) {
    static long (*trapped)(long first);
    trapped = action;
    struct sigaction handler = {};
    handler.sa_flags = SA_SIGINFO;
    handler.sa_sigaction = [](int, siginfo_t *, void *context) {
        mcontext_t &machine = static_cast<ucontext_t *>(context)->uc_mcontext;
        const int saved = errno;
#if defined __x86_64__
        machine.gregs[REG_RAX] = trapped(machine.gregs[REG_RDI]);
#elif defined __aarch64__
        machine.regs[0] = static_cast<uint64_t>(trapped(static_cast<long>(machine.regs[0])));
#else
#error "the registers of this machine are missing here"
#endif
        errno = saved;
    };
    sock_filter program[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, number, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_TRAP),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    if (sigaction(SIGSYS, &handler, nullptr) != 0)
        throw_errno("SIGSYS");
    filter_calls(program);
}
