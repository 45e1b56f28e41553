// Shared by the tests of the mailboxes: pat's mailbox, and what operations make of it on a machine.
#pragma once

#include "support.h"
#include "tbx/mailbox.h"

#include <cstdio>
#include <string>

inline const resolved_user PAT = {"pat", PAT_UID, PAT_UID};

// Runs `operation` as root on a machine with that mailbox; what it says must be nothing but its
// own text.
template <typename Operation>
[[nodiscard]] std::string said_by(const real_mailbox &mailbox, Operation operation) {
    const child_result child = run_for_real(mailbox, machine_of_pat_and_sam(), [&operation] {
        fputs(std::string(operation()).c_str(), stdout);
    });
    EXPECT_EQ(child.exit_status, 0) << child.err;
    EXPECT_EQ(child.err, "");
    return child.out;
}

[[nodiscard]] inline std::string text_of(mailbox_state state) {
    switch (state) {
    case mailbox_state::found:
        return "found";
    case mailbox_state::absent:
        return "absent";
    case mailbox_state::barred:
        return "barred";
    case mailbox_state::failed:
        break;
    }
    return "failed";
}
