// A capture file, as the software card reads it and as `vorn info` surveys it.

#include "support/fuzz_input.h"
#include "support/memory_file.h"

#include "softcard/sources/pcap_source.h"
#include "tools/vorn/capture/capture_reader.h"
#include "tools/vorn/exit_code.h"
#include "tools/vorn/info/capture_tally.h"

#include <string>

namespace {

constexpr std::size_t kMaxSize = 1 << 20;

vorn_cli::CaptureNames names() {
    vorn_cli::CaptureNames names;
    names.lines = {{{0xEF042A48, 21000}, "shfe2ps", 'A'},
                   {{0xEF032A47, 21000}, "shfe2ps", 'B'},
                   {{0xEF033447, 25000}, "ine2ps", 'A'},
                   {{0xEF043448, 25000}, "ine2ps", 'B'}};
    names.topics = {{1000, "shfe2ps", vorn_cli::Side::kShfe},
                    {5000, "ine2ps", vorn_cli::Side::kIne}};
    names.snapshot_ports = {33022, 22000};
    return names;
}

unsigned add_up(std::span<const uint8_t> bytes) {
    unsigned sum = 0;
    for (const uint8_t byte : bytes) {
        sum += byte;
    }
    return sum;
}

uint64_t read_as_card(const std::string& path) {
    std::string error;
    const auto source = softcard::open_pcap_source(path, error);
    REQUIRE((source == nullptr) == !error.empty());
    if (source == nullptr) {
        REQUIRE(error.find('\n') == std::string::npos);
        return 0;
    }
    uint64_t frames = 0;
    uint64_t before_ns = 0;
    [[maybe_unused]] volatile unsigned sum = 0;
    for (softcard::SourceFrame frame; source->next(frame); ++frames) {
        REQUIRE(frame.timestamp_ns >= before_ns);
        before_ns = frame.timestamp_ns;
        sum = add_up(frame.bytes); // all of it lies in memory
    }
    softcard::SourceFrame frame;
    REQUIRE(!source->next(frame)); // and stays exhausted
    return frames;
}

void check(const vorn_cli::CaptureTallies& tallies) {
    const vorn_cli::CaptureTally& all = tallies.capture();
    REQUIRE(all.frames ==
            all.snapshot_segments + all.line_datagrams + all.other_tcp + all.other_udp + all.other);
    REQUIRE(all.frames == 0 || all.first_ns <= all.last_ns);
    REQUIRE(all.stamps_back <= all.frames && all.cut <= all.frames);
    REQUIRE(all.topics.size() <= vorn_cli::kMaxTopics);
    REQUIRE(tallies.lines().size() <= vorn_cli::kMaxLines);
    uint64_t datagrams = 0;
    for (const vorn_cli::LineTally& line : tallies.lines()) {
        REQUIRE(line.datagrams == line.changes + line.no_changes());
        REQUIRE(line.bad_checksums + line.cut <= line.datagrams);
        datagrams += line.datagrams;
    }
    REQUIRE(datagrams == all.line_datagrams);
    uint64_t segments = tallies.sessions().not_kept();
    REQUIRE(tallies.sessions().sessions().size() <= vorn_cli::kMaxSessions);
    for (const vorn_cli::SessionTally& session : tallies.sessions().sessions()) {
        REQUIRE(session.data_segments <= session.segments);
        REQUIRE(session.rounds_complete <= session.rounds_begun);
        REQUIRE(session.rounds.size() <= vorn_cli::kMaxRounds);
        segments += session.segments;
    }
    REQUIRE(segments == all.snapshot_segments);
    for (const auto side : {vorn_cli::Side::kShfe, vorn_cli::Side::kIne}) {
        const vorn_cli::SideTally& tally = tallies.changes().side(side);
        REQUIRE(tally.changes + tally.duplicates <= tally.arrivals);
    }
    REQUIRE(tallies.changes().gaps().size() <= vorn_cli::kMaxGapsKept);
}

uint64_t survey(const std::string& path) {
    try {
        vorn_cli::CaptureReader reader(path);
        vorn_cli::CaptureTallies tallies(names());
        for (vorn_cli::CaptureFrame frame; reader.next(frame);) {
            tallies.add(frame);
        }
        tallies.finish();
        check(tallies);
        return tallies.capture().frames;
    } catch (const vorn_cli::Failure&) {
        return 0; // not a capture, and the message says so
    }
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    static fuzz::MemoryFile file("session.pcap");
    file.fill({data, std::min(size, kMaxSize)});
    REQUIRE(read_as_card(file.path()) == survey(file.path()));
    return 0;
}

int LLVMFuzzerInitialize(int*, char***) {
    return 0;
}
