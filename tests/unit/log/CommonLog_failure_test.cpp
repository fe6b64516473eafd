// Where lines cannot go: full disks, closed standard files, no memory, texts that cannot be
// formatted.

#include "CommonLog.h"
#include "local_time.h"
#include "tests/support/child_process.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"
#include "tests/unit/feed/refusals.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <cstdint>
#include <fcntl.h>
#include <filesystem>
#include <string>
#include <sys/resource.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

using support::ChildRun;
using support::TempDir;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

constexpr char kFileName[] = "Vorn_Exanic_20260818_100405.log";
constexpr char kLost[] = "a log line could not be written to the log file and is lost: ";

void say(const std::string& message) {
    CCommonLog::GetInstance()->WriteLog(LOG_INFO, "%s", message.c_str());
}

void at_first() {
    local_time::set(local_time::at(2026, 8, 18, 10, 4, 5));
}

void replace(int descriptor, const char* path) {
    const int opened = ::open(path, O_WRONLY);
    ASSERT_GE(opened, 0);
    ASSERT_EQ(::dup2(opened, descriptor), descriptor);
    ::close(opened);
}

// Files of this process cannot grow beyond `bytes`; what is no regular file can.
void limit_files(rlim_t bytes) {
    std::signal(SIGXFSZ, SIG_IGN); // the write fails instead
    rlimit limit{};
    ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &limit), 0);
    limit.rlim_cur = bytes;
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &limit), 0);
}

std::vector<std::string> messages_in(const std::filesystem::path& file) {
    std::vector<std::string> messages;
    for (const support::LogLine& line : support::parse_log(support::read_file(file))) {
        messages.push_back(line.message);
    }
    return messages;
}

TEST(CommonLogFailure, AFullDiskCostsWholeLinesAndLeavesNoPartOfOne) {
    const TempDir dir;
    const std::filesystem::path file = dir.path() / kFileName;
    const std::string kept(500, 'k'); // the limit leaves room for standard error, a file here too
    const ChildRun run = support::run_child(dir.path(), [&] {
        replace(STDOUT_FILENO, "/dev/null"); // which has no size
        at_first();
        say(kept);
        limit_files(std::filesystem::file_size(file) + 10);
        say("lost");
        say("lost too");
        limit_files(RLIM_INFINITY);
        say("kept again");
    });
    EXPECT_EQ(run.exit_status, 0) << run.err;
    EXPECT_THAT(messages_in(file), ElementsAre(kept, "kept again"));
    EXPECT_EQ(support::read_file(file).find('\0'), std::string::npos) << "no hole between them";
    EXPECT_EQ(run.err, kLost + std::string("File too large\n")) << "said once";
}

TEST(CommonLogFailure, ALineLargerThanTheBufferIsLostWholeToo) {
    const TempDir dir;
    const std::filesystem::path file = dir.path() / kFileName;
    const ChildRun run = support::run_child(dir.path(), [&] {
        replace(STDOUT_FILENO, "/dev/null");
        at_first();
        say("kept");
        limit_files(std::filesystem::file_size(file) + 5000);
        say(std::string(50000, 'x'));
        limit_files(RLIM_INFINITY);
        say("kept again");
    });
    EXPECT_EQ(run.exit_status, 0) << run.err;
    EXPECT_THAT(messages_in(file), ElementsAre("kept", "kept again"));
    EXPECT_THAT(run.err, HasSubstr(kLost));
}

TEST(CommonLogFailure, AFileThatCannotBeShortenedIsReportedLikeAnyOther) {
    const TempDir dir;
    std::filesystem::create_symlink("/dev/full", dir.path() / kFileName);
    const ChildRun run = support::run_child(dir.path(), [&] {
        at_first();
        say("one");
        say("two");
    });
    EXPECT_EQ(run.exit_status, 0) << run.err;
    EXPECT_EQ(run.err, kLost + std::string("No space left on device\n"));
    EXPECT_THAT(run.out, HasSubstr("two")); // standard output is not affected
}

TEST(CommonLogFailure, AFullStandardOutputDoesNotDisturbTheFile) {
    const TempDir dir;
    const ChildRun run = support::run_child(dir.path(), [&] {
        replace(STDOUT_FILENO, "/dev/full");
        at_first();
        say("one");
        say(std::string(50000, 'x'));
        say("three");
    });
    EXPECT_EQ(run.exit_status, 0) << run.err;
    EXPECT_THAT(messages_in(dir.path() / kFileName),
                ElementsAre("one", std::string(50000, 'x'), "three"));
    EXPECT_THAT(run.err, IsEmpty());
}

TEST(CommonLogFailure, TheFileNeverTakesTheNumberOfAClosedStandardFile) {
    for (const int standard : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        const TempDir dir;
        const ChildRun run = support::run_child(dir.path(), [&] {
            ::close(standard);
            at_first();
            say("line");
            EXPECT_EQ(::fcntl(standard, F_GETFD), -1) << standard << " is still closed";
        });
        EXPECT_EQ(run.exit_status, 0) << standard << ": " << run.out << run.err;
        EXPECT_THAT(messages_in(dir.path() / kFileName), ElementsAre("line")) << standard;
    }
}

TEST(CommonLogFailure, WithoutANumberAboveTheStandardFilesThereIsNoFile) {
    const TempDir dir;
    const ChildRun run = support::run_child(dir.path(), [&] {
        ::close(STDIN_FILENO);
        at_first();
        rlimit limit{};
        ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &limit), 0);
        const rlimit none{STDERR_FILENO + 1, limit.rlim_max};
        ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
        say("line");
        ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);
    });
    EXPECT_EQ(run.exit_status, 0) << run.err;
    EXPECT_EQ(run.out, "fopen: " + std::string(kFileName) + " failed\n");
}

#if FEED_TEST_ALLOCATION_STUB

TEST(CommonLogFailure, WithoutMemoryALongLineIsCutToTheBuffer) {
    constexpr std::size_t kSize = 50000;
    const TempDir dir;
    const ChildRun run = support::run_child(dir.path(), [&] {
        const std::string text(kSize, 'x');
        const refusals::NoMemoryFor line(kSize + 1, kSize + 1);
        CCommonLog::GetInstance()->WriteLog(LOG_INFO, "%s", text.c_str());
    });
    const auto lines = support::parse_log(run.out);
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].message, std::string(4607, 'x'));
}

#endif

TEST(CommonLogText, OfADisabledLevelIsNotWritten) {
    const TempDir dir;
    const ChildRun run = support::run_child(dir.path(), [] {
        CCommonLog::GetInstance()->SetLogLevel(LOG_ERROR);
        CCommonLog::GetInstance()->WriteText(LOG_INFO, "info", 4);
        CCommonLog::GetInstance()->WriteText(LOG_ERROR, "error", 5);
    });
    EXPECT_THAT(run.out, HasSubstr("error"));
    EXPECT_THAT(run.out, Not(HasSubstr("info")));
}

TEST(CommonLogText, ThatCannotBeFormattedLeavesAnEmptyMessage) {
    const TempDir dir;
    const ChildRun run = support::run_child(dir.path(), [] {
        constexpr char LOG_FILE_TAG[] = "unit";
        const wchar_t unprintable[] = {0x110000, 0}; // beyond all characters
        CCommonLog::GetInstance()->WriteLog(LOG_ERROR, "before %ls", unprintable);
        MD_LOG_AS("site", LOG_ERROR, "before %ls", unprintable);
    });
    const auto lines = support::parse_log(run.out);
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].message, "");
    EXPECT_EQ(lines[1].message, "");
    EXPECT_EQ(lines[1].function, "site");
}

TEST(CommonLogTime, OfYearsThatHaveNotFourDigitsIsPrintedInFull) {
    for (const auto& [year, text] : {std::pair{12026, "[120260818]"}, {-7, "[-70818]"}}) {
        const TempDir dir;
        const int set_year = year;
        const ChildRun run = support::run_child(dir.path(), [&] {
            local_time::set(local_time::at(set_year, 8, 18, 10, 4, 5));
            say("line");
        });
        EXPECT_THAT(run.out, HasSubstr(text));
        EXPECT_THAT(run.out, EndsWith("line\x1b[0m \n"));
    }
}

} // namespace
