#include "tbx/tui/job.h"

#include "common/child.h"
#include "tbx/tui/screen.h"
#include "tbx/user_child.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>

static constexpr int CANNOT_START = 127; // exit status of a child without its descriptors

// ---- The child's side ---------------------------------------------------------------------

// Ctrl+C, Ctrl+\ and signals to the whole process group end a command. Ctrl+Z does not stop it: the
// interface waits for it and could not continue it.
static void set_signals() {
    for (const int number : {SIGINT, SIGQUIT, SIGTERM, SIGHUP, SIGPIPE, SIGCONT})
        (void)signal(number, SIG_DFL); // cannot fail: the signals exist
    (void)signal(SIGTSTP, SIG_IGN);
}

[[noreturn]] static void run_child(const tui_job &job, const unique_fd &in, const unique_fd &out) {
    die_as_child();
    set_signals();
    if (dup2(in.get(), STDIN_FILENO) < 0 || dup2(out.get(), STDOUT_FILENO) < 0 ||
        dup2(out.get(), STDERR_FILENO) < 0)
        _exit(CANNOT_START);
    user_times_forget(); // a command is a run of its own
    job();
    (void)fflush(stdout); // if the interface does not read any more, nobody does
    (void)fflush(stderr);
    _exit(0);
}

// ---- The parent's side --------------------------------------------------------------------

static constexpr int SLOW_AFTER_MS = 500; // without a result: the user is told to wait
static constexpr int LOOK_AGAIN_MS = 100; // a request to end may come just before a wait

// If the interface is asked to end: how long the command may take to end by itself, and how long
// after each of the two signals.
static constexpr int GRACE_MS = 250;
static constexpr int DYING_MS = 150;
static_assert(LOOK_AGAIN_MS + GRACE_MS + 2 * DYING_MS < 750,
              "the interface ends within a second, and still restores the terminal");

static constexpr int NOT_REAPED = -1; // no wait status has this value

struct started_job {
    pid_t child = -1;
    unique_fd pidfd;
    child_exchange traffic;
};

// Calls `waiting` when it is time to. Returns how long to wait now.
static int remaining_wait(int64_t started_ms, const std::function<void()> &waiting) {
    const int64_t slow_in_ms = started_ms + SLOW_AFTER_MS - monotonic_ms();
    if (slow_in_ms > 0)
        return static_cast<int>(std::min<int64_t>(slow_in_ms, LOOK_AGAIN_MS));
    if (waiting)
        waiting();
    return LOOK_AGAIN_MS;
}

// Whether nobody waits for the command's result any more.
static bool is_to_end() {
    return quit_requested || tui_is_hung_up();
}

// Feeds and drains the child until EOF of its output, or until the interface must end.
static void attend(started_job *job, const std::function<void()> &waiting) {
    const int64_t started_ms = monotonic_ms();
    auto state = exchange_state::open;
    while (state != exchange_state::ended && !is_to_end()) {
        const int wait_ms = remaining_wait(started_ms, waiting);
        state = child_exchange_step(&job->traffic, wait_ms, job->pidfd.get());
    }
}

// Feeds and drains the child for a moment, so that it can end by itself, then ends it.
static void attend_the_end(started_job *job, int *status) {
    const int64_t deadline_ms = monotonic_ms() + GRACE_MS;
    auto state = exchange_state::open;
    for (int64_t left_ms = GRACE_MS; left_ms > 0 && state != exchange_state::ended;
         left_ms = deadline_ms - monotonic_ms())
        state = child_exchange_step(&job->traffic, static_cast<int>(left_ms), job->pidfd.get());
    if (child_await(job->child, job->pidfd, /*timeout_ms=*/0, status))
        return;
    for (const int number : {SIGTERM, SIGKILL}) {
        (void)kill(job->child, number); // cannot fail: a child stays ours until it is waited for
        if (child_await(job->child, job->pidfd, DYING_MS, status))
            return;
    }
}

// Waits for the child's end. Returns its wait status, NOT_REAPED when it is unknown.
static int follow(started_job *job, const std::function<void()> &waiting) {
    int status = NOT_REAPED;
    attend(job, waiting);
    while (!is_to_end())
        if (child_await(job->child, job->pidfd, LOOK_AGAIN_MS, &status))
            return status;
    attend_the_end(job, &status);
    return status;
}

static void set_result(job_result *result, int wait_status) {
    if (wait_status == NOT_REAPED)
        return;
    result->was_interrupted = WIFSIGNALED(wait_status);
    if (WIFEXITED(wait_status))
        result->status = WEXITSTATUS(wait_status);
}

job_result tui_run_command(const tui_job &job, std::string_view input,
                           const std::function<void()> &waiting) {
    job_result result;
    child_pipe to_child;
    child_pipe from_child;
    if (!child_pipe_open(&to_child) || !child_pipe_open(&from_child))
        return result;
    (void)fflush(stdout);              // what stays buffered must only not be written twice
    const tui_signals_ignored ignored( // before the fork, so that no key is missed
        waiting ? tui_signals_ignored::keys : tui_signals_ignored::pipe_only);
    started_job started;
    started.child = fork();
    if (started.child < 0)
        return result;
    if (started.child == 0) {
        to_child.write_end.reset();
        from_child.read_end.reset();
        run_child(job, to_child.read_end, from_child.write_end);
    }
    to_child.read_end.reset();
    from_child.write_end.reset();
    started.pidfd = child_pidfd(started.child);
    if (input.empty() || fcntl(to_child.write_end.get(), F_SETFL, O_NONBLOCK) != 0)
        to_child.write_end.reset();
    started.traffic = {std::move(to_child.write_end), std::move(from_child.read_end), input,
                       &result.output, JOB_OUTPUT_MAX_BYTES};
    set_result(&result, follow(&started, waiting));
    return result;
}
