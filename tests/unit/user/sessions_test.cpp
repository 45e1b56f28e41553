#include "user/sessions.h"

#include "user_support.h"

namespace {

using state = session_watch::state;

const std::string ON_DESKTOP = "UID=0\nTYPE=x11\nCLASS=user\nSTATE=active\nACTIVE=1\n";

// A watch on the sessions of root, on a private machine only.
struct watched_sessions {
    watched_sessions() { std::filesystem::create_directories("/run/user/0/systemd"); }

    // Writes a session's file as the login manager does.
    static void put(const std::string &name, const std::string &text) {
        write_file("/run/systemd/new", text);
        std::filesystem::rename("/run/systemd/new", "/run/systemd/sessions/" + name);
    }
    static void name_all(const std::string &names) {
        write_file("/run/systemd/users/0", "ONLINE_SESSIONS=" + names + "\n");
    }
    // Prints what a look finds.
    void look() {
        const state found = watch.look();
        printf("%s ", found == state::unchanged ? "unchanged"
                      : found == state::changed ? "changed"
                                                : "none");
    }

    const unique_loop loop = new_loop();
    int told = 0;
    session_watch watch{loop.get(), [this] { told++; }};
};

// What `body` prints with such a watch.
template <typename Body> std::string told(Body &&body) {
    const child_result child = run_on(machine_of_pat_and_sam(), [&] {
        watched_sessions sessions;
        body(sessions);
    });
    return child.out + child.err;
}

TEST(Sessions, AreComparedWithTheLastLook) {
    SKIP_UNLESS_ROOT();
    EXPECT_EQ(told([](watched_sessions &sessions) {
                  sessions.put("c1", ON_DESKTOP);
                  sessions.put("c2", ON_DESKTOP);
                  sessions.name_all("c1");
                  sessions.look();
                  sessions.look();
                  sessions.name_all("c2 c1");
                  sessions.look();
                  sessions.name_all("c1 c2");
                  sessions.look();
                  sessions.name_all("c2");
                  sessions.look();
                  sessions.name_all("");
                  sessions.look();
              }),
              "changed unchanged changed unchanged changed none ");
}

TEST(Sessions, CountOnlyIfTheyAreOfADesktopAndNotAboutToEnd) {
    SKIP_UNLESS_ROOT();
    EXPECT_EQ(told([](watched_sessions &sessions) {
                  sessions.name_all("c1");
                  for (const char *text : {"UID=0\nTYPE=tty\nCLASS=user\nSTATE=active\n",
                                           "UID=0\nTYPE=wayland\nCLASS=greeter\nSTATE=active\n",
                                           "UID=0\nTYPE=x11\nCLASS=user\nSTATE=closing\n",
                                           "UID=0\nTYPE=wayland\nCLASS=user\nSTATE=online\n"}) {
                      sessions.put("c1", text);
                      sessions.look();
                  }
              }),
              "none none none changed ");
}

TEST(Sessions, AreUnchangedWhereNobodyManagesThem) {
    SKIP_UNLESS_ROOT();
    EXPECT_EQ(told([](watched_sessions &sessions) {
                  std::filesystem::remove("/run/user/0/systemd");
                  sessions.look();
              }),
              "unchanged ");
}

TEST(Sessions, TellWhenOneComesAndOnlyThen) {
    SKIP_UNLESS_ROOT();
    EXPECT_EQ(told([](watched_sessions &sessions) {
                  sessions.watch.start();
                  run_what_is_ready(sessions.loop);
                  printf("%d ", sessions.told);
                  sessions.put("c1", ON_DESKTOP);
                  run_what_is_ready(sessions.loop);
                  printf("%d", sessions.told);
              }),
              "0 1");
}

} // namespace
