#pragma once

// Changes as they pass by: multicast datagrams with one decode buffer each, usually one copy on
// each of two lines.

#include "wirekit/ethernet.h"

#include <deque>
#include <optional>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace faults {

struct Change {
    uint16_t topic = 0;
    uint32_t instrument = 0;
    uint32_t change_no = 0;

    // Of the instrument: topic and number.
    uint64_t instrument_key() const { return static_cast<uint64_t>(topic) << 32 | instrument; }
    bool operator==(const Change&) const = default;
};

// The change that a frame carries, if it carries one.
std::optional<Change> change_of(const wirekit::ParsedFrame& frame);

// Tells the first copy of a change from the later ones, and knows the changes that were marked
// again on the other line. What is remembered has a bound; the oldest marks go first.
class ChangeCopies {
public:
    // True for the first copy only. To be asked once for every change that passes.
    bool is_first(const Change& change);

    void mark(const Change& change);
    bool is_marked(const Change& change) const { return marked_.count(change) != 0; }

private:
    struct Hash {
        std::size_t operator()(const Change& change) const;
    };
    std::unordered_map<uint64_t, uint32_t> highest_; // change number by instrument
    std::unordered_set<Change, Hash> marked_;
    std::deque<Change> order_; // of the marks
};

// Which line a datagram came on. Nothing in a datagram says so: line A is the destination that
// is first with a topic's changes more often than the other so far.
class Lines {
public:
    enum class Name : uint8_t { kA, kB };
    // Every change that passes, and whether it is the first copy.
    Name see(const Change& change, const wirekit::Endpoint& destination, bool is_first);

private:
    struct Line {
        uint16_t topic;
        wirekit::Endpoint destination;
        uint64_t first_copies;
    };
    std::vector<Line> lines_;
};

} // namespace faults
