// What is in the file when the disk is full and when the process is killed.

#include "recording.h"

#include <csignal>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

namespace recorder {
namespace {

using testing::ElementsAre;
using testing::EndsWith;

class Durability : public testing::Test {
protected:
    void write_capture(int changes) {
        CaptureWriter capture(work.path("session.pcap"));
        SnapshotConnection connection(50001);
        capture.segments(connection.one_by_one(round_messages(kShfe, {&copper})));
        for (int i = 0; i < changes; ++i) {
            const Change change = copper.next();
            capture.on_line(Line::kA, change);
            rows.push_back(change.row);
        }
    }
    Launch prepare(const std::string& eof) {
        config.device = capture_device(work.path("session.pcap"), eof);
        return work.prepare(config);
    }

    Workspace work;
    Config config;
    Contract copper{{.number = 3, .id = "cu2601"}};
    std::vector<std::string> rows;
};

// A disk that is full, as a limit on the size of a file: writing stops in the middle of a row there
// too. The limit leaves room for the software card's registers, which are a file as well. It is set
// while the recorder waits for somebody to read its first line.
class DiskFull : public Durability {
protected:
    static constexpr std::size_t kFitting = 900;
    const std::string kFirstLoss = "a row could not be written and is lost: File too large\n";

    DiskFull() {
        write_capture(kFitting + 300);
        EXPECT_GT(room(), 131'072u);
    }

    std::string csv_of_fitting() const { return csv_of({rows.begin(), rows.begin() + kFitting}); }
    // For the header, the fitting rows and a part of the next one.
    std::size_t room() const { return csv_of_fitting().size() + 60; }
    Launch prepare() {
        Launch launch = Durability::prepare("stop");
        launch.before_exec = [] {
            std::signal(SIGXFSZ, SIG_IGN); // the write fails instead
            fill_pipe(STDOUT_FILENO);
            fill_pipe(STDERR_FILENO);
        };
        return launch;
    }
    // The recorder sleeps and its file has this size.
    bool stands_at(const Process& process, const Launch& launch, std::size_t size) const {
        return size_of_csv(launch.directory) == size && process.is_asleep();
    }
    void limit(Process& process, const Launch& launch) const {
        ASSERT_TRUE(
            process.wait_until([&] { return stands_at(process, launch, kCsvHeader.size()); }));
        process.limit_file_size(room());
    }
};

TEST_F(DiskFull, LosesTheRowsThatDoNotFitAndNoPartOfOneStays) {
    const Launch launch = prepare();
    Process process(launch);
    limit(process, launch);
    const Recording run = work.collect(launch, process.finish());

    EXPECT_EQ(first_difference(run.csv, csv_of_fitting()), "");
    EXPECT_EQ(run.end.exit_status, 0);
    // Said once, whatever is lost; how much it was is said at the end.
    EXPECT_EQ(run.end.err.substr(kFillerSize),
              kFirstLoss + "300 rows could not be written and are lost\n");
    EXPECT_THAT(other_lines(run.end.out.substr(kFillerSize)), ElementsAre(kSignalLine));
}

// The recorder says that a row was lost before it goes on. Nobody reads that, so that it stops
// there; meanwhile there is room again.
TEST_F(DiskFull, GoesOnRecordingWhenThereIsRoomAgain) {
    const Launch launch = prepare();
    Process process(launch);
    limit(process, launch);
    process.read_errors(false);
    ASSERT_TRUE(
        process.read_until([&] { return stands_at(process, launch, csv_of_fitting().size()); }));
    process.lift_file_size_limit();
    process.read_errors(true);
    const Recording run = work.collect(launch, process.finish());

    rows.erase(rows.begin() + kFitting); // the one row that met the full disk
    EXPECT_EQ(first_difference(run.csv, csv_of(rows)), "");
    EXPECT_EQ(run.end.exit_status, 0);
    EXPECT_EQ(run.end.err.substr(kFillerSize),
              kFirstLoss + "1 rows could not be written and are lost\n");
}

TEST_F(DiskFull, EndsTheRecorderWhenNotEvenTheHeaderFits) {
    Launch launch = Durability::prepare("stop");
    launch.before_exec = [] {
        std::signal(SIGXFSZ, SIG_IGN);
        rlimit limit{};
        getrlimit(RLIMIT_FSIZE, &limit);
        limit.rlim_cur = 100;
        setrlimit(RLIMIT_FSIZE, &limit);
    };
    Process process(launch);
    const Ended end = process.finish();

    EXPECT_EQ(end.exit_status, 255);
    EXPECT_EQ(end.out, "");
    EXPECT_THAT(end.err, EndsWith(": File too large\n"));
}

// Whatever a killed recorder leaves is a beginning of what it would have written, with at most the
// last row unfinished.
class Killed : public Durability, public testing::WithParamInterface<std::size_t> {};

TEST_P(Killed, LeavesWholeRows) {
    write_capture(40'000);
    const Launch launch = prepare("idle");
    Process process(launch);
    ASSERT_TRUE(process.read_until([&] { return size_of_csv(launch.directory) >= GetParam(); }));
    process.signal(SIGKILL);
    const Recording run = work.collect(launch, process.finish());

    EXPECT_EQ(run.end.signal, SIGKILL);
    EXPECT_GE(run.csv.size(), GetParam());
    EXPECT_EQ(first_difference(run.csv, csv_of(rows).substr(0, run.csv.size())), "");
}

INSTANTIATE_TEST_SUITE_P(Recorder, Killed, testing::Values(1'000, 100'000, 1'000'000, 3'000'000),
                         [](const auto& instance) {
                             return "After" + std::to_string(instance.param) + "Bytes";
                         });

} // namespace
} // namespace recorder
