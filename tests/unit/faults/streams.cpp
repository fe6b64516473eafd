#include "streams.h"

#include "exchange_sim/session.h"
#include "exchange_sim/session_options.h"

#include <gtest/gtest.h>
#include <map>

namespace faults::testing {

const Stream& session() {
    static const Stream stream = [] {
        const auto options = exchange_sim::parse_session_options(
            "seed=7 instruments=40 changes=4000 rate=20000 first_round_ms=10 round_interval_ms=50 "
            "round_ms=5");
        EXPECT_EQ(options.error, "");
        exchange_sim::Session made(options.options);
        Stream frames;
        for (exchange_sim::WireFrame frame; made.next(frame);) {
            frames.push_back({frame.timestamp_ns, {frame.bytes.begin(), frame.bytes.end()}, false});
        }
        return frames;
    }();
    return stream;
}

uint64_t at_seconds(double seconds) {
    return session().front().timestamp_ns + static_cast<uint64_t>(seconds * 1e9);
}

uint64_t first_rounds_end() {
    SnapshotStreams streams;
    for (const Sent& frame : session()) {
        streams.see(frame.parsed());
        if (streams.every_stream_completed_a_round()) {
            return frame.timestamp_ns;
        }
    }
    ADD_FAILURE() << "no whole round in the session";
    return 0;
}

FaultFilter::Source source_of(const Stream& stream) {
    return [&stream, at = std::size_t{0}](FilteredFrame& frame) mutable {
        if (at == stream.size()) {
            return false;
        }
        frame = {stream[at].timestamp_ns, stream[at].bytes, stream[at].reader_lapped};
        ++at;
        return true;
    };
}

std::vector<FaultSpec> parsed(const std::string& faults) {
    std::vector<FaultSpec> specs;
    std::string error;
    EXPECT_TRUE(faults.empty() || parse_faults(faults, specs, error)) << error;
    return specs;
}

Stream filtered(const Stream& stream, const std::string& faults, uint64_t seed) {
    FaultFilter filter(source_of(stream), parsed(faults), seed);
    Stream result;
    for (FilteredFrame frame; filter.next(frame);) {
        result.push_back(
            {frame.timestamp_ns, {frame.bytes.begin(), frame.bytes.end()}, frame.reader_lapped});
    }
    FilteredFrame none;
    EXPECT_FALSE(filter.next(none));
    return result;
}

Difference difference(const Stream& before, const Stream& after) {
    std::map<wirekit::Bytes, std::size_t> count;
    for (const Sent& frame : after) {
        ++count[frame.bytes];
    }
    Difference found;
    for (const Sent& frame : before) {
        std::size_t& left = count[frame.bytes];
        if (left == 0) {
            found.lost.push_back(frame);
        } else {
            --left;
        }
    }
    // What is left over of the second stream; of equal frames the later ones.
    for (std::size_t i = after.size(); i-- > 0;) {
        std::size_t& left = count[after[i].bytes];
        if (left > 0) {
            --left;
            found.added.insert(found.added.begin(), after[i]);
            found.at.insert(found.at.begin(), i);
        }
    }
    return found;
}

bool is_snapshot_segment(const Sent& frame) {
    const auto parsed = frame.parsed();
    return parsed.kind == wirekit::ParsedFrame::Kind::kTcp && !parsed.payload.empty();
}

} // namespace faults::testing
