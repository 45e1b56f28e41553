#include "common/environment.h"

#include "support.h"

namespace {

// The four variables that the environment is fixed from, unset unless given.
struct settings {
    const char *test = nullptr;
    const char *var = nullptr;
    const char *lib = nullptr;
    const char *conf = nullptr;
};

// "VAR LIB CONF MODE" as init_environment() fixes them from `given`.
std::string environment_of(const settings &given) {
    const environment_variable test("TBX_TEST", given.test);
    const environment_variable var("TBX_VAR", given.var);
    const environment_variable lib("TBX_LIB", given.lib);
    const environment_variable conf("TBX_CONF", given.conf);
    init_environment("tbx");
    return xasprintf("%s %s %s %s", var_dir(), lib_dir(), conf_path(),
                     test_mode() ? "test" : "real");
}

constexpr const char *DEFAULTS =
    "/var/lib/tellbox /usr/local/lib/tellbox /etc/tellbox/tellbox.conf real";

// "REMIND POLL" after `text` has been applied to the defaults.
std::string parsed(const std::string &text) {
    config settings;
    parse_config_text(text.c_str(), &settings);
    return xasprintf("%lld %lld", static_cast<long long>(settings.remind_minutes),
                     static_cast<long long>(settings.agent_poll));
}

// The same from the configuration file at `path`, over values that must not survive.
std::string loaded(const std::string &path) {
    const environment_variable test("TBX_TEST", "1");
    const environment_variable conf("TBX_CONF", path.c_str());
    init_environment("tbx");
    config settings = {.remind_minutes = -1, .agent_poll = -1};
    load_config(&settings);
    return xasprintf("%lld %lld", static_cast<long long>(settings.remind_minutes),
                     static_cast<long long>(settings.agent_poll));
}

} // namespace

// ---- Paths and test mode ------------------------------------------------------------------

TEST(Environment, HasFixedPathsByDefault) {
    EXPECT_EQ(environment_of({}), DEFAULTS);
}

TEST(Environment, OverridesCountInTestMode) {
    EXPECT_EQ(environment_of({.test = "1", .var = "/v", .lib = "/l", .conf = "/c"}),
              "/v /l /c test");
}

TEST(Environment, OverridesAreIgnoredOutsideTestMode) {
    EXPECT_EQ(environment_of({.var = "/v", .lib = "/l", .conf = "/c"}), DEFAULTS);
}

TEST(Environment, EmptyTestVariableLeavesTestModeOff) {
    EXPECT_EQ(environment_of({.test = "", .var = "/v"}), DEFAULTS);
}

TEST(Environment, AnyOtherTestVariableSwitchesTestModeOn) {
    EXPECT_EQ(environment_of({.test = "0"}),
              "/var/lib/tellbox /usr/local/lib/tellbox /etc/tellbox/tellbox.conf test");
}

TEST(Environment, EachOverrideStandsAlone) {
    EXPECT_EQ(environment_of({.test = "1", .var = "/v"}),
              "/v /usr/local/lib/tellbox /etc/tellbox/tellbox.conf test");
    EXPECT_EQ(environment_of({.test = "1", .lib = "/l"}),
              "/var/lib/tellbox /l /etc/tellbox/tellbox.conf test");
    EXPECT_EQ(environment_of({.test = "1", .conf = "/c"}),
              "/var/lib/tellbox /usr/local/lib/tellbox /c test");
}

TEST(Environment, EmptyOverridesLeaveTheDefaults) {
    EXPECT_EQ(environment_of({.test = "1", .var = "", .lib = "", .conf = ""}),
              "/var/lib/tellbox /usr/local/lib/tellbox /etc/tellbox/tellbox.conf test");
}

TEST(Environment, PathsAreUsedExactlyAsGiven) {
    EXPECT_EQ(environment_of({.test = "1", .var = "a//b/../c/", .lib = " l ", .conf = "./c"}),
              "a//b/../c/  l  ./c test");
}

TEST(Environment, IsFixedAnewByEachCall) {
    (void)environment_of({.test = "1", .var = "/v", .lib = "/l", .conf = "/c"});
    EXPECT_EQ(environment_of({}), DEFAULTS);
}

TEST(Environment, ProgramNamePrefixesDiagnostics) {
    const child_result child = run_in_child([] {
        init_environment("other");
        warn("hello");
    });
    EXPECT_EQ(child.err, "other: hello\n");
}

// ---- Configuration text -------------------------------------------------------------------

TEST(ConfigText, EmptyTextLeavesTheDefaults) {
    EXPECT_EQ(parsed(""), "30 60");
    EXPECT_EQ(parsed("\n\n"), "30 60");
}

TEST(ConfigText, SetsBothSettings) {
    EXPECT_EQ(parsed("TBX_REMIND_MINUTES=45\nTBX_AGENT_POLL=5\n"), "45 5");
}

TEST(ConfigText, LastLineNeedsNoLineEnd) {
    EXPECT_EQ(parsed("TBX_REMIND_MINUTES=45"), "45 60");
}

TEST(ConfigText, BlanksAndCommentsAreDropped) {
    EXPECT_EQ(parsed("TBX_REMIND_MINUTES = 45   # comment\n"), "45 60");
    EXPECT_EQ(parsed(" \t\v\f\rTBX_AGENT_POLL\t=\v5\f\r\n"), "30 5");
}

TEST(ConfigText, BlanksInsideKeyAndValueAreDroppedToo) {
    EXPECT_EQ(parsed("TBX_AGENT _POLL=1 2\n"), "30 12");
    EXPECT_EQ(parsed("TBX_AGENT POLL=5\n"), "30 60"); // another key without its blank
}

TEST(ConfigText, CommentHidesWhatFollows) {
    EXPECT_EQ(parsed("#TBX_REMIND_MINUTES=45\n"), "30 60");
    EXPECT_EQ(parsed("TBX_REMIND_MINUTES#=45\n"), "30 60");
    EXPECT_EQ(parsed("TBX_REMIND_MINUTES=4#5\n"), "4 60");
}

TEST(ConfigText, LaterLineOverrides) {
    EXPECT_EQ(parsed("TBX_REMIND_MINUTES=45\nTBX_REMIND_MINUTES=50\n"), "50 60");
}

TEST(ConfigText, LaterInvalidLineLeavesTheLastValidValue) {
    EXPECT_EQ(parsed("TBX_REMIND_MINUTES=45\nTBX_REMIND_MINUTES=0\n"), "45 60");
}

TEST(ConfigText, ValueHasOneToSixDigitsAndIsNotZero) {
    EXPECT_EQ(parsed("TBX_AGENT_POLL=999999"), "30 999999");
    EXPECT_EQ(parsed("TBX_AGENT_POLL=1"), "30 1");
    for (const char *value : {"", "0", "000000", "1234567", "0000001", "+5", "-5", "5s", "1.5",
                              "0x5", "=5", "five", "5\xc2\xa0"})
        EXPECT_EQ(parsed(std::string("TBX_AGENT_POLL=") + value), "30 60") << value;
}

TEST(ConfigText, LeadingZerosAreDecimal) {
    EXPECT_EQ(parsed("TBX_REMIND_MINUTES=007"), "7 60");
    EXPECT_EQ(parsed("TBX_REMIND_MINUTES=000010"), "10 60");
}

TEST(ConfigText, KeysAreComparedExactly) {
    for (const char *key : {"tbx_remind_minutes", "TBX_REMIND_MINUTE", "TBX_REMIND_MINUTESS",
                            "XTBX_REMIND_MINUTES", "REMIND_MINUTES", "", "TBX_REMIND_MINUTES\xef"})
        EXPECT_EQ(parsed(std::string(key) + "=5"), "30 60") << key;
}

TEST(ConfigText, LineWithoutEqualsIsIgnored) {
    EXPECT_EQ(parsed("TBX_REMIND_MINUTES 45\nTBX_AGENT_POLL=5\n"), "30 5");
}

TEST(ConfigText, LongLineIsIgnoredEvenIfASettingBeginsIt) {
    EXPECT_EQ(parsed("TBX_AGENT_POLL=5" + std::string(300, 'x') + "\nTBX_REMIND_MINUTES=45"),
              "45 60");
}

TEST(ConfigText, BlanksAndCommentDoNotMakeALineLong) {
    EXPECT_EQ(parsed("TBX_AGENT_POLL=5" + std::string(300, ' ') + "#" + std::string(300, 'x')),
              "30 5");
}

// ---- Configuration file -------------------------------------------------------------------

TEST(ConfigFile, MissingFileLeavesTheDefaults) {
    const scratch_directory scratch;
    EXPECT_EQ(loaded(scratch.path("missing")), "30 60");
}

TEST(ConfigFile, IsReadOverTheDefaults) {
    const scratch_directory scratch;
    scratch.write("conf", "TBX_AGENT_POLL=5\n");
    EXPECT_EQ(loaded(scratch.path("conf")), "30 5");
}

TEST(ConfigFile, EmptyFileLeavesTheDefaults) {
    const scratch_directory scratch;
    scratch.write("conf", "");
    EXPECT_EQ(loaded(scratch.path("conf")), "30 60");
}

TEST(ConfigFile, OfExactlyTheLimitIsRead) {
    const scratch_directory scratch;
    scratch.write("conf", "TBX_AGENT_POLL=5\n" + std::string(65'536 - 17, '#'));
    EXPECT_EQ(loaded(scratch.path("conf")), "30 5");
}

TEST(ConfigFile, OverTheLimitIsIgnoredAsAWhole) {
    const scratch_directory scratch;
    scratch.write("conf", "TBX_AGENT_POLL=5\n" + std::string(65'537 - 17, '#'));
    EXPECT_EQ(loaded(scratch.path("conf")), "30 60");
}

TEST(ConfigFile, SymbolicLinkIsFollowed) {
    const scratch_directory scratch;
    scratch.write("file", "TBX_AGENT_POLL=5\n");
    std::filesystem::create_symlink("file", scratch.path("conf"));
    EXPECT_EQ(loaded(scratch.path("conf")), "30 5");
}

TEST(ConfigFile, ThatIsNoFileLeavesTheDefaults) {
    const scratch_directory scratch;
    EXPECT_EQ(loaded(scratch.path()), "30 60");
    make_fifo(scratch.path("pipe"));
    EXPECT_EQ(loaded(scratch.path("pipe")), "30 60");
}

TEST(ConfigFile, NulByteEndsTheText) {
    const scratch_directory scratch;
    scratch.write("conf", std::string_view("TBX_AGENT_POLL=5\n\0\nTBX_AGENT_POLL=6\n", 36));
    EXPECT_EQ(loaded(scratch.path("conf")), "30 5");
}

TEST(ConfigFile, NothingIsReported) {
    const scratch_directory scratch;
    scratch.write("conf", "nonsense\nTBX_AGENT_POLL=-5\n");
    const child_result child = run_in_child([&scratch] {
        (void)loaded(scratch.path("conf"));
        (void)loaded(scratch.path("missing"));
    });
    EXPECT_EQ(child.exit_status, 0);
    EXPECT_EQ(child.out + child.err, "");
}
