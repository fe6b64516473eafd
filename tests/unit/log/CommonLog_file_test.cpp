// The log file: its name, where it is created, when, and what happens when it cannot be.

#include "CommonLog.h"
#include "local_time.h"
#include "tests/support/child_process.h"
#include "tests/support/temp_dir.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <pthread.h>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

using support::ChildRun;
using support::TempDir;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

constexpr char kFileName[] = "Vorn_Exanic_20260818_100405.log";
constexpr char kLaterFileName[] = "Vorn_Exanic_20261231_235960.log";

void at_first() {
    local_time::set(local_time::at(2026, 8, 18, 10, 4, 5));
}
void later() {
    local_time::set(local_time::at(2026, 12, 31, 23, 59, 60));
}

void say(const char* message) {
    CCommonLog::GetInstance()->WriteLog(LOG_INFO, "%s", message);
}

void set_path(std::string path) {
    CCommonLog::GetInstance()->SetLogPath(path);
}

std::vector<std::string> names_in(const std::filesystem::path& directory) {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(directory)) {
        names.push_back(entry.path().filename());
    }
    std::sort(names.begin(), names.end());
    return names;
}

TEST(CommonLogFile, IsCreatedByTheFirstWrittenLineAndNamedAfterItsMoment) {
    const TempDir dir;
    const ChildRun run = support::run_child(dir.path(), [&] {
        at_first();
        CCommonLog::GetInstance()->WriteLog(LOG_DEBUG_EX, "%s", "disabled");
        EXPECT_TRUE(std::filesystem::is_empty(dir.path()));
        later();
        say("enabled");
    });
    EXPECT_EQ(run.exit_status, 0) << run.out;
    EXPECT_THAT(names_in(dir.path()), ElementsAre(kLaterFileName));
}

TEST(CommonLogFile, ReceivesEveryLaterLineOfTheProcess) {
    const TempDir dir;
    const ChildRun run = support::run_child(dir.path(), [] {
        at_first();
        say("one");
        later();
        say("two");
        say("three");
    });
    EXPECT_THAT(names_in(dir.path()), ElementsAre(kFileName));
    EXPECT_EQ(support::read_file(dir.path() / kFileName), run.out);
    EXPECT_THAT(run.out, HasSubstr("[20261231][23:59:60]"));
}

TEST(CommonLogFile, TruncatesAnExistingFileOfTheSameName) {
    const TempDir dir;
    (void)dir.write(kFileName, std::string(10000, '#'));
    const ChildRun run = support::run_child(dir.path(), [] {
        at_first();
        say("fresh");
    });
    const std::string content = support::read_file(dir.path() / kFileName);
    EXPECT_EQ(content, run.out);
    EXPECT_THAT(content, Not(HasSubstr("#")));
}

TEST(CommonLogFile, LiesInTheGivenDirectory) {
    const TempDir dir;
    const TempDir elsewhere;
    const ChildRun run = support::run_child(dir.path(), [&] {
        at_first();
        set_path(elsewhere.path().string());
        say("away");
    });
    EXPECT_TRUE(std::filesystem::is_empty(dir.path()));
    EXPECT_THAT(names_in(elsewhere.path()), ElementsAre(kFileName));
    EXPECT_EQ(support::read_file(elsewhere.path() / kFileName), run.out);
}

TEST(CommonLogFile, StaysInTheFirstDirectoryWhenASecondIsGiven) {
    const TempDir dir;
    const TempDir first;
    const TempDir second;
    (void)support::run_child(dir.path(), [&] {
        at_first();
        set_path(first.path().string());
        set_path(second.path().string());
        say("where");
    });
    EXPECT_TRUE(std::filesystem::is_empty(dir.path()));
    EXPECT_TRUE(std::filesystem::is_empty(second.path()));
    EXPECT_THAT(names_in(first.path()), ElementsAre(kFileName));
}

TEST(CommonLogFile, StaysInTheWorkingDirectoryWhenTheFirstPathWasEmpty) {
    const TempDir dir;
    const TempDir second;
    (void)support::run_child(dir.path(), [&] {
        at_first();
        set_path("");
        set_path(second.path().string());
        say("here");
    });
    EXPECT_TRUE(std::filesystem::is_empty(second.path()));
    EXPECT_THAT(names_in(dir.path()), ElementsAre(kFileName));
}

TEST(CommonLogFile, StaysOpenWhenAPathComesAfterTheFirstLine) {
    const TempDir dir;
    const TempDir elsewhere;
    const ChildRun run = support::run_child(dir.path(), [&] {
        at_first();
        say("before");
        set_path(elsewhere.path().string());
        say("after");
    });
    EXPECT_TRUE(std::filesystem::is_empty(elsewhere.path()));
    EXPECT_EQ(support::read_file(dir.path() / kFileName), run.out);
}

TEST(CommonLogFile, ThatCannotBeOpenedCostsTheLineAndSaysSoEachTime) {
    const TempDir dir;
    const std::string missing = (dir.path() / "missing").string();
    const ChildRun run = support::run_child(dir.path(), [&] {
        at_first();
        set_path(missing);
        say("lost");
        later();
        say("lost too");
    });
    EXPECT_EQ(run.exit_status, 0);
    EXPECT_EQ(run.out, "fopen: " + missing + "/" + kFileName + " failed\n" + "fopen: " + missing +
                           "/" + kLaterFileName + " failed\n");
    EXPECT_EQ(run.err, "");
}

TEST(CommonLogFile, InTheWorkingDirectoryIsNamedWithoutAPathWhenItCannotBeOpened) {
    const TempDir dir;
    std::filesystem::create_directory(dir.path() / kFileName); // a directory of that name
    const ChildRun run = support::run_child(dir.path(), [] {
        at_first();
        say("lost");
    });
    EXPECT_EQ(run.out, std::string("fopen: ") + kFileName + " failed\n");
}

TEST(CommonLogFile, IsCreatedUnderAFreshNameOnceItCan) {
    const TempDir dir;
    const std::filesystem::path log_dir = dir.path() / "log";
    const ChildRun run = support::run_child(dir.path(), [&] {
        at_first();
        set_path(log_dir.string());
        say("lost");
        std::filesystem::create_directory(log_dir);
        later();
        say("kept");
    });
    EXPECT_EQ(run.exit_status, 0) << run.out;
    EXPECT_THAT(names_in(log_dir), ElementsAre(kLaterFileName));
    const std::string content = support::read_file(log_dir / kLaterFileName);
    EXPECT_THAT(content, HasSubstr("] kept\x1b[0m \n"));
    EXPECT_EQ(run.out, "fopen: " + log_dir.string() + "/" + kFileName + " failed\n" + content);
}

// --- When the local time cannot be had.

TEST(CommonLogTime, FailingOnceCostsTheLineAndIsReportedOnce) {
    const TempDir dir;
    const ChildRun run = support::run_child(dir.path(), [] {
        at_first();
        local_time::fail(1);
        say("lost");
        say("kept");
    });
    EXPECT_EQ(run.exit_status, 0);
    const std::string stamp = " [20260818][10:04:05][" + std::to_string(::pthread_self()) + "] ";
    EXPECT_THAT(run.out, testing::MatchesRegex(
                             "\x1b\\[31;1m \\[E\\] \\[20260818\\]\\[10:04:05\\]\\[[0-9]+\\] "
                             "\\[CommonLog:[0-9]+\\]\\[WriteLog\\]localtime_r failed"
                             "\x1b\\[0m \n"
                             "\x1b\\[32;1m.*kept\x1b\\[0m \n"));
    EXPECT_THAT(run.out, HasSubstr("\x1b[32;1m [I]" + stamp + "kept"));
    EXPECT_EQ(support::read_file(dir.path() / kFileName), run.out);
}

TEST(CommonLogTime, FailingAlwaysEndsWithoutALineAndWithoutALock) {
    const TempDir dir;
    const ChildRun run = support::run_child(dir.path(), [] {
        at_first();
        local_time::fail(-1);
        say("lost");
        EXPECT_EQ(local_time::calls(), 2); // the line and the one report of it
        CCommonLog::GetInstance()->WriteLog(LOG_ERROR, "%s", "lost");
        EXPECT_EQ(local_time::calls(), 4);
        local_time::fail(0);
        say("kept");
    });
    EXPECT_EQ(run.exit_status, 0) << run.out;
    EXPECT_THAT(run.out, testing::MatchesRegex("\x1b\\[32;1m [^\n]*\\] kept\x1b\\[0m \n"));
}

TEST(CommonLogTime, FailureIsNotReportedWhenErrorsAreDisabled) {
    const TempDir dir;
    const ChildRun run = support::run_child(dir.path(), [] {
        CCommonLog::GetInstance()->SetLogLevel(LOG_INFO);
        local_time::fail(1);
        say("lost");
    });
    EXPECT_EQ(run.exit_status, 0);
    EXPECT_EQ(run.out, "");
}

TEST(CommonLogTime, IsNotAskedForWhenTheLevelIsDisabled) {
    const TempDir dir;
    const ChildRun run = support::run_child(dir.path(), [] {
        local_time::fail(-1);
        CCommonLog::GetInstance()->WriteLog(LOG_DEBUG_EX, "%s", "disabled");
        EXPECT_EQ(local_time::calls(), 0);
    });
    EXPECT_EQ(run.exit_status, 0) << run.out;
}

} // namespace
