#include "user/desktop.h"

#include "common/core.h"
#include "common/environment.h"
#include "user/instance.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <systemd/sd-login.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>

constexpr size_t ENVIRONMENT_MAX_BYTES = 1 << 20;
constexpr const char *DISPLAY_VARIABLES[] = {"DISPLAY", "WAYLAND_DISPLAY", "XAUTHORITY"};
// They were meant for one process: activation tokens, and a descriptor that only it has.
constexpr const char *PERSONAL_VARIABLES[] = {"DESKTOP_STARTUP_ID", "XDG_ACTIVATION_TOKEN",
                                              "WAYLAND_SOCKET"};

bool has_service_manager() {
    return !test_mode() && is_directory((runtime_folder() + "/systemd").c_str()) != 0;
}

// ---- Login sessions -----------------------------------------------------------------------

using session_question = int (*)(const char *session, char **answer);

// Asks the login manager about a session. Returns its answer, empty if there is none.
static std::string ask_session(session_question question, const char *session) {
    char *answer = nullptr;
    if (question(session, &answer) < 0)
        return {};
    return owned_cstring(answer).get();
}

static bool is_desktop(const char *session) {
    const std::string type = ask_session(sd_session_get_type, session);
    if (type != "x11" && type != "wayland" && type != "mir")
        return false;
    return ask_session(sd_session_get_class, session) != "greeter" &&
           ask_session(sd_session_get_state, session) != "closing";
}

bool desktop_sessions(uid_t uid, std::vector<std::string> *found) {
    found->clear();
    char **sessions = nullptr;
    const int count = sd_uid_get_sessions(uid, /*require_active=*/0, &sessions);
    if (count < 0)
        return count == -ENXIO || count == -ENODATA || count == -ENOENT; // there is no such user
    for (int i = 0; i < count; i++) {
        const owned_cstring session(sessions[i]);
        if (is_desktop(session.get()))
            found->emplace_back(session.get());
    }
    free(sessions);
    std::ranges::sort(*found);
    return true;
}

bool has_desktop_session(uid_t uid) {
    std::vector<std::string> found;
    return !desktop_sessions(uid, &found) || !found.empty();
}

bool is_system_account(uid_t uid) {
    constexpr uid_t FIRST_ORDINARY = 1000;
    constexpr uid_t NOBODY = 65534;
    return uid < FIRST_ORDINARY || uid == NOBODY;
}

// ---- Environments -------------------------------------------------------------------------

environment_list own_environment() {
    environment_list found;
    for (char **variable = environ; variable != nullptr && *variable != nullptr; variable++)
        found.emplace_back(*variable);
    return found;
}

environment_list environment_of(pid_t pid) {
    const std::string path = xasprintf("/proc/%d/environ", pid);
    strbuf text;
    environment_list found;
    if (read_file_limited(path.c_str(), ENVIRONMENT_MAX_BYTES, /*nofollow=*/false, &text) != 0)
        return found;
    for (std::string_view rest = text.view(); !rest.empty();) {
        const std::string_view variable = rest.substr(0, rest.find('\0'));
        found.emplace_back(variable);
        rest.remove_prefix(std::min(variable.size() + 1, rest.size()));
    }
    return found;
}

static bool is_variable(std::string_view variable, std::string_view name) {
    return variable.size() > name.size() && variable.starts_with(name) &&
           variable[name.size()] == '=';
}

std::string_view environment_get(const environment_list &environment, std::string_view name) {
    for (const std::string_view variable : environment)
        if (is_variable(variable, name))
            return variable.substr(name.size() + 1);
    return {};
}

void environment_unset(environment_list *environment, std::string_view name) {
    std::erase_if(*environment,
                  [name](const std::string &variable) { return is_variable(variable, name); });
}

void environment_set(environment_list *environment, std::string_view name, std::string_view value) {
    environment_unset(environment, name);
    environment->push_back(std::string(name).append("=").append(value));
}

// ---- Displays -----------------------------------------------------------------------------

// Whether a program listens at a socket.
//   abstract  the name is no path in the file system
static bool is_listened_to(std::string_view name, bool abstract) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    const size_t from = abstract ? 1 : 0;
    if (name.empty() || from + name.size() >= sizeof address.sun_path)
        return false;
    memcpy(address.sun_path + from, name.data(), name.size());
    const auto length =
        static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + from + name.size());
    const unique_fd connection(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!connection)
        return false;
    const auto *where = reinterpret_cast<const sockaddr *>(&address);
    return connect(connection.get(), where, length) == 0 || errno == EAGAIN; // its queue is full
}

static bool x11_answers(std::string_view display) {
    const size_t colon = display.rfind(':');
    if (colon == std::string_view::npos)
        return false;
    const std::string_view host = display.substr(0, colon);
    if (!host.empty() && host != "unix")
        return true;
    const std::string_view number = display.substr(colon + 1);
    const std::string path = "/tmp/.X11-unix/X" + std::string(number.substr(0, number.find('.')));
    return is_listened_to(path, /*abstract=*/true) || is_listened_to(path, /*abstract=*/false);
}

static bool wayland_answers(std::string_view display, std::string_view folder) {
    if (display.empty())
        return false;
    if (display.starts_with('/'))
        return is_listened_to(display, /*abstract=*/false);
    const std::string place = folder.empty() ? runtime_folder() : std::string(folder);
    return is_listened_to(place + "/" + std::string(display), /*abstract=*/false);
}

bool display_answers(const environment_list &environment) {
    return wayland_answers(environment_get(environment, "WAYLAND_DISPLAY"),
                           environment_get(environment, "XDG_RUNTIME_DIR")) ||
           x11_answers(environment_get(environment, "DISPLAY"));
}

// ---- For a window -------------------------------------------------------------------------

static void move_display(const environment_list &from, environment_list *to) {
    for (const char *name : DISPLAY_VARIABLES) {
        const std::string value(environment_get(from, name));
        environment_unset(to, name);
        if (!value.empty())
            environment_set(to, name, value);
    }
}

environment_list window_environment(const environment_list &own, const environment_list &manager) {
    environment_list result = own;
    for (const std::string &variable : manager) {
        const size_t equals = variable.find('=');
        if (equals != std::string::npos && equals > 0)
            environment_set(&result, variable.substr(0, equals), variable.substr(equals + 1));
    }
    move_display(display_answers(manager) ? manager : own, &result);
    for (const char *name : PERSONAL_VARIABLES)
        environment_unset(&result, name);
    return result;
}
