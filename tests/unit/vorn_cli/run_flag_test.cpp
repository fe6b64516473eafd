#include "tools/vorn/run_flag.h"

#include "tests/support/child_process.h"
#include "tests/support/temp_dir.h"

#include <csignal>
#include <gtest/gtest.h>
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
    }
}

TEST(RunFlag, StopsWithoutASignal) {
    RunFlag run;
    run.stop();
    EXPECT_FALSE(run.running());
    EXPECT_EQ(run.signal(), 0);
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
