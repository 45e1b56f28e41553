#include "user/agent.h"

#include "common/core.h"
#include "common/environment.h"
#include "user/agenda.h"
#include "user/answer.h"
#include "user/desktop.h"
#include "user/desktop_answer.h"
#include "user/dialog.h"
#include "user/environment_query.h"
#include "user/events.h"
#include "user/instance.h"
#include "user/notice.h"
#include "user/notification.h"
#include "user/sessions.h"
#include "user/texts.h"
#include "user/watch.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>

constexpr uint64_t MSEC_PER_SEC = 1000;
// Between two looks it waits at least LOOK_INTERVAL_MS, and at least LOOK_IDLE_FACTOR times as long
// as a look takes: the agent is idle most of the time, even with a large mailbox that changes
// often.
constexpr uint64_t LOOK_INTERVAL_MS = 20;
constexpr uint64_t LOOK_IDLE_FACTOR = 4;
// A user who asked for a message longer ago does something else by now.
constexpr uint64_t ASKED_FOR_VALID_MS = 10'000;
// A message is shown anew at most once in this time.
constexpr uint64_t SHOW_INTERVAL_MS = 1000;

// Time that passes while the machine sleeps too: then reminders and expiries are due.
static uint64_t now_ms() {
    return clock_ms(CLOCK_BOOTTIME);
}

static std::string window_program() {
    return xasprintf("%s/tellbox-window", lib_dir());
}

static bool has_window_program() {
    return access(window_program().c_str(), X_OK) == 0;
}

namespace {

// The user has chosen "Show" in a notification.
struct asked_message {
    int64_t id = 0; // 0: none
    uint64_t since_ms = 0;
    std::string token; // of the activation; may be empty
};

class agent {
public:
    agent(sd_event *loop, std::string owner);
    void start();

private:
    // What wakes it
    static int on_wake(sd_event_source *, const signalfd_siginfo *, void *self);
    static int on_end(sd_event_source *, const signalfd_siginfo *, void *self);
    static int on_look_timer(sd_event_source *, uint64_t, void *self);
    void add_signals();
    void connect_bus();
    void look_in(uint64_t milliseconds);

    // Looking at the mailbox
    void look();
    [[nodiscard]] bool is_desktop_gone();
    void look_at_mailbox(own_mailbox *box);
    [[nodiscard]] bool is_engaged() const;
    void plan_expiry(const message_record &message);
    void check_notice(const own_mailbox &box);
    [[nodiscard]] bool still_stands(const own_mailbox &box);
    [[nodiscard]] bool begin_asked_for(const own_mailbox &box);
    void begin_due(const own_mailbox &box);

    // Showing a message
    void begin(waiting_message chosen);
    void open_window(const environment_list &manager);
    void nothing_shown();
    void shown();
    void release();
    int64_t let_go();

    // What comes back
    void window_ended(dialog_end end);
    void notice_stands(int64_t id);
    void notice_gone(int64_t id);
    void action_chosen(int64_t id, const std::string &action, const std::string &token);
    void take_answer(int64_t id, desktop_answer given);
    void finish();

    sd_event *loop_;
    std::string owner_; // account name
    unique_bus bus_;
    std::vector<unique_source> signals_;
    session_watch sessions_;
    mailbox_watch watch_;
    unique_source look_timer_;
    uint64_t look_at_ms_ = NEVER_MS; // when the timer fires
    uint64_t look_not_before_ms_ = 0;
    environment_query query_; // under way before a window is opened
    dialog window_;
    notifier notices_;
    agenda agenda_;
    config settings_;

    waiting_message current_; // on the screen, or being opened; id 0: none
    int64_t began_ = 0;       // when it was chosen
    bool is_shown_ = false;
    bool mark_stands_ = false; // its mark "shown"
    bool only_notice_ = false; // there is no window program
    asked_message asked_;
    uint64_t shown_again_ms_ = 0; // when the user asked last
    std::string token_;           // for the window that is being opened
    bool window_hung_ = false;    // the last window; maybe it waited for the bus
    bool is_closing_ = false;     // the window closes: the message must not be shown any more
    bool is_finishing_ = false;
};

} // namespace

// ---- Starting -----------------------------------------------------------------------------

agent::agent(sd_event *loop, std::string owner)
    : loop_(loop), owner_(std::move(owner)), sessions_(loop, [this] { look_in(0); }),
      watch_(loop, [this] { look_in(0); }),
      query_(loop, [this](const environment_list &manager) { open_window(manager); }),
      window_(
          loop, [this] { shown(); }, [this](dialog_end end) { window_ended(end); }),
      notices_({.chosen = [this](int64_t id, const std::string &action,
                                 const std::string &token) { action_chosen(id, action, token); },
                .standing = [this](int64_t id) { notice_stands(id); },
                .gone = [this](int64_t id) { notice_gone(id); }}) {}

static void require(int result, const char *what) {
    if (result < 0)
        die("%s: %s", what, strerror(-result));
}

static void write_ready_file() {
    if (ready_file_write() != 0)
        die(_("cannot write to %s: %s"), runtime_folder().c_str(), strerror(errno));
}

// Watches the mailbox first, then writes the readiness file, which tells `tbx` that a signal is
// enough, then looks at the mailbox. So no message is missed.
void agent::start() {
    add_signals();
    sessions_.start();
    watch_.arm(owner_);
    write_ready_file();
    look_in(0);
}

void agent::add_signals() {
    for (const int number : {SIGUSR1, SIGTERM, SIGINT}) {
        sd_event_source *source = nullptr;
        require(
            sd_event_add_signal(loop_, &source, number, number == SIGUSR1 ? on_wake : on_end, this),
            _("cannot wait for signals"));
        signals_.emplace_back(source);
    }
}

// Connecting does not block: the exchange with the bus takes place while the loop runs.
void agent::connect_bus() {
    if (bus_ && sd_bus_is_open(bus_.get()) > 0)
        return;
    notices_.use(nullptr);
    query_.cancel();
    bus_.reset();
    sd_bus *bus = nullptr;
    if (sd_bus_open_user(&bus) < 0)
        return;
    bus_.reset(bus);
    (void)sd_bus_set_close_on_exit(bus, 0); // it would wait for a bus that does not answer
    if (sd_bus_attach_event(bus, loop_, SD_EVENT_PRIORITY_NORMAL) < 0)
        bus_.reset();
    notices_.use(bus_.get());
}

// ---- What wakes it ------------------------------------------------------------------------

// `tbx` or another agent sent a signal: what failed before is tried again at once.
int agent::on_wake(sd_event_source *, const signalfd_siginfo *, void *self) {
    auto *woken = static_cast<agent *>(self);
    woken->agenda_.news();
    woken->look_in(0);
    return 0;
}

int agent::on_end(sd_event_source *, const signalfd_siginfo *, void *self) {
    static_cast<agent *>(self)->finish();
    return 0;
}

int agent::on_look_timer(sd_event_source *, uint64_t, void *self) {
    static_cast<agent *>(self)->look();
    return 0;
}

// Plans a look in so many milliseconds, unless an earlier one is planned already.
void agent::look_in(uint64_t milliseconds) {
    const uint64_t moment = now_ms();
    const uint64_t at = std::max(moment + milliseconds, look_not_before_ms_);
    if (look_timer_ && look_at_ms_ <= at)
        return;
    look_at_ms_ = at;
    require(set_timer(loop_, &look_timer_, at - moment, on_look_timer, this, CLOCK_BOOTTIME),
            _("cannot set a timer"));
}

// ---- Looking at the mailbox ---------------------------------------------------------------

void agent::look() {
    const uint64_t began = now_ms();
    look_at_ms_ = NEVER_MS;
    if (is_finishing_)
        return;
    if (is_desktop_gone()) {
        finish();
        return;
    }
    ready_file_restore();
    load_config(&settings_);
    look_in(static_cast<uint64_t>(settings_.agent_poll) * MSEC_PER_SEC);
    connect_bus();
    watch_.arm(owner_);
    own_mailbox box;
    switch (mailbox_open(owner_, &box)) {
    case mailbox_look::found:
        look_at_mailbox(&box);
        break;
    case mailbox_look::absent:
        agenda_.found_no_mailbox();
        release(); // there is nothing to show
        break;
    case mailbox_look::failed:
        break; // unknown: no change
    }
    const uint64_t ended = now_ms();
    look_not_before_ms_ = ended + std::max(LOOK_INTERVAL_MS, (ended - began) * LOOK_IDLE_FACTOR);
}

// Whether the user has logged out. The readiness file is removed before the last question: an agent
// that is started after the next login finds it missing and waits for the lock, or comes before
// the question.
bool agent::is_desktop_gone() {
    using state = session_watch::state;
    state sessions = sessions_.look();
    if (sessions == state::none_left) {
        ready_file_remove();
        sessions = sessions_.look();
        if (sessions == state::none_left)
            return true;
        write_ready_file();
    }
    if (sessions == state::changed)
        agenda_.retries().try_at_once(); // perhaps with another display
    return false;
}

void agent::look_at_mailbox(own_mailbox *box) {
    answer_finish_interrupted(box);
    if (is_engaged() && !still_stands(*box))
        release();
    check_notice(*box);
    if (!is_engaged() && !begin_asked_for(*box))
        begin_due(*box);
    if (is_engaged())
        plan_expiry(current_.message);
}

void agent::plan_expiry(const message_record &message) {
    const int64_t left = message.expires - now();
    if (message.expires != 0)
        look_in(static_cast<uint64_t>(std::max<int64_t>(left, 0)) * MSEC_PER_SEC);
}

// Whether a message is on the screen or being opened.
bool agent::is_engaged() const {
    return window_.is_open() || query_.is_under_way() || (only_notice_ && is_shown_);
}

// Takes the notification down if its message, which is not on the screen, waits no longer.
void agent::check_notice(const own_mailbox &box) {
    const int64_t id = notices_.wanted();
    waiting_message found;
    if (id == 0 || id == current_.id)
        return;
    const waiting_state state = inbox_look(box, id, now(), &found);
    if (state == waiting_state::waiting)
        plan_expiry(found.message);
    else if (state != waiting_state::failed)
        notices_.take_down();
}

// Whether the message on the screen must still be shown. If its mark "shown" is gone, the
// administrator has sent a reminder: it is shown again.
bool agent::still_stands(const own_mailbox &box) {
    waiting_message found;
    const waiting_state state = inbox_look(box, current_.id, now(), &found);
    if (state == waiting_state::failed)
        return true; // unknown: no change
    if (state == waiting_state::waiting)
        current_.message.expires = found.message.expires;
    const bool was_postponed =
        found.terminal.kind == mark_kind::postponed && found.terminal.time >= began_;
    const bool was_reminded = mark_stands_ && found.desktop.kind == mark_kind::none;
    return state == waiting_state::waiting && !was_postponed && !was_reminded;
}

// Begins the message that the user has asked for, due or not. Its notification stays as it is.
bool agent::begin_asked_for(const own_mailbox &box) {
    asked_message asked = std::exchange(asked_, {});
    waiting_message found;
    if (asked.id == 0 || now_ms() - asked.since_ms > ASKED_FOR_VALID_MS ||
        inbox_look(box, asked.id, now(), &found) != waiting_state::waiting)
        return false;
    token_ = std::move(asked.token);
    begin(std::move(found));
    return true;
}

// Begins the first message that is due, and plans the next look for those that will be due.
void agent::begin_due(const own_mailbox &box) {
    agenda::choice choice = agenda_.choose(box, settings_.remind_minutes * 60, now_ms());
    if (choice.look_again_ms != NEVER_MS)
        look_in(choice.look_again_ms);
    if (!choice.next)
        return;
    waiting_message next = *std::move(choice.next);
    // A message that is only tried again may have its notification already.
    if (!notices_.stands(next.id) || !agenda_.retries().is_retry(next.id))
        notices_.put_up(make_notice(next.message, has_window_program()));
    token_.clear();
    begin(std::move(next));
}

// ---- Showing a message --------------------------------------------------------------------

void agent::begin(waiting_message chosen) {
    current_ = std::move(chosen);
    began_ = now();
    is_shown_ = mark_stands_ = false;
    only_notice_ = !has_window_program();
    if (only_notice_)
        nothing_shown(); // unless the service takes the notification
    else
        query_.ask(bus_.get());
}

static std::string window_input(const message_record &message, size_t place, size_t total) {
    strbuf input;
    strbuf_printf(&input, "%zu of %zu\n", place, total);
    message_format(message, &input);
    return std::string(input.view());
}

void agent::open_window(const environment_list &manager) {
    if (is_finishing_ || current_.id == 0)
        return;
    environment_list environment = window_environment(own_environment(), manager);
    const std::string token = std::exchange(token_, {});
    if (!token.empty()) {
        environment_set(&environment, "XDG_ACTIVATION_TOKEN", token);
        environment_set(&environment, "DESKTOP_STARTUP_ID", token);
    }
    // Without this, the toolkit would wait without limit for a bus that does not answer.
    if (!bus_ || sd_bus_is_ready(bus_.get()) <= 0 || window_hung_) {
        environment_set(&environment, "DBUS_SESSION_BUS_ADDRESS", "disabled:");
        environment_set(&environment, "GTK_A11Y", "none");
    }
    is_closing_ = false;
    if (display_answers(environment) &&
        window_.open(window_program(),
                     window_input(current_.message, agenda_.place(), agenda_.total()),
                     environment) == 0)
        return;
    nothing_shown();
    (void)let_go(); // it stays due
}

// There is no display, or no service: this is not the message's fault.
void agent::nothing_shown() {
    agenda_.retries().display_failed(now_ms());
    look_in(0); // plans the next try
}

// Writes the mark "shown". If it cannot be written, its time is remembered.
void agent::shown() {
    agenda_.retries().succeeded(current_.id);
    window_hung_ = false;
    is_shown_ = true;
    const int64_t moment = now();
    own_mailbox box;
    if (mailbox_open(owner_, &box) != mailbox_look::found) {
        agenda_.remember_shown(current_.id, moment);
        return;
    }
    [[maybe_unused]] const mailbox_lock lock = mailbox_lock::take(box, /*patience_ms=*/0);
    mark_stands_ = answer_shown(&box, current_.id, channel::desktop, moment,
                                settings_.remind_minutes * 60) == 0;
    if (!mark_stands_ && errno != ENOENT && errno != EALREADY)
        agenda_.remember_shown(current_.id, moment);
    look_in(0);
}

// Removes the message from the screen: it must not be shown any more.
void agent::release() {
    query_.cancel();
    notices_.take_down();
    is_closing_ = true;
    if (window_.is_open())
        window_.close();
    else
        (void)let_go();
}

// Forgets the message on the screen. Returns its identifier.
int64_t agent::let_go() {
    is_shown_ = false;
    return std::exchange(current_, {}).id;
}

// ---- What comes back ----------------------------------------------------------------------

void agent::window_ended(dialog_end end) {
    const int64_t id = let_go();
    if (end == dialog_end::read || end == dialog_end::later)
        take_answer(id, end == dialog_end::read ? desktop_answer::read : desktop_answer::later);
    const bool showed_nothing = end == dialog_end::never_shown || end == dialog_end::mute;
    if (showed_nothing && !is_closing_ && !is_finishing_)
        agenda_.retries().window_failed(id, now_ms());
    else if (!is_closing_)
        agenda_.next_place();
    window_hung_ = end == dialog_end::mute;
    if (is_finishing_)
        finish();
    else
        look_in(0);
}

// Without a window program, the notification shows the message.
void agent::notice_stands(int64_t id) {
    if (only_notice_ && id == current_.id && !is_shown_)
        shown();
}

void agent::notice_gone(int64_t id) {
    if (!only_notice_ || id != current_.id)
        return;
    (void)let_go();
    agenda_.next_place();
    look_in(0);
}

void agent::action_chosen(int64_t id, const std::string &action, const std::string &token) {
    if (action == "show") {
        if (now_ms() - shown_again_ms_ < SHOW_INTERVAL_MS)
            return; // a double click
        shown_again_ms_ = now_ms();
        asked_ = {id, now_ms(), token};
        is_closing_ = true; // it is shown again at once
        window_.close();
    } else {
        if (id == current_.id)
            (void)let_go();
        agenda_.next_place();
        take_answer(id, action == "read" ? desktop_answer::read : desktop_answer::later);
    }
    look_in(0);
}

void agent::take_answer(int64_t id, desktop_answer given) {
    notices_.take_down();
    const answer_outcome outcome = record_answer(owner_, id, given);
    switch (outcome.what) {
    case answer_outcome::kind::recorded:
        break;
    case answer_outcome::kind::withdrawn:
        notices_.say(make_withdrawn_notice(id));
        break;
    case answer_outcome::kind::failed:
        notices_.put_up(make_failure_notice(id, outcome.reason.c_str()));
        break;
    }
}

// Ends the loop when the window is gone.
void agent::finish() {
    is_finishing_ = true;
    ready_file_remove();
    query_.cancel();
    notices_.take_down();
    if (window_.is_open())
        window_.close();
    else
        require(sd_event_exit(loop_, 0), _("cannot end"));
}

// ---- The process --------------------------------------------------------------------------

// Whether another agent, which can show nothing, must make way for this one. Where there is a
// service manager, each agent asks that one for the display.
static bool outranks(pid_t other) {
    return !has_service_manager() && display_answers(own_environment()) &&
           !display_answers(environment_of(other));
}

// Takes the lock. Returns false if this process must end.
static bool become_the_agent(unique_fd *lock) {
    const instance_state state = instance_become(lock, outranks);
    if (state == instance_state::failed)
        die(_("cannot lock the agent's file in %s: %s"), runtime_folder().c_str(), strerror(errno));
    return state == instance_state::only;
}

static void block_signals() {
    sigset_t blocked;
    sigemptyset(&blocked);
    for (const int number : {SIGUSR1, SIGTERM, SIGINT, SIGCHLD})
        sigaddset(&blocked, number);
    (void)sigprocmask(SIG_BLOCK, &blocked, nullptr); // cannot fail: the arguments are right
    (void)signal(SIGPIPE, SIG_IGN);                  // cannot fail: the signal exists
}

// Keeps nothing of whoever started it: the agent stays for as long as the user does.
static void leave_the_starter_s_things() {
    (void)close_range(STDERR_FILENO + 1, UINT_MAX, 0); // fails on old systems: they stay open
    if (!test_mode())                                  // there, paths may be relative
        (void)!chdir("/");                             // if it fails, a file system stays in use
    (void)umask(022);
}

// Whether this user gets an agent: a person with a graphical session. Without a service manager
// nobody knows about sessions.
static bool is_wanted() {
    if (test_mode())
        return true;
    return !is_system_account(geteuid()) &&
           (!has_service_manager() || has_desktop_session(geteuid()));
}

int agent_run() {
    block_signals();
    leave_the_starter_s_things();
    std::string owner;
    if (!is_wanted())
        return 0;
    if (own_account(&owner) != 0) // before the lock: it can take long
        die(_("cannot find the account of this user: %s"), strerror(errno));
    unique_fd lock;
    if (!become_the_agent(&lock))
        return 0;
    sd_event *loop = nullptr;
    require(sd_event_new(&loop), _("cannot make an event loop"));
    const unique_loop owned(loop);
    agent only(loop, std::move(owner));
    only.start();
    const int status = sd_event_loop(loop);
    ready_file_remove();
    require(status, _("the event loop failed"));
    return 0;
}
