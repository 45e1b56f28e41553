#include "user/dialog.h"

#include "user_support.h"

#include <csignal>
#include <optional>

// A window that is a shell script, and what the agent hears of it.
class DialogTest : public testing::Test {
protected:
    DialogTest() {
        sigset_t child;
        sigemptyset(&child);
        sigaddset(&child, SIGCHLD);
        if (sigprocmask(SIG_BLOCK, &child, nullptr) != 0)
            throw_errno("sigprocmask");
        window.emplace(
            loop_.get(), [this] { shown++; }, [this](dialog_end how) { end = how; });
    }

    void open(const std::string &script) {
        const std::string program = scratch_.path("window");
        write_file(program, "#!/bin/sh\ncd " + scratch_.path(".") + "\n" + script + "\n");
        std::filesystem::permissions(program, std::filesystem::perms::owner_all);
        if (window->open(program, "1 of 1\n", {"PATH=/usr/bin:/bin"}) != 0)
            throw_errno(program);
    }

    // Lets the loop run until the window has ended. Returns how.
    dialog_end await_end() {
        while (!end && sd_event_run(loop_.get(), PATIENCE_USEC) > 0) {
        }
        if (!end)
            throw std::runtime_error("the window does not end");
        return *end;
    }

    dialog_end end_of(const std::string &script) {
        open(script);
        return await_end();
    }

    void await_shown() {
        while (shown == 0 && sd_event_run(loop_.get(), PATIENCE_USEC) > 0) {
        }
    }

    static constexpr uint64_t PATIENCE_USEC = 20'000'000;
    scratch_state scratch_;
    unique_loop loop_ = new_loop();
    std::optional<dialog> window;
    int shown = 0;
    std::optional<dialog_end> end;
};

TEST_F(DialogTest, HearsEachAnswer) {
    EXPECT_EQ(end_of("echo shown; echo read"), dialog_end::read);
    EXPECT_EQ(shown, 1);
    end.reset();
    EXPECT_EQ(end_of("printf 'shown\\nlater\\n'"), dialog_end::later);
    EXPECT_EQ(shown, 2);
}

TEST_F(DialogTest, HearsAnAnswerThatComesInPieces) {
    EXPECT_EQ(end_of("printf sho; sleep 0.05; printf 'wn\\nre'; sleep 0.05; printf 'ad\\n'"),
              dialog_end::read);
}

TEST_F(DialogTest, BelievesNoAnswerBesideNonsense) {
    for (const char *said : {"shown\\nx\\nread\\n", "shown\\nread\\nx", "shown\\nread\\nread\\n",
                             "shown\\nlater\\nread\\n", "shown\\nread\\n\\n", "shown\\nread\\n\\0",
                             "shown\\n read\\n", "shown\\nshown\\nread\\n", "shown\\nread"}) {
        end.reset();
        EXPECT_EQ(end_of("printf '" + std::string(said) + "'"), dialog_end::unanswered) << said;
    }
}

TEST_F(DialogTest, BelievesNoAnswerAfterALongWord) {
    EXPECT_EQ(end_of("echo shown; printf %0100d 7; sleep 0.1; printf '\\nread\\n'"),
              dialog_end::unanswered);
}

TEST_F(DialogTest, BelievesNoAnswerBeforeTheFirstFrame) {
    EXPECT_EQ(end_of("printf 'read\\nshown\\n'"), dialog_end::never_shown);
    EXPECT_EQ(shown, 0);
}

TEST_F(DialogTest, BelievesNoAnswerWithAnotherExitStatus) {
    EXPECT_EQ(end_of("printf 'shown\\nread\\n'; exit 1"), dialog_end::unanswered);
    end.reset();
    EXPECT_EQ(end_of("printf 'shown\\nread\\n'; kill -9 $$"), dialog_end::unanswered);
}

TEST_F(DialogTest, TellsThatItWasShownIfNonsenseFollowsAtOnce) {
    EXPECT_EQ(end_of("printf 'shown\\nnonsense'; exec sleep 60"), dialog_end::unanswered);
    EXPECT_EQ(shown, 1);
}

TEST_F(DialogTest, EndsAWindowThatFloods) {
    EXPECT_EQ(end_of("echo shown; exec cat /dev/zero"), dialog_end::unanswered);
    end.reset();
    EXPECT_EQ(end_of("trap '' TERM; while :; do echo shown; done"), dialog_end::unanswered);
}

// Its last words are read when it has ended, but no more than it may say.
TEST_F(DialogTest, ReadsNoFloodThatOutlivesTheWindow) {
    EXPECT_EQ(end_of("echo shown; sh -c 'exec cat /dev/zero' & sleep 0.1; exit 0"),
              dialog_end::unanswered);
}

TEST_F(DialogTest, AnswerGivenBeforeTheWindowIsClosedCounts) {
    open("echo shown; echo read; echo >said; while [ ! -e go ]; do sleep 0.01; done; exit 0");
    await_shown();
    while (!path_exists(scratch_.path("said").c_str()))
        (void)sd_event_run(loop_.get(), 10'000);
    while (sd_event_run(loop_.get(), 50'000) > 0) { // it is heard
    }
    window->close();
    write_file(scratch_.path("go"), "");
    EXPECT_EQ(await_end(), dialog_end::read);
}

TEST_F(DialogTest, ClosesAWindowWithoutAnAnswer) {
    open("echo shown; exec sleep 60");
    await_shown();
    window->close();
    EXPECT_EQ(await_end(), dialog_end::unanswered);
    EXPECT_FALSE(window->is_open());
}

TEST_F(DialogTest, KillsAWindowThatIgnoresTheRequest) {
    open("trap '' TERM; echo shown; while :; do sleep 0.05; done");
    await_shown();
    window->close();
    EXPECT_EQ(await_end(), dialog_end::unanswered);
}

TEST_F(DialogTest, KillsAWindowThatItCannotListenTo) {
    const child_result child = run_in_child([this] {
        alarm(PATIENCE_USEC / 1'000'000);
        write_file(scratch_.path("window"), "#!/bin/sh\nexec sleep 1000\n");
        std::filesystem::permissions(scratch_.path("window"), std::filesystem::perms::owner_all);
        refuse_setting_flags();
        const int result = window->open(scratch_.path("window"), "", {"PATH=/usr/bin:/bin"});
        printf("%d %s ", result, strerror(errno));
        printf("%d %d", window->is_open(), has_no_children());
    });
    EXPECT_EQ(child.out, "-1 Invalid argument 0 1");
}

TEST_F(DialogTest, KillsAWindowThatHasClosedItsOutput) {
    EXPECT_EQ(end_of("echo shown; exec >&-; exec sleep 60"), dialog_end::unanswered);
}
