// What is left of a recording when the process is killed, the disk is full or the writer too slow.

#include "session_run.h"
#include "tests/system/recorder/process.h"
#include "tests/system/vorn_check/run_program.h"
#include "tests/system/vorn_session/session_capture.h"

#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <random>
#include <sys/resource.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace fs = std::filesystem;
using vorn_record::contains;
using vorn_record::lines;

namespace {

class Loss : public vorn_record::RecordedSession {
protected:
    recorder::Launch launch(std::vector<std::string> arguments,
                            const std::string& ini = "vorn.ini") const {
        recorder::Launch launch;
        launch.command = {VORN_PROGRAM, "record", "--config", ini};
        launch.command.insert(launch.command.end(), arguments.begin(), arguments.end());
        launch.directory = directory_.path();
        launch.environment = {"TMPDIR=" + directory_.path().string()};
        return launch;
    }
    // The whole recording of the session in vorn.ini.
    std::string whole() const {
        const auto run = vorn({"record", "--config", "vorn.ini", "-q", "-o", "whole.pcap"});
        EXPECT_EQ(run.exit_status, 0) << run.err;
        return content("whole.pcap");
    }
};

TEST_F(Loss, AKilledRecordingIsABeginningOfTheWhole) {
    config("vorn.ini", "sim:seed=2&changes=40000&instruments=40&eof=stop");
    std::string other = content("vorn.ini"); // on another CPU
    other.replace(other.find("cpucore = 0"), 11, "cpucore = 1");
    directory_.write("other.ini", other);
    const std::string all = whole();
    std::mt19937_64 random(20260115);
    std::size_t longest = 0; // of those that had more to write
    for (int pair = 0; pair < 10; ++pair) {
        struct Killed {
            std::string name;
            std::size_t at; // bytes
            std::unique_ptr<recorder::Process> process;
        };
        std::vector<Killed> runs; // at a time, to have them all in half the time
        for (const std::string ini : {"vorn.ini", "other.ini"}) {
            const std::string name = ini + ".pcap";
            runs.push_back({name, random() % all.size(),
                            std::make_unique<recorder::Process>(launch({"-o", name}, ini))});
        }
        for (const Killed& run : runs) {
            const std::string part = path(run.name + ".part");
            std::error_code error;
            ASSERT_TRUE(run.process->wait_until([&] {
                return fs::exists(path(run.name)) ||
                       (fs::exists(part) && fs::file_size(part, error) >= run.at);
            }));
            run.process->signal(SIGKILL);
            run.process->finish();
            const bool finished = fs::exists(path(run.name));
            const std::string kept = content(finished ? run.name : run.name + ".part");
            EXPECT_GE(kept.size(), run.at);
            EXPECT_TRUE(all.starts_with(kept)) << kept.size() << " bytes";
            if (!finished && kept.size() > longest) {
                longest = kept.size();
                fs::rename(part, path("longest.pcap.part"));
            }
            fs::remove(path(run.name));
            fs::remove(part);
        }
    }
    if (longest > 24) { // it plays under the name that it has
        const auto run = vorn({"replay", "longest.pcap.part", "--json"});
        EXPECT_EQ(run.exit_status, 0) << run.err;
        EXPECT_GT(nlohmann::json::parse(run.out)["decode_buffers"], 0);
    }
}

TEST_F(Loss, AFullDiskKeepsWholeRecordsAndCountsTheRest) {
    config("vorn.ini", "sim:seed=2&changes=20000&instruments=40&eof=stop");
    const std::string all = whole();
    constexpr rlim_t kRoom = 2'000'001;
    ASSERT_GT(all.size(), 2 * kRoom);
    recorder::Launch limited = launch({"-o", "s.pcap", "--json"});
    limited.before_exec = [] {
        const rlimit limit{kRoom, kRoom};
        ::setrlimit(RLIMIT_FSIZE, &limit);
    };
    recorder::Process process(limited);
    const auto ended = process.finish();
    EXPECT_EQ(ended.exit_status, 3) << ended.err;
    EXPECT_EQ(lines(ended.err), 2u) << ended.err; // when it happens, and at the end
    EXPECT_TRUE(contains(ended.err, "s.pcap.part: cannot be written: File too large")) << ended.err;
    EXPECT_TRUE(contains(ended.err, "the recording is incomplete")) << ended.err;
    const std::string kept = content("s.pcap");
    EXPECT_GT(kept.size(), kRoom - 4096);
    const vorn_session::SessionCapture part(kept);
    const vorn_session::SessionCapture full(all);
    EXPECT_TRUE(part.bytes() == kept) << "no whole records";
    // The frames before the first that did not fit, and of the others the few that still did.
    std::size_t in_full = 0;
    for (std::size_t i = 0; i < part.size(); ++i, ++in_full) {
        while (in_full < full.size() && full.frame(in_full) != part.frame(i)) {
            ++in_full;
        }
    }
    EXPECT_LE(in_full, full.size()) << "a frame that was not in the session";
    const auto object = nlohmann::json::parse(ended.out);
    EXPECT_EQ(object["recorded"], part.size());
    EXPECT_EQ(object["lost_on_disk"], full.size() - part.size());
    EXPECT_EQ(object["lost_in_ring"], 0);
}

// A reader that takes nothing until the session is over stands for a disk that is too slow. The
// card runs by itself, so the feed does not wait.
TEST_F(Loss, WhatFindsNoRoomInTheRingIsCounted) {
    sim("session.pcap", {"--changes", "10000", "--instruments", "40", "--set", "rounds=1"});
    config("vorn.ini", "pcap:" + path("session.pcap") + "?eof=stop&speed=0.5");
    ASSERT_EQ(::mkfifo(path("s.pcap").c_str(), 0600), 0);
    const int fifo = ::open(path("s.pcap").c_str(), O_RDONLY | O_NONBLOCK);
    ASSERT_GE(fifo, 0);
    recorder::Process process(launch({"-o", "s.pcap", "--json", "-v", "--ring-size", "16K"}));
    const bool over = process.read_until([&] { return contains(process.err(), "feed has ended"); });
    ::fcntl(fifo, F_SETFL, 0);
    std::string kept;
    std::thread reader([&] {
        char bytes[4096];
        for (ssize_t got; (got = ::read(fifo, bytes, sizeof(bytes))) > 0;) {
            kept.append(bytes, static_cast<std::size_t>(got));
        }
    });
    const auto ended = process.finish();
    reader.join();
    ::close(fifo);
    ASSERT_TRUE(over);
    EXPECT_EQ(ended.exit_status, 3) << ended.err;
    EXPECT_TRUE(contains(ended.err, "because the ring was full")) << ended.err;
    const auto object = nlohmann::json::parse(ended.out);
    const vorn_session::SessionCapture part(kept);
    EXPECT_TRUE(part.bytes() == kept) << "no whole records";
    EXPECT_EQ(object["recorded"], part.size());
    EXPECT_GT(object["lost_in_ring"], 0);
    EXPECT_EQ(object["recorded"].get<uint64_t>() + object["lost_in_ring"].get<uint64_t>(),
              object["raw_frames"].get<uint64_t>() + object["decode_buffers"].get<uint64_t>());
}

} // namespace
