#pragma once

// What a capture of the exchange's traffic holds, as far as a configuration can be held against it.

#include "tools/vorn/capture/snapshot_stream.h"
#include "wirekit/ethernet.h"

#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <tuple>
#include <vector>

namespace vorn_cli {

struct CaptureSurvey {
    struct Instrument {
        std::string inst_id;
        int32_t inst_no = 0;
        int topic_id = 0; // of the feed that lists it
    };
    struct Group {
        wirekit::Endpoint to;
        std::set<int> topics;
    };
    uint64_t frames = 0;
    uint64_t bad_checksums = 0;      // TCP segments with payload that the feed would reject
    std::set<uint16_t> server_ports; // that snapshots come from
    std::set<int> snapshot_topics;
    std::vector<Instrument> instruments; // each once, in the order of the dictionary
    std::vector<Group> groups;           // multicast destinations of what looks like decode buffers
};

// Gathers a survey from frames, in the order of the capture.
class CaptureSurveyor {
public:
    void add_frame(std::span<const uint8_t> frame);
    CaptureSurvey take();

private:
    // A connection that has carried the begin of a snapshot message.
    struct Stream {
        SnapshotStream messages;
        int topic_id = 0;
    };
    using StreamKey = std::tuple<uint32_t, uint16_t, uint32_t, uint16_t>;

    void add_segment(const wirekit::ParsedFrame& frame);
    void add_datagram(const wirekit::ParsedFrame& frame);
    void take_message(Stream& stream, std::span<const uint8_t> message);

    CaptureSurvey survey_;
    std::map<StreamKey, Stream> streams_;
    std::set<std::pair<int, std::string>> listed_; // topic and identifier
};

// Surveys a capture file (pcap or pcapng, of Ethernet) to its end. `on_frame` is called with the
// number of frames so far. Throws Failure.
CaptureSurvey survey_capture(const std::string& path,
                             const std::function<void(uint64_t)>& on_frame);

} // namespace vorn_cli
