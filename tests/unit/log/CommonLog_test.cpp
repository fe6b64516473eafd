// What one line of the log looks like and which lines are written. Every test runs in a child
// process, because the logger opens its file once per process.

#include "CommonLog.h"
#include "local_time.h"
#include "tests/support/child_process.h"
#include "tests/support/temp_dir.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <mutex>
#include <pthread.h>
#include <string>
#include <sys/mman.h>
#include <unistd.h>

namespace {

using support::ChildRun;
using support::TempDir;

constexpr char LOG_FILE_TAG[] = "CommonLog_test";
constexpr char kFileName[] = "Vorn_Exanic_20260818_100405.log";

CCommonLog& logger() {
    return *CCommonLog::GetInstance();
}

void set_mask(int mask) {
    logger().SetLogLevel(static_cast<ELOGLEVEL>(mask));
}

// Runs `body` at 2026-08-18 10:04:05 and expects the same bytes on both ways out.
std::string written_by(const std::function<void()>& body) {
    const TempDir dir;
    const ChildRun run = support::run_child(dir.path(), [&] {
        local_time::set(local_time::at(2026, 8, 18, 10, 4, 5));
        body();
    });
    EXPECT_EQ(run.exit_status, 0) << run.out << run.err;
    EXPECT_EQ(run.err, "");
    EXPECT_EQ(support::read_file(dir.path() / kFileName), run.out);
    return run.out;
}

// What a line looks like at the time of written_by(); the child's main thread has the parent's id.
std::string line(const std::string& colour, const std::string& tag, const std::string& message) {
    return "\x1b" + colour + " " + tag + " [20260818][10:04:05][" +
           std::to_string(::pthread_self()) + "] " + message + "\x1b[0m \n";
}

TEST(CommonLogLine, HasColourLevelDateTimeThreadMessageResetBlankAndNewline) {
    EXPECT_EQ(written_by([] { logger().WriteLog(LOG_ERROR, "%s %d", "value", 7); }),
              line("[31;1m", "[E]", "value 7"));
}

TEST(CommonLogLine, ReadsByteForByteAsGiven) {
    const std::string id = std::to_string(::pthread_self());
    EXPECT_EQ(written_by([] {
                  logger().WriteLog(LOG_INFO, "[%s:%d][%s]%s", "source-file", 101, "vorn_recv",
                                    "software version: Aug 18 2026 15:02:36 Shfe V2.1.1.12");
              }),
              "\x1b[32;1m [I] [20260818][10:04:05][" + id +
                  "] [source-file:101][vorn_recv]software version: Aug 18 2026 15:02:36 Shfe "
                  "V2.1.1.12\x1b[0m \n");
}

TEST(CommonLogLine, PadsEveryPartOfTheDateWithZeros) {
    const TempDir dir;
    const ChildRun run = support::run_child(dir.path(), [] {
        local_time::set(local_time::at(987, 1, 2, 3, 4, 5));
        logger().WriteLog(LOG_INFO, "%s", "early");
    });
    EXPECT_THAT(run.out, testing::HasSubstr(" [09870102][03:04:05]["));
    EXPECT_EQ(support::read_file(dir.path() / "Vorn_Exanic_09870102_030405.log"), run.out);
}

TEST(CommonLogLine, IsStampedWithTheCurrentTime) {
    const TempDir dir;
    const ChildRun run = support::run_child(dir.path(), [] {
        const std::time_t before = ::time(nullptr);
        logger().WriteLog(LOG_INFO, "%s", "now");
        EXPECT_GE(local_time::last_argument(), before);
        EXPECT_LE(local_time::last_argument(), ::time(nullptr));
    });
    EXPECT_EQ(run.exit_status, 0) << run.out;
}

struct LevelCase {
    const char* name;
    int level;
    const char* colour;
    const char* tag;
};

class CommonLogLevel : public testing::TestWithParam<LevelCase> {};

TEST_P(CommonLogLevel, ChoosesColourAndTag) {
    const LevelCase& row = GetParam();
    EXPECT_EQ(written_by([&] {
                  set_mask(-1);
                  logger().WriteLog(static_cast<ELOGLEVEL>(row.level), "%s", row.name);
              }),
              line(row.colour, row.tag, row.name));
}

INSTANTIATE_TEST_SUITE_P(Levels, CommonLogLevel,
                         testing::Values(LevelCase{"Error", 1, "[31;1m", "[E]"},
                                         LevelCase{"Warning", 2, "[33;1m", "[W]"},
                                         LevelCase{"Info", 4, "[32;1m", "[I]"},
                                         LevelCase{"Debug", 8, "[37;1m", "[D]"},
                                         LevelCase{"DebugEx", 16, "[34;1m", "[X]"},
                                         LevelCase{"TwoBits", 3, "[34;1m", "[N]"},
                                         LevelCase{"AllBits", 31, "[34;1m", "[N]"},
                                         LevelCase{"UnknownBit", 32, "[34;1m", "[N]"},
                                         LevelCase{"Negative", -1, "[34;1m", "[N]"}),
                         [](const auto& row) { return std::string(row.param.name); });

struct MaskCase {
    const char* name;
    int mask;
    int level;
    bool written;
};

class CommonLogMask : public testing::TestWithParam<MaskCase> {};

TEST_P(CommonLogMask, DecidesWhetherTheLineIsWritten) {
    const MaskCase& row = GetParam();
    const TempDir dir;
    const ChildRun run = support::run_child(dir.path(), [&] {
        set_mask(row.mask);
        EXPECT_EQ(logger().GetLogLevel(), row.mask);
        EXPECT_EQ(CCommonLog::IsEnabled(row.level), row.written);
        logger().WriteLog(static_cast<ELOGLEVEL>(row.level), "%s", "probe");
    });
    EXPECT_EQ(run.exit_status, 0) << run.out;
    EXPECT_EQ(run.out.find("probe") != std::string::npos, row.written);
    // A line that is not written does not open the file either.
    EXPECT_EQ(std::filesystem::is_empty(dir.path()), !row.written);
}

INSTANTIATE_TEST_SUITE_P(Masks, CommonLogMask,
                         testing::Values(MaskCase{"DebugPasses15", 15, 8, true},
                                         MaskCase{"DebugExStopsAt15", 15, 16, false},
                                         MaskCase{"DebugExPasses31", 31, 16, true},
                                         MaskCase{"DebugStopsAt7", 7, 8, false},
                                         MaskCase{"InfoPasses7", 7, 4, true},
                                         MaskCase{"ErrorAloneStopsWarning", 1, 2, false},
                                         MaskCase{"TwoBitsPassWithTheFirst", 1, 3, true},
                                         MaskCase{"TwoBitsPassWithTheSecond", 2, 3, true},
                                         MaskCase{"TwoBitsStopWithNeither", 4, 3, false},
                                         MaskCase{"NothingPasses0", 0, 31, false},
                                         MaskCase{"ErrorStopsAtDebugExAlone", 16, 1, false},
                                         MaskCase{"LevelZeroNeverPasses", 31, 0, false},
                                         MaskCase{"NegativeMaskPassesAll", -1, 16, true}),
                         [](const auto& row) { return std::string(row.param.name); });

TEST(CommonLogMaskDefault, LetsErrorWarningInfoAndDebugThrough) {
    EXPECT_EQ(written_by([] {
                  EXPECT_EQ(logger().GetLogLevel(), 15);
                  for (const int level : {1, 2, 4, 8, 16}) {
                      logger().WriteLog(static_cast<ELOGLEVEL>(level), "%d", level);
                  }
              }),
              line("[31;1m", "[E]", "1") + line("[33;1m", "[W]", "2") + line("[32;1m", "[I]", "4") +
                  line("[37;1m", "[D]", "8"));
}

TEST(CommonLog, IsOneObjectForTheProcess) {
    EXPECT_EQ(CCommonLog::GetInstance(), CCommonLog::GetInstance());
}

TEST(CommonLog, TakesNoLockForADisabledLevel) {
    const TempDir dir;
    const ChildRun run = support::run_child(dir.path(), [] {
        set_mask(15);
        const std::lock_guard<std::mutex> someone_else(logger().m_mutexLog);
        MD_LOG(LOG_DEBUG_EX, "%s", "disabled");
        logger().WriteLog(LOG_DEBUG_EX, "%s", "disabled");
        EXPECT_EQ(logger().GetLogLevel(), 15);
    });
    EXPECT_EQ(run.exit_status, 0) << run.out;
    EXPECT_EQ(run.out, "");
}

TEST(CommonLog, FormatsNothingForADisabledLevel) {
    const TempDir dir;
    const ChildRun run = support::run_child(dir.path(), [] {
        void* unreadable = ::mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        ASSERT_NE(unreadable, MAP_FAILED);
        set_mask(15);
        MD_LOG(LOG_DEBUG_EX, "%s", static_cast<const char*>(unreadable));
        logger().WriteLog(LOG_DEBUG_EX, "%s", static_cast<const char*>(unreadable));
    });
    EXPECT_EQ(run.exit_status, 0) << run.out;
    EXPECT_EQ(run.out, "");
}

// --- The call-site pattern.

// One line each, so that the next line's number is known.
// clang-format off
constexpr int kSpeakingLine = __LINE__ + 1;
void warn() { MD_LOG(LOG_WARNING, "topic %d, size %u", -3, 24U); }

constexpr int kHelperLine = __LINE__ + 1;
void helper() { MD_LOG_AS("_ParseMirp", LOG_DEBUG, "%s", "fixed text"); }
// clang-format on

TEST(CommonLogCallSite, NamesFileLineAndFunction) {
    EXPECT_EQ(written_by(warn), line("[33;1m", "[W]",
                                     "[CommonLog_test:" + std::to_string(kSpeakingLine) +
                                         "][warn]topic -3, size 24"));
}

TEST(CommonLogCallSite, MayNameTheFunctionItSpeaksFor) {
    EXPECT_EQ(written_by(helper),
              line("[37;1m", "[D]",
                   "[CommonLog_test:" + std::to_string(kHelperLine) + "][_ParseMirp]fixed text"));
}

TEST(CommonLogCallSite, ObeysTheMask) {
    const TempDir dir;
    const ChildRun run = support::run_child(dir.path(), [] {
        set_mask(LOG_ERROR | LOG_INFO);
        warn();
        helper();
    });
    EXPECT_EQ(run.out, "");
    EXPECT_TRUE(std::filesystem::is_empty(dir.path()));
}

// --- Messages as they come.

void say(const std::string& message) {
    MD_LOG(LOG_INFO, "%s", message.c_str());
}

// The message part of the one line in `text`, as say() wrote it.
std::string said(const std::string& text) {
    const std::string origin = "][say]";
    const std::string end = "\x1b[0m \n";
    const std::size_t from = text.find(origin) + origin.size();
    EXPECT_EQ(text.substr(text.size() - end.size()), end);
    return text.substr(from, text.size() - end.size() - from);
}

TEST(CommonLogMessage, WithPercentSignsTravelsUntouched) {
    const std::string message = "100% of %d, %s%n%5000d %% end%";
    EXPECT_EQ(said(written_by([&] { say(message); })), message);
}

TEST(CommonLogMessage, WithPercentSignsAsArgumentOfADirectCallTravelsUntouched) {
    const std::string message = "%s%s%s%n 100%";
    EXPECT_EQ(written_by([&] { logger().WriteLog(LOG_INFO, "<%s>", message.c_str()); }),
              line("[32;1m", "[I]", "<" + message + ">"));
}

TEST(CommonLogMessage, MayBeEmptyOrHoldLineFeedsAndEscapes) {
    EXPECT_EQ(said(written_by([] { say(""); })), "");
    EXPECT_EQ(said(written_by([] { say("a,\nb,\n\x1b[31mc\r"); })), "a,\nb,\n\x1b[31mc\r");
}

TEST(CommonLogMessage, Of4095BytesIsKeptWhole) {
    const std::string message = std::string(4094, 'x') + "y";
    EXPECT_EQ(said(written_by([&] { say(message); })), message);
}

TEST(CommonLogMessage, Of4096BytesLosesItsLastByte) {
    const std::string message = std::string(4095, 'x') + "y";
    EXPECT_EQ(said(written_by([&] { say(message); })), std::string(4095, 'x'));
}

TEST(CommonLogMessage, FarBeyondTheBoundIsCutAt4095Bytes) {
    EXPECT_EQ(said(written_by([] { say(std::string(100000, 'z')); })), std::string(4095, 'z'));
}

TEST(CommonLogMessage, OfADirectCallHasNoBound) {
    const std::string message(20000, 'w');
    EXPECT_EQ(written_by([&] { logger().WriteLog(LOG_INFO, "%s", message.c_str()); }),
              line("[32;1m", "[I]", message));
}

// --- Nothing is left in a buffer.

TEST(CommonLog, FlushesBothWaysOutWithEveryLine) {
    const TempDir dir;
    const ChildRun run = support::run_child(dir.path(), [] {
        local_time::set(local_time::at(2026, 8, 18, 10, 4, 5));
        logger().WriteLog(LOG_INFO, "%s", "last words");
        ::raise(SIGKILL);
    });
    EXPECT_EQ(run.signal, SIGKILL);
    EXPECT_EQ(run.out, line("[32;1m", "[I]", "last words"));
    EXPECT_EQ(support::read_file(dir.path() / kFileName), run.out);
}

TEST(CommonLog, StillWritesWhileTheProcessExits) {
    const TempDir dir;
    const ChildRun run = support::run_child(dir.path(), [] {
        local_time::set(local_time::at(2026, 8, 18, 10, 4, 5));
        // Registered before the logger exists, so it runs after anything that the logger registers.
        std::atexit([] { CCommonLog::GetInstance()->WriteLog(LOG_INFO, "%s", "second"); });
        logger().WriteLog(LOG_INFO, "%s", "first");
        std::exit(0);
    });
    EXPECT_EQ(run.exit_status, 0) << run.err;
    EXPECT_EQ(run.out, line("[32;1m", "[I]", "first") + line("[32;1m", "[I]", "second"));
    EXPECT_EQ(support::read_file(dir.path() / kFileName), run.out);
}

} // namespace
