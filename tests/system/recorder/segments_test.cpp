// Snapshot streams as networks deliver them: cut, lost, repeated, out of order, broken off. What is
// recorded afterwards, and the exact number of buffers cached until then, tell when and from what
// the snapshot was complete.

#include "recording.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace recorder {
namespace {

constexpr uint16_t kClientPort = 50001;

// Two contracts; a change of each on both lines is what `tick` sends.
class Segments : public testing::Test {
protected:
    std::vector<Bytes> messages() { return round_messages(kShfe, {&copper, &silver}); }

    void tick() {
        for (Contract* contract : {&copper, &silver}) {
            const Change change = contract->next();
            capture->on_both_lines(change);
            if (complete) {
                rows.push_back(change.row);
            }
        }
    }
    // The next frame completes the snapshot.
    void completes_with(const Segment& segment) {
        cached = capture->datagrams();
        capture->segment(segment);
        complete = true;
    }
    void completes_with(const std::vector<Segment>& segments) {
        capture->segments({segments.begin(), segments.end() - 1});
        completes_with(segments.back());
    }

    Recording record(int log_level = 7) {
        for (int i = 0; i < 10; ++i) {
            tick();
        }
        capture.reset();
        config.device = capture_device(work.path("session.pcap"));
        config.log_level = log_level;
        return work.record(config);
    }
    // Everything is as after a snapshot that was complete where the test said.
    void expect_recorded(const Recording& run, const Lines& before_completion = {}) {
        EXPECT_EQ(run.csv, csv_of(rows));
        EXPECT_EQ(run.log, joined({bring_up_lines(work, config), before_completion,
                                   snapshot_lines({"shfe2ps init finished, total instruments:10"},
                                                  cached)}));
        EXPECT_EQ(run.end.err, "");
        EXPECT_EQ(run.end.exit_status, 0);
    }

    Workspace work;
    Config config;
    Contract copper{{.number = 3, .id = "cu2601"}};
    Contract silver{{.number = 9, .id = "ag2602", .multiple = 15, .tick_cents = 100}};
    SnapshotConnection connection{kClientPort};
    std::unique_ptr<CaptureWriter> capture =
        std::make_unique<CaptureWriter>(work.path("session.pcap"));
    std::vector<std::string> rows;
    int cached = 0;
    bool complete = false;
};

class SegmentSizes : public Segments, public testing::WithParamInterface<std::size_t> {};

TEST_P(SegmentSizes, MessagesMayStraddleSegments) {
    const auto segments = connection.cut(messages(), GetParam());
    for (std::size_t i = 0; i + 1 < segments.size(); ++i) {
        capture->segment(segments[i]);
        if (i % 40 == 0) {
            tick();
        }
    }
    completes_with(segments.back());
    expect_recorded(record());
}

// From two bytes on, of which a message's start can be told, to a full Ethernet frame.
INSTANTIATE_TEST_SUITE_P(Recorder, SegmentSizes, testing::Values(2, 7, 113, 1460));

TEST_F(Segments, InAnyOrderAreTakenInTheStreamsOrder) {
    const auto segments = connection.one_by_one(messages());
    ASSERT_EQ(segments.size(), 5u);
    for (const std::size_t i : {0, 2, 2, 1, 1, 0, 4}) {
        capture->segment(segments[i]);
        tick();
    }
    completes_with(segments[3]);
    expect_recorded(record());
}

TEST_F(Segments, DamagedOnTheWayAreTakenFromTheirRepetition) {
    const auto segments = connection.one_by_one(messages());
    capture->segment(segments[0]);
    capture->damaged(segments[1]);
    for (const std::size_t i : {2, 3, 4}) {
        capture->segment(segments[i]);
        tick();
    }
    completes_with(segments[1]);

    const Recording run = record(15);
    EXPECT_EQ(run.csv, csv_of(rows));
    EXPECT_THAT(run.log, testing::Contains("I ExanicMdImpl vorn_recv process decode buffer " +
                                           std::to_string(cached) + " frames"));
    EXPECT_EQ(std::count(run.log.begin(), run.log.end(),
                         "D ExanicTcpFunc _PacketHandler tcp checksum is not correct"),
              1);
    EXPECT_EQ(run.end.exit_status, 0);
}

// A segment that arrives in order but leaves its message unfinished ends there: what is held behind
// it has to come again. Later on the held ones are taken.
TEST_F(Segments, HeldBehindAnUnfinishedMessageHaveToComeAgain) {
    const auto segments = connection.cut(messages(), 150);
    // Segments 3 and 4 lie inside one message, which 2 begins and 5 ends.
    ASSERT_EQ(segments.size(), 9u);
    for (const std::size_t i : {0, 1, 2, 4, 3, 5, 6, 7, 8, 4}) {
        capture->segment(segments[i]);
        tick();
    }
    completes_with(segments[5]);
    expect_recorded(record());
}

// A segment that never comes again: everything behind it is held, rounds that could have been taken
// included, until there is no more room; the segment that finds none clears all, and the first
// round that begins afterwards is taken.
TEST_F(Segments, BeyondFiveHundredHeldOnesClearEverything) {
    auto segments = connection.one_by_one(messages());
    const uint32_t missing = segments[1].seq;
    segments.erase(segments.begin() + 1);
    int held = -1; // the first one is taken
    uint32_t refused = 0;
    for (int round = 1; refused == 0; ++round) {
        for (const Segment& segment : segments) {
            capture->segment(segment);
            if (++held == 501) {
                refused = segment.seq;
            }
        }
        tick();
        segments = connection.one_by_one(messages());
    }
    completes_with(connection.one_by_one(messages()));
    expect_recorded(record(), {"E ExanicTcpFunc _PacketHandler break tcp seq detected. expt: " +
                               std::to_string(missing) + ", got: " + std::to_string(refused)});
}

TEST_F(Segments, MissingForGoodDoNotMatterOnceAnotherConnectionHasARound) {
    auto segments = connection.one_by_one(messages());
    segments.erase(segments.begin() + 1);
    capture->segments(segments);
    tick();
    SnapshotConnection other(kClientPort + 1);
    const auto round = other.one_by_one(messages());
    capture->segment(round[0]);
    capture->segment(segments.back());
    tick();
    completes_with({round.begin() + 1, round.end()});
    expect_recorded(record());
}

TEST_F(Segments, AfterAResetBelongToNoRound) {
    Contract zinc({.number = 30, .id = "zn2601"});
    const auto segments = connection.one_by_one(round_messages(kShfe, {&zinc, &copper, &silver}));
    for (std::size_t i = 0; i < segments.size(); ++i) {
        if (i == 5) {
            capture->reset(segments[i]);
        }
        capture->segment(segments[i]);
        tick();
    }
    SnapshotConnection again(kClientPort, 77'000);
    completes_with(again.one_by_one(messages()));
    // Still passed by the card, but the table was cleared and zinc has not come back.
    capture->on_both_lines(zinc.next());
    expect_recorded(record());
}

TEST_F(Segments, WithAResetAloneOrWithoutPayloadChangeNothing) {
    const auto segments = connection.one_by_one(messages());
    capture->segments({segments.begin(), segments.begin() + 3});
    tick();
    capture->flagged(segments[1], wirekit::kTcpRst, 1);
    capture->flagged(segments[3], wirekit::kTcpRst | wirekit::kTcpAck, 0);
    capture->flagged(segments[3], wirekit::kTcpFin | wirekit::kTcpAck, 0);
    tick();
    completes_with({segments.begin() + 3, segments.end()});
    expect_recorded(record());
}

TEST_F(Segments, OfAnotherHostAreNotMixedIn) {
    const auto segments = connection.one_by_one(messages());
    auto foreign = connection.one_by_one(messages());
    for (std::size_t i = 0; i < segments.size(); ++i) {
        foreign[i].server.ip = 0x0A0101FE;
        foreign[i].seq = segments[i].seq;
    }
    for (std::size_t i = 0; i + 1 < segments.size(); ++i) {
        capture->segment(segments[i]);
        capture->segment(foreign[i + 1]);
        tick();
    }
    completes_with(segments.back());
    expect_recorded(record());
}

TEST_F(Segments, OfARoundThatHasBegunBeforeAreNotTaken) {
    const auto segments = connection.one_by_one(messages());
    capture->segments({segments.begin() + 1, segments.end()});
    tick();
    completes_with(connection.one_by_one(messages()));
    expect_recorded(record());
}

// Frames that are none of the snapshot's: other protocols, other ports, damaged beyond reading.
TEST_F(Segments, AmongOtherTrafficAreFound) {
    const auto segments = connection.one_by_one(messages());
    const auto noise = [&](std::size_t i) {
        Segment other = segments[i];
        other.server.port = 33023;
        capture->segment(other);
        auto frame = wirekit::tcp_segment().payload(Bytes(200, 0x11)).bytes();
        frame.resize(20 + i * 7);
        capture->frame(frame);
        frame = wirekit::udp_datagram().to(0xE0000001, 21000).payload(Bytes(64)).bytes();
        capture->frame(frame);
        frame[23] = 89; // a routing protocol
        capture->frame(frame);
        frame[12] = 0x86; // not IPv4
        capture->frame(frame);
        capture->frame(Bytes(1, 0));
        capture->frame(Bytes(60, 0xFF));
    };
    for (std::size_t i = 0; i + 1 < segments.size(); ++i) {
        noise(i);
        capture->segment(segments[i]);
        tick();
        noise(i);
    }
    completes_with(segments.back());
    noise(0);
    expect_recorded(record());
}

} // namespace
} // namespace recorder
