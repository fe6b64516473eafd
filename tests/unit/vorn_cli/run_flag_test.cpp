#include "tools/vorn/run_flag.h"

#include "tests/support/child_process.h"
#include "tests/support/temp_dir.h"

#include <csignal>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace vorn_cli;

namespace {

TEST(RunFlag, DropsToZeroAtTheFirstSignal) {
    for (const int number : {SIGINT, SIGTERM}) {
        RunFlag run;
        EXPECT_TRUE(run.running());
        EXPECT_EQ(*run.flag(), 1);
        EXPECT_EQ(run.signal(), 0);
        ::raise(number);
        EXPECT_FALSE(run.running());
        EXPECT_EQ(*run.flag(), 0);
        EXPECT_EQ(run.signal(), number);
        EXPECT_FALSE(run.interrupted()) << "by this process itself";
    }
}

TEST(RunFlag, KnowsASignalOfSomebodyElse) {
    RunFlag run;
    const pid_t self = ::getpid();
    const pid_t child = ::fork();
    if (child == 0) {
        ::kill(self, SIGTERM);
        ::_exit(0);
    }
    while (run.running()) {
        ::usleep(100);
    }
    ::waitpid(child, nullptr, 0);
    EXPECT_EQ(run.signal(), SIGTERM);
    EXPECT_TRUE(run.interrupted());
}

TEST(RunFlag, StopsWithoutASignal) {
    RunFlag run;
    run.stop();
    EXPECT_FALSE(run.running());
    EXPECT_EQ(run.signal(), 0);
    RunFlag again;
    EXPECT_TRUE(again.running());
    stop_run();
    EXPECT_FALSE(again.running());
    EXPECT_FALSE(again.interrupted());
}

TEST(RunFlag, TheSecondSignalEndsTheProgram) {
    const support::TempDir directory;
    const auto child = support::run_child(directory.path(), [] {
        RunFlag run;
        ::raise(SIGTERM);
        ::raise(SIGINT);
    });
    EXPECT_EQ(child.signal, SIGINT);
}

TEST(RunFlag, HearsSigintWhereItWasIgnored) {
    const support::TempDir directory;
    const auto child = support::run_child(directory.path(), [] {
        ::signal(SIGINT, SIG_IGN); // as in a background job of a script
        {
            RunFlag run;
            ::raise(SIGINT);
            EXPECT_FALSE(run.running());
        }
        ::raise(SIGINT); // ignored again
    });
    EXPECT_EQ(child.exit_status, 0) << child.err;
    EXPECT_EQ(child.signal, 0);
}

} // namespace
