#pragma once

// Both channels of the feed on one table, put together as the feed's entry does it, without the
// entry: tests decide what runs when.

#include "tcp/ExanicTcpFunc.h"
#include "tests/support/scripted_card.h"
#include "udp/ExanicUdpFunc.h"

#include <gtest/gtest.h>
#include <memory>

namespace component_test {

inline constexpr int kDecodePort = 0;
inline constexpr int kRawPort = 1;
inline constexpr uint16_t kMd2psPort = 33022;
inline constexpr uint16_t kMd4psPort = 33024;
inline constexpr int16_t kShfe2psTopic = 1000;
inline constexpr int16_t kIne2psTopic = 1100;

class FeedParts : public testing::Test {
public:
    FeedParts();
    ~FeedParts() override;

    // Runs the snapshot phase as the feed does: the decoder on a thread of its own, this thread
    // caching decode buffers until the outcome is known.
    int snapshot_phase();

    ExanicMdConfigData config;
    std::unique_ptr<share> table;
    std::unique_ptr<PriceCalcInfo> calc;
    UEnableMask enabled{};
    UEnableMask finished{};
    uint32_t cur_inst_no = 0;
    std::unique_ptr<char[]> cache_memory;
    CacheBufInfo cache{};
    std::unique_ptr<CExanicTcpFunc> tcp;
    std::unique_ptr<CExanicUdpFunc> udp;
    support::ScriptedCard& card;
};

} // namespace component_test
