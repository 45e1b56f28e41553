// run_as_user(): the child that every mailbox operation runs in.
#include "tbx/mailbox.h"

#include "support.h"

#include <grp.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <vector>

namespace {

const resolved_user PAT = {"pat", PAT_UID, PAT_UID};
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
    int result;
    std::string output;
};

// Runs `callback` with input (or none) and takes its output.
outcome run(user_callback callback, void *argument = nullptr,
            const std::optional<std::string_view> &input = {}, size_t output_limit = SIZE_MAX,
            int timeout_seconds = LONG_SECONDS, const resolved_user &user = PAT) {
    strbuf output;
    const int result = run_as_user(user, callback, argument, input ? &*input : nullptr, &output,
                                   output_limit, timeout_seconds);
    return {result, std::string(output.view())};
}

// ---- Callbacks ----

int return_argument(void *argument) {
    return *static_cast<int *>(argument);
}

int set_flag(void *argument) {
    *static_cast<int *>(argument) = 1;
    return 0;
}

int copy_input_to_output(void *) {
    char chunk[10'000];
    ssize_t length = 0;
    while ((length = read(STDIN_FILENO, chunk, sizeof chunk)) > 0)
        if (write_all(STDOUT_FILENO, chunk, static_cast<size_t>(length)) != 0)
            return 1;
    return length == 0 ? 0 : 2;
}

int print_and_hang(void *) {
    printf("%d", getpid());
    fflush(stdout);
    while (true)
        pause();
}

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

// Test mode, in which every child keeps the identity of its parent.
class RunAsUser : public testing::Test {
    const scratch_state state_;
};

} // namespace

// ---- Exit status --------------------------------------------------------------------------

TEST_F(RunAsUser, ReturnsTheExitStatus) {
    for (int status = 0; status <= 255; status++) {
        const int expected = status == 126 ? -1 : status; // 126 is reserved
        EXPECT_EQ(run(return_argument, &status).result, expected);
    }
}

TEST_F(RunAsUser, TakesTheResultModulo256) {
    for (const auto &[returned, status] : {std::pair(256 + 5, 5), {-1, 255}, {0x7f00, 0}}) {
        int argument = returned;
        EXPECT_EQ(run(return_argument, &argument).result, status);
    }
}

TEST_F(RunAsUser, ReservedStatusIsAFailure) {
    for (const int reserved : {126, 256 + 126, -130}) {
        int argument = reserved;
        EXPECT_EQ(run(return_argument, &argument).result, -1);
    }
}

TEST_F(RunAsUser, ChildEndedByASignalIsAFailure) {
    for (int signal_number : {SIGKILL, SIGTERM, SIGPIPE})
        EXPECT_EQ(
            run([](void *number) { return raise(*static_cast<int *>(number)); }, &signal_number)
                .result,
            -1);
}

TEST_F(RunAsUser, LeavesNoChildAndNoDescriptor) {
    const size_t before = open_descriptors();
    EXPECT_EQ(run(copy_input_to_output, nullptr, "text").result, 0);
    EXPECT_EQ(open_descriptors(), before);
    EXPECT_TRUE(has_no_children());
}

// ---- The child's surroundings -------------------------------------------------------------

TEST_F(RunAsUser, ChildStandsAtTheRootWithItsOwnMask) {
    const mode_t mask = umask(077);
    const outcome child = run([](void *) {
        char directory[PATH_MAX];
        printf("%s %03o", getcwd(directory, sizeof directory), umask(0));
        return 0;
    });
    umask(mask);
    EXPECT_EQ(child.output, "/ 022");
}

TEST_F(RunAsUser, ChildHasOnlyTheStandardDescriptors) {
    const unique_fd held(open("/dev/null", O_RDONLY | O_CLOEXEC)); // a lock, for example
    const outcome child = run(
        [](void *) {
            for (int fd = STDERR_FILENO + 1; fd < 1000; fd++)
                if (fcntl(fd, F_GETFD) >= 0)
                    return 1;
            return 0;
        },
        nullptr, "text");
    EXPECT_EQ(child.result, 0);
    EXPECT_GE(fcntl(held.get(), F_GETFD), 0); // the parent keeps its own
}

TEST_F(RunAsUser, StandardErrorIsNowhere) {
    const outcome child = run([](void *) {
        struct stat status = {};
        struct stat null = {};
        return fstat(STDERR_FILENO, &status) == 0 && stat("/dev/null", &null) == 0 &&
                       status.st_rdev == null.st_rdev
                   ? 0
                   : 1;
    });
    EXPECT_EQ(child.result, 0);
}

TEST_F(RunAsUser, WithoutInputStandardInputIsEmpty) {
    const child_result child = run_in_child([] {
        replace_standard_input();
        return run([](void *) {
                   struct stat status = {};
                   char byte = 0;
                   return fstat(STDIN_FILENO, &status) == 0 && S_ISCHR(status.st_mode) &&
                                  read(STDIN_FILENO, &byte, 1) == 0
                              ? 10
                              : 20;
               })
            .result;
    });
    EXPECT_EQ(child.exit_status, 10);
}

TEST_F(RunAsUser, WhatWasPrintedBeforeIsPrintedOnce) {
    const child_result child = run_in_child([] {
        printf("before\n");
        fprintf(stderr, "error\n");
        const outcome inner = run([](void *) {
            printf("inside");
            return 0;
        });
        printf("%s\n", inner.output.c_str());
    });
    EXPECT_EQ(child.out, "before\ninside\n");
    EXPECT_EQ(child.err, "error\n");
}

TEST_F(RunAsUser, BrokenPipeEndsTheChildWhateverTheParentDoes) {
    const child_result child = run_in_child([] {
        signal(SIGPIPE, SIG_IGN);
        const outcome inner = run([](void *) {
            struct sigaction action = {};
            sigaction(SIGPIPE, nullptr, &action);
            return action.sa_handler == SIG_DFL ? 10 : 20;
        });
        return inner.result;
    });
    EXPECT_EQ(child.exit_status, 10);
}

// ---- Input and output ---------------------------------------------------------------------

TEST_F(RunAsUser, PassesInputAndTakesOutput) {
    const outcome child = run(copy_input_to_output, nullptr, "some text\n");
    EXPECT_EQ(child.result, 0);
    EXPECT_EQ(child.output, "some text\n");
}

TEST_F(RunAsUser, EmptyInputEndsAtOnce) {
    const outcome child = run(copy_input_to_output, nullptr, "");
    EXPECT_EQ(child.result, 0);
    EXPECT_EQ(child.output, "");
}

TEST_F(RunAsUser, PassesMuchBothWaysAtOnce) {
    std::string text;
    while (text.size() < 2'000'000)
        text += std::to_string(text.size()) + "\n";
    const outcome child = run(copy_input_to_output, nullptr, text);
    EXPECT_EQ(child.result, 0);
    EXPECT_TRUE(child.output == text); // not printed when it differs
}

TEST_F(RunAsUser, FlushesTheOutputOfTheCallback) {
    EXPECT_EQ(run([](void *) {
                  printf("not flushed");
                  return 0;
              }).output,
              "not flushed");
}

TEST_F(RunAsUser, DropsOutputOverTheLimitWithoutBlockingTheChild) {
    const std::string text = "0123456789" + std::string(1'000'000, 'x');
    const outcome child = run(copy_input_to_output, nullptr, text, /*output_limit=*/10);
    EXPECT_EQ(child.result, 0);
    EXPECT_EQ(child.output, "0123456789");
}

TEST_F(RunAsUser, LimitCountsWhatTheBufferHeldBefore) {
    const std::string_view input = "abcdef";
    strbuf output;
    strbuf_append_str(&output, "1234");
    EXPECT_EQ(run_as_user(PAT, copy_input_to_output, nullptr, &input, &output, 6, LONG_SECONDS), 0);
    EXPECT_EQ(output.view(), "1234ab");
}

TEST_F(RunAsUser, BufferThatIsOverTheLimitGetsNothing) {
    const std::string_view input = "abcdef";
    strbuf output;
    strbuf_append_str(&output, "12345678");
    EXPECT_EQ(run_as_user(PAT, copy_input_to_output, nullptr, &input, &output, 6, LONG_SECONDS), 0);
    EXPECT_EQ(output.view(), "12345678");
}

TEST_F(RunAsUser, OutputThatNobodyWantsIsDropped) {
    const std::string text(1'000'000, 'x');
    const std::string_view input = text;
    EXPECT_EQ(run_as_user(PAT, copy_input_to_output, nullptr, &input, nullptr, 0, LONG_SECONDS), 0);
}

TEST_F(RunAsUser, ChildThatReadsNothingEndsNobody) {
    const child_result child = run_in_child([] {
        signal(SIGPIPE, SIG_DFL);
        const std::string text(1'000'000, 'x'); // more than a pipe takes
        int status = 5;
        return run(return_argument, &status, text).result;
    });
    EXPECT_EQ(child.exit_status, 5);
}

TEST_F(RunAsUser, ChildThatStopsReadingStillReports) {
    const std::string text(1'000'000, 'x');
    const outcome child = run(
        [](void *) {
            close(STDIN_FILENO);
            printf("report");
            return 3;
        },
        nullptr, text);
    EXPECT_EQ(child.result, 3);
    EXPECT_EQ(child.output, "report");
}

TEST_F(RunAsUser, ChildMayCloseItsOutputBeforeItEnds) {
    const std::string text(1'000'000, 'x'); // keeps the input open until the parent gives up
    const outcome child = run(
        [](void *) {
            close(STDOUT_FILENO);
            char chunk[10'000];
            while (read(STDIN_FILENO, chunk, sizeof chunk) > 0) {
            }
            return 7;
        },
        nullptr, text);
    EXPECT_EQ(child.result, 7);
}

TEST_F(RunAsUser, PutsTheHandlingOfBrokenPipesBack) {
    const child_result child = run_in_child([] {
        bool same = true;
        for (void (*handler)(int) : {SIG_DFL, SIG_IGN, static_cast<void (*)(int)>([](int) {})}) {
            signal(SIGPIPE, handler);
            if (run(copy_input_to_output, nullptr, "text").result != 0)
                return 1;
            same = signal(SIGPIPE, SIG_DFL) == handler && same;
        }
        return same ? 10 : 20;
    });
    EXPECT_EQ(child.exit_status, 10);
}

// ---- The time limit -----------------------------------------------------------------------

TEST_F(RunAsUser, HangingChildIsKilledAtTheLimit) {
    const outcome child = run(print_and_hang, nullptr, {}, SIZE_MAX, /*timeout_seconds=*/1);
    EXPECT_EQ(child.result, -1);
    EXPECT_TRUE(has_no_children());
    const pid_t pid = std::stoi(child.output);
    EXPECT_EQ(kill(pid, 0), -1);
    EXPECT_EQ(errno, ESRCH);
}

TEST_F(RunAsUser, ChildThatHangsWithItsOutputClosedIsKilledAtTheLimit) {
    const outcome child = run(
        [](void *) -> int {
            close(STDOUT_FILENO);
            while (true)
                pause();
        },
        nullptr, {}, SIZE_MAX, /*timeout_seconds=*/1);
    EXPECT_EQ(child.result, -1);
    EXPECT_TRUE(has_no_children());
}

TEST_F(RunAsUser, ChildThatNeverReadsOrEndsIsKilledAtTheLimit) {
    const std::string text(1'000'000, 'x');
    EXPECT_EQ(run(print_and_hang, nullptr, text, SIZE_MAX, /*timeout_seconds=*/1).result, -1);
    EXPECT_TRUE(has_no_children());
}

TEST_F(RunAsUser, WithoutTimeTheChildIsKilled) {
    EXPECT_EQ(run(print_and_hang, nullptr, {}, SIZE_MAX, /*timeout_seconds=*/0).result, -1);
    EXPECT_TRUE(has_no_children());
}

// ---- Children that cannot be started ------------------------------------------------------

TEST_F(RunAsUser, WithoutDescriptorsFailsAndLeavesNone) {
    const shared_flag ran;
    for (const rlim_t room : {0U, 2U}) { // for no pipe, and for one of the two
        const child_result child = run_in_child([&ran, room] {
            const size_t before = open_descriptors();
            rlimit old = {};
            getrlimit(RLIMIT_NOFILE, &old);
            leave_descriptors(room);
            if (run(set_flag, ran.get(), "text").result != -1)
                return 20;
            setrlimit(RLIMIT_NOFILE, &old);
            return open_descriptors() == before ? 10 : 30;
        });
        EXPECT_EQ(child.exit_status, 10) << room;
    }
    EXPECT_FALSE(ran.is_set());
}

TEST_F(RunAsUser, WithoutProcessesFailsAndLeavesNoDescriptor) {
    SKIP_UNLESS_ROOT();
    const child_result child = run_in_child([] {
        const size_t before = open_descriptors();
        const rlimit none = {0, 0}; // holds for an ordinary user only
        if (setrlimit(RLIMIT_NPROC, &none) != 0 || setresuid(PAT_UID, PAT_UID, PAT_UID) != 0)
            throw_errno("setrlimit");
        const outcome inner = run(copy_input_to_output, nullptr, "text");
        return inner.result == -1 && open_descriptors() == before ? 10 : 20;
    });
    EXPECT_EQ(child.exit_status, 10);
}

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

TEST_F(RunAsUser, ChildKeepsItsIdentityInTestMode) {
    SKIP_UNLESS_ROOT();
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
        return run(set_flag, ran.get(), {}, SIZE_MAX, LONG_SECONDS, root).result == -1 ? 10 : 20;
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
