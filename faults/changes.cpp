#include "faults/changes.h"

#include <algorithm>

namespace faults {

namespace {

using wirekit::get_le16;
using wirekit::get_le32;

constexpr std::size_t kHeaderSize = 24;
constexpr std::size_t kFieldIdOffset = 12;
constexpr std::size_t kInstrumentOffset = 14;
constexpr std::size_t kChangeNoOffset = 18;
constexpr uint16_t kIncremental = 3;

constexpr std::size_t kMostInstruments = 65536;
constexpr std::size_t kMostMarks = 65536;
constexpr std::size_t kMostLines = 64;

bool is_multicast(uint32_t ip) {
    return ip >> 28 == 0xE;
}

} // namespace

std::optional<Change> change_of(const wirekit::ParsedFrame& frame) {
    if (frame.kind != wirekit::ParsedFrame::Kind::kUdp || !is_multicast(frame.to.ip) ||
        frame.payload.size() < kHeaderSize ||
        get_le16(&frame.payload[kFieldIdOffset]) != kIncremental) {
        return std::nullopt;
    }
    return Change{get_le16(frame.payload.data()), get_le32(&frame.payload[kInstrumentOffset]),
                  get_le32(&frame.payload[kChangeNoOffset])};
}

std::size_t ChangeCopies::Hash::operator()(const Change& change) const {
    return static_cast<std::size_t>(
        (change.instrument_key() * 0x9E3779B97F4A7C15 ^ change.change_no) * 0xD6E8FEB86659FD93);
}

bool ChangeCopies::is_first(const Change& change) {
    const auto found = highest_.find(change.instrument_key());
    if (found == highest_.end()) {
        if (highest_.size() == kMostInstruments) {
            highest_.clear();
        }
        highest_.emplace(change.instrument_key(), change.change_no);
        return true;
    }
    if (change.change_no <= found->second) {
        return false;
    }
    found->second = change.change_no;
    return true;
}

void ChangeCopies::mark(const Change& change) {
    if (order_.size() == kMostMarks) {
        marked_.erase(order_.front());
        order_.pop_front();
    }
    marked_.insert(change);
    order_.push_back(change);
}

Lines::Name Lines::see(const Change& change, const wirekit::Endpoint& destination, bool is_first) {
    auto own = std::find_if(lines_.begin(), lines_.end(), [&](const Line& line) {
        return line.topic == change.topic && line.destination == destination;
    });
    if (own == lines_.end()) {
        if (lines_.size() == kMostLines) {
            lines_.clear();
        }
        own = lines_.insert(lines_.end(), {change.topic, destination, 0});
    }
    own->first_copies += is_first ? 1 : 0;
    // Of two lines that are even the one seen earlier is A.
    const bool behind = std::any_of(lines_.begin(), lines_.end(), [&](const Line& line) {
        return line.topic == change.topic && &line != &*own &&
               (line.first_copies > own->first_copies ||
                (line.first_copies == own->first_copies && &line < &*own));
    });
    return behind ? Name::kB : Name::kA;
}

} // namespace faults
