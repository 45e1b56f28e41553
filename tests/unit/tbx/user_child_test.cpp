#include "tbx/user_child.h"

#include "user_child_support.h"

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

// ---- Callbacks ----

int return_argument(void *argument) {
    return *static_cast<int *>(argument);
}

int copy_input_to_output(void *) {
    char chunk[10'000];
    ssize_t length = 0;
    while ((length = read(STDIN_FILENO, chunk, sizeof chunk)) > 0)
        if (write_all(STDOUT_FILENO, chunk, static_cast<size_t>(length)) != 0)
            return 1;
    return length == 0 ? 0 : 2;
}

// "NUMBER TARGET, ..." of every descriptor there is.
int print_descriptors(void *) {
    const unique_dir directory(opendir("/proc/self/fd"));
    std::map<int, std::string> targets;
    while (const dirent *entry = readdir(directory.get()))
        if (is_all_digits(entry->d_name) != 0)
            targets[std::stoi(entry->d_name)] =
                std::filesystem::read_symlink(std::string("/proc/self/fd/") + entry->d_name);
    targets.erase(dirfd(directory.get()));
    const char *separator = "";
    for (const auto &[number, target] : targets) {
        printf("%s%d %s", separator, number, target.starts_with("pipe:") ? "pipe" : target.c_str());
        separator = ", ";
    }
    return 0;
}

// Test mode, in which every child keeps the identity of its parent.
class RunAsUser : public testing::Test {
protected:
    RunAsUser() { user_times_renew(); } // which the tests before may have used

private:
    const scratch_state state_;
};

} // namespace

// ---- Exit status --------------------------------------------------------------------------

TEST_F(RunAsUser, ReturnsTheExitStatus) {
    for (int status = 0; status <= 255; status++) {
        const outcome child = run(return_argument, &status);
        const bool is_reserved = status == 126;
        EXPECT_EQ(child.end, is_reserved ? child_outcome::failed : child_outcome::done);
        EXPECT_EQ(child.result, is_reserved ? -1 : status);
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
        const outcome child = run(return_argument, &argument);
        EXPECT_EQ(errno, EPERM);
        EXPECT_EQ(child.end, child_outcome::failed);
        EXPECT_EQ(child.result, -1);
    }
}

TEST_F(RunAsUser, ChildEndedByASignalIsTheUsersDoing) {
    for (int signal_number : {SIGKILL, SIGTERM, SIGPIPE}) {
        const outcome child =
            run([](void *number) { return raise(*static_cast<int *>(number)); }, &signal_number);
        EXPECT_EQ(child.end, child_outcome::refused);
        EXPECT_EQ(child.result, -1);
    }
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

TEST_F(RunAsUser, ChildHasThreeDescriptorsAndNoneOfOurs) {
    const unique_fd held(open("/dev/zero", O_RDONLY | O_CLOEXEC)); // a lock, for example
    const unique_fd inheritable(dup(held.get()));
    EXPECT_EQ(run(print_descriptors, nullptr, "text").output, "0 pipe, 1 pipe, 2 /dev/null");
    EXPECT_EQ(run(print_descriptors).output, "0 /dev/null, 1 pipe, 2 /dev/null");
    EXPECT_GE(fcntl(held.get(), F_GETFD), 0); // the parent keeps its own
}

TEST_F(RunAsUser, ChildRunsNothingWithoutANullDevice) {
    const shared_flag ran;
    for (const uint32_t call : {static_cast<uint32_t>(SYS_openat), DUP2_CALL}) {
        const child_result child = run_in_child([&ran, call] {
            refuse_call(call, EMFILE);
            return run(set_flag, ran.get(), "text").end == child_outcome::failed ? 10 : 20;
        });
        EXPECT_EQ(child.exit_status, 10) << child.err;
    }
    EXPECT_FALSE(ran.is_set());
}

TEST(DropDescriptors, LeavesNullDevicesOnly) {
    const child_result outer = run_in_child([] {
        const int report = memfd_create("report", 0);
        const pid_t child = fork();
        if (child == 0) {
            char path[64];
            snprintf(path, sizeof path, "/proc/%d/fd/%d", getppid(), report);
            drop_descriptors_or_exit(77);
            const int out = open(path, O_WRONLY | O_CLOEXEC); // 3, where nothing else is open
            dup2(out, STDOUT_FILENO);
            close(out);
            printf("%d, ", out);
            print_descriptors(nullptr);
            fflush(stdout);
            _exit(0);
        }
        (void)exit_status_of(child);
        fputs(read_file("/proc/self/fd/" + std::to_string(report)).c_str(), stdout);
    });
    EXPECT_EQ(outer.out, "3, 0 /dev/null, 1 /memfd:report (deleted), 2 /dev/null") << outer.err;
}

TEST(DropDescriptors, EndsTheChildWhereThereIsNoNullDevice) {
    for (const uint32_t call : {static_cast<uint32_t>(SYS_openat), DUP2_CALL}) {
        const child_result child = run_in_child([call] {
            refuse_call(call, EMFILE);
            drop_descriptors_or_exit(77);
        });
        EXPECT_EQ(child.exit_status, 77);
    }
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
    EXPECT_TRUE(run_as_user(PAT, copy_input_to_output, nullptr, &input, &output, 6, LONG_SECONDS)
                    .succeeded());
    EXPECT_EQ(output.view(), "1234ab");
}

TEST_F(RunAsUser, BufferThatIsOverTheLimitGetsNothing) {
    const std::string_view input = "abcdef";
    strbuf output;
    strbuf_append_str(&output, "12345678");
    EXPECT_TRUE(run_as_user(PAT, copy_input_to_output, nullptr, &input, &output, 6, LONG_SECONDS)
                    .succeeded());
    EXPECT_EQ(output.view(), "12345678");
}

TEST_F(RunAsUser, OutputThatNobodyWantsIsDropped) {
    const std::string text(1'000'000, 'x');
    const std::string_view input = text;
    EXPECT_TRUE(run_as_user(PAT, copy_input_to_output, nullptr, &input, nullptr, 0, LONG_SECONDS)
                    .succeeded());
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
    EXPECT_EQ(child.end, child_outcome::refused);
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
    EXPECT_EQ(child.end, child_outcome::refused);
    EXPECT_TRUE(has_no_children());
}

TEST_F(RunAsUser, ChildThatNeverReadsOrEndsIsKilledAtTheLimit) {
    const std::string text(1'000'000, 'x');
    EXPECT_EQ(run(print_and_hang, nullptr, text, SIZE_MAX, /*timeout_seconds=*/1).end,
              child_outcome::refused);
    EXPECT_TRUE(has_no_children());
}

TEST_F(RunAsUser, WithoutTimeTheChildIsKilled) {
    EXPECT_EQ(run(print_and_hang, nullptr, {}, SIZE_MAX, /*timeout_seconds=*/0).end,
              child_outcome::refused);
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
            if (run(set_flag, ran.get(), "text").end != child_outcome::failed || errno != EMFILE)
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
        return inner.end == child_outcome::failed && open_descriptors() == before ? 10 : 20;
    });
    EXPECT_EQ(child.exit_status, 10);
}
