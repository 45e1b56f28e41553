#include "user/dialog.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <utility>

constexpr size_t SAID_MAX_BYTES = 64; // no word is longer

dialog::dialog(sd_event *loop, shown_handler shown, end_handler ended)
    : loop_(loop), tell_shown_(std::move(shown)), tell_ended_(std::move(ended)) {}

dialog::~dialog() {
    if (!is_open())
        return;
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0); // killed just now
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
        signal(number, SIG_DFL); // fails for those that cannot be changed
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    prctl(PR_SET_PDEATHSIG, SIGKILL);
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
    answer_.clear();
    shown_ = closing_ = was_mute_ = contradicts_itself_ = false;
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
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0); // killed just now
    errno = -result;
    return -1;
}

// ---- Listening ----------------------------------------------------------------------------

int dialog::on_output(sd_event_source *, int, uint32_t, void *self) {
    static_cast<dialog *>(self)->read_output();
    return 0;
}

// Reads what is there. After EOF no answer can come, so the process must end too.
void dialog::read_output() {
    char piece[SAID_MAX_BYTES];
    while (output_) {
        const ssize_t got = read(output_.get(), piece, sizeof piece);
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0 && errno == EAGAIN)
            return;
        if (got <= 0) {
            output_source_.reset();
            output_.reset();
            if (!closing_)
                give_up_on_it();
            return;
        }
        said_.append(piece, static_cast<size_t>(got));
        take_words();
    }
}

void dialog::take_words() {
    for (size_t end = said_.find('\n'); end != std::string::npos; end = said_.find('\n')) {
        const std::string word = said_.substr(0, end);
        said_.erase(0, end + 1);
        take_word(word);
    }
    if (said_.size() > SAID_MAX_BYTES) {
        said_.clear();
        close(); // unknown output
    }
}

void dialog::take_word(std::string_view word) {
    if (word == "shown" && !shown_ && !closing_) {
        shown_ = true;
        timer_.reset();
        tell_shown_();
    } else if ((word == "read" || word == "later") && shown_ && answer_.empty()) {
        answer_ = word;
    } else {
        contradicts_itself_ = true;
        close();
    }
}

// ---- Ending -------------------------------------------------------------------------------

void dialog::close() {
    if (!is_open() || closing_)
        return;
    kill(pid_, SIGTERM);
    give_up_on_it();
}

// The process ends by itself, or is killed.
void dialog::give_up_on_it() {
    closing_ = true;
    if (set_timer(loop_, &timer_, TERMINATE_LIMIT_MS, on_timer, this) < 0)
        kill(pid_, SIGKILL);
}

int dialog::on_timer(sd_event_source *, uint64_t, void *self) {
    auto *window = static_cast<dialog *>(self);
    window->was_mute_ = !window->closing_;
    window->closing_ = true;
    kill(window->pid_, SIGKILL);
    return 0;
}

dialog_end dialog::outcome(const siginfo_t &how) const {
    if (was_mute_)
        return dialog_end::mute;
    if (!shown_)
        return dialog_end::never_shown;
    if (how.si_code != CLD_EXITED || how.si_status != 0 || answer_.empty() || contradicts_itself_)
        return dialog_end::unanswered;
    return answer_ == "read" ? dialog_end::read : dialog_end::later;
}

int dialog::on_exit(sd_event_source *, const siginfo_t *how, void *self) {
    auto *window = static_cast<dialog *>(self);
    window->read_output(); // the rest of its output
    const dialog_end end = window->outcome(*how);
    const unique_source finished = std::move(window->exit_source_); // in use until we return
    window->output_source_.reset();
    window->output_.reset();
    window->timer_.reset();
    window->pid_ = 0;
    window->tell_ended_(end);
    return 0;
}
