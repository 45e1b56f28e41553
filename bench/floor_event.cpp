#include "floor_event.h"

#include <fcntl.h>
#include <syslog.h>
#include <systemd/sd-login.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>

// ---- Writing ------------------------------------------------------------------------------

void record(const event &told) {
    const int result = sd_journal_send_with_location(
        "CODE_FILE=src/event", "CODE_LINE=75", "event", "MESSAGE=%s", told.sentence,
        "SYSLOG_IDENTIFIER=tbx", "PRIORITY=%d", LOG_INFO, "TBX_EVENT=%s", told.name,
        "TBX_MESSAGE=%s", told.message, "TBX_USER=%s", told.user, "TBX_CHANNEL=%s", "",
        "TBX_DETAILS=%s", told.details, "TBX_AUTHOR=%s", told.author, nullptr);
    errno = -result; // the library returns what others leave there
    must(result, "journal");
}

void append_delivery(const std::string &dir, const account &user, int terminals) {
    const path line("%s %lld %d\n", user.name.c_str(), static_cast<long long>(time(nullptr)),
                    terminals);
    const path name("%s/delivery", dir.c_str());
    const int fd =
        must(open(name, O_WRONLY | O_CREAT | O_APPEND | O_NOFOLLOW | O_CLOEXEC, 0600), name);
    write_whole(fd, line.c_str());
    close(fd);
}

// ---- Sessions -----------------------------------------------------------------------------

void look_through_sessions(const account &user) {
    char **sessions = nullptr;
    const int count = sd_get_sessions(&sessions);
    for (int i = 0; i < count; i++) {
        uid_t owner = 0;
        char *type = nullptr;
        if (sd_session_get_uid(sessions[i], &owner) >= 0 && owner == user.uid)
            whatever(sd_session_get_type(sessions[i], &type));
        free(type);
        free(sessions[i]);
    }
    free(sessions);
}

// ---- Reading ------------------------------------------------------------------------------

static constexpr const char *FIELDS[] = {"TBX_EVENT",  "TBX_USER", "TBX_CHANNEL", "TBX_DETAILS",
                                         "TBX_AUTHOR", "MESSAGE",  "_UID"};
static constexpr size_t FIELD_MAX_BYTES = 8'388'608;

static void print_entry(sd_journal *journal) {
    const void *data = nullptr;
    size_t length = 0;
    for (const char *field : FIELDS)
        if (sd_journal_get_data(journal, field, &data, &length) >= 0)
            fwrite(data, 1, length, stdout);
    uint64_t usec = 0;
    must(sd_journal_get_realtime_usec(journal, &usec), "time");
    printf("%llu\n", static_cast<unsigned long long>(usec));
}

int print_history(const std::string &id, int64_t since_seconds) {
    sd_journal *journal = nullptr;
    must(sd_journal_open(&journal, 0), "journal");
    must(sd_journal_set_data_threshold(journal, FIELD_MAX_BYTES), "threshold");
    must(sd_journal_add_match(journal, "SYSLOG_IDENTIFIER=tbx", 0), "match");
    must(sd_journal_add_match(journal, path("TBX_MESSAGE=%s", id.c_str()), 0), "match");
    must(sd_journal_seek_realtime_usec(journal, static_cast<uint64_t>(since_seconds) * 1'000'000),
         "seek");
    int records = 0;
    for (; must(sd_journal_next(journal), "next") > 0; records++)
        print_entry(journal);
    sd_journal_close(journal);
    return records;
}
