#pragma once

// What waits to be sent: a queue for each subject whose order counts, its lane. Of a lane one
// message at most is under way; the next one goes when that has been acknowledged. So whatever is
// lost and sent again, by this publisher or another one, no lane's messages pass each other.
//
// One thread. Room for a fixed number of messages, taken from the system as it is used.

#include "tools/vorn/fanout/payload.h"

#include <cstdint>
#include <deque>
#include <queue>
#include <vector>

namespace vorn_cli {

inline constexpr uint32_t kEventLane = INSTRUMENT_SLOT_CNT; // of all events
inline constexpr uint32_t kLanes = INSTRUMENT_SLOT_CNT + 1; // one an instrument's slot, and that

class Lanes {
public:
    struct Entry {
        Outgoing message;
        uint64_t number = 0;    // of the message, 1 for the first one pushed
        uint64_t queued_ns = 0; // as push() was told
        uint32_t attempt = 0;   // how often it was sent
    };

    explicit Lanes(std::size_t capacity);

    bool full() const { return size_ >= capacity_; }
    std::size_t size() const { return size_; } // those under way too
    std::size_t under_way() const { return under_way_; }
    uint64_t pushed() const { return pushed_; }

    void push(uint32_t lane, const Outgoing& message, uint64_t now_ns);

    // A lane whose first message may go now: kLanes when there is none. It is then under way until
    // done(), later() or aside().
    uint32_t next(uint64_t now_ns);
    Entry& front(uint32_t lane) { return nodes_[lanes_[lane].first].entry; }
    const Entry& front(uint32_t lane) const { return nodes_[lanes_[lane].first].entry; }
    bool is_under_way(uint32_t lane) const { return lanes_[lane].state == State::kUnderWay; }

    void done(uint32_t lane);                   // the first message is over
    void later(uint32_t lane, uint64_t due_ns); // is to be sent (again) then
    void aside(uint32_t lane);                  // waits for release()
    void release();
    bool has_aside() const { return !aside_.empty(); }

private:
    static constexpr uint32_t kNone = 0xffffffff;
    enum class State : uint8_t { kEmpty, kReady, kUnderWay, kLater, kAside };
    struct Lane {
        uint32_t first = kNone;
        uint32_t last = kNone;
        State state = State::kEmpty;
    };
    struct Node {
        Entry entry;
        uint32_t next = kNone;
    };
    struct Due {
        uint64_t due_ns;
        uint32_t lane;
        bool operator>(const Due& other) const { return due_ns > other.due_ns; }
    };

    void leave(uint32_t lane, State state);

    const std::size_t capacity_;
    std::size_t size_ = 0;
    std::size_t under_way_ = 0;
    uint64_t pushed_ = 0;
    std::vector<Lane> lanes_;
    std::deque<Node> nodes_; // those of free_ are not in use
    std::vector<uint32_t> free_;
    std::deque<uint32_t> ready_;
    std::priority_queue<Due, std::vector<Due>, std::greater<>> later_;
    std::vector<uint32_t> aside_;
};

} // namespace vorn_cli
