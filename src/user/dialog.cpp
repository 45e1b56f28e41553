#include "user/dialog.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <utility>

// Everything that a window may write, in this order.
constexpr std::string_view SHOWN = "shown\n";
constexpr std::string_view READ = "shown\nread\n";
constexpr std::string_view LATER = "shown\nlater\n";
// One byte more than the longest of them: more than that is nonsense.
constexpr size_t SAID_MAX_BYTES = LATER.size() + 1;

dialog::dialog(sd_event *loop, shown_handler shown, end_handler ended)
    : loop_(loop), tell_shown_(std::move(shown)), tell_ended_(std::move(ended)) {}

dialog::~dialog() {
    if (!is_open())
        return;
    signal_it(SIGKILL);
    (void)waitpid(pid_, nullptr, 0); // killed just now: nobody asks how it ended
}

// ---- Starting -----------------------------------------------------------------------------

// The text goes through a file in memory: a pipe could be full.
static unique_fd input_file(std::string_view input) {
    unique_fd file(memfd_create("message", MFD_CLOEXEC));
    if (!file || write_all(file.get(), input.data(), input.size()) != 0 ||
        lseek(file.get(), 0, SEEK_SET) != 0)
        return {};
    return file;
}

// In the child. It inherits only standard error, and is killed when its parent ends.
[[noreturn]] static void become_window(const char *program, int input, int output,
                                       char *const environment[], pid_t parent) {
    for (int number = 1; number < NSIG; number++)
        (void)signal(number, SIG_DFL); // fails for those that cannot be changed
    sigset_t none;
    sigemptyset(&none);
    (void)sigprocmask(SIG_SETMASK, &none, nullptr); // cannot fail: the arguments are right
    (void)prctl(PR_SET_PDEATHSIG, SIGKILL);         // cannot fail: the signal exists
    if (getppid() != parent || dup2(input, STDIN_FILENO) < 0 || dup2(output, STDOUT_FILENO) < 0)
        _exit(127);
    char *const arguments[] = {const_cast<char *>(program), nullptr};
    execve(program, arguments, environment);
    _exit(127);
}

int dialog::open(const std::string &program, std::string_view input,
                 const std::vector<std::string> &environment) {
    std::vector<char *> variables;
    for (const std::string &variable : environment)
        variables.push_back(const_cast<char *>(variable.c_str()));
    variables.push_back(nullptr);
    const unique_fd text = input_file(input);
    int ends[2];
    if (!text || pipe2(ends, O_CLOEXEC) != 0)
        return -1;
    unique_fd reading(ends[0]);
    const unique_fd writing(ends[1]);
    const pid_t parent = getpid();
    const pid_t child = fork();
    if (child < 0)
        return -1;
    if (child == 0)
        become_window(program.c_str(), text.get(), writing.get(), variables.data(), parent);
    return watch(child, std::move(reading));
}

// Watches a child that was just started. Kills it if it cannot be watched.
int dialog::watch(pid_t pid, unique_fd output) {
    output_ = std::move(output);
    said_.clear();
    shown_ = closing_ = was_mute_ = is_nonsense_ = false;
    sd_event_source *source = nullptr;
    int result = fcntl(output_.get(), F_SETFL, O_NONBLOCK) == 0 ? 0 : -errno;
    if (result >= 0)
        result = sd_event_add_io(loop_, &source, output_.get(), EPOLLIN, on_output, this);
    output_source_.reset(std::exchange(source, nullptr));
    if (result >= 0)
        result = sd_event_add_child(loop_, &source, pid, WEXITED, on_exit, this);
    exit_source_.reset(source);
    if (result >= 0)
        result = set_timer(loop_, &timer_, FIRST_WORD_LIMIT_MS, on_timer, this);
    if (result >= 0) {
        pid_ = pid;
        return 0;
    }
    output_source_.reset();
    exit_source_.reset();
    (void)kill(pid, SIGKILL); // our child: it is there
    (void)waitpid(pid, nullptr, 0);
    errno = -result;
    return -1;
}

// ---- Listening ----------------------------------------------------------------------------

int dialog::on_output(sd_event_source *, int, uint32_t, void *self) {
    auto *window = static_cast<dialog *>(self);
    if (window->read_output() == heard::ended)
        window->output_ended();
    return 0;
}

// Reads at most as much as a window may write. What comes after nonsense is not read.
dialog::heard dialog::read_output() {
    char piece[SAID_MAX_BYTES];
    if (!output_ || is_nonsense_)
        return heard::ended;
    const ssize_t got = read(output_.get(), piece, SAID_MAX_BYTES - said_.size());
    if (got < 0 && (errno == EAGAIN || errno == EINTR))
        return heard::nothing_yet;
    if (got <= 0)
        return heard::ended;
    said_.append(piece, static_cast<size_t>(got));
    take_said();
    return heard::some;
}

void dialog::take_said() {
    if (!shown_ && !closing_ && said_.starts_with(SHOWN)) {
        shown_ = true;
        timer_.reset();
        tell_shown_();
    }
    if (!READ.starts_with(said_) && !LATER.starts_with(said_)) {
        is_nonsense_ = true;
        output_source_.reset();
        close();
    }
}

bool dialog::has_answered() const {
    return !is_nonsense_ && (said_ == READ || said_ == LATER);
}

// No answer can come any more, so the process must end too.
void dialog::output_ended() {
    output_source_.reset();
    output_.reset();
    if (!closing_)
        give_up_on_it();
}

// ---- Ending -------------------------------------------------------------------------------

void dialog::close() {
    if (!is_open() || closing_)
        return;
    if (!has_answered()) // otherwise it is ending already, and a signal would spoil its exit status
        signal_it(SIGTERM);
    give_up_on_it();
}

// The process ends by itself, or is killed. One that has answered gets more time for it: its answer
// counts only with its exit status.
void dialog::give_up_on_it() {
    closing_ = true;
    const uint64_t limit = has_answered() ? ANSWERED_LIMIT_MS : TERMINATE_LIMIT_MS;
    if (set_timer(loop_, &timer_, limit, on_timer, this) < 0)
        signal_it(SIGKILL);
}

// The process is our child and not reaped yet: it is there, and the signal reaches it.
void dialog::signal_it(int number) const {
    (void)kill(pid_, number);
}

int dialog::on_timer(sd_event_source *, uint64_t, void *self) {
    auto *window = static_cast<dialog *>(self);
    window->was_mute_ = !window->closing_;
    window->closing_ = true;
    window->signal_it(SIGKILL);
    return 0;
}

dialog_end dialog::outcome(const siginfo_t &how) const {
    if (was_mute_)
        return dialog_end::mute;
    if (!shown_)
        return dialog_end::never_shown;
    if (how.si_code != CLD_EXITED || how.si_status != 0 || !has_answered())
        return dialog_end::unanswered;
    return said_ == READ ? dialog_end::read : dialog_end::later;
}

int dialog::on_exit(sd_event_source *, const siginfo_t *how, void *self) {
    auto *window = static_cast<dialog *>(self);
    while (window->read_output() == heard::some) { // the rest of its output
    }
    const dialog_end end = window->outcome(*how);
    const unique_source finished = std::move(window->exit_source_); // in use until we return
    window->output_source_.reset();
    window->output_.reset();
    window->timer_.reset();
    window->pid_ = 0;
    window->tell_ended_(end);
    return 0;
}
