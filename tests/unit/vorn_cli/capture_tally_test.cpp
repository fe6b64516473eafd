#include "tools/vorn/info/capture_tally.h"
#include "tools/vorn/info/info_report.h"

#include "wirekit/mdqp.h"
#include "wirekit/mirp.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

using namespace vorn_cli;
using wirekit::Bytes;

namespace {

constexpr uint64_t kStart = 1'768'438'800'000'000'000; // 09:00 at the exchange
constexpr wirekit::Endpoint kShfeA{0xEF042A48, 21000};
constexpr wirekit::Endpoint kShfeB{0xEF032A47, 21000};

class CaptureTalliesOf : public testing::Test {
protected:
    void frame(const Bytes& bytes, uint32_t cut_off = 0) {
        const std::span<const uint8_t> kept(bytes.data(), bytes.size() - cut_off);
        tallies_.add({now_ns_, kept, static_cast<uint32_t>(bytes.size())});
        now_ns_ += 1000;
    }
    void datagram(const Bytes& buffer, wirekit::Endpoint to = kShfeA, uint32_t cut_off = 0) {
        frame(wirekit::udp_datagram().to(to.ip, to.port).payload(buffer).bytes(), cut_off);
    }
    void segment(const Bytes& payload, uint8_t flags = wirekit::kTcpAck) {
        frame(wirekit::tcp_segment().seq(seq_).flags(flags).payload(payload).bytes());
        seq_ += static_cast<uint32_t>(payload.size());
    }
    const SessionTally& session() {
        tallies_.finish();
        return tallies_.sessions().sessions().at(0);
    }
    // Every frame is counted as exactly one thing.
    void TearDown() override {
        const CaptureTally& c = tallies_.capture();
        EXPECT_EQ(c.frames,
                  c.snapshot_segments + c.line_datagrams + c.other_tcp + c.other_udp + c.other);
    }

    CaptureTallies tallies_{capture_names(effective_config({}))};
    uint64_t now_ns_ = kStart;
    uint32_t seq_ = 1;
};

Bytes change(uint32_t number, uint16_t topic = 1000) {
    return wirekit::decode_buffer().topic(topic).instrument(3).change_no(number).bytes();
}

Bytes round_of(int32_t snap_no, int instruments, uint8_t last = wirekit::kFlagLast) {
    Bytes stream = wirekit::mdqp_message(wirekit::kFlagMore).snap(1000, snap_no).bytes();
    for (int32_t i = 0; i < instruments; ++i) {
        wirekit::append(stream, wirekit::mdqp_message(wirekit::kFlagMore)
                                    .inst({.inst_id = "cu26" + std::to_string(10 + i),
                                           .product_class = i == 0 ? '2' : '1',
                                           .inst_no = i})
                                    .deal({.inst_no = i, .change_no = 40 + i})
                                    .bytes());
    }
    wirekit::append(stream, wirekit::mdqp_message(last).packet_no(1).bytes());
    return stream;
}

TEST_F(CaptureTalliesOf, FramesAreSortedByWhatTheyAre) {
    segment(round_of(1, 1));
    datagram(change(1));
    frame(wirekit::tcp_segment().from(1, 80).to(2, 40000).bytes());
    frame(wirekit::udp_datagram().to(0xE00000FB, 5353).payload(Bytes(30)).bytes());
    frame(Bytes(60));
    frame({});
    const CaptureTally& capture = tallies_.capture();
    EXPECT_EQ(capture.frames, 6u);
    EXPECT_EQ(capture.snapshot_segments, 1u);
    EXPECT_EQ(capture.line_datagrams, 1u);
    EXPECT_EQ(capture.other_tcp, 1u);
    EXPECT_EQ(capture.other_udp, 1u);
    EXPECT_EQ(capture.other, 2u);
    EXPECT_EQ(capture.first_ns, kStart);
    EXPECT_EQ(capture.last_ns, kStart + 5000);
}

TEST_F(CaptureTalliesOf, DatagramsThatCarryNoChangeSayWhy) {
    datagram(Bytes(23));
    datagram(wirekit::decode_buffer().field_id(4).bytes());
    datagram(change(1, 77));
    datagram(wirekit::decode_buffer().instrument(16384).change_no(1).bytes());
    datagram(wirekit::decode_buffer().topic(5000).instrument(4096).change_no(1).bytes());
    datagram(wirekit::decode_buffer().topic(5000).instrument(4095).change_no(1).bytes());
    const LineTally& line = tallies_.lines().at(0);
    EXPECT_EQ(line.datagrams, 6u);
    EXPECT_EQ(line.too_short, 1u);
    EXPECT_EQ(line.not_incremental, 1u);
    EXPECT_EQ(line.other_topic, 1u);
    EXPECT_EQ(line.out_of_range, 2u);
    EXPECT_EQ(line.changes, 1u);
    EXPECT_EQ(line.no_changes(), 5u);
    EXPECT_EQ(tallies_.capture().topics, (std::map<int, uint64_t>{{77, 1}, {1000, 1}, {5000, 2}}));
}

TEST_F(CaptureTalliesOf, ALineOfNoConfigurationIsFoundByItsChanges) {
    datagram(change(1), {0xEF010101, 999});
    datagram(Bytes(10), {0xEF010101, 999});
    datagram(change(1), {0x0A010101, 999}); // not multicast
    datagram(change(1), kShfeB);
    tallies_.finish();
    ASSERT_EQ(tallies_.lines().size(), 2u);
    EXPECT_EQ(tallies_.lines()[0].name->feed, "shfe2ps");
    EXPECT_EQ(tallies_.lines()[0].name->line, 'B');
    EXPECT_EQ(tallies_.lines()[1].name, nullptr);
    EXPECT_EQ(tallies_.lines()[1].datagrams, 2u);
    EXPECT_EQ(tallies_.capture().other_udp, 1u);
}

TEST_F(CaptureTalliesOf, LinesOfNoConfigurationLeaveRoomForThoseWithAName) {
    for (uint32_t i = 0; i < 300; ++i) {
        datagram(change(1), {0xEF000000 + i, 999});
    }
    datagram(change(1), kShfeA);
    tallies_.finish();
    EXPECT_LE(tallies_.lines().size(), kMaxLines);
    EXPECT_EQ(tallies_.lines()[0].name->line, 'A');
    EXPECT_EQ(tallies_.capture().line_datagrams + tallies_.capture().other_udp, 301u);
}

TEST_F(CaptureTalliesOf, FramesCutShortAreCountedAndStillReadAsFarAsTheyGo) {
    const Bytes buffer =
        wirekit::decode_buffer().instrument(3).change_no(1).deal(1, 2, 3, 4).bytes();
    datagram(buffer, kShfeA, 10); // the header is there
    datagram(change(2), kShfeA, 1);
    const LineTally& line = tallies_.lines().at(0);
    EXPECT_EQ(line.cut, 2u);
    EXPECT_EQ(line.changes, 1u);
    EXPECT_EQ(line.too_short, 1u);
    EXPECT_EQ(line.bad_checksums, 0u); // cannot be told
    EXPECT_EQ(tallies_.capture().cut, 2u);
}

TEST_F(CaptureTalliesOf, RoundsBeginWithASnapshotNumberAndEndWithTheLastMessage) {
    segment(round_of(1, 3));
    segment(round_of(2, 2, wirekit::kFlagMore)); // its last message never comes
    segment(round_of(3, 1));
    const SessionTally& one = session();
    EXPECT_EQ(one.rounds_begun, 3u);
    EXPECT_EQ(one.rounds_complete, 2u);
    EXPECT_EQ(one.messages, 5u + 4u + 3u);
    ASSERT_EQ(one.rounds.size(), 3u);
    EXPECT_EQ(one.rounds[0].messages, 5u);
    EXPECT_EQ(one.rounds[0].listed, 3u);
    EXPECT_EQ(one.rounds[0].instruments, 3u);
    EXPECT_TRUE(one.rounds[0].complete && one.rounds[0].whole);
    EXPECT_EQ(one.rounds[1].snap_no, 2);
    EXPECT_FALSE(one.rounds[1].complete);
    EXPECT_EQ(one.rounds[2].topic_id, 1000);
    EXPECT_EQ(one.rounds[2].first_ns, kStart + 2000);
    const InstrumentTally& instrument = *tallies_.changes().find(Side::kShfe, 1);
    EXPECT_EQ(instrument.inst_id, "cu2611");
    EXPECT_EQ(product_name(instrument), "futures");
    EXPECT_EQ(instrument.snapshot_change_no, 41);
    EXPECT_EQ(product_name(*tallies_.changes().find(Side::kShfe, 0)), "options");
}

TEST_F(CaptureTalliesOf, ARoundOfWhichOnlyTheEndWasCapturedIsNotAWholeOne) {
    segment(wirekit::mdqp_message(wirekit::kFlagLast).packet_no(1).bytes());
    segment(round_of(2, 1));
    const SessionTally& one = session();
    EXPECT_EQ(one.rounds_begun, 1u);
    EXPECT_EQ(one.rounds_complete, 1u);
    EXPECT_EQ(one.rounds.size(), 1u);
}

TEST_F(CaptureTalliesOf, SessionsCountTheirSegments) {
    segment({}, wirekit::kTcpSyn);
    const Bytes stream = round_of(1, 4);
    const std::size_t half = stream.size() / 2;
    const Bytes first(stream.begin(), stream.begin() + static_cast<std::ptrdiff_t>(half));
    const Bytes second(stream.begin() + static_cast<std::ptrdiff_t>(half), stream.end());
    seq_ = 100;
    segment(first);
    seq_ = 100;
    segment(first); // again
    seq_ = 100 + static_cast<uint32_t>(stream.size());
    segment(round_of(2, 1)); // early
    frame(wirekit::tcp_segment().seq(100).payload(second).bad_checksum().bytes());
    seq_ = 100 + static_cast<uint32_t>(half);
    segment(second);
    frame(wirekit::tcp_segment()
              .from(0x0A010102, 50001)
              .to(0x0A010101, 33022)
              .flags(wirekit::kTcpAck | wirekit::kTcpFin)
              .bytes());
    segment({}, wirekit::kTcpFin | wirekit::kTcpAck);
    segment({}, wirekit::kTcpRst | wirekit::kTcpAck);
    const SessionTally& one = session();
    EXPECT_EQ(one.segments, 9u);
    EXPECT_EQ(one.data_segments, 5u);
    EXPECT_EQ(one.syn, 1u);
    EXPECT_EQ(one.fin, 2u);
    EXPECT_EQ(one.rst, 1u);
    EXPECT_EQ(one.retransmissions, 1u);
    EXPECT_EQ(one.out_of_order, 1u);
    EXPECT_EQ(one.bad_checksums, 1u);
    EXPECT_EQ(one.holes, 0u);
    EXPECT_EQ(one.rounds_complete, 2u);
    EXPECT_EQ(endpoint_text(one.server), "10.1.1.1:33022");
    EXPECT_EQ(endpoint_text(one.client), "10.1.1.2:50001");
}

TEST_F(CaptureTalliesOf, ASegmentThatNeverCameIsAHole) {
    segment(round_of(1, 1));
    seq_ += 500;
    segment(round_of(2, 1));
    EXPECT_EQ(session().holes, 1u);
    EXPECT_EQ(session().rounds_complete, 1u); // the second waits for what is missing
}

TEST_F(CaptureTalliesOf, ABoundedNumberOfSessionsIsKept) {
    for (uint16_t port = 1000; port < 1000 + 200; ++port) {
        frame(wirekit::tcp_segment().to(0x0A010102, port).payload(round_of(1, 1)).bytes());
    }
    tallies_.finish();
    EXPECT_EQ(tallies_.sessions().sessions().size(), kMaxSessions);
    EXPECT_EQ(tallies_.sessions().not_kept(), 200 - kMaxSessions);
}

TEST_F(CaptureTalliesOf, StampsThatStepBackAreCounted) {
    frame(Bytes(60));
    now_ns_ = kStart - 500;
    frame(Bytes(60));
    EXPECT_EQ(tallies_.capture().stamps_back, 1u);
    EXPECT_EQ(tallies_.capture().first_ns, kStart - 500);
    EXPECT_EQ(tallies_.capture().last_ns, kStart);
}

TEST(InfoReport, TimesAreThoseOfTheExchange) {
    EXPECT_EQ(exchange_time(kStart + 7), "2026-01-15 09:00:00.000000007");
    EXPECT_EQ(exchange_time(0), "1970-01-01 08:00:00.000000000");
}

TEST(CaptureNames, TakeWhatTheConfigurationSays) {
    const CaptureNames names = capture_names(effective_config(
        read_ini("[config]\nshfe2ps_ip_a = 239.1.2.3:4000\nine2ps_ip_b = nonsense\n"
                 "shfe2ps_topic_id = 7\nmd2ps_snap_port = 99\n")));
    ASSERT_NE(names.line({0xEF010203, 4000}), nullptr);
    EXPECT_EQ(names.line({0xEF010203, 4000})->feed, "shfe2ps");
    EXPECT_EQ(names.line(kShfeA), nullptr);
    EXPECT_NE(names.line(kShfeB), nullptr); // as by default
    EXPECT_EQ(names.topic(7)->feed, "shfe2ps");
    EXPECT_EQ(names.topic(1000), nullptr);
    EXPECT_EQ(names.topic(5000)->side, Side::kIne);
    EXPECT_TRUE(names.is_snapshot_port(99));
    EXPECT_TRUE(names.is_snapshot_port(22000));
    EXPECT_FALSE(names.is_snapshot_port(33022));
    EXPECT_EQ(names.unusable, std::vector<std::string>{"nonsense"});
}

TEST(CaptureNames, AnAddressIsFourNumbersAndAPort) {
    EXPECT_EQ(parse_endpoint("239.4.42.72:21000"), kShfeA);
    for (const char* bad : {"", "239.4.42.72", "239.4.42.72:", "239.4.42:21000",
                            "239.4.42.72:70000", "239.4.42.72:21000x", ":21000"}) {
        EXPECT_FALSE(parse_endpoint(bad)) << bad;
    }
}

} // namespace
