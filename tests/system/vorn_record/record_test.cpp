// `vorn record` as a program: what it writes, how it rotates, how it ends, what it refuses.

#include "session_run.h"
#include "tests/system/recorder/process.h"
#include "tests/system/vorn_check/run_program.h"
#include "tests/system/vorn_session/session_capture.h"

#include <csignal>
#include <filesystem>
#include <nlohmann/json.hpp>

namespace fs = std::filesystem;
using vorn_record::contains;
using vorn_record::lines;

namespace {

constexpr char kSession[] = "sim:seed=11&changes=8000&instruments=40&rate=5000&eof=stop";
constexpr std::size_t kPcapHead = 24;

class Record : public vorn_record::RecordedSession {
protected:
    void SetUp() override { config("vorn.ini", kSession); }
    support::ChildRun record(std::vector<std::string> more) const {
        std::vector<std::string> arguments = {"record", "--config", "vorn.ini"};
        arguments.insert(arguments.end(), more.begin(), more.end());
        return vorn(arguments);
    }
    nlohmann::json record_json(std::vector<std::string> more) const {
        more.push_back("--json");
        const auto run = record(more);
        EXPECT_EQ(run.exit_status, 0) << run.err;
        EXPECT_EQ(lines(run.out), 1u) << run.out;
        return nlohmann::json::parse(run.out, nullptr, false);
    }
    std::vector<std::string> files() const { // of recordings, in order
        std::vector<std::string> names;
        for (const auto& entry : fs::directory_iterator(directory_.path())) {
            const std::string name = entry.path().filename().string();
            if (contains(name, ".pcap") || contains(name, ".csv")) {
                names.push_back(name);
            }
        }
        std::sort(names.begin(), names.end());
        return names;
    }
};

TEST_F(Record, CsvIsThatOfTheRecorder) {
    fs::create_directory(path("demo"));
    const auto demo =
        vorn_check::run_program({VORN_RECORDER, "../vorn.ini"}, directory_.path() / "demo");
    ASSERT_EQ(demo.exit_status, 0) << demo.err;
    std::string rows;
    for (const auto& entry : fs::directory_iterator(path("demo"))) {
        if (entry.path().extension() == ".csv") {
            rows = support::read_file(entry.path());
        }
    }
    EXPECT_GT(lines(rows), 7000u);
    const auto object = record_json({"-o", "rows.csv"});
    EXPECT_TRUE(content("rows.csv") == rows) << "the rows differ";
    EXPECT_EQ(object["recorded"], lines(rows) - 1);
    EXPECT_EQ(object["updates"], object["recorded"]);
    const auto through = record_json({"-o", "through.csv", "--write-through"});
    EXPECT_TRUE(content("through.csv") == rows) << "the rows written through differ";
    EXPECT_EQ(through["recorded"], object["recorded"]);
}

TEST_F(Record, SaysWhatItWrote) {
    const auto object = record_json({"-o", "s.pcap"});
    const vorn_session::SessionCapture capture(content("s.pcap"));
    EXPECT_EQ(object["recorded"], capture.size());
    EXPECT_EQ(object["recorded"],
              object["raw_frames"].get<uint64_t>() + object["decode_buffers"].get<uint64_t>());
    EXPECT_EQ(object["recorded_bytes"], content("s.pcap").size());
    EXPECT_EQ(object["files"], nlohmann::json({"s.pcap"}));
    EXPECT_EQ(object["lost_in_ring"], 0);
    EXPECT_EQ(object["lost_on_disk"], 0);
    const auto text = record({"-o", "again.pcap"});
    EXPECT_EQ(text.exit_status, 0);
    EXPECT_EQ(text.out, "");
    EXPECT_EQ(lines(text.err), 1u) << text.err;
    EXPECT_TRUE(contains(text.err, "again.pcap: 16,")) << text.err;
}

// The feed waits for the recorder where waiting costs nothing.
TEST_F(Record, InStepTheSmallestRingLosesNothing) {
    record_json({"-o", "s.pcap"});
    const auto object = record_json({"-o", "small.pcap", "--ring-size", "1K"});
    EXPECT_EQ(object["lost_in_ring"], 0);
    EXPECT_TRUE(content("small.pcap") == content("s.pcap"));
}

TEST_F(Record, RotatesBySize) {
    record_json({"-o", "s.pcap"});
    const auto object = record_json({"-o", "r.pcap", "--rotate-size", "600K"});
    std::string joined = content("s.pcap").substr(0, kPcapHead);
    unsigned number = 0;
    for (const std::string file : object["files"]) {
        char name[32];
        std::snprintf(name, sizeof(name), "r.%04u.pcap", ++number);
        EXPECT_EQ(file, name);
        const std::string bytes = content(file);
        EXPECT_LE(bytes.size(), 600u * 1024);
        EXPECT_EQ(bytes.substr(0, kPcapHead), joined.substr(0, kPcapHead));
        joined += bytes.substr(kPcapHead);
    }
    EXPECT_GE(number, 3u);
    EXPECT_TRUE(joined == content("s.pcap"));
    EXPECT_EQ(files().size(), number + 1); // no .part is left
}

TEST_F(Record, RotatesByTheTimeOfTheFrames) {
    record_json({"-o", "s.pcap"});
    const auto object = record_json({"-o", "r.pcap", "--rotate-every", "1s"});
    EXPECT_EQ(object["files"].size(), 2u); // the session takes more than one second
    std::string joined = content("s.pcap").substr(0, kPcapHead);
    for (const std::string file : object["files"]) {
        const vorn_session::SessionCapture capture(content(file));
        EXPECT_LT(capture.time_ns(capture.size() - 1) - capture.time_ns(0), 1'000'000'000u);
        joined += content(file).substr(kPcapHead);
    }
    EXPECT_TRUE(joined == content("s.pcap"));
}

TEST_F(Record, RotatedRowsHaveTheirHeaderEach) {
    record_json({"-o", "s.csv"});
    const auto object = record_json({"-o", "r.csv", "--rotate-size", "500K"});
    EXPECT_GE(object["files"].size(), 2u);
    const std::string whole = content("s.csv");
    const std::string header = whole.substr(0, whole.find('\n') + 1);
    std::string joined = header;
    for (const std::string file : object["files"]) {
        const std::string bytes = content(file);
        EXPECT_TRUE(bytes.starts_with(header));
        joined += bytes.substr(header.size());
    }
    EXPECT_TRUE(joined == whole);
}

TEST_F(Record, NumberedFilesOfAnEarlierRecordingDoNotMix) {
    directory_.write("r.0007.pcap", "old");
    const auto refused = record({"-o", "r.pcap", "--rotate-size", "1M"});
    EXPECT_EQ(refused.exit_status, 2);
    EXPECT_EQ(lines(refused.err), 1u);
    EXPECT_TRUE(contains(refused.err, "r.0007.pcap exists")) << refused.err;
    EXPECT_EQ(record({"-f", "-o", "r.pcap", "--rotate-size", "1M"}).exit_status, 0);
    EXPECT_FALSE(fs::exists(path("r.0007.pcap")));
    EXPECT_TRUE(fs::exists(path("r.0001.pcap")));
}

TEST_F(Record, EndsInOrderAtASignal) {
    config("idle.ini", std::string("sim:seed=11&changes=8000&instruments=40&eof=idle"));
    for (const int number : {SIGINT, SIGTERM}) {
        recorder::Launch launch;
        launch.command = {VORN_PROGRAM, "record", "--config", "idle.ini", "-f", "-o", "s.pcap"};
        launch.directory = directory_.path();
        recorder::Process process(launch);
        std::error_code error;
        ASSERT_TRUE(process.wait_until([&] {
            return fs::exists(path("s.pcap.part")) &&
                   fs::file_size(path("s.pcap.part"), error) > 1'000'000;
        }));
        process.signal(number);
        const auto ended = process.finish();
        EXPECT_EQ(ended.exit_status, 0) << ended.err;
        EXPECT_TRUE(contains(ended.err, "s.pcap: ")) << ended.err;
        EXPECT_TRUE(fs::exists(path("s.pcap")));
        EXPECT_FALSE(fs::exists(path("s.pcap.part")));
    }
}

struct Mistake {
    std::vector<std::string> arguments; // of vorn record
    int exit_status;
    const char* said;
};

TEST_F(Record, MistakesGetOneLineEachAndLeaveNothing) {
    directory_.write("there.pcap", "old");
    directory_.write("killed.pcap.part", "old");
    config("nocard.ini", "sim:no_such_option=1");
    const std::vector<Mistake> mistakes = {
        {{"-o", "s.pcap"}, 2, "--config"},
        {{"--config", "vorn.ini"}, 2, "-o session.pcap"},
        {{"--config", "vorn.ini", "-o", "s.txt"}, 2, ".pcap, .csv"},
        {{"--config", "vorn.ini", "-o", "s.pcap", "--write-through"}, 2, "is for rows: -o updates"},
        {{"--config", "vorn.ini", "-o", "there.pcap"}, 2, "there.pcap exists; -f"},
        {{"--config", "vorn.ini", "-o", "killed.pcap"}, 2, "killed.pcap.part exists"},
        {{"--config", "absent.ini", "-o", "s.pcap"}, 2, "absent.ini"},
        {{"--config", "vorn.ini", "-o", "s.pcap", "--rotate-size", "big"}, 2, "not 'big'"},
        {{"--config", "vorn.ini", "-o", "s.pcap", "--rotate-every", "5"}, 2, "15m"},
        {{"--config", "vorn.ini", "-o", "s.pcap", "--rotate-size", "0"}, 2, "--rotate-size"},
        {{"--config", "vorn.ini", "-o", "no/s.pcap"}, 1, "No such file"},
        {{"--config", "nocard.ini", "-o", "s.pcap"}, 1, "no_such_option"},
    };
    const auto before = files();
    for (const Mistake& mistake : mistakes) {
        std::vector<std::string> arguments = {"record"};
        arguments.insert(arguments.end(), mistake.arguments.begin(), mistake.arguments.end());
        const auto run = vorn(arguments);
        EXPECT_EQ(run.exit_status, mistake.exit_status) << mistake.said << '\n' << run.err;
        EXPECT_TRUE(contains(run.err, mistake.said)) << run.err;
        EXPECT_EQ(run.out, "");
        EXPECT_EQ(files(), before) << mistake.said;
    }
    EXPECT_EQ(content("there.pcap"), "old");
}

} // namespace
