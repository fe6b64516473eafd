// The same capture gives the same recording, however busy the machine is.

#include "recording.h"

#include <gtest/gtest.h>
#include <sys/sysinfo.h>

namespace recorder {
namespace {

// A capture in which everything that depends on threads can go wrong: changes between the segments
// of two feeds' rounds, a round that fails its check, a gap and what follows it.
class Determinism : public testing::Test {
protected:
    Determinism() {
        for (int32_t i = 0; i < 8; ++i) {
            contracts.push_back(
                i < 5 ? Contract({.number = 10 + i, .id = "cu260" + std::to_string(i)})
                      : Contract({.feed = &kIne, .number = i, .id = "sc260" + std::to_string(i)}));
        }
        CaptureWriter capture(work.path("session.pcap"));
        contracts[2].side(Side::kAsk)[0].ticks = -1; // locked
        round(capture, 1);
        contracts[2].side(Side::kAsk)[0].ticks = 1;
        round(capture, 1);
        send(capture, 200, first_rows);
        contracts[6].lose_one();
        send(capture, 3, nobody); // gap
        // What was cached in the first cycle stands before what is cached now, so that changes of
        // this round are left over, and there is a further gap where they would have been needed.
        round(capture, 1);
        send(capture, 5, nobody);
        round(capture, 0);
        send(capture, 200, last_rows);
        config.device = capture_device(work.path("session.pcap"));
        config.ine = true;
    }

    // Rounds of both feeds with changes between their segments.
    void round(CaptureWriter& capture, int changes) {
        for (const Feed* feed : {&kShfe, &kIne}) {
            std::vector<const Contract*> listed;
            for (const Contract& contract : contracts) {
                if (contract.terms().feed == feed) {
                    listed.push_back(&contract);
                }
            }
            SnapshotConnection& connection = feed == &kShfe ? shfe : ine;
            for (const Segment& segment : connection.cut(round_messages(*feed, listed), 700)) {
                send(capture, changes, nobody);
                capture.segment(segment);
            }
        }
    }
    void send(CaptureWriter& capture, int times, std::vector<std::string>& rows) {
        for (int i = 0; i < times; ++i) {
            for (Contract& contract : contracts) {
                const Change change = contract.next();
                capture.on_both_lines(change);
                rows.push_back(change.row);
            }
        }
    }

    // Lines and rows of a run.
    struct Outcome {
        Lines log;
        std::string csv;
        int exit_status;
    };
    Outcome run() {
        const Recording recording = work.record(config);
        return {recording.log, recording.csv, recording.end.exit_status};
    }
    // A run as any other, and enough of it as it must be.
    Outcome run_undisturbed() {
        const Outcome outcome = run();
        EXPECT_EQ(outcome.exit_status, 0);
        const std::string first = csv_of(first_rows);
        const std::string last = csv_of(last_rows).substr(kCsvHeader.size());
        EXPECT_GE(outcome.csv.size(), first.size() + last.size());
        EXPECT_EQ(first_difference(outcome.csv.substr(0, first.size()), first), "");
        EXPECT_EQ(first_difference(outcome.csv.substr(outcome.csv.size() - last.size()), last), "");
        return outcome;
    }
    void expect_same(const Outcome& expected, int runs) {
        for (int i = 0; i < runs; ++i) {
            const Outcome again = run();
            EXPECT_EQ(again.exit_status, 0);
            EXPECT_EQ(again.log, expected.log);
            EXPECT_EQ(first_difference(again.csv, expected.csv), "");
        }
    }

    Workspace work;
    Config config;
    std::vector<Contract> contracts;
    SnapshotConnection shfe{50001};
    SnapshotConnection ine{50002};
    std::vector<std::string> first_rows; // until the gap
    std::vector<std::string> last_rows;  // from the last round on
    std::vector<std::string> nobody;     // those of no interest
};

TEST_F(Determinism, HoldsFromRunToRun) {
    expect_same(run_undisturbed(), 9);
}

TEST_F(Determinism, HoldsWhileEveryProcessorIsBusy) {
    const Outcome undisturbed = run_undisturbed();
    const Load load(get_nprocs());
    expect_same(undisturbed, 2);
}

TEST_F(Determinism, HoldsWhileItsOwnProcessorIsBusy) {
    const Outcome undisturbed = run_undisturbed();
    const Load load(2, config.cpu);
    expect_same(undisturbed, 2);
}

// Threads that are not bound to one processor really run at the same time.
TEST_F(Determinism, HoldsWhileItsThreadsRunOnAnyProcessor) {
    const Outcome bound = run_undisturbed();
    config.cpu = -1;
    Outcome unbound = run();
    EXPECT_EQ(first_difference(unbound.csv, bound.csv), "");
    expect_same(unbound, 2);
}

} // namespace
} // namespace recorder
