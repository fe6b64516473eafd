#include "exchange_sim/tcp_stream.h"

#include <gtest/gtest.h>

namespace exchange_sim {
namespace {

constexpr wirekit::Endpoint kServer{0x0A000001, 33022};
constexpr wirekit::Endpoint kClient{0x0A000002, 50001};

struct Seen {
    uint64_t time_ns;
    bool from_server;
    uint8_t flags;
    uint32_t seq;
    wirekit::Bytes payload;
};

std::vector<Seen> drain(FrameQueue& frames) {
    std::vector<Seen> seen;
    while (!frames.empty()) {
        uint64_t time_ns = 0;
        const wirekit::Bytes& bytes = frames.pop(time_ns);
        EXPECT_GE(bytes.size(), 60u);
        const auto frame = wirekit::parse_frame(bytes);
        EXPECT_TRUE(frame.checksum_ok);
        seen.push_back({time_ns,
                        frame.from == kServer,
                        frame.tcp_flags,
                        frame.tcp_seq,
                        {frame.payload.begin(), frame.payload.end()}});
    }
    return seen;
}

TEST(FrameQueue, GivesFramesInOrderOfTimeAndThenOfMaking) {
    FrameQueue frames;
    for (const auto& [time_ns, mark] :
         {std::pair<uint64_t, uint8_t>{5, 1}, {3, 2}, {5, 3}, {4, 4}}) {
        frames.add(time_ns).assign(1, mark);
    }
    std::vector<int> marks;
    uint64_t time_ns = 0;
    while (!frames.empty()) {
        const uint64_t announced = frames.next_time();
        marks.push_back(frames.pop(time_ns)[0]);
        EXPECT_EQ(time_ns, announced);
    }
    EXPECT_EQ(marks, (std::vector<int>{2, 4, 1, 3}));
}

TEST(FrameQueue, ThePoppedFrameOutlivesLaterAdds) {
    FrameQueue frames;
    frames.add(1).assign(4, 7);
    uint64_t time_ns = 0;
    const std::span<const uint8_t> bytes = frames.pop(time_ns);
    for (uint64_t i = 0; i < 100; ++i) {
        frames.add(2 + i).assign(4, 9);
    }
    EXPECT_EQ(wirekit::Bytes(bytes.begin(), bytes.end()), wirekit::Bytes(4, 7));
}

TEST(TcpStream, SendsFullSegmentsAtOnceAndTheRestWhenFlushed) {
    FrameQueue frames;
    TcpStream stream(frames, kServer, kClient, Rng(1));
    stream.connect(0);
    const auto handshake = drain(frames);
    ASSERT_EQ(handshake.size(), 3u);
    wirekit::Bytes sent(5000);
    for (std::size_t i = 0; i < sent.size(); ++i) {
        sent[i] = static_cast<uint8_t>(i * 7);
    }
    stream.send(1'000'000, sent);
    auto seen = drain(frames);
    ASSERT_EQ(seen.size(), 3u);
    EXPECT_GE(seen[0].payload.size(), 1448u);
    EXPECT_LE(seen[0].payload.size(), 1460u);
    EXPECT_EQ(seen[1].payload.size(), seen[0].payload.size());
    EXPECT_GT(seen[1].time_ns, seen[0].time_ns) << "a line carries one frame after the other";
    EXPECT_EQ(seen[0].seq, handshake[1].seq + 1);
    stream.flush(2'000'000);
    for (const Seen& rest : drain(frames)) {
        EXPECT_EQ(rest.flags, wirekit::kTcpPsh | wirekit::kTcpAck);
        seen.push_back(rest);
    }
    stream.flush(3'000'000); // nothing waits
    EXPECT_TRUE(frames.empty());
    wirekit::Bytes received;
    uint32_t seq = handshake[1].seq + 1;
    for (const Seen& segment : seen) {
        EXPECT_EQ(segment.seq, seq);
        seq += static_cast<uint32_t>(segment.payload.size());
        wirekit::append(received, segment.payload);
    }
    EXPECT_EQ(received, sent);
}

TEST(TcpStream, ClientAcknowledgesNowAndThenWithoutPayload) {
    FrameQueue frames;
    TcpStream stream(frames, kServer, kClient, Rng(2));
    stream.connect(0);
    drain(frames);
    stream.send(1'000'000, wirekit::Bytes(200'000));
    int acknowledgements = 0;
    int segments = 0;
    for (const Seen& seen : drain(frames)) {
        acknowledgements += seen.from_server ? 0 : 1;
        segments += seen.from_server ? 1 : 0;
        EXPECT_EQ(seen.payload.empty(), !seen.from_server);
    }
    EXPECT_GT(segments, 100);
    EXPECT_GE(acknowledgements, segments / 40);
    EXPECT_LE(acknowledgements, segments / 10);
}

TEST(TcpStream, AsksForANewConnectionBeforeItsNumbersWrap) {
    FrameQueue frames;
    TcpStream stream(frames, kServer, kClient, Rng(3));
    stream.connect(0);
    EXPECT_FALSE(stream.wants_reconnect());
    const wirekit::Bytes chunk(8 << 20);
    for (int i = 0; i < 32; ++i) {
        stream.send(0, chunk);
        drain(frames);
    }
    EXPECT_TRUE(stream.wants_reconnect());
    stream.close(0);
    stream.connect(0);
    EXPECT_FALSE(stream.wants_reconnect());
}

} // namespace
} // namespace exchange_sim
