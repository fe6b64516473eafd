#include "bench/reference/snapshot_round.h"

#include "bench/reference/feed_parts.h"
#include "exchange_sim/session.h"
#include "wirekit/bytes.h"

namespace bench {

namespace {

// Where the protocol, the source port and the payload stand in a frame without options.
constexpr std::size_t kProtocol = 14 + 9;
constexpr std::size_t kSourcePort = 14 + 20;
constexpr std::size_t kTcpPayload = 14 + 20 + 20;
constexpr uint8_t kTcp = 6;

} // namespace

FrameList snapshot_round(uint32_t instruments) {
    exchange_sim::SessionOptions options;
    options.instruments = instruments;
    options.changes = 50'000;
    options.rounds = 1;
    exchange_sim::Session session(options);
    FrameList frames;
    for (exchange_sim::WireFrame frame; session.next(frame);) {
        if (frame.bytes.size() > kTcpPayload && frame.bytes[kProtocol] == kTcp &&
            wirekit::get_be16(&frame.bytes[kSourcePort]) == options.snapshot_port) {
            frames.add(frame.bytes.data(), frame.bytes.size());
        }
    }
    return frames;
}

std::vector<std::vector<char>> blocks_of(const FrameList& frames) {
    std::vector<std::vector<char>> blocks;
    for (std::size_t i = 0; i < frames.size(); ++i) {
        blocks.emplace_back(frames.bytes(i), frames.bytes(i) + frames.length(i));
        blocks.back().resize(frames.length(i) + DECODE_SLACK);
    }
    return blocks;
}

SnapshotFeed::SnapshotFeed() : config(feed_config()) {
    config.recvall = 1;
    config.md2ps_snap_port = 33022;
    config.md4ps_snap_port = 22000;
    config.timeout_cnt = 10;
    enabled.mask = MASK_SHFE_2PS | MASK_INE_2PS;
    channel =
        std::make_unique<CExanicTcpFunc>(config, &market->table, enabled, finished, market->scale);
    channel->InitTcp(registers(), exanic_acquire_rx_buffer(nullptr, 1, 0));
}

} // namespace bench
