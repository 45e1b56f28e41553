#include "user/agent.h"

#include "common/core.h"
#include "common/environment.h"
#include "user/answer.h"
#include "user/desktop.h"
#include "user/dialog.h"
#include "user/events.h"
#include "user/inbox.h"
#include "user/instance.h"
#include "user/notice.h"
#include "user/notification.h"
#include "user/texts.h"
#include "user/watch.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <systemd/sd-login.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>
#include <map>

constexpr uint64_t MSEC_PER_SEC = 1000;
constexpr uint64_t RETRY_FIRST_MS = 10 * MSEC_PER_SEC;
constexpr uint64_t RETRY_LONGEST_MS = 3600 * MSEC_PER_SEC;
// Between two looks it waits at least LOOK_INTERVAL_MS, and at least LOOK_IDLE_FACTOR times as long
// as a look takes: the agent is idle most of the time, even with a large mailbox that changes
// often.
constexpr uint64_t LOOK_INTERVAL_MS = 20;
constexpr uint64_t LOOK_IDLE_FACTOR = 4;
constexpr size_t COUNTED_MAX = 1000; // messages that are opened to see whether they wait

static uint64_t monotonic_ms() {
    timespec time = {};
    clock_gettime(CLOCK_MONOTONIC, &time); // cannot fail: the clock exists
    return static_cast<uint64_t>(time.tv_sec) * MSEC_PER_SEC +
           static_cast<uint64_t>(time.tv_nsec) / 1'000'000;
}

static std::string window_program() {
    return xasprintf("%s/tellbox-window", lib_dir());
}

static bool has_window_program() {
    return access(window_program().c_str(), X_OK) == 0;
}

namespace {

struct login_monitor_closer {
    void operator()(sd_login_monitor *monitor) const { sd_login_monitor_unref(monitor); }
};

class agent {
public:
    explicit agent(sd_event *loop);
    void start();

private:
    // What wakes it
    static int on_wake(sd_event_source *, const signalfd_siginfo *, void *self);
    static int on_end(sd_event_source *, const signalfd_siginfo *, void *self);
    static int on_look_timer(sd_event_source *, uint64_t, void *self);
    static int on_login_event(sd_event_source *, int, uint32_t, void *self);
    static int on_environment(sd_bus_message *reply, void *self, sd_bus_error *);
    static int on_environment_limit(sd_event_source *, uint64_t, void *self);
    void add_signals();
    void watch_logins();
    void connect_bus();
    void look_in(uint64_t milliseconds);

    // Looking at the mailbox
    void look();
    [[nodiscard]] bool is_desktop_gone();
    static void write_ready_file();
    void look_at_mailbox(own_mailbox *box);
    [[nodiscard]] bool is_engaged() const;
    void plan_expiry(const message_record &message);
    [[nodiscard]] bool still_stands(const own_mailbox &box);
    [[nodiscard]] bool is_waiting(const own_mailbox &box, int64_t id) const;
    [[nodiscard]] bool choose_asked_for(const own_mailbox &box);
    void choose_due(const own_mailbox &box);
    [[nodiscard]] int64_t due_at(const pending_message &pending) const;
    void forget_marks(const std::vector<pending_message> &pending);

    // Showing a message
    void begin(waiting_message chosen);
    void prepare();
    void open_window();
    void failed_to_show();
    void shown();
    void release();
    int64_t let_go();

    // What comes back
    void window_ended(dialog_end end);
    void notice_stands(int64_t id);
    void notice_gone(int64_t id);
    void action_chosen(int64_t id, const std::string &action, const std::string &token);
    void answer(int64_t id, dialog_end answer);
    void finish();

    sd_event *loop_;
    std::string owner_; // account name
    unique_bus bus_;
    unique_slot environment_call_; // under way before a window is opened
    unique_source environment_limit_;
    std::vector<unique_source> signals_;
    std::unique_ptr<sd_login_monitor, login_monitor_closer> login_monitor_;
    unique_source login_source_;
    mailbox_watch watch_;
    unique_source look_timer_;
    uint64_t look_at_ms_ = UINT64_MAX; // when the timer fires
    uint64_t look_not_before_ms_ = 0;
    dialog window_;
    notifier notices_;
    config settings_;

    waiting_message current_; // on the screen, or being opened; id 0: none
    int64_t began_ = 0;       // when it was chosen
    bool is_shown_ = false;
    bool mark_stands_ = false; // its mark "shown"
    bool only_notice_ = false; // there is no window program
    int64_t asked_for_ = 0;    // the user wants to see this one, due or not
    std::string token_;        // of the user's activation
    environment_list manager_environment_;
    std::map<int64_t, int64_t> remembered_; // moments of marks that could not be written
    size_t round_done_ = 0;                 // messages done since none was due
    size_t round_total_ = 1;
    uint64_t retry_pause_ms_ = 0; // 0: the last try succeeded
    uint64_t retry_at_ms_ = 0;
    bool window_hung_ = false; // the last window; maybe it waited for the bus
    bool is_closing_ = false;  // the window closes: the message must not be shown any more
    bool is_finishing_ = false;
};

} // namespace

// ---- Starting -----------------------------------------------------------------------------

agent::agent(sd_event *loop)
    : loop_(loop), watch_(loop, [this] { look_in(0); }),
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

// Watches the mailbox first, then writes the readiness file, which tells `tbx` that a signal is
// enough, then looks at the mailbox. So no message is missed.
void agent::start() {
    if (own_account(&owner_) != 0)
        die(_("cannot find the account of this user: %s"), strerror(errno));
    add_signals();
    watch_logins();
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

// If it fails, the sessions are still checked with every look.
void agent::watch_logins() {
    sd_login_monitor *monitor = nullptr;
    if (!has_service_manager() || sd_login_monitor_new("session", &monitor) < 0)
        return;
    login_monitor_.reset(monitor);
    sd_event_source *source = nullptr;
    const int events = sd_login_monitor_get_events(monitor);
    if (events >= 0)
        (void)sd_event_add_io(loop_, &source, sd_login_monitor_get_fd(monitor),
                              static_cast<uint32_t>(events), on_login_event, this);
    login_source_.reset(source);
}

// Connecting does not block: the exchange with the bus takes place while the loop runs.
void agent::connect_bus() {
    if (bus_ && sd_bus_is_open(bus_.get()) > 0)
        return;
    notices_.use(nullptr);
    environment_call_.reset();
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
    woken->retry_at_ms_ = 0;
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

int agent::on_login_event(sd_event_source *, int, uint32_t, void *self) {
    auto *woken = static_cast<agent *>(self);
    (void)sd_login_monitor_flush(woken->login_monitor_.get()); // the look below finds what happened
    woken->look_in(0);
    return 0;
}

// Plans a look in so many milliseconds, unless an earlier one is planned already.
void agent::look_in(uint64_t milliseconds) {
    const uint64_t moment = monotonic_ms();
    const uint64_t at = std::max(moment + milliseconds, look_not_before_ms_);
    if (look_timer_ && look_at_ms_ <= at)
        return;
    look_at_ms_ = at;
    require(set_timer(loop_, &look_timer_, at - moment, on_look_timer, this),
            _("cannot set a timer"));
}

// ---- Looking at the mailbox ---------------------------------------------------------------

void agent::look() {
    const uint64_t began = monotonic_ms();
    look_at_ms_ = UINT64_MAX;
    if (is_finishing_)
        return;
    if (is_desktop_gone()) {
        finish();
        return;
    }
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
        release(); // there is nothing to show
        break;
    case mailbox_look::failed:
        break; // unknown: no change
    }
    const uint64_t ended = monotonic_ms();
    look_not_before_ms_ = ended + std::max(LOOK_INTERVAL_MS, (ended - began) * LOOK_IDLE_FACTOR);
}

// Whether the user has logged out. The readiness file is removed before the last question: an agent
// that is started after the next login finds it missing and waits for the lock, or comes before
// the question.
bool agent::is_desktop_gone() {
    if (!has_service_manager() || has_desktop_session(geteuid()))
        return false;
    ready_file_remove();
    if (!has_desktop_session(geteuid()))
        return true;
    write_ready_file();
    return false;
}

void agent::write_ready_file() {
    if (ready_file_write() != 0)
        die(_("cannot write to %s: %s"), runtime_folder().c_str(), strerror(errno));
}

void agent::look_at_mailbox(own_mailbox *box) {
    answer_finish_interrupted(box);
    if (is_engaged() && !still_stands(*box))
        release();
    if (notices_.wanted() != 0 && notices_.wanted() != current_.id &&
        !is_waiting(*box, notices_.wanted()))
        notices_.take_down();
    if (!is_engaged() && !choose_asked_for(*box))
        choose_due(*box);
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
    return window_.is_open() || environment_call_ || (only_notice_ && is_shown_);
}

bool agent::is_waiting(const own_mailbox &box, int64_t id) const {
    waiting_message found;
    const waiting_state state = inbox_look(box, id, now(), &found);
    return state == waiting_state::waiting || state == waiting_state::failed;
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

bool agent::choose_asked_for(const own_mailbox &box) {
    const int64_t id = std::exchange(asked_for_, 0);
    waiting_message found;
    if (id == 0 || inbox_look(box, id, now(), &found) != waiting_state::waiting)
        return false;
    begin(std::move(found));
    return true;
}

// Returns when the message is due on the desktop; 0 for now.
int64_t agent::due_at(const pending_message &pending) const {
    channel_mark desktop = pending.desktop;
    const auto remembered = remembered_.find(pending.id);
    if (desktop.kind == mark_kind::none && remembered != remembered_.end())
        desktop = {mark_kind::shown, remembered->second};
    return due_time(pending.terminal, desktop, channel::desktop, now(),
                    settings_.remind_minutes * 60);
}

void agent::forget_marks(const std::vector<pending_message> &pending) {
    std::erase_if(remembered_, [&pending](const auto &mark) {
        return std::ranges::find(pending, mark.first, &pending_message::id) == pending.end();
    });
}

// Shows the first message that is due, and plans the next look for those that will be due.
void agent::choose_due(const own_mailbox &box) {
    std::vector<pending_message> pending;
    if (inbox_pending(box, now(), &pending) != 0)
        return; // looked at again at the next poll
    forget_marks(pending);
    waiting_message first;
    size_t due = 0;
    for (const pending_message &candidate : pending) {
        const int64_t at = due_at(candidate);
        waiting_message found;
        if (at > 0)
            look_in(static_cast<uint64_t>(at - now()) * MSEC_PER_SEC);
        else if (due >= COUNTED_MAX)
            due++;
        else if (inbox_look(box, candidate.id, now(), &found) == waiting_state::waiting &&
                 ++due == 1)
            first = std::move(found);
    }
    const uint64_t moment = monotonic_ms();
    if (due == 0) {
        round_done_ = 0;
    } else if (retry_at_ms_ > moment) {
        look_in(retry_at_ms_ - moment);
    } else {
        round_total_ = round_done_ + due;
        begin(std::move(first));
    }
}

// ---- Showing a message --------------------------------------------------------------------

void agent::begin(waiting_message chosen) {
    const bool is_asked_for = !token_.empty() && notices_.wanted() == chosen.id;
    current_ = std::move(chosen);
    began_ = now();
    is_shown_ = mark_stands_ = false;
    only_notice_ = !has_window_program();
    if (only_notice_)
        failed_to_show(); // unless the service takes the notification
    if (!is_asked_for)
        notices_.put_up(make_notice(current_.message, !only_notice_));
    if (!only_notice_)
        prepare();
}

// Asks the service manager for the present environment of the desktop. If there is no service
// manager, any answer shows that the bus works.
void agent::prepare() {
    manager_environment_.clear();
    sd_bus_slot *slot = nullptr;
    sd_bus_message *message = nullptr;
    int result = bus_ ? 0 : -ENOTCONN;
    if (result >= 0 && has_service_manager())
        result = sd_bus_message_new_method_call(bus_.get(), &message, "org.freedesktop.systemd1",
                                                "/org/freedesktop/systemd1",
                                                "org.freedesktop.DBus.Properties", "Get");
    else if (result >= 0)
        result = sd_bus_message_new_method_call(bus_.get(), &message, "org.freedesktop.DBus",
                                                "/org/freedesktop/DBus", "org.freedesktop.DBus",
                                                "GetId");
    const unique_bus_message call(message);
    if (result >= 0 && has_service_manager())
        result =
            sd_bus_message_append(message, "ss", "org.freedesktop.systemd1.Manager", "Environment");
    if (result >= 0)
        result = sd_bus_call_async(bus_.get(), &slot, message, on_environment, this, UINT64_MAX);
    environment_call_.reset(slot);
    // The bus's own limits begin only with its first answer.
    if (result >= 0)
        result =
            set_timer(loop_, &environment_limit_, BUS_ANSWER_LIMIT_MS, on_environment_limit, this);
    if (result < 0)
        open_window();
}

int agent::on_environment_limit(sd_event_source *, uint64_t, void *self) {
    auto *asking = static_cast<agent *>(self);
    if (asking->environment_call_) {
        asking->environment_call_.reset();
        asking->open_window();
    }
    return 0;
}

// Returns the list of strings in a variant; empty for any other answer.
static environment_list read_environment(sd_bus_message *reply) {
    environment_list found;
    const char *variable = nullptr;
    if (sd_bus_message_enter_container(reply, 'v', "as") < 0 ||
        sd_bus_message_enter_container(reply, 'a', "s") < 0)
        return found;
    while (sd_bus_message_read(reply, "s", &variable) > 0)
        found.emplace_back(variable);
    return found;
}

int agent::on_environment(sd_bus_message *reply, void *self, sd_bus_error *) {
    auto *asking = static_cast<agent *>(self);
    const unique_slot finished = std::move(asking->environment_call_); // in use until we return
    if (has_service_manager() && sd_bus_message_is_method_error(reply, nullptr) == 0)
        asking->manager_environment_ = read_environment(reply);
    asking->open_window();
    return 0;
}

static std::string window_input(const message_record &message, size_t place, size_t total) {
    strbuf input;
    strbuf_printf(&input, "%zu of %zu\n", place, total);
    message_format(message, &input);
    return std::string(input.view());
}

void agent::open_window() {
    environment_call_.reset();
    if (is_finishing_ || current_.id == 0)
        return;
    environment_list environment = window_environment(own_environment(), manager_environment_);
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
    const size_t place = std::min(round_done_ + 1, round_total_);
    is_closing_ = false;
    if (!display_answers(environment) ||
        window_.open(window_program(), window_input(current_.message, place, round_total_),
                     environment) != 0)
        failed_to_show();
}

// The message stays due. The pause before the next try doubles.
void agent::failed_to_show() {
    retry_pause_ms_ = std::clamp(retry_pause_ms_ * 2, RETRY_FIRST_MS, RETRY_LONGEST_MS);
    retry_at_ms_ = monotonic_ms() + retry_pause_ms_;
    look_in(retry_pause_ms_);
}

// Writes the mark "shown". If it cannot be written, its time is remembered.
void agent::shown() {
    retry_pause_ms_ = retry_at_ms_ = 0;
    window_hung_ = false;
    is_shown_ = true;
    const int64_t moment = now();
    own_mailbox box;
    if (mailbox_open(owner_, &box) != mailbox_look::found)
        return; // the next look notices it
    [[maybe_unused]] const mailbox_lock lock = mailbox_lock::take(box, /*patience_ms=*/0);
    mark_stands_ = answer_shown(&box, current_.id, channel::desktop, moment,
                                settings_.remind_minutes * 60) == 0;
    if (!mark_stands_ && errno != ENOENT && errno != EALREADY)
        remembered_[current_.id] = moment;
    look_in(0);
}

// Removes the message from the screen: it must not be shown any more.
void agent::release() {
    environment_call_.reset();
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
        answer(id, end);
    if ((end == dialog_end::never_shown || end == dialog_end::mute) && !is_closing_ &&
        !is_finishing_)
        failed_to_show();
    else if (!is_closing_)
        round_done_++;
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
    round_done_++;
    look_in(0);
}

void agent::action_chosen(int64_t id, const std::string &action, const std::string &token) {
    if (only_notice_ && (action == "read" || action == "later")) {
        (void)let_go();
        round_done_++;
        answer(id, action == "read" ? dialog_end::read : dialog_end::later);
    } else if (action == "show") {
        token_ = token;
        asked_for_ = id;
        is_closing_ = true; // it is shown again at once
        window_.close();
    }
    look_in(0);
}

static void say_not_saved(int64_t id, const char *reason) {
    warn(_("the answer to message %lld could not be saved: %s"), static_cast<long long>(id),
         reason);
}

void agent::answer(int64_t id, dialog_end answer) {
    notices_.take_down();
    own_mailbox box;
    if (mailbox_open(owner_, &box) != mailbox_look::found) {
        say_not_saved(id, strerror(errno));
        return;
    }
    [[maybe_unused]] const mailbox_lock lock = mailbox_lock::take(box, /*patience_ms=*/0);
    if (answer == dialog_end::later) {
        if (answer_postpone(&box, id, channel::desktop) != 0 && errno != ENOENT &&
            errno != EALREADY)
            say_not_saved(id, strerror(errno));
        return;
    }
    const confirmation result = answer_confirm(&box, id, channel::desktop);
    if (result.result == confirm_result::failed || result.result == confirm_result::not_a_file) {
        const char *reason = result.result == confirm_result::failed
                                 ? strerror(result.error)
                                 : _("something else stands in its place");
        say_not_saved(id, reason);
        notices_.put_up(make_failure_notice(id, reason));
    }
}

// Ends the loop when the window is gone.
void agent::finish() {
    is_finishing_ = true;
    ready_file_remove();
    environment_call_.reset();
    notices_.take_down();
    if (window_.is_open())
        window_.close();
    else
        require(sd_event_exit(loop_, 0), _("cannot end"));
}

// ---- One for each user --------------------------------------------------------------------

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
    sigprocmask(SIG_BLOCK, &blocked, nullptr); // cannot fail: the arguments are right
    signal(SIGPIPE, SIG_IGN);
}

// Opens missing standard streams, so that files opened later do not get their numbers.
static void open_standard_streams() {
    int opened = 0;
    while (opened >= 0 && opened <= STDERR_FILENO)
        opened = open("/dev/null", O_RDWR | O_CLOEXEC);
    if (opened >= 0)
        close(opened);
}

int agent_run() {
    block_signals();
    open_standard_streams();
    umask(022);
    if (has_service_manager() && !has_desktop_session(geteuid()))
        return 0;
    unique_fd lock;
    if (!become_the_agent(&lock))
        return 0;
    sd_event *loop = nullptr;
    require(sd_event_new(&loop), _("cannot make an event loop"));
    const unique_loop owned(loop);
    agent only(loop);
    only.start();
    const int status = sd_event_loop(loop);
    ready_file_remove();
    require(status, _("the event loop failed"));
    return 0;
}
