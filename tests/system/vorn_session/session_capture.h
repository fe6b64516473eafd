#pragma once

// A session's capture in memory: its frames, by offset, for tests that damage it, and what a
// consumer makes of it.

#include "tests/unit/exchange_sim/test_consumer.h"
#include "wirekit/ethernet.h"

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace vorn_session {

// Feed (0 SHFE, 1 INE) and number of an instrument.
using InstrumentKey = std::pair<int, uint32_t>;

class SessionCapture {
public:
    // Little-endian pcap bytes, as the simulator writes them.
    explicit SessionCapture(const std::string& bytes);
    std::string bytes() const;

    std::size_t size() const { return frames_.size(); }
    wirekit::Bytes& frame(std::size_t i) { return frames_[i].bytes; }
    const wirekit::Bytes& frame(std::size_t i) const { return frames_[i].bytes; }
    uint64_t time_ns(std::size_t i) const;
    // The frames that carry a decode buffer, in order.
    const std::vector<std::size_t>& changes() const { return changes_; }
    // The decode buffer in a frame.
    std::span<uint8_t> buffer(std::size_t i);
    InstrumentKey instrument(std::size_t i);
    uint32_t change_no(std::size_t i);

    void drop(std::size_t i) { frames_[i].dropped = true; }
    // Every frame that carries this change of the instrument, on either line.
    std::vector<std::size_t> copies(InstrumentKey key, uint32_t change_no);

    // The instruments as the first whole round of each feed has them.
    std::map<InstrumentKey, exchange_sim::testing::SnapshotEntry> first_rounds();

private:
    struct Frame {
        wirekit::Bytes head; // 16 bytes before it
        wirekit::Bytes bytes;
        bool dropped = false;
    };
    std::string file_header_;
    std::vector<Frame> frames_;
    std::vector<std::size_t> changes_;
};

} // namespace vorn_session
