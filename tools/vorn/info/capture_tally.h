#pragma once

// What is in a capture, counted frame by frame. Memory is bounded by the kMax... limits and by the
// number of instruments that there can be, not by the capture. Every byte sequence is taken.

#include "tools/vorn/capture/capture_reader.h"
#include "tools/vorn/info/change_tracker.h"
#include "tools/vorn/info/session_tally.h"

#include <map>
#include <vector>

namespace vorn_cli {

inline constexpr std::size_t kMaxLines = 64;
inline constexpr std::size_t kMaxTopics = 64;

// A multicast group and port: one that the configuration names, or any that has carried the header
// of a change.
struct LineTally {
    wirekit::Endpoint group;
    const LineName* name = nullptr; // null when the configuration does not name it
    uint64_t datagrams = 0;
    uint64_t bytes = 0; // of whole frames on the wire
    uint64_t first_ns = 0;
    uint64_t last_ns = 0;
    // Of the datagrams:
    uint64_t changes = 0;         // decode buffers with a change of a known topic, in range
    uint64_t too_short = 0;       // for a decode buffer
    uint64_t not_incremental = 0; // another kind of buffer
    uint64_t other_topic = 0;     // topic of no feed
    uint64_t out_of_range = 0;    // instrument number that no table has
    // Among all of these:
    uint64_t bad_checksums = 0; // of UDP; neither card nor feed looks at them
    uint64_t cut = 0;           // not wholly captured

    uint64_t no_changes() const { return too_short + not_incremental + other_topic + out_of_range; }
};

struct CaptureTally {
    uint64_t frames = 0;
    uint64_t bytes = 0;    // of frames on the wire
    uint64_t first_ns = 0; // earliest and latest stamp
    uint64_t last_ns = 0;
    uint64_t stamps_back = 0; // stamps before the one of the frame before
    uint64_t cut = 0;         // frames not wholly captured
    // Every frame is one of these.
    uint64_t snapshot_segments = 0; // from or to a port of a snapshot server
    uint64_t line_datagrams = 0;
    uint64_t other_tcp = 0;
    uint64_t other_udp = 0;
    uint64_t other = 0; // neither TCP nor UDP over IPv4, or too damaged to tell
    // Datagrams of each topic that looks like one of a change; at most kMaxTopics.
    std::map<int, uint64_t> topics;
};

class CaptureTallies {
public:
    explicit CaptureTallies(CaptureNames names);
    CaptureTallies(const CaptureTallies&) = delete;
    CaptureTallies& operator=(const CaptureTallies&) = delete;

    void add(const CaptureFrame& frame);
    void finish(); // at the end of the capture

    const CaptureNames& names() const { return names_; }
    const CaptureTally& capture() const { return capture_; }
    const std::vector<LineTally>& lines() const { return lines_; }
    const SessionTallies& sessions() const { return sessions_; }
    const ChangeTracker& changes() const { return changes_; }

private:
    void add_datagram(const wirekit::ParsedFrame& parsed, const CaptureFrame& frame);
    LineTally* line_of(const wirekit::ParsedFrame& parsed);
    void add_buffer(LineTally& line, std::span<const uint8_t> buffer, uint64_t time_ns);

    CaptureNames names_;
    CaptureTally capture_;
    std::vector<LineTally> lines_;
    ChangeTracker changes_;
    SessionTallies sessions_;
    uint64_t stamp_before_ = 0;
};

} // namespace vorn_cli
