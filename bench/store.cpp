// store VAR MESSAGES RECIPIENTS USERS FIRST-UID DATE TEXT [WORD...]: makes a store as years of
// use would leave it, or brings one that was worked on since back to what it was. Message N of
// MESSAGES was sent N seconds after DATE to RECIPIENTS of the users "user0000" to USERS, whose
// accounts are numbered from FIRST-UID. The words say what else there is:
//   copies     the messages are in the mailboxes
//   shown      they were shown on a terminal
//   confirmed  and confirmed there
//   cut        sending was interrupted half-way
#include "floor.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

struct shape {
    std::string var;
    int messages;
    int recipients;
    int users;
    uid_t first_uid;
    long long first_date;
    std::string text;
    bool copies;
    bool shown;
    bool confirmed;
    bool cut;
};

// ---- Files --------------------------------------------------------------------------------

static void make_folder(const char *name, mode_t mode, uid_t owner) {
    if (mkdir(name, mode) != 0) {
        if (errno != EEXIST)
            fail(name);
        return;
    }
    must(chown(name, owner, owner), name);
}

static void write_file(const char *name, std::string_view text, uid_t owner) {
    const int fd = must(open(name, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644), name);
    write_whole(fd, text);
    if (owner != 0)
        must(fchown(fd, owner, owner), name);
    close(fd);
}

// ---- Users --------------------------------------------------------------------------------

static std::string user_name(int number) {
    return path("user%04d", number).c_str();
}

static void make_mailbox(const shape &wanted, int number) {
    const uid_t owner = wanted.first_uid + static_cast<uid_t>(number);
    const path mailbox("%s/users/%s", wanted.var.c_str(), user_name(number).c_str());
    make_folder(mailbox, 0700, owner);
    for (const char *folder : {"inbox", "read", "acks", "state"})
        make_folder(path("%s/%s", mailbox.c_str(), folder), 0755, owner);
}

// RECIPIENTS of the users, evenly spread, and others for each message.
static std::vector<int> recipients_of(const shape &wanted, int message) {
    const int step = std::max(1, wanted.users / wanted.recipients);
    std::vector<int> numbers;
    for (int place = 0; place < wanted.recipients; place++)
        numbers.push_back((message + place * step) % wanted.users);
    std::sort(numbers.begin(), numbers.end());
    return numbers;
}

// ---- Messages -----------------------------------------------------------------------------

static std::string message_text(const shape &wanted, int message) {
    const path header("format: 1\nid: %d\nfrom: root\ndate: %lld\ntitle: \nexpires: \n\n", message,
                      wanted.first_date + message);
    return header.c_str() + wanted.text + "\n";
}

// What one recipient's mailbox holds of a message.
static void fill_mailbox(const shape &wanted, int message, int user, std::string_view text) {
    const uid_t owner = wanted.first_uid + static_cast<uid_t>(user);
    const path mailbox("%s/users/%s", wanted.var.c_str(), user_name(user).c_str());
    const char *top = mailbox;
    if (wanted.copies)
        write_file(path("%s/inbox/%d", top, message), text, owner);
    if (wanted.shown)
        write_file(path("%s/state/%d.term", top, message), "", owner);
    if (wanted.confirmed)
        write_file(path("%s/acks/%d", top, message),
                   path("%lld terminal\n", wanted.first_date + message).c_str(), owner);
}

static void empty_mailbox(const shape &wanted, int message, int user) {
    unlink(path("%s/users/%s/inbox/%d", wanted.var.c_str(), user_name(user).c_str(), message));
}

static void write_message(const shape &wanted, int message) {
    const path dir("%s/sent/%d", wanted.var.c_str(), message);
    const char *top = dir;
    const std::string text = message_text(wanted, message);
    const std::vector<int> recipients = recipients_of(wanted, message);
    std::string names;
    std::string deliveries;
    const size_t reached = wanted.cut ? recipients.size() / 2 : recipients.size();
    for (size_t place = 0; place < recipients.size(); place++) {
        const std::string name = user_name(recipients[place]);
        names.append(name).push_back('\n');
        if (place >= reached) {
            empty_mailbox(wanted, message, recipients[place]);
            continue;
        }
        deliveries.append(path("%s %lld 1\n", name.c_str(), wanted.first_date + message));
        fill_mailbox(wanted, message, recipients[place], text);
    }
    make_folder(top, 0700, 0);
    for (const char *marker : {"revoked", "revoking"})
        unlink(path("%s/%s", top, marker));
    write_file(path("%s/msg", top), text, 0);
    write_file(path("%s/recipients", top), names, 0);
    write_file(path("%s/delivery", top), deliveries, 0);
    write_file(path("%s/lock", top), "", 0);
    if (wanted.cut)
        write_file(path("%s/incomplete", top), "", 0);
}

static void make_store(const shape &wanted) {
    make_folder(wanted.var.c_str(), 0755, 0);
    make_folder(path("%s/users", wanted.var.c_str()), 0755, 0);
    make_folder(path("%s/sent", wanted.var.c_str()), 0700, 0);
    for (int user = 0; user < wanted.users; user++)
        make_mailbox(wanted, user);
    for (int message = 1; message <= wanted.messages; message++)
        write_message(wanted, message);
}

static int number_of(const char *text) {
    char *end = nullptr;
    errno = EINVAL; // for what is no number
    const long long number = strtoll(text, &end, 10);
    if (end == text || *end != '\0' || number < 0 || number > INT_MAX)
        fail(text);
    return static_cast<int>(number);
}

int main(int argc, char **argv) {
    constexpr int FIXED_ARGUMENTS = 8;
    if (argc < FIXED_ARGUMENTS) {
        fprintf(stderr, "usage: store VAR MESSAGES RECIPIENTS USERS FIRST-UID DATE TEXT WORD...\n");
        return 1;
    }
    const auto is_asked = [&](const char *word) {
        return std::any_of(argv + FIXED_ARGUMENTS, argv + argc,
                           [word](const char *given) { return strcmp(given, word) == 0; });
    };
    umask(022);
    make_store({argv[1], number_of(argv[2]), number_of(argv[3]), number_of(argv[4]),
                static_cast<uid_t>(number_of(argv[5])), number_of(argv[6]), argv[7],
                is_asked("copies"), is_asked("shown") || is_asked("confirmed"),
                is_asked("confirmed"), is_asked("cut")});
    return 0;
}
