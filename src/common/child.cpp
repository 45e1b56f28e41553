#include "common/child.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>

// ---- Pipes --------------------------------------------------------------------------------

bool child_pipe_open(child_pipe *pipe) {
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0)
        return false;
    pipe->read_end.reset(fds[0]);
    pipe->write_end.reset(fds[1]);
    return true;
}

// Writes as much as the pipe takes. Closes it when everything is written or nobody reads it.
static void feed(child_exchange *traffic) {
    const ssize_t written =
        write(traffic->to_child.get(), traffic->input.data(), traffic->input.size());
    if (written < 0 && (errno == EINTR || errno == EAGAIN))
        return;
    if (written > 0)
        traffic->input.remove_prefix(static_cast<size_t>(written));
    if (written <= 0 || traffic->input.empty())
        traffic->to_child.reset();
}

static void keep(child_exchange *traffic, std::string_view printed) {
    strbuf *output = traffic->output;
    if (output == nullptr || output->len >= traffic->output_max_bytes)
        return;
    const size_t room = traffic->output_max_bytes - output->len;
    strbuf_append_view(output, printed.substr(0, room));
}

// Reads once. Returns false at EOF or after an error.
static bool drain(child_exchange *traffic) {
    std::array<char, 16384> chunk;
    const ssize_t got = read(traffic->from_child.get(), chunk.data(), chunk.size());
    if (got < 0 && errno != EINTR)
        traffic->error = errno;
    if (got <= 0)
        return got < 0 && errno == EINTR;
    keep(traffic, {chunk.data(), static_cast<size_t>(got)});
    return true;
}

// Reads what an ended child left in its pipe.
static void drain_the_rest(child_exchange *traffic) {
    pollfd watched = {.fd = traffic->from_child.get(), .events = POLLIN, .revents = 0};
    while (poll(&watched, 1, 0) > 0 && drain(traffic)) {
    }
}

exchange_state child_exchange_step(child_exchange *traffic, int timeout_ms, int pidfd) {
    // poll() ignores negative descriptors.
    pollfd watched[] = {{.fd = traffic->from_child.get(), .events = POLLIN, .revents = 0},
                        {.fd = traffic->to_child.get(), .events = POLLOUT, .revents = 0},
                        {.fd = pidfd, .events = POLLIN, .revents = 0}};
    const int ready = poll(watched, 3, timeout_ms);
    if (ready == 0)
        return exchange_state::timed_out;
    if (ready < 0 && errno == EINTR)
        return exchange_state::open;
    if (ready < 0) {
        traffic->error = errno;
        return exchange_state::ended;
    }
    if (watched[1].revents != 0)
        feed(traffic);
    if (watched[0].revents != 0 && !drain(traffic))
        return exchange_state::ended;
    if (watched[2].revents == 0)
        return exchange_state::open;
    drain_the_rest(traffic);
    return exchange_state::ended;
}

// ---- The end ------------------------------------------------------------------------------

unique_fd child_pidfd(pid_t child) {
    return unique_fd(static_cast<int>(syscall(SYS_pidfd_open, child, 0)));
}

// Sleeps until the child ends. Without a pidfd poll() watches nothing and returns after a moment,
// so that the child is looked at again.
static void sleep_until_end(const unique_fd &pidfd, int64_t remaining_ms) {
    static constexpr int64_t LOOK_AGAIN_MS = 10;
    pollfd watched = {.fd = pidfd.get(), .events = POLLIN, .revents = 0};
    const int64_t longest_ms = pidfd ? INT_MAX : LOOK_AGAIN_MS;
    const int wait_ms = static_cast<int>(std::min(remaining_ms, longest_ms));
    (void)poll(&watched, 1, wait_ms); // however it ends, the caller looks at the child again
}

bool child_await(pid_t child, const unique_fd &pidfd, int timeout_ms, int *status) {
    const int64_t deadline_ms = monotonic_ms() + timeout_ms;
    while (true) {
        const pid_t ended = waitpid(child, status, WNOHANG);
        if (ended != 0 && !(ended < 0 && errno == EINTR))
            return true;
        const int64_t remaining_ms = deadline_ms - monotonic_ms();
        if (remaining_ms <= 0)
            return false;
        sleep_until_end(pidfd, remaining_ms);
    }
}
