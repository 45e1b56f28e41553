// Shared by the tests of run_as_user(): running a callback as a user, and callbacks.
#pragma once

#include "support.h"
#include "tbx/user_child.h"

#include <sys/mman.h>
#include <unistd.h>

#include <optional>
#include <string>
#include <string_view>

inline const resolved_user PAT = {"pat", PAT_UID, PAT_UID};
constexpr int LONG_SECONDS = 60; // no test waits that long

// Memory that a child of this process changes for its parent too.
class shared_flag {
public:
    shared_flag()
        : flag_(static_cast<int *>(mmap(nullptr, sizeof(int), PROT_READ | PROT_WRITE,
                                        MAP_SHARED | MAP_ANONYMOUS, -1, 0))) {
        if (flag_ == MAP_FAILED)
            throw_errno("mmap");
    }
    shared_flag(const shared_flag &) = delete;
    shared_flag &operator=(const shared_flag &) = delete;
    ~shared_flag() { munmap(flag_, sizeof(int)); }

    [[nodiscard]] int *get() const { return flag_; }
    [[nodiscard]] bool is_set() const { return *flag_ != 0; }

private:
    int *flag_;
};

struct outcome {
    child_outcome end;
    int result; // -1 unless the callback ran to its end
    std::string output;
};

// Runs `callback` with input (or none) and takes its output.
inline outcome run(user_callback callback, void *argument = nullptr,
                   const std::optional<std::string_view> &input = {},
                   size_t output_limit = SIZE_MAX, int timeout_seconds = LONG_SECONDS,
                   const resolved_user &user = PAT) {
    strbuf output;
    const child_end end = run_as_user(user, callback, argument, input ? &*input : nullptr, &output,
                                      output_limit, timeout_seconds);
    return {end.outcome, end.status, std::string(output.view())};
}

// ---- Callbacks ----

inline int set_flag(void *argument) {
    *static_cast<int *>(argument) = 1;
    return 0;
}

inline int print_and_hang(void *) {
    printf("%d", getpid());
    fflush(stdout);
    while (true)
        pause();
}
