// A break in an instrument's change numbers: the cycle starts again from the configuration file.

#include "recording.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace recorder {
namespace {

std::string gap_line(uint32_t received, uint32_t expected, const Contract& contract) {
    const int32_t number = contract.terms().number;
    const int32_t slot = contract.terms().feed->type == 0 ? number : 20479 - number;
    return "E ExanicUdpFunc _ParseMirp discontinuous changeNo: " + std::to_string(received) +
           ", expected changeNo: " + std::to_string(expected) +
           ", instrumentID: " + contract.terms().id + ", instrumentNo: " + std::to_string(number) +
           ", instrumentNo: " + std::to_string(slot);
}

const Lines kClearedLine{"I ExanicUdpFunc ClearCache decode buffer cleared"};

class Restart : public testing::Test {
protected:
    void send(Contract& contract, bool recorded) {
        const Change change = contract.next();
        capture->on_both_lines(change);
        if (recorded) {
            rows.push_back(change.row);
        }
    }
    void round() {
        capture->segments(connection.one_by_one(round_messages(kShfe, {&copper, &silver})));
    }
    Recording record() {
        capture.reset();
        config.device = capture_device(work.path("session.pcap"));
        return work.record(config);
    }
    Lines cycle(int cached, bool first = false) const {
        return joined({bring_up_lines(work, config, first),
                       snapshot_lines({"shfe2ps init finished, total instruments:10"}, cached)});
    }

    Workspace work;
    Config config;
    Contract copper{{.number = 3, .id = "cu2601"}};
    Contract silver{{.number = 9, .id = "ag2602", .multiple = 15, .tick_cents = 100}};
    SnapshotConnection connection{50001};
    std::unique_ptr<CaptureWriter> capture =
        std::make_unique<CaptureWriter>(work.path("session.pcap"));
    std::vector<std::string> rows;
};

TEST_F(Restart, AfterAGapInTheLiveStreamGoesOnFromTheNextRound) {
    round();
    for (int i = 0; i < 10; ++i) {
        send(copper, true);
        send(silver, true);
    }
    round(); // the feed is live: rounds are not looked at
    send(copper, true);
    send(silver, true);
    const uint32_t expected = copper.change_no() + 1;
    copper.lose_one();
    copper.lose_one();
    const Change late = copper.next();
    const std::string gap = gap_line(copper.change_no(), expected, copper);
    capture->on_line(Line::kA, late);
    int cached = capture->datagrams();
    capture->on_line(Line::kB, late);
    send(silver, false); // in the second round's snapshot
    const auto segments = connection.one_by_one(round_messages(kShfe, {&copper, &silver}));
    capture->segments({segments.begin(), segments.end() - 1});
    send(copper, false); // taken from the cache
    cached = capture->datagrams() - cached;
    capture->segment(segments.back());
    for (int i = 0; i < 10; ++i) {
        send(silver, true);
        send(copper, true);
    }
    const Recording run = record();

    EXPECT_EQ(run.csv, csv_of(rows));
    EXPECT_EQ(run.log, joined({cycle(0, true), {gap}, cycle(cached)}));
    EXPECT_THAT(other_lines(run.end.out), testing::ElementsAre(kSignalLine));
    EXPECT_EQ(run.end.exit_status, 0);
}

TEST_F(Restart, AfterAGapInTheReplayClearsTheCache) {
    const auto segments = connection.one_by_one(round_messages(kShfe, {&copper, &silver}));
    capture->segment(segments[0]);
    send(copper, false);
    copper.lose_one();
    send(copper, false);
    send(silver, false);
    const int cached = capture->datagrams();
    capture->segments({segments.begin() + 1, segments.end()});
    send(copper, false); // nobody looks at it before the next round
    round();
    send(copper, true);
    send(silver, true);
    const Recording run = record();

    EXPECT_EQ(run.csv, csv_of(rows));
    EXPECT_EQ(run.log,
              joined({cycle(cached, true), {gap_line(3, 2, copper)}, kClearedLine, cycle(2)}));
    EXPECT_EQ(run.end.exit_status, 0);
}

// The entries of earlier cycles stay in the cache and are replayed before those of the present one:
// as many of the new entries as there are old ones are left over. Whoever needed them finds a gap.
TEST_F(Restart, ReplaysWhatEarlierCyclesCachedFirst) {
    const auto first = connection.one_by_one(round_messages(kShfe, {&copper, &silver}));
    capture->segments({first.begin(), first.end() - 1});
    send(copper, false);
    send(silver, false);
    capture->segment(first.back()); // four entries
    send(copper, true);
    copper.lose_one();
    send(copper, false); // gap; line B's copy is the second cycle's first entry

    const auto second = connection.one_by_one(round_messages(kShfe, {&copper, &silver}));
    capture->segments({second.begin(), second.end() - 1});
    send(copper, false);
    send(silver, false);
    // Five entries, of which only the first comes to be replayed, after the four old ones.
    capture->segment(second.back());
    const uint32_t copper_has = copper.change_no() - 1;
    const uint32_t silver_has = silver.change_no() - 1;
    send(copper, false); // gap; three more entries
    send(silver, false);
    round();
    send(copper, true);
    send(silver, true);
    const Recording run = record();

    EXPECT_EQ(run.csv, csv_of(rows));
    EXPECT_EQ(run.log, joined({cycle(4, true),
                               {gap_line(4, 3, copper)},
                               cycle(5),
                               {gap_line(copper_has + 2, copper_has + 1, copper)},
                               cycle(3)}));
    EXPECT_EQ(silver_has, 1u);
    EXPECT_EQ(run.end.exit_status, 0);
}

// A change that leaves a crossed book is taken back with its number, so that the next one is a gap.
TEST_F(Restart, FollowsAChangeThatWasTakenBack) {
    round();
    send(copper, true);
    capture->on_both_lines(copper.crossed());
    send(silver, true);
    const uint32_t expected = copper.change_no();
    const Change after = copper.next();
    capture->on_both_lines(after); // gap
    round();
    send(copper, true);
    const Recording run = record();

    EXPECT_EQ(run.csv, csv_of(rows));
    EXPECT_EQ(run.log,
              joined({cycle(0, true), {gap_line(expected + 1, expected, copper)}, cycle(1)}));
    EXPECT_EQ(run.end.exit_status, 0);
}

TEST_F(Restart, NamesTheSlotOfAnIneInstrument) {
    Contract oil({.feed = &kIne, .number = 12, .id = "sc2603"});
    const auto ine_round = [&] {
        capture->segments(connection.one_by_one(round_messages(kIne, {&oil})));
    };
    ine_round();
    send(oil, true);
    oil.lose_one();
    send(oil, false);
    ine_round();
    send(oil, true);
    config.shfe = false;
    config.ine = true;
    const Recording run = record();

    EXPECT_EQ(run.csv, csv_of(rows));
    EXPECT_THAT(run.log, testing::Contains(gap_line(3, 2, oil)));
    EXPECT_THAT(gap_line(3, 2, oil), testing::EndsWith("instrumentNo: 12, instrumentNo: 20467"));
    EXPECT_EQ(run.end.exit_status, 0);
}

TEST_F(Restart, HappensAsOftenAsThereAreGaps) {
    Lines log;
    for (int i = 0; i < 5; ++i) {
        round();
        send(copper, true);
        send(silver, true);
        log = joined({log, cycle(i == 0 ? 0 : 1, i == 0)});
        if (i < 4) {
            log.push_back(gap_line(silver.change_no() + 2, silver.change_no() + 1, silver));
            silver.lose_one();
            send(silver, false);
        }
    }
    const Recording run = record();

    EXPECT_EQ(run.csv, csv_of(rows));
    EXPECT_EQ(run.log, log);
    EXPECT_EQ(run.end.exit_status, 0);
}

// The configuration is read again: from the second cycle on other instruments and levels count. The
// recorder cannot come to its gap before the file is new, because the lines that it logs until then
// do not fit into its standard output, which nobody reads meanwhile.
TEST_F(Restart, ReadsTheConfigurationAgain) {
    round();
    for (int i = 0; i < 100; ++i) {
        send(copper, false);
        const Change change = silver.next();
        capture->on_both_lines(change);
        rows.push_back(change.row);
    }
    silver.lose_one();
    send(silver, false); // gap
    round();
    for (int i = 0; i < 5; ++i) {
        send(silver, false);
        send(copper, true);
    }
    capture.reset();
    config.device = capture_device(work.path("session.pcap"));
    config.insts = "ag";
    config.log_level = 31;
    Launch launch = work.prepare(config);
    launch.small_pipe = true;
    Process process(launch);
    ASSERT_TRUE(process.read_until("process decode buffer 0 frames"));
    config.insts = "cu2601";
    config.log_level = 4;
    work.write_config(config);
    const Recording run = work.collect(launch, process.finish());

    EXPECT_EQ(run.csv, csv_of(rows));
    const Lines second =
        joined({bring_up_lines(work, config, false),
                snapshot_lines({"shfe2ps init finished, total instruments:10"}, 1)});
    ASSERT_GT(run.log.size(), second.size());
    EXPECT_EQ(Lines(run.log.end() - static_cast<std::ptrdiff_t>(second.size()), run.log.end()),
              second);
    EXPECT_EQ(run.end.exit_status, 0);
}

// ... and a restart ends the feed when the file cannot be read any more.
TEST_F(Restart, EndsTheFeedWhenTheConfigurationHasGone) {
    round();
    for (int i = 0; i < 100; ++i) {
        send(copper, true);
    }
    copper.lose_one();
    send(copper, false);
    capture.reset();
    config.device = capture_device(work.path("session.pcap"));
    config.log_level = 31;
    Launch launch = work.prepare(config);
    launch.small_pipe = true;
    Process process(launch);
    ASSERT_TRUE(process.read_until("process decode buffer 0 frames"));
    std::filesystem::remove(work.config_path());
    const Recording run = work.collect(launch, process.finish());

    EXPECT_EQ(run.csv, csv_of(rows));
    ASSERT_GE(run.log.size(), 3u);
    const std::string path = work.config_path().string();
    EXPECT_EQ(Lines(run.log.end() - 3, run.log.end()),
              (Lines{"I ConfigParse _LoadConfig read configure file: " + path,
                     "E ConfigParse _LoadConfig unable to open config file: " + path,
                     "E ExanicMdImpl vorn_recv failed to initialize config data"}));
    EXPECT_THAT(other_lines(run.end.out), testing::IsEmpty());
    EXPECT_EQ(run.end.exit_status, 0);
}

} // namespace
} // namespace recorder
