#include "user/desktop.h"

#include "support.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cstring>

using testing::UnorderedElementsAre;

// Somebody who listens at a socket, as a display's server does.
static unique_fd listen_at(const std::string &path) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    unique_fd listener(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const auto *where = reinterpret_cast<const sockaddr *>(&address);
    if (!listener || bind(listener.get(), where, sizeof address) != 0 ||
        listen(listener.get(), 1) != 0)
        throw_errno(path);
    return listener;
}

TEST(Environment, VariablesAreFoundSetAndUnset) {
    environment_list environment = {"A=1", "AB=2", "EMPTY=", "nonsense"};
    EXPECT_EQ(environment_get(environment, "A"), "1");
    EXPECT_EQ(environment_get(environment, "nonsense"), "");
    environment_set(&environment, "A", "3");
    environment_unset(&environment, "EMPTY");
    EXPECT_THAT(environment, UnorderedElementsAre("AB=2", "nonsense", "A=3"));
}

TEST(Environment, OfThisProcessIsWhatItWasStartedWith) {
    EXPECT_EQ(environment_get(environment_of(getpid()), "PATH"), getenv("PATH"));
    EXPECT_TRUE(environment_of(0).empty());
}

TEST(Display, AnswersIfSomebodyListens) {
    const scratch_state scratch;
    const std::string path = scratch.path("wayland-7");
    const environment_list environment = {"WAYLAND_DISPLAY=wayland-7",
                                          "XDG_RUNTIME_DIR=" + scratch.path(".")};
    EXPECT_FALSE(display_answers(environment));
    const unique_fd server = listen_at(path);
    EXPECT_TRUE(display_answers(environment));
    EXPECT_TRUE(display_answers({"WAYLAND_DISPLAY=" + path}));
}

TEST(Display, OfNobodyDoesNotAnswer) {
    for (const char *variable : {"DISPLAY=", "DISPLAY=:987", "DISPLAY=unix:987.0", "DISPLAY=7",
                                 "WAYLAND_DISPLAY=", "WAYLAND_DISPLAY=wayland-987"})
        EXPECT_FALSE(display_answers({variable, "XDG_RUNTIME_DIR=/nonexistent"})) << variable;
    EXPECT_FALSE(display_answers({"WAYLAND_DISPLAY=/" + std::string(200, 'x')}));
}

TEST(Display, OfAnotherMachineCounts) {
    EXPECT_TRUE(display_answers({"DISPLAY=localhost:10.0"}));
}

TEST(WindowEnvironment, TakesTheManagersVariablesOverOurOwn) {
    EXPECT_THAT(window_environment({"LANG=C", "HOME=/h"}, {"LANG=de_DE.UTF-8", "X=1"}),
                UnorderedElementsAre("HOME=/h", "LANG=de_DE.UTF-8", "X=1"));
}

TEST(WindowEnvironment, TakesOurDisplayOnlyIfTheManagersDoesNotAnswer) {
    const scratch_state scratch;
    const std::string alive = "WAYLAND_DISPLAY=" + scratch.path("alive");
    const unique_fd server = listen_at(scratch.path("alive"));
    EXPECT_THAT(window_environment({"DISPLAY=:987", "XAUTHORITY=/old"}, {alive}),
                UnorderedElementsAre(alive));
    EXPECT_THAT(window_environment({alive}, {"DISPLAY=:987", "XAUTHORITY=/old"}),
                UnorderedElementsAre(alive));
    EXPECT_THAT(window_environment({alive, "DISPLAY=:987"}, {}),
                UnorderedElementsAre(alive, "DISPLAY=:987"));
}

TEST(WindowEnvironment, LeavesTokensOfOthersOut) {
    EXPECT_TRUE(window_environment({"XDG_ACTIVATION_TOKEN=a"}, {"DESKTOP_STARTUP_ID=b"}).empty());
}

TEST(WindowEnvironment, LeavesADescriptorOfOthersOut) {
    EXPECT_TRUE(window_environment({"WAYLAND_SOCKET=3"}, {"WAYLAND_SOCKET=4"}).empty());
}

TEST(Account, OfTheSystemIsNoPersons) {
    for (const uid_t uid : {0U, 1U, 999U, 65534U})
        EXPECT_TRUE(is_system_account(uid)) << uid;
    for (const uid_t uid : {1000U, 60000U, 200000U})
        EXPECT_FALSE(is_system_account(uid)) << uid;
}
