// Shared by the tests of accounts and recipients: a machine with a few people, and account files
// that cannot be read.
#pragma once

#include "support.h"

#include <sys/resource.h>

#include <functional>

// A small office: two people with a login shell, one of them an ordinary member of staff.
[[nodiscard]] inline private_machine office() {
    return {.passwd = "root:x:0:0:root:/root:/bin/bash\n"
                      "daemon:x:1:1::/:/usr/sbin/nologin\n"
                      "pat:x:1001:1001::/home/pat:/bin/bash\n"
                      "sam:x:1002:1002::/home/sam:/bin/sh\n"
                      "robot:x:1003:1003::/:/usr/sbin/nologin\n",
            .group = "root:x:0:\n"
                     "staff:x:50:pat\n"};
}

// What the machine says to `body`, which prints it; the child must end well.
[[nodiscard]] inline std::string said_on(const private_machine &machine,
                                         const std::function<void()> &body) {
    const child_result child = run_on(machine, body);
    EXPECT_EQ(child.exit_status, 0) << child.err;
    return child.out;
}

inline void print_list(const strlist &list) {
    fputs(joined(list).c_str(), stdout);
}

// Makes every look-up fail with EIO, as a broken disk does: the files open, but cannot be read.
inline void break_account_files() {
    for (const char *path : {"/etc/passwd", "/etc/group"}) {
        std::filesystem::remove(path);
        std::filesystem::create_symlink("/proc/self/mem", path);
    }
}

inline void use_up_descriptors() {
    const rlimit only_the_standard_three = {3, 3};
    if (setrlimit(RLIMIT_NOFILE, &only_the_standard_three) != 0)
        throw_errno("setrlimit");
}
