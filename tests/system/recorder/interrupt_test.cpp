// SIGINT in every phase: said once for each signal, the end orderly, every row whole.

#include "recording.h"

#include <csignal>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace recorder {
namespace {

using testing::ElementsAre;

class Interrupt : public testing::Test {
protected:
    std::vector<Segment> round() { return connection.one_by_one(round_messages(kShfe, {&copper})); }
    Launch prepare(const std::string& eof = "idle") {
        capture.reset();
        config.device = capture_device(work.path("session.pcap"), eof);
        return work.prepare(config);
    }

    Workspace work;
    Config config;
    Contract copper{{.number = 3, .id = "cu2601"}};
    SnapshotConnection connection{50001};
    std::unique_ptr<CaptureWriter> capture =
        std::make_unique<CaptureWriter>(work.path("session.pcap"));
};

TEST_F(Interrupt, BeforeAnythingHasArrivedEndsWithTheHeaderAlone) {
    const Launch launch = prepare();
    Process process(launch);
    ASSERT_TRUE(process.read_until("start initialization"));
    process.signal(SIGINT);
    const Recording run = work.collect(launch, process.finish());

    EXPECT_EQ(run.end.exit_status, 0);
    EXPECT_EQ(run.end.err, "");
    EXPECT_EQ(run.csv, kCsvHeader);
    EXPECT_THAT(other_lines(run.end.out), ElementsAre(kSignalLine));
    // The phases that are left are walked through without work.
    EXPECT_EQ(run.log, joined({bring_up_lines(work, config),
                               {"I ExanicMdImpl vorn_recv process decode buffer 0 frames"}}));
}

TEST_F(Interrupt, InTheMiddleOfARoundEndsWithTheHeaderAlone) {
    const auto segments = round();
    capture->segment(segments[0]);
    capture->on_both_lines(copper.next());
    capture->segment(segments[1]);
    config.log_level = 15;
    const Launch launch = prepare();
    Process process(launch);
    ASSERT_TRUE(process.read_until("instrument [cu2601] subscribed, inst_no [3]"));
    process.signal(SIGINT);
    const Recording run = work.collect(launch, process.finish());

    EXPECT_EQ(run.end.exit_status, 0);
    EXPECT_EQ(run.csv, kCsvHeader);
    EXPECT_EQ(count_of(kSignalLine, run.end.out), 1u);
    EXPECT_EQ(run.log.back(), "I ExanicMdImpl vorn_recv process decode buffer 2 frames");
    EXPECT_EQ(count_of("initialization completed", run.end.out), 0u);
}

// The software card says that its capture is over with the same signal, here from the thread that
// loads the snapshot.
TEST_F(Interrupt, AtTheEndOfACaptureWithoutAWholeRoundEndsWithTheHeaderAlone) {
    const auto segments = round();
    capture->segments({segments.begin(), segments.end() - 1});
    const Launch launch = prepare("stop");
    Process process(launch);
    const Recording run = work.collect(launch, process.finish());

    EXPECT_EQ(run.end.exit_status, 0);
    EXPECT_EQ(run.csv, kCsvHeader);
    EXPECT_EQ(count_of(kSignalLine, run.end.out), 1u);
}

TEST_F(Interrupt, WhenNothingArrivesAnyMoreEndsWithAllRows) {
    capture->segments(round());
    std::vector<std::string> rows;
    for (int i = 0; i < 20; ++i) {
        const Change change = copper.next();
        capture->on_both_lines(change);
        rows.push_back(change.row);
    }
    const Launch launch = prepare();
    Process process(launch);
    const std::string all = csv_of(rows);
    // Every row is in the file before the feed goes on.
    ASSERT_TRUE(process.read_until([&] { return size_of_csv(launch.directory) >= all.size(); }));
    EXPECT_EQ(support::read_file(only_file(launch.directory, ".csv")), all);
    process.signal(SIGINT);
    const Recording run = work.collect(launch, process.finish());

    EXPECT_EQ(run.end.exit_status, 0);
    EXPECT_EQ(run.end.err, "");
    EXPECT_EQ(run.csv, all);
    EXPECT_THAT(other_lines(run.end.out), ElementsAre(kSignalLine));
    EXPECT_EQ(run.log, joined({bring_up_lines(work, config),
                               snapshot_lines({"shfe2ps init finished, total instruments:4"}, 0)}));
}

// In the middle of many rows.
TEST_F(Interrupt, WhileRowsAreWrittenEndsWithWholeRows) {
    capture->segments(round());
    std::vector<std::string> rows;
    for (int i = 0; i < 60'000; ++i) {
        const Change change = copper.next();
        capture->on_line(Line::kA, change);
        rows.push_back(change.row);
    }
    const Launch launch = prepare();
    Process process(launch);
    ASSERT_TRUE(process.read_until([&] { return size_of_csv(launch.directory) > 50'000; }));
    process.signal(SIGINT);
    const Recording run = work.collect(launch, process.finish());

    EXPECT_EQ(run.end.exit_status, 0);
    const auto written = count_of("\n", run.csv) - 1;
    EXPECT_GT(written, 100u);
    rows.resize(std::min(written, rows.size()));
    EXPECT_EQ(first_difference(run.csv, csv_of(rows)), "");
    EXPECT_THAT(other_lines(run.end.out), ElementsAre(kSignalLine));
}

// What follows happens during the replay of many cached buffers, each of them logged. Nobody reads
// the log, so that the recorder cannot leave that phase.
class InterruptWhileBlocked : public Interrupt {
protected:
    InterruptWhileBlocked() {
        const auto segments = round();
        capture->segments({segments.begin(), segments.end() - 1});
        for (int i = 0; i < kCached; ++i) {
            capture->on_line(Line::kA, copper.next());
        }
        capture->segment(segments.back());
        config.log_level = 31;
        launch = prepare();
        launch.small_pipe = true;
    }

    // Read to the replay's first buffer and then no further. Not much more than a page later the
    // recorder blocks.
    void block(Process& process) {
        ASSERT_TRUE(process.read_until("process decode buffer offset: 0,"));
        ASSERT_TRUE(process.wait_until([&] { return process.is_asleep(); }));
    }
    void interrupt(Process& process) {
        process.signal(SIGINT);
        ASSERT_TRUE(process.wait_until([&] { return !process.is_pending(SIGINT); }));
    }
    void expect_orderly_end(const Recording& run, std::size_t signals) {
        EXPECT_EQ(run.end.signal, 0);
        EXPECT_EQ(run.end.exit_status, 0);
        EXPECT_EQ(run.end.err, "");
        EXPECT_EQ(run.csv, kCsvHeader);
        EXPECT_EQ(count_of(kSignalLine, run.end.out), signals);
        // The replay stopped where the signal met it.
        EXPECT_GT(count_of("process decode buffer offset", run.end.out), 0u);
        EXPECT_LT(count_of("process decode buffer offset", run.end.out), 20u);
    }

    static constexpr int kCached = 200;
    Launch launch;
};

TEST_F(InterruptWhileBlocked, EndsOnceItsOutputIsRead) {
    Process process(launch);
    block(process);
    interrupt(process);
    expect_orderly_end(work.collect(launch, process.finish()), 1);
}

// The second signal waits until the first one has been told.
TEST_F(InterruptWhileBlocked, AnswersASecondSignalToo) {
    Process process(launch);
    block(process);
    interrupt(process);
    process.signal(SIGINT);
    expect_orderly_end(work.collect(launch, process.finish()), 2);
}

} // namespace
} // namespace recorder
