// The own mailbox: what stands at inbox/7, acks/7 and state/7.term. The first three bytes of the
// input tell what each is (a file, a link, a folder, a pipe, nothing); the parts behind them are
// what the files hold.
#include "common/environment.h"
#include "fuzz.h"
#include "hostile.h"
#include "silent_journal.h"
#include "user/answer.h"

#include <sys/stat.h>
#include <unistd.h>

static const std::string &owner() {
    static const std::string name = [] {
        std::string found;
        CHECK(own_account(&found) == 0);
        return found;
    }();
    return name;
}

static std::string place(const std::string &name) {
    return state_path("users/" + owner() + "/" + name);
}

static bool is_file(unsigned kind) {
    return kind % 8 > 3;
}

static void put(unsigned kind, const std::string &name, std::string_view text) {
    switch (kind % 8) {
    case 0:
        break;
    case 1:
        make_folder(place(name));
        break;
    case 2:
        CHECK(mkfifo(place(name).c_str(), 0600) == 0);
        break;
    case 3:
        put_file(state_path("elsewhere"), text);
        CHECK(symlink(state_path("elsewhere").c_str(), place(name).c_str()) == 0);
        break;
    default:
        put_file(place(name), text);
    }
}

static own_mailbox opened() {
    own_mailbox box;
    CHECK(mailbox_open(owner(), &box) == mailbox_look::found);
    return box;
}

static void check_message(const waiting_message &message) {
    CHECK(message.id == 7 && message.message.id == 7);
    for (const std::string *text : {&message.message.from, &message.message.title})
        CHECK(is_well_formed(*text) && text->find('\n') == std::string::npos);
    CHECK(is_well_formed(message.message.text));
}

void fuzz_one(std::string_view input) {
    const unsigned inbox = take_byte(&input);
    const unsigned acks = take_byte(&input);
    const unsigned state = take_byte(&input);
    const std::vector<std::string_view> parts = parts_of(input, 3);
    remove_all(state_path("users"));
    for (const char *folder : {"inbox", "read", "acks", "state"})
        make_folder(place(folder));
    put(inbox, "inbox/7", parts[0]);
    put(acks, "acks/7", parts[1]);
    put(state, "state/7.term", parts[2]);

    own_mailbox box = opened();
    const int64_t at = now();
    std::vector<waiting_message> waiting;
    CHECK(inbox_waiting(box, at, &waiting) == 0);
    waiting_message message;
    const waiting_state looked = inbox_look(box, 7, at, &message);
    CHECK(waiting.size() == (looked == waiting_state::waiting ? 1 : 0));
    CHECK(looked == waiting_state::absent || is_file(inbox));
    CHECK(looked != waiting_state::waiting || acks % 8 == 0);
    if (looked != waiting_state::absent)
        check_message(message);

    const answer_record answer = answer_read(box, 7);
    CHECK((answer.state == answer_state::answered) == is_file(acks));
    CHECK((answer.state == answer_state::none) == (acks % 8 == 0));
    CHECK(is_well_formed(answer.channel));
    const channel_mark mark = mark_read(box, 7, channel::terminal, at);
    CHECK((mark.kind == mark_kind::none) == !is_file(state));

    const confirmation outcome = answer_confirm(&box, 7, channel::terminal);
    if (acks % 8 != 0) {
        CHECK(outcome.result ==
              (is_file(acks) ? confirm_result::already : confirm_result::not_a_file));
        CHECK(!is_file(acks) || contents_of(place("acks/7")) == parts[1]);
    } else if (inbox % 8 == 0) {
        CHECK(outcome.result == confirm_result::withdrawn);
        CHECK(!path_exists(place("acks/7").c_str()));
    } else {
        CHECK(outcome.result == confirm_result::confirmed);
        CHECK(contents_of(place("acks/7")).ends_with(" terminal\n"));
        CHECK(path_exists(place("read/7").c_str()));
    }
    answer_finish_interrupted(&box);
}
