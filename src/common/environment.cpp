#include "common/environment.h"

#include "common/core.h"

#include <cstdlib>
#include <cstring>

// Set once by init_environment(), read-only after that. The overrides point into the process
// environment; the program never changes these variables.
static struct {
    const char *var_dir = "/var/lib/tellbox";
    const char *lib_dir = "/usr/local/lib/tellbox";
    const char *conf_path = "/etc/tellbox/tellbox.conf";
    bool test_mode = false;
} environment;

static void override_with(const char **setting, const char *variable) {
    const char *value = getenv(variable);
    if (value != nullptr && *value != '\0')
        *setting = value;
}

void init_environment(const char *progname) {
    set_program_name(progname);
    environment = {};
    const char *test = getenv("TBX_TEST");
    environment.test_mode = test != nullptr && *test != '\0';
    if (!environment.test_mode)
        return;
    override_with(&environment.var_dir, "TBX_VAR");
    override_with(&environment.lib_dir, "TBX_LIB");
    override_with(&environment.conf_path, "TBX_CONF");
}

const char *var_dir() {
    return environment.var_dir;
}

const char *lib_dir() {
    return environment.lib_dir;
}

const char *conf_path() {
    return environment.conf_path;
}

bool test_mode() {
    return environment.test_mode;
}

// ---- Configuration ------------------------------------------------------------------------

constexpr size_t CONFIG_LINE_MAX_BYTES = 255; // without blanks and comment
constexpr size_t CONFIG_VALUE_MAX_DIGITS = 6;

static bool is_config_blank(char c) {
    return c == ' ' || c == '\t' || c == '\v' || c == '\f' || c == '\r';
}

// Returns the line without blanks and comment.
static std::string compact_line(std::string_view line) {
    std::string compact;
    for (const char c : line.substr(0, line.find('#')))
        if (!is_config_blank(c))
            compact += c;
    return compact;
}

static void apply_config_line(std::string_view line, config *settings) {
    const std::string compact = compact_line(line);
    const size_t equals = compact.find('=');
    if (compact.size() > CONFIG_LINE_MAX_BYTES || equals == std::string::npos)
        return;
    const std::string_view key = std::string_view(compact).substr(0, equals);
    const std::string_view digits = std::string_view(compact).substr(equals + 1);
    int64_t value = 0;
    if (digits.size() > CONFIG_VALUE_MAX_DIGITS || !parse_id(digits, &value) || value == 0)
        return;
    if (key == "TBX_REMIND_MINUTES")
        settings->remind_minutes = value;
    else if (key == "TBX_AGENT_POLL")
        settings->agent_poll = value;
}

void parse_config_text(const char *text, config *settings) {
    std::string_view rest = text;
    while (!rest.empty()) {
        const size_t end = rest.find('\n');
        apply_config_line(rest.substr(0, end), settings);
        rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
    }
}

void load_config(config *settings) {
    *settings = {};
    strbuf text;
    if (read_file_limited(conf_path(), CONFIG_MAX_BYTES, /*nofollow=*/false, &text) != 0)
        return; // no usable file: the defaults stay
    if (text.len > 0)
        parse_config_text(text.data, settings);
}
