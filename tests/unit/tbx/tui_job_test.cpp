#include "tbx/tui/job.h"

#include "tbx/command.h"
#include "tui_support.h"

#include <csignal>
#include <cstring>

namespace {

struct told {
    int status;
    std::string output;
    bool was_interrupted;
};

told run(void (*command)(const char *), const std::string &argument, std::string_view input = {}) {
    const job_result result =
        tui_run_command([&] { command(argument.c_str()); }, input, /*waiting=*/{});
    return {result.status, std::string(result.output.view()), result.was_interrupted};
}

void print_argument(const char *argument) {
    printf("out %s\n", argument);
}

void print_on_both(const char * /*argument*/) {
    printf("one\n");
    fflush(stdout);
    fprintf(stderr, "two\n");
}

void refuse(const char *argument) {
    die("no such thing: %s", argument);
}

void say_that_it_ends() {
    constexpr std::string_view said = "the end\n";
    (void)!write(STDOUT_FILENO, said.data(), said.size()); // the test reads it
}

void kill_itself(const char * /*argument*/) {
    raise(SIGKILL);
}

// Prints each chunk of its input at once, so that both pipes fill up.
void copy_input(const char * /*argument*/) {
    char chunk[512];
    size_t got = 0;
    while ((got = fread(chunk, 1, sizeof chunk, stdin)) > 0) {
        fwrite(chunk, 1, got, stdout);
        fflush(stdout);
    }
}

void print_before_reading(const char *bytes) {
    const std::string output(std::stoul(bytes), 'o');
    fwrite(output.data(), 1, output.size(), stdout);
    fflush(stdout);
    copy_input(nullptr);
}

void do_nothing(const char * /*argument*/) {}

// Where a child waits until its parent lets it go on.
struct closed_gate {
    closed_gate() {
        int fds[2];
        if (pipe2(fds, O_CLOEXEC) != 0)
            throw_errno("pipe2");
        reader.reset(fds[0]);
        writer.reset(fds[1]);
    }
    void await() const {
        char byte = 0;
        static_cast<void>(read(reader.get(), &byte, 1) == 1); // whatever comes
    }
    void open() const {
        if (write(writer.get(), "x", 1) != 1)
            throw_errno("write");
    }
    unique_fd reader;
    unique_fd writer;
};

void print_signals(const char * /*argument*/) {
    for (const int number : {SIGINT, SIGPIPE, SIGTSTP}) {
        struct sigaction action = {};
        sigaction(number, nullptr, &action);
        printf("%s", action.sa_handler == SIG_DFL ? "d" : action.sa_handler == SIG_IGN ? "i" : "h");
    }
}

// Whether the parent ignores Ctrl+C and Ctrl+Z just now.
void print_parents_signals(const char * /*argument*/) {
    const std::string status = read_file("/proc/" + std::to_string(getppid()) + "/status");
    const size_t at = status.find("SigIgn:");
    const auto ignored = strtoull(status.c_str() + at + strlen("SigIgn:"), nullptr, 16);
    for (const int number : {SIGINT, SIGTSTP})
        printf("%d", (ignored >> (number - 1) & 1) != 0 ? 1 : 0);
}

} // namespace

// ---- Output and status --------------------------------------------------------------------

TEST(TuiJob, GivesItsArgumentAndReturnsItsOutput) {
    const told result = run(print_argument, "7");
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.output, "out 7\n");
}

TEST(TuiJob, KeepsBothOutputs) {
    EXPECT_EQ(run(print_on_both, "").output, "one\ntwo\n");
}

TEST(TuiJob, ACommandThatEndsItsProcessEndsTheChildOnly) {
    const told result = run(refuse, "x");
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.output, "tbx: no such thing: x\n");
}

// In a process of its own: the handler stays.
TEST(TuiJob, ACommandThatEndsItsProcessRunsNoHandlerOfTheInterface) {
    EXPECT_EXIT(
        {
            atexit(say_that_it_ends);
            const told result = run(refuse, "x");
            fprintf(stderr, "%s", result.output.c_str());
            _exit(0);
        },
        testing::ExitedWithCode(0), "^tbx: no such thing: x\n$");
}

TEST(TuiJob, ASignalThatEndsItIsAFailure) {
    const told result = run(kill_itself, "");
    EXPECT_EQ(result.status, -1);
    EXPECT_TRUE(result.was_interrupted);
    EXPECT_FALSE(run(refuse, "x").was_interrupted);
}

TEST(TuiJob, PrintsOnlyWhatItPrintedItself) {
    const child_result child = run_in_child([] {
        printf("before");
        return run(print_argument, "x").output == "out x\n" ? 0 : 1;
    });
    EXPECT_EQ(child.exit_status, 0);
    EXPECT_EQ(child.out, "before");
}

TEST(TuiJob, OutputBeyondTheLimitIsDropped) {
    const told result = run(print_before_reading, "3000000");
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.output.size(), JOB_OUTPUT_MAX_BYTES);
}

TEST(TuiJob, LeavesNoDescriptorAndNoChild) {
    const size_t before = open_descriptors();
    EXPECT_EQ(run(print_argument, "x", "input").status, 0);
    EXPECT_EQ(open_descriptors(), before);
    EXPECT_TRUE(has_no_children());
}

TEST(TuiJob, WithoutDescriptorsFails) {
    for (const rlim_t room : {0U, 2U}) { // for no pipe, and for one of the two
        const child_result child = run_in_child([room] {
            leave_descriptors(room);
            const told result = run(print_argument, "x");
            return result.status == -1 && !result.was_interrupted ? 10 : 20;
        });
        EXPECT_EQ(child.exit_status, 10) << room;
    }
}

TEST(TuiJob, WithoutProcessesFailsAndLeavesNoDescriptor) {
    SKIP_UNLESS_ROOT();
    const child_result child = run_in_child([] {
        const size_t before = open_descriptors();
        const rlimit none = {0, 0}; // holds for an ordinary user only
        if (setrlimit(RLIMIT_NPROC, &none) != 0 || setresuid(PAT_UID, PAT_UID, PAT_UID) != 0)
            throw_errno("setrlimit");
        return run(print_argument, "x").status == -1 && open_descriptors() == before ? 10 : 20;
    });
    EXPECT_EQ(child.exit_status, 10);
}

TEST(TuiJob, ACommandThatCannotHaveThePipesDoesNotRun) {
    const child_result child = run_in_child([] {
        refuse_call(DUP2_CALL, EBUSY);
        const told result = run(print_argument, "x");
        printf("%d '%s'", result.status, result.output.c_str());
    });
    EXPECT_EQ(child.out, "127 ''");
}

TEST(TuiJob, WhoseStatusNobodyTellsHasFailed) {
    const child_result child = run_in_child([] {
        signal(SIGCHLD, SIG_IGN); // it is reaped by the system
        const told result = run(print_argument, "x");
        printf("%d '%s'", result.status, result.output.c_str());
    });
    EXPECT_EQ(child.out, "-1 'out x\n'");
}

TEST(TuiJob, IsWaitedForThoughNothingCanBePolled) {
    const child_result child = run_in_child([] {
        refuse_call(POLL_CALL, ENOMEM);
        const told result = run(do_nothing, "");
        printf("%d '%s' %d", result.status, result.output.c_str(), has_no_children());
    });
    EXPECT_EQ(child.out, "0 '' 1");
}

// ---- Input --------------------------------------------------------------------------------

TEST(TuiJob, ReadsItsInputToTheEnd) {
    EXPECT_EQ(run(copy_input, "", "line\nlast").output, "line\nlast");
}

TEST(TuiJob, InputThatCouldNotBeFedWithoutWaitingIsNone) {
    const child_result child = run_in_child([] {
        refuse_setting_flags();
        const told result = run(copy_input, "", "input");
        printf("%d '%s'", result.status, result.output.c_str());
    });
    EXPECT_EQ(child.out, "0 ''");
}

TEST(TuiJob, WithoutInputReadsNothing) {
    const told result = run(copy_input, "");
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.output, "");
}

TEST(TuiJob, InputAndOutputLargerThanThePipesGoThrough) {
    const std::string text(500'000, 't');
    const told result = run(print_before_reading, "200000", text);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.output.size(), 700'000U);
}

TEST(TuiJob, ACommandThatReadsNothingDoesNoHarm) {
    const child_result child =
        run_in_child([] { return run(do_nothing, "", std::string(500'000, 't')).status; });
    EXPECT_EQ(child.exit_status, 0);
}

TEST(TuiJob, IsWaitedForWhenSignalsInterrupt) {
    const child_result child = run_in_child([] {
        interrupt_calls([] {});
        const told result = run(
            [](const char *) {
                usleep(100'000);
                puts("done");
            },
            "", "input");
        stop_interrupting();
        return result.status == 0 && result.output == "done\n" ? 0 : 1;
    });
    EXPECT_EQ(child.exit_status, 0);
}

// ---- Signals ------------------------------------------------------------------------------

TEST(TuiJob, CtrlCEndsItAndCtrlZDoesNotStopIt) {
    const child_result child = run_in_child([] {
        signal(SIGINT, [](int) {});
        signal(SIGTSTP, [](int) {});
        signal(SIGPIPE, SIG_IGN);
        printf("%s", run(print_signals, "").output.c_str());
    });
    EXPECT_EQ(child.out, "ddi");
}

TEST(TuiJob, TheInterfaceIgnoresBothKeysMeanwhile) {
    const auto seen = [](const std::function<void()> &waiting) {
        const job_result result =
            tui_run_command([] { print_parents_signals(nullptr); }, {}, waiting);
        return std::string(result.output.view());
    };
    EXPECT_EQ(seen([] {}), "11");
}

TEST(TuiJob, NobodyAskedForLeavesBothKeysToTheInterface) {
    EXPECT_EQ(run(print_parents_signals, "").output, "00");
}

// ---- Asked to end meanwhile ---------------------------------------------------------------

namespace {

// Runs a job that never ends by itself while the interface is asked to end.
template <typename Command> child_result run_and_end(Command &&command) {
    return run_in_child([&] {
        signal(SIGTERM, [](int) {});
        signal(SIGHUP, [](int) {});
        interrupt_calls([] { quit_requested = 1; });
        const job_result result = tui_run_command(command, {}, /*waiting=*/{});
        stop_interrupting();
        printf("%d %d", result.was_interrupted ? 1 : 0, has_no_children() ? 1 : 0);
    });
}

} // namespace

TEST(TuiJob, ThatHangsEndsWithTheInterface) {
    const child_result child = run_and_end([] {
        while (true)
            pause();
    });
    EXPECT_EQ(child.out, "1 1");
}

TEST(TuiJob, ThatIgnoresItEndsWithTheInterfaceAllTheSame) {
    const child_result child = run_and_end([] {
        signal(SIGTERM, SIG_IGN);
        while (true)
            pause();
    });
    EXPECT_EQ(child.out, "1 1");
}

TEST(TuiJob, ThatIsAboutToEndMayDoSo) {
    const child_result child = run_and_end([] { usleep(150'000); });
    EXPECT_EQ(child.out, "0 1");
}

// ---- Being slow ---------------------------------------------------------------------------

TEST(TuiJob, SaysThatItIsWaitedForUntilItEnds) {
    const closed_gate gate;
    int said = 0;
    const job_result result = tui_run_command([&gate] { gate.await(); }, {},
                                              [&] {
                                                  if (++said == 3)
                                                      gate.open();
                                              });
    EXPECT_EQ(result.status, 0);
    EXPECT_GE(said, 3);
}

TEST(TuiJob, OfWhichSomebodyElseKeepsTheOutputEndsWithItsProcess) {
    const closed_gate gate;
    const job_result result = tui_run_command(
        [&gate] {
            puts("printed");
            fflush(stdout);
            if (fork() == 0) {
                gate.await(); // with the output of this process
                _exit(0);
            }
        },
        {}, /*waiting=*/{});
    gate.open();
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.output.view(), "printed\n");
}
