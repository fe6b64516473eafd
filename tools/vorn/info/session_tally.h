#pragma once

// The TCP connections of the snapshot servers. Memory is bounded by kMaxSessions and kMaxRounds.

#include "tools/vorn/capture/snapshot_stream.h"
#include "tools/vorn/info/change_tracker.h"
#include "wirekit/ethernet.h"

#include <bitset>
#include <deque>
#include <vector>

namespace vorn_cli {

inline constexpr std::size_t kMaxSessions = 64;
inline constexpr std::size_t kMaxRounds = 1000; // listed, of a session

// One snapshot of a feed: from a message with a snapshot number to the one that says it is the
// last.
struct Round {
    int topic_id = 0;
    int32_t snap_no = 0;
    uint64_t messages = 0;
    uint32_t listed = 0;      // instruments of its dictionary
    uint32_t instruments = 0; // with values
    uint64_t first_ns = 0;
    uint64_t last_ns = 0;
    bool complete = false; // the last message has come
    bool whole = true;     // no hole in the stream
};

// One connection, both directions, by its addresses and ports.
struct SessionTally {
    wirekit::Endpoint server;
    wirekit::Endpoint client;
    uint64_t segments = 0;      // of both directions
    uint64_t data_segments = 0; // of the server, with payload
    uint64_t bytes = 0;         // of payload in these
    uint64_t retransmissions = 0;
    uint64_t out_of_order = 0;  // came before something that they follow
    uint64_t holes = 0;         // stretches that never came
    uint64_t bad_checksums = 0; // with payload, from the server; whole ones
    uint64_t cut = 0;           // not wholly captured
    uint64_t syn = 0;           // of both directions, as are the next two
    uint64_t fin = 0;
    uint64_t rst = 0;
    uint64_t messages = 0;
    uint64_t rounds_complete = 0;
    uint64_t rounds_begun = 0;
    std::vector<Round> rounds; // the first kMaxRounds
    uint64_t first_ns = 0;
    uint64_t last_ns = 0;
};

class SessionTallies {
public:
    SessionTallies(const CaptureNames& names, ChangeTracker& instruments);

    // A segment from or to a port of a snapshot server.
    void add(const wirekit::ParsedFrame& frame, bool cut, uint64_t time_ns);
    void finish(); // at the end of the capture

    // A deque of what is open: sessions hold on to nothing of each other.
    const std::deque<SessionTally>& sessions() const { return tallies_; }
    uint64_t not_kept() const { return not_kept_; } // segments of sessions beyond kMaxSessions

private:
    struct State {
        SnapshotStream stream;
        uint64_t holes_seen = 0;
        bool in_round = false;
        Round round;
        const TopicName* topic = nullptr;
        std::bitset<kSideLimit[0]> listed; // instrument numbers of this round
        std::bitset<kSideLimit[0]> valued;
    };

    std::size_t session_of(const wirekit::ParsedFrame& frame, bool from_server);
    void add_data(std::size_t index, const wirekit::ParsedFrame& frame, uint64_t time_ns);
    void take_message(std::size_t index, std::span<const uint8_t> message, uint64_t time_ns);
    void take_field(State& state, uint16_t field_id, std::span<const uint8_t> data);
    void end_round(std::size_t index);

    const CaptureNames& names_;
    ChangeTracker& instruments_;
    std::deque<SessionTally> tallies_;
    std::deque<State> states_; // of the same index
    uint64_t not_kept_ = 0;
};

} // namespace vorn_cli
