// What keeps the recorder from starting, and what it says about it.

#include "recording.h"

#include <ctime>
#include <exanic/exanic.h>
#include <exanic/util.h>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

namespace recorder {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::MatchesRegex;

// The feed has failed, the recorder ends like after any other run.
void expect_no_recording(const Recording& run, const Lines& log) {
    EXPECT_EQ(run.log, log);
    EXPECT_EQ(run.csv, kCsvHeader);
    EXPECT_THAT(other_lines(run.end.out), IsEmpty());
    EXPECT_EQ(run.end.err, "");
    EXPECT_EQ(run.end.exit_status, 0);
}

class StartFailure : public testing::Test {
protected:
    Lines version_and(const Lines& lines) const {
        return joined(
            {{std::string(kVersionLine),
              "I ConfigParse _LoadConfig read configure file: " + work.config_path().string()},
             lines});
    }
    std::string bound() const {
        return "I ExanicDevFunc _BindCpu set CPU[" + std::to_string(config.cpu) +
               "] affinity successful";
    }
    void write_empty_capture() { CaptureWriter capture(work.path("empty.pcap")); }

    Workspace work;
    Config config;
};

TEST_F(StartFailure, WithoutAConfigurationFile) {
    config.device = "sim:";
    Launch launch = work.prepare(config);
    std::filesystem::remove(work.config_path());
    Process process(launch);
    expect_no_recording(work.collect(launch, process.finish()),
                        version_and({"E ConfigParse _LoadConfig unable to open config file: " +
                                         work.config_path().string(),
                                     "E ExanicMdImpl vorn_recv failed to initialize config data"}));
}

TEST_F(StartFailure, WithoutADevice) {
    expect_no_recording(work.record(config),
                        version_and({"E ConfigParse InitConfig null device name",
                                     "E ExanicMdImpl vorn_recv failed to initialize config data"}));
}

TEST_F(StartFailure, WithoutInstruments) {
    config.device = "sim:";
    for (const char* insts : {"", " , ,", ";all"}) {
        config.insts = insts;
        expect_no_recording(
            work.record(config),
            version_and({"E ConfigParse InitConfig no subscribed instrument",
                         "E ExanicMdImpl vorn_recv failed to initialize config data"}));
    }
}

TEST_F(StartFailure, WithoutAFeed) {
    write_empty_capture();
    config.device = capture_device(work.path("empty.pcap"));
    config.shfe = false;
    // Not the words that switch a feed on.
    config.more = "shfe2ps = Enabled\nine2ps = 1\nshfe4ps = enabled\nine4ps = enabled\n";
    Lines log = bring_up_lines(work, config);
    log.back() = "E ExanicMdImpl vorn_recv all SHFE and INE are disabled";
    expect_no_recording(work.record(config), log);
}

TEST_F(StartFailure, WithADeviceThatIsNoCard) {
    write_empty_capture();
    const std::string empty = work.path("empty.pcap").string();
    const std::string damaged = work.path("damaged.pcap").string();
    std::ofstream(damaged) << "not a capture\n";
    const std::string devices[] = {
        "exanic0",
        "tape:" + empty,
        "pcap:" + work.path("missing.pcap").string() + "?eof=stop",
        "pcap:" + damaged,
        "pcap:" + empty + "?eof=later",
        "pcap:" + empty + "?seed=7",
        "sim:colour=blue",
    };
    for (const std::string& device : devices) {
        SCOPED_TRACE(device);
        config.device = device;
        // The line ends with the card's own words.
        ASSERT_EQ(exanic_acquire_handle(device.c_str()), nullptr);
        const std::string reason = exanic_get_last_error();
        EXPECT_NE(reason, "");
        expect_no_recording(
            work.record(config),
            version_and({bound(),
                         "E ExanicDevFunc InitDev get [" + device + "] handle failed, " + reason,
                         "E ExanicMdImpl vorn_recv failed to initialize network device"}));
    }
}

// Not a failure to start: the feed runs unbound.
TEST_F(StartFailure, IsNotToBeRefusedAProcessor) {
    write_empty_capture();
    config.device = capture_device(work.path("empty.pcap"));
    for (const int cpu : {-1, 1023}) {
        config.cpu = cpu;
        const Recording run = work.record(config);
        Lines log = bring_up_lines(work, config);
        log[2] = "W ExanicDevFunc _BindCpu CPU[" + std::to_string(cpu) + "] exceed max procs";
        log.push_back("I ExanicMdImpl vorn_recv process decode buffer 0 frames");
        EXPECT_EQ(run.log, log);
        EXPECT_EQ(run.end.exit_status, 0);
    }
}

class Usage : public testing::TestWithParam<std::vector<std::string>> {};

TEST_P(Usage, IsToldUnlessThereIsExactlyOneArgument) {
    Workspace work;
    Process process(recorder_launch(work.root(), GetParam()));
    const Ended end = process.finish();

    EXPECT_EQ(end.err, "Usage: " VORN_RECORDER " config.ini\n");
    EXPECT_EQ(end.out, "");
    EXPECT_EQ(end.exit_status, 255);
    EXPECT_TRUE(std::filesystem::is_empty(work.root()));
}

INSTANTIATE_TEST_SUITE_P(Recorder, Usage,
                         testing::Values(std::vector<std::string>{},
                                         std::vector<std::string>{"a.ini", "b.ini"}),
                         [](const auto& instance) {
                             return std::to_string(instance.param.size()) + "Arguments";
                         });

// A directory in which nothing can be created, whoever asks: it has been removed.
TEST(Recorder, EndsWhenItCannotCreateItsFile) {
    Workspace work;
    const auto directory = work.path("gone");
    std::filesystem::create_directory(directory);
    Launch launch = recorder_launch(directory, {work.config_path().string()});
    launch.before_exec = [&directory] { rmdir(directory.c_str()); };
    Process process(launch);
    const Ended end = process.finish();

    EXPECT_THAT(end.out, MatchesRegex("fopen: exanic_md_[0-9]{8}_[0-9]{6}\\.csv failed\n"));
    EXPECT_EQ(end.err, "");
    EXPECT_EQ(end.exit_status, 255);
}

// The names of both files are the local time of the start.
TEST(Recorder, NamesItsFilesAfterItsStart) {
    Workspace work;
    { CaptureWriter capture(work.path("empty.pcap")); }
    Launch launch = work.prepare({.device = capture_device(work.path("empty.pcap"))});
    launch.environment.push_back("TZ=VORN-5:45"); // 5 hours 45 minutes east
    const auto local = [](time_t now, const char* format) {
        now += (5 * 60 + 45) * 60;
        char text[64];
        std::strftime(text, sizeof(text), format, std::gmtime(&now));
        return std::string(text);
    };
    const time_t before = std::time(nullptr);
    Process process(launch);
    EXPECT_EQ(process.finish().exit_status, 0);
    const time_t after = std::time(nullptr);

    const std::string csv = only_file(launch.directory, ".csv").filename();
    const std::string log = only_file(launch.directory, ".log").filename();
    EXPECT_GE(csv, local(before, "exanic_md_%Y%m%d_%H%M%S.csv"));
    EXPECT_LE(csv, local(after, "exanic_md_%Y%m%d_%H%M%S.csv"));
    EXPECT_GE(log, local(before, "Vorn_Exanic_%Y%m%d_%H%M%S.log"));
    EXPECT_LE(log, local(after, "Vorn_Exanic_%Y%m%d_%H%M%S.log"));
}

} // namespace
} // namespace recorder
