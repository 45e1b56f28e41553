// A stand-in for the program that users run, for the tests on a booted machine: it does what the
// administrator's tool expects of that program, and shows nothing to anybody.
//
//   tellbox-user agent                       runs until it is ended; SIGUSR1 makes it look
//   tellbox-user confirm ID CHANNEL          the user confirms a message
//   tellbox-user postpone ID CHANNEL         the user puts a message off
//   tellbox-user fail ID CHANNEL ERROR       a confirmation could not be recorded
#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <systemd/sd-journal.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <string>

namespace fs = std::filesystem;

static std::string user_name() {
    const passwd *account = getpwuid(getuid());
    if (account == nullptr)
        exit(1);
    return account->pw_name;
}

static fs::path mailbox() {
    return fs::path("/var/lib/tellbox/users") / user_name();
}

static void write_file(const fs::path &path, const std::string &text) {
    std::ofstream file(path);
    file << text << std::flush;
    if (!file) {
        perror(path.c_str());
        exit(1);
    }
}

// ---- The agent ----------------------------------------------------------------------------

static fs::path runtime_file(const char *name) {
    return fs::path("/run/user") / std::to_string(getuid()) / name;
}

// "Shows" every message that is not marked as shown, and notes that it has looked.
static void look(const char *reason) {
    std::error_code no_mailbox;
    for (const auto &copy : fs::directory_iterator(mailbox() / "inbox", no_mailbox)) {
        const fs::path mark = mailbox() / "state" / (copy.path().filename().string() + ".gui");
        if (copy.path().extension() != ".tmp" && !fs::exists(mark))
            write_file(mark, "");
    }
    std::ofstream(runtime_file("tellbox-agent.looks"), std::ios::app)
        << getpid() << ' ' << reason << std::endl;
}

static int run_agent() {
    sigset_t awaited;
    sigemptyset(&awaited);
    sigaddset(&awaited, SIGUSR1);
    sigprocmask(SIG_BLOCK, &awaited, nullptr); // one sent while it looks is not lost
    write_file(runtime_file("tellbox-agent.ready"), std::to_string(getpid()) + "\n");
    look("started");
    int number = 0;
    while (sigwait(&awaited, &number) == 0)
        look("woken");
    return 1;
}

// ---- What the user answers ----------------------------------------------------------------

static int record(const char *event, const char *sentence, const char *id, const char *channel,
                  const char *details) {
    const std::string user = user_name();
    const int result = sd_journal_send(
        "MESSAGE=user %s: %s %s (%s)", user.c_str(), sentence, id, channel, "SYSLOG_IDENTIFIER=tbx",
        "PRIORITY=6", "TBX_EVENT=%s", event, "TBX_MESSAGE=%s", id, "TBX_USER=%s", user.c_str(),
        "TBX_CHANNEL=%s", channel, "TBX_DETAILS=%s", details, "TBX_AUTHOR=", nullptr);
    return result < 0 ? 1 : 0;
}

static int confirm(const char *id, const char *channel) {
    fs::rename(mailbox() / "inbox" / id, mailbox() / "read" / id);
    write_file(mailbox() / "acks" / id, std::to_string(time(nullptr)) + " " + channel + "\n");
    return record("CONFIRMED", "confirmed reading message", id, channel, "");
}

static int postpone(const char *id, const char *channel) {
    const char *suffix = strcmp(channel, "desktop") == 0 ? ".gui" : ".term";
    write_file(mailbox() / "state" / (std::string(id) + suffix), "");
    return record("POSTPONED", "postponed message", id, channel, "");
}

static int fail(const char *id, const char *channel, const char *error) {
    return record("CONFIRMATION_FAILED", "ERROR, confirmation not recorded of message", id, channel,
                  error);
}

int main(int argc, char **argv) {
    umask(022);
    const std::string command = argc > 1 ? argv[1] : "";
    if (command == "agent" && argc == 2)
        return run_agent();
    if (command == "confirm" && argc == 4)
        return confirm(argv[2], argv[3]);
    if (command == "postpone" && argc == 4)
        return postpone(argv[2], argv[3]);
    if (command == "fail" && argc == 5)
        return fail(argv[2], argv[3], argv[4]);
    return 2;
}
