#include "tbx/tui/job.h"

#include "tbx/command.h"
#include "tbx/tui/screen.h"
#include "tbx/user_child.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>

static constexpr int CANNOT_START = 127; // exit status of a child without its descriptors

// ---- The child's side ---------------------------------------------------------------------

static void run_send(const std::vector<std::string> &arguments) {
    std::vector<std::string> words = arguments;
    std::vector<char *> argv;
    for (std::string &word : words)
        argv.push_back(word.data());
    argv.push_back(nullptr);
    cmd_send(static_cast<int>(words.size()), argv.data());
}

// Ctrl+C and Ctrl+\ end a command. Ctrl+Z does not stop it: the interface, which waits for it,
// would have no way to let it go on.
[[noreturn]] static void run_child(const tui_job &job, const unique_fd &in, const unique_fd &out) {
    signal(SIGINT, SIG_DFL);
    signal(SIGQUIT, SIG_DFL);
    signal(SIGPIPE, SIG_DFL);
    signal(SIGTSTP, SIG_IGN);
    if (dup2(in.get(), STDIN_FILENO) < 0 || dup2(out.get(), STDOUT_FILENO) < 0 ||
        dup2(out.get(), STDERR_FILENO) < 0)
        _exit(CANNOT_START);
    user_times_forget(); // a command is a run of its own
    if (job.command != nullptr)
        job.command(job.argument.c_str());
    else
        run_send(job.send_arguments);
    fflush(stdout);
    fflush(stderr);
    _exit(0);
}

// ---- The parent's side --------------------------------------------------------------------

struct job_pipe {
    unique_fd read_end;
    unique_fd write_end;

    [[nodiscard]] bool open() {
        int fds[2];
        if (pipe2(fds, O_CLOEXEC) != 0)
            return false;
        read_end.reset(fds[0]);
        write_end.reset(fds[1]);
        return true;
    }
};

// Writes what the pipe takes, and closes it once all is written or nobody reads it.
static void feed(unique_fd *to_child, std::string_view *input) {
    const ssize_t written = write(to_child->get(), input->data(), input->size());
    if (written < 0 && (errno == EINTR || errno == EAGAIN))
        return;
    if (written > 0)
        input->remove_prefix(static_cast<size_t>(written));
    if (written <= 0 || input->empty())
        to_child->reset();
}

// Reads once. False at the end of the output.
static bool drain(const unique_fd &from_child, strbuf *output) {
    std::array<char, 16384> chunk;
    const ssize_t got = read(from_child.get(), chunk.data(), chunk.size());
    if (got <= 0)
        return got < 0 && errno == EINTR;
    const size_t room = JOB_OUTPUT_MAX_BYTES - std::min(output->len, JOB_OUTPUT_MAX_BYTES);
    strbuf_append(output, chunk.data(), std::min(static_cast<size_t>(got), room));
    return true;
}

// Feeds and drains at the same time, since a child may print before it has read everything.
static void exchange(unique_fd to_child, const unique_fd &from_child, std::string_view input,
                     strbuf *output) {
    if (input.empty() || fcntl(to_child.get(), F_SETFL, O_NONBLOCK) != 0)
        to_child.reset();
    while (true) {
        // A negative descriptor is passed over.
        pollfd watched[] = {{.fd = from_child.get(), .events = POLLIN, .revents = 0},
                            {.fd = to_child.get(), .events = POLLOUT, .revents = 0}};
        if (poll(watched, 2, -1) < 0) {
            if (errno == EINTR)
                continue; // asked to quit: the command is waited for all the same
            return;
        }
        if (watched[1].revents != 0)
            feed(&to_child, &input);
        if (watched[0].revents != 0 && !drain(from_child, output))
            return;
    }
}

static int exit_status_of(pid_t child) {
    int status = 0;
    while (waitpid(child, &status, 0) < 0)
        if (errno != EINTR)
            return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

int tui_run_command(const tui_job &job, std::string_view input, strbuf *output) {
    job_pipe to_child;
    job_pipe from_child;
    if (!to_child.open() || !from_child.open())
        return -1;
    fflush(stdout);
    const tui_signals_ignored ignored; // before the fork: no key falls between
    const pid_t child = fork();
    if (child < 0)
        return -1;
    if (child == 0) {
        to_child.write_end.reset();
        from_child.read_end.reset();
        run_child(job, to_child.read_end, from_child.write_end);
    }
    to_child.read_end.reset();
    from_child.write_end.reset();
    exchange(std::move(to_child.write_end), from_child.read_end, input, output);
    from_child.read_end.reset();
    return exit_status_of(child);
}
