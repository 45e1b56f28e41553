// Whose child it is: identity, groups, and what others may do to it.
#include "tbx/user_child.h"

#include "user_child_support.h"

#include <dlfcn.h>
#include <grp.h>
#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdarg>
#include <vector>

// ---- What the system is asked -------------------------------------------------------------

namespace {

int group_lookups = 0;
bool groups_fail = false;
bool dumpable_fails = false;
std::string protection; // when the child made itself not dumpable

// A line of /proc/self/status, without its name.
std::string status_line(const std::string &name) {
    const std::string status = read_file("/proc/self/status");
    const size_t start = status.find(name + ":\t") + name.size() + 2;
    return status.substr(start, status.find('\n', start) - start);
}

// What keeps others from this process: the capabilities that it could use, the signals it blocks.
std::string protection_now() {
    return status_line("Uid").substr(0, 4) + " caps " + status_line("CapPrm") + " blocks " +
           status_line("SigBlk");
}

} // namespace

extern "C" {
int getgrouplist(const char *user, gid_t group, gid_t *groups, int *count) {
    group_lookups++;
    if (groups_fail) {
        errno = ETIMEDOUT;
        return -1;
    }
    const auto real = reinterpret_cast<decltype(&getgrouplist)>(dlsym(RTLD_NEXT, "getgrouplist"));
    return real(user, group, groups, count);
}

int prctl(int option, ...) {
    va_list arguments;
    va_start(arguments, option);
    unsigned long values[4];
    for (unsigned long &value : values)
        value = va_arg(arguments, unsigned long);
    va_end(arguments);
    if (option == PR_SET_DUMPABLE && dumpable_fails) {
        errno = EPERM;
        return -1;
    }
    if (option == PR_SET_DUMPABLE)
        protection = protection_now();
    return static_cast<int>(syscall(SYS_prctl, option, values[0], values[1], values[2], values[3]));
}
}

namespace {

int print_identity(void *) {
    uid_t uids[3];
    gid_t gids[3];
    std::vector<gid_t> groups(NGROUPS_MAX);
    const int count = getgroups(NGROUPS_MAX, groups.data());
    if (getresuid(&uids[0], &uids[1], &uids[2]) != 0 ||
        getresgid(&gids[0], &gids[1], &gids[2]) != 0 || count < 0)
        return 1;
    groups.resize(static_cast<size_t>(count));
    std::sort(groups.begin(), groups.end());
    printf("%u %u %u, %u %u %u,", uids[0], uids[1], uids[2], gids[0], gids[1], gids[2]);
    for (const gid_t group : groups)
        printf(" %u", group);
    return 0;
}

} // namespace

// ---- Whose child it is --------------------------------------------------------------------

namespace {

// The identity of a child that runs as `user`, or "failed".
std::string identity_as(const resolved_user &user) {
    const real_state state;
    const child_result child = run_for_real(state, machine_of_pat_and_sam(), [&user] {
        const outcome inner = run(print_identity, nullptr, {}, SIZE_MAX, LONG_SECONDS, user);
        fputs(inner.result == 0 ? inner.output.c_str() : "failed", stdout);
    });
    EXPECT_EQ(child.exit_status, 0) << child.err;
    return child.out;
}

} // namespace

TEST(RunAsUser, ChildKeepsItsIdentityInTestMode) {
    SKIP_UNLESS_ROOT();
    const scratch_state state;
    const outcome child = run(print_identity);
    EXPECT_EQ(child.output.substr(0, 13), "0 0 0, 0 0 0,");
}

TEST(RunAsUserForReal, ChildIsTheUserWithTheUsersGroups) {
    SKIP_UNLESS_ROOT();
    EXPECT_EQ(identity_as(PAT), "1001 1001 1001, 1001 1001 1001, 50 1001");
    EXPECT_EQ(identity_as({"sam", SAM_UID, SAM_UID}), "1002 1002 1002, 1002 1002 1002, 1002");
}

TEST(RunAsUserForReal, PrimaryGroupIsTheOneGiven) {
    SKIP_UNLESS_ROOT();
    EXPECT_EQ(identity_as({"sam", SAM_UID, 50}), "1002 1002 1002, 50 50 50, 50");
}

TEST(RunAsUserForReal, NothingLeadsBackToRoot) {
    SKIP_UNLESS_ROOT();
    const real_state state;
    const child_result child = run_for_real(state, machine_of_pat_and_sam(), [] {
        return run([](void *) {
                   return setuid(0) != 0 && seteuid(0) != 0 && setresuid(0, 0, 0) != 0 &&
                                  setgid(0) != 0 && setgroups(0, nullptr) != 0
                              ? 10
                              : 20;
               })
            .result;
    });
    EXPECT_EQ(child.exit_status, 10) << child.err;
}

TEST(RunAsUserForReal, ParentStaysRoot) {
    SKIP_UNLESS_ROOT();
    const real_state state;
    const child_result child = run_for_real(state, machine_of_pat_and_sam(), [] {
        if (run(print_identity).result != 0)
            throw_errno("run_as_user");
        return print_identity(nullptr);
    });
    EXPECT_EQ(child.out.substr(0, 13), "0 0 0, 0 0 0,");
}

TEST(RunAsUserForReal, UserWithTheNumberOfRootIsRefused) {
    SKIP_UNLESS_ROOT();
    const shared_flag ran;
    const real_state state;
    const child_result child = run_for_real(state, machine_of_pat_and_sam(), [&ran] {
        const resolved_user root = {"root", 0, 0};
        const outcome inner = run(set_flag, ran.get(), {}, SIZE_MAX, LONG_SECONDS, root);
        return inner.end == child_outcome::failed ? 10 : 20;
    });
    EXPECT_EQ(child.exit_status, 10) << child.err;
    EXPECT_FALSE(ran.is_set());
}

TEST(RunAsUserForReal, NumberThatChangesNothingIsRefused) {
    SKIP_UNLESS_ROOT();
    EXPECT_EQ(identity_as({"pat", UINT32_MAX, PAT_UID}), "failed");
    EXPECT_EQ(identity_as({"pat", PAT_UID, UINT32_MAX}), "failed");
}

TEST(RunAsUserForReal, ChildOfAnOrdinaryUserKeepsItsIdentity) {
    SKIP_UNLESS_ROOT();
    const real_state state;
    const child_result child = run_for_real(state, machine_of_pat_and_sam(), [] {
        if (setgroups(0, nullptr) != 0 || setresgid(SAM_UID, SAM_UID, SAM_UID) != 0 ||
            setresuid(SAM_UID, SAM_UID, SAM_UID) != 0)
            throw_errno("sam");
        const outcome inner = run(print_identity);
        fputs(inner.output.c_str(), stdout);
        return inner.result;
    });
    EXPECT_EQ(child.exit_status, 0) << child.err;
    EXPECT_EQ(child.out, "1002 1002 1002, 1002 1002 1002,");
}

// ---- When the parent is killed ------------------------------------------------------------

namespace {

// Tells the pipe at the path of its argument who it is, and hangs.
int tell_and_hang(void *argument) {
    const unique_fd pipe(open(static_cast<const char *>(argument), O_WRONLY | O_CLOEXEC));
    const pid_t self = getpid();
    if (write(pipe.get(), &self, sizeof self) != sizeof self)
        return 1;
    while (true)
        pause();
}

// A process that is in run_as_user() with a child that hangs.
struct hanging_run {
    pid_t parent = -1;
    pid_t child = -1;

    explicit hanging_run(const real_state &state) {
        make_fifo(state.state_path("pipe"));
        give_file_to(state.state_path("pipe"), PAT_UID);
        parent = fork();
        if (parent == 0) {
            machine_of_pat_and_sam().enter();
            state.enter();
            char path[] = "/var/lib/tellbox/pipe";
            _exit(run(tell_and_hang, path).result & 0xff);
        }
        const unique_fd pipe(open(state.state_path("pipe").c_str(), O_RDONLY | O_CLOEXEC));
        if (read(pipe.get(), &child, sizeof child) != sizeof child)
            throw_errno("no child");
    }
};

} // namespace

TEST(RunAsUserForReal, ChildEndsWhenItsParentIsKilled) {
    SKIP_UNLESS_ROOT();
    const real_state state;
    const hanging_run hanging(state);
    const unique_fd child(static_cast<int>(syscall(SYS_pidfd_open, hanging.child, 0)));
    ASSERT_TRUE(child);
    kill(hanging.parent, SIGKILL);
    ASSERT_EQ(waitpid(hanging.parent, nullptr, 0), hanging.parent);
    pollfd end = {child.get(), POLLIN, 0};
    const bool ended = poll(&end, 1, LONG_SECONDS * 1000) == 1;
    EXPECT_TRUE(ended);
    if (!ended)
        kill(hanging.child, SIGKILL);
}

// ---- Its groups ---------------------------------------------------------------------------

TEST(RunAsUserForReal, GroupsAreLookedUpOnceInARun) {
    SKIP_UNLESS_ROOT();
    const real_state state;
    const child_result child = run_for_real(state, machine_of_pat_and_sam(), [] {
        for (int i = 0; i < 3; i++)
            printf("%s\n", run(print_identity).output.c_str());
        printf("%d", group_lookups);
    });
    const std::string pat = "1001 1001 1001, 1001 1001 1001, 50 1001\n";
    EXPECT_EQ(child.out, pat + pat + pat + "1");
}

TEST(RunAsUserForReal, ChildAsksNoAccountFiles) {
    SKIP_UNLESS_ROOT();
    const real_state state;
    const child_result child = run_for_real(state, machine_of_pat_and_sam(), [] {
        (void)run(print_identity);
        for (const char *file : {"/etc/passwd", "/etc/group", "/etc/nsswitch.conf"})
            std::filesystem::remove(file);
        printf("%s", run(print_identity).output.c_str());
    });
    EXPECT_EQ(child.out, "1001 1001 1001, 1001 1001 1001, 50 1001");
}

TEST(RunAsUserForReal, GroupsAreLookedUpAnewInTheNextRun) {
    SKIP_UNLESS_ROOT();
    const real_state state;
    const child_result child = run_for_real(state, machine_of_pat_and_sam(), [] {
        (void)run(print_identity);
        write_file("/etc/group", "pat:x:1001:\n");
        printf("%s\n", run(print_identity).output.c_str());
        user_times_renew();
        printf("%s\n", run(print_identity).output.c_str());
    });
    EXPECT_EQ(child.out, "1001 1001 1001, 1001 1001 1001, 50 1001\n"
                         "1001 1001 1001, 1001 1001 1001, 1001\n");
}

TEST(RunAsUserForReal, WithoutGroupsNoChildIsStarted) {
    SKIP_UNLESS_ROOT();
    const shared_flag ran;
    const real_state state;
    const child_result child = run_for_real(state, machine_of_pat_and_sam(), [&ran] {
        groups_fail = true;
        const outcome first = run(set_flag, ran.get());
        const bool says_why = errno == ETIMEDOUT;
        groups_fail = false;
        const bool ran_first = ran.is_set();
        const outcome next = run(set_flag, ran.get()); // a failure is not kept
        return first.end == child_outcome::failed && says_why && !ran_first &&
                       next.end == child_outcome::done
                   ? 10
                   : 20;
    });
    EXPECT_EQ(child.exit_status, 10) << child.err;
    EXPECT_TRUE(ran.is_set());
}

// ---- What others may do to it -------------------------------------------------------------

TEST(RunAsUserForReal, UserMayNotLookIntoTheChild) {
    SKIP_UNLESS_ROOT();
    const real_state state;
    const child_result child = run_for_real(state, machine_of_pat_and_sam(), [] {
        return run([](void *) { return prctl(PR_GET_DUMPABLE, 0, 0, 0, 0) == 0 ? 10 : 20; }).result;
    });
    EXPECT_EQ(child.exit_status, 10) << child.err;
}

// With fs.suid_dumpable 1 the system alone would let the user trace it, or make it dump core.
TEST(RunAsUserForReal, UserMayNotLookIntoTheChildWhileItBecomesTheUser) {
    SKIP_UNLESS_ROOT();
    const std::string root_caps = status_line("CapPrm");
    const real_state state;
    const child_result child = run_for_real(state, machine_of_pat_and_sam(), [] {
        const auto print = [](void *) {
            printf("%s", protection.c_str());
            return 0;
        };
        fputs(run(print, nullptr, {}, SIZE_MAX, LONG_SECONDS, PAT).output.c_str(), stdout);
    });
    EXPECT_EQ(child.out, "1001 caps " + root_caps + " blocks fffffffe7ffbfeff"); // all it can
}

TEST(RunAsUserForReal, ChildHasNoCapabilitiesAndBlocksNothing) {
    SKIP_UNLESS_ROOT();
    const real_state state;
    const child_result child = run_for_real(state, machine_of_pat_and_sam(), [] {
        const auto print = [](void *) {
            printf("%s", protection_now().c_str());
            return 0;
        };
        fputs(run(print, nullptr, {}, SIZE_MAX, LONG_SECONDS, PAT).output.c_str(), stdout);
    });
    EXPECT_EQ(child.out, "1001 caps 0000000000000000 blocks 0000000000000000");
}

TEST(RunAsUserForReal, ChildThatOthersCouldLookIntoRunsNothing) {
    SKIP_UNLESS_ROOT();
    const shared_flag ran;
    const real_state state;
    const child_result child = run_for_real(state, machine_of_pat_and_sam(), [&ran] {
        dumpable_fails = true;
        return run(set_flag, ran.get()).end == child_outcome::failed ? 10 : 20;
    });
    EXPECT_EQ(child.exit_status, 10) << child.err;
    EXPECT_FALSE(ran.is_set());
}
