// Captures of every format, and bytes that are none.

#include "tools/vorn/capture/capture_reader.h"
#include "tools/vorn/exit_code.h"
#include "tools/vorn/info/capture_tally.h"
#include "tools/vorn/info/info_report.h"

#include "exchange_sim/pcap_writer.h"
#include "exchange_sim/session_options.h"
#include "tests/support/temp_dir.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <random>

using namespace vorn_cli;

namespace {

std::string le(uint64_t value, int size) {
    std::string bytes;
    for (int i = 0; i < size; ++i) {
        bytes += static_cast<char>(value >> 8 * i);
    }
    return bytes;
}

std::string be(uint64_t value, int size) {
    const std::string bytes = le(value, size);
    return {bytes.rbegin(), bytes.rend()};
}

std::string pcap(uint32_t magic, uint32_t fraction, bool big_endian, uint32_t link_type = 1) {
    const auto put = big_endian ? be : le;
    return put(magic, 4) + put(2, 2) + put(4, 2) + put(0, 8) + put(64, 4) + put(link_type, 4) +
           put(5, 4) + put(fraction, 4) + put(60, 4) + put(100, 4) + std::string(60, 'x');
}

// One section, one interface with a resolution (none: microseconds), one frame at 5 s and 7 units.
std::string pcapng(int resolution) {
    const auto block = [](uint32_t type, const std::string& body) {
        const auto size = static_cast<uint32_t>(body.size() + 12);
        return le(type, 4) + le(size, 4) + body + le(size, 4);
    };
    std::string options;
    uint64_t units = 1'000'000;
    if (resolution >= 0) {
        options = le(2, 2) + le(3, 2) + "if0" + '\0' + le(9, 2) + le(1, 2) +
                  le(static_cast<uint64_t>(resolution), 4) + le(0, 4);
        units = resolution == 9 ? 1'000'000'000 : resolution == 3 ? 1000 : units;
    }
    const uint64_t stamp = 5 * units + 7;
    return block(0x0A0D0D0A, le(0x1A2B3C4D, 4) + le(1, 2) + le(0, 2) + le(UINT64_MAX, 8)) +
           block(1, le(1, 2) + le(0, 2) + le(0, 4) + options) +
           block(6, le(0, 4) + le(stamp >> 32, 4) + le(stamp & 0xFFFFFFFF, 4) + le(60, 4) +
                        le(60, 4) + std::string(60, 'x'));
}

struct FormatCase {
    const char* what;
    std::string bytes;
    const char* name;
    const char* resolution;
    bool big_endian;
    uint64_t timestamp_ns;
};

TEST(CaptureReader, KnowsFormatsAndResolutions) {
    const FormatCase cases[] = {
        {"nanoseconds", pcap(0xA1B23C4D, 7, false), "pcap", "ns", false, 5'000'000'007},
        {"microseconds", pcap(0xA1B2C3D4, 7, false), "pcap", "us", false, 5'000'007'000},
        {"big-endian", pcap(0xA1B23C4D, 7, true), "pcap", "ns", true, 5'000'000'007},
        {"pcapng", pcapng(-1), "pcapng", "us", false, 5'000'007'000},
        {"pcapng, us", pcapng(6), "pcapng", "us", false, 5'000'007'000},
        {"pcapng, ns", pcapng(9), "pcapng", "ns", false, 5'000'000'007},
        {"pcapng, ms", pcapng(3), "pcapng", "other", false, 5'007'000'000},
    };
    const support::TempDir directory;
    for (const FormatCase& row : cases) {
        SCOPED_TRACE(row.what);
        CaptureReader reader(directory.write("c.pcap", row.bytes));
        EXPECT_EQ(reader.format().name, row.name);
        EXPECT_EQ(reader.format().resolution, row.resolution);
        EXPECT_EQ(reader.format().big_endian, row.big_endian);
        EXPECT_EQ(reader.format().bytes, row.bytes.size());
        CaptureFrame frame;
        ASSERT_TRUE(reader.next(frame));
        EXPECT_EQ(frame.timestamp_ns, row.timestamp_ns);
        EXPECT_EQ(frame.bytes.size(), 60u);
        EXPECT_FALSE(reader.next(frame));
        EXPECT_EQ(reader.damage(), "");
    }
}

TEST(CaptureReader, KnowsTheLengthOfWhatWasCutOff) {
    const support::TempDir directory;
    CaptureReader reader(directory.write("c.pcap", pcap(0xA1B23C4D, 7, false)));
    EXPECT_EQ(reader.format().snaplen, 64u);
    CaptureFrame frame;
    ASSERT_TRUE(reader.next(frame));
    EXPECT_EQ(frame.length, 100u);
}

TEST(CaptureReader, SaysThatTheEndIsUnfinished) {
    const support::TempDir directory;
    const std::string whole = pcap(0xA1B23C4D, 7, false);
    const std::string second = whole.substr(24);
    for (const std::size_t kept : {std::size_t{1}, std::size_t{16}, second.size() - 1}) {
        CaptureReader reader(directory.write("c.pcap", whole + second.substr(0, kept)));
        CaptureFrame frame;
        EXPECT_TRUE(reader.next(frame));
        EXPECT_FALSE(reader.next(frame));
        EXPECT_NE(reader.damage(), "") << kept;
    }
}

TEST(CaptureReader, RefusesWhatIsNoCaptureOfEthernet) {
    const support::TempDir directory;
    EXPECT_THROW(CaptureReader((directory.path() / "absent").string()), Failure);
    EXPECT_THROW(CaptureReader(directory.path().string()), Failure);
    EXPECT_THROW(CaptureReader(directory.write("empty", "")), Failure);
    EXPECT_THROW(CaptureReader(directory.write("text", std::string(100, 'x'))), Failure);
    EXPECT_THROW(CaptureReader(directory.write("raw", pcap(0xA1B23C4D, 7, false, 101))), Failure);
}

// A small session, damaged at random: whatever comes of it, every frame is counted once and the
// tables stay within their bounds.
TEST(DamagedCaptures, AreCountedToTheirEnd) {
    const support::TempDir directory;
    const std::string session = (directory.path() / "s.pcap").string();
    exchange_sim::SessionOptions options;
    options.instruments = 20;
    options.changes = 300;
    ASSERT_EQ(exchange_sim::write_session(session, options).error, "");
    const std::string good = support::read_file(session);
    uint64_t read = 0;
    for (uint32_t seed = 1; seed <= 400; ++seed) {
        SCOPED_TRACE(seed);
        std::mt19937 random(seed);
        std::string bytes = good;
        for (auto n = 1 + random() % 60; n > 0; --n) {
            bytes[24 + random() % (bytes.size() - 24)] = static_cast<char>(random());
        }
        if (seed % 4 == 0) {
            bytes.resize(random() % bytes.size());
        }
        if (seed % 16 == 0) { // the file header too
            bytes[random() % std::min<std::size_t>(bytes.size() + 1, 24)] =
                static_cast<char>(random());
        }
        const std::string path = directory.write("damaged.pcap", bytes);
        CaptureTallies tallies(capture_names(effective_config({})));
        CaptureFacts facts{path, {}, {}, false};
        try {
            CaptureReader reader(path);
            for (CaptureFrame frame; reader.next(frame);) {
                tallies.add(frame);
            }
            facts.format = reader.format();
            facts.damage = reader.damage();
        } catch (const Failure&) {
            continue;
        }
        tallies.finish();
        const CaptureTally& c = tallies.capture();
        EXPECT_EQ(c.frames,
                  c.snapshot_segments + c.line_datagrams + c.other_tcp + c.other_udp + c.other);
        EXPECT_LE(tallies.lines().size(), kMaxLines);
        EXPECT_LE(tallies.sessions().sessions().size(), kMaxSessions);
        EXPECT_LE(c.topics.size(), kMaxTopics);
        for (const Side side : {Side::kShfe, Side::kIne}) {
            const SideTally& tally = tallies.changes().side(side);
            EXPECT_LE(tally.changes + tally.duplicates, tally.arrivals);
            EXPECT_EQ(tally.changes, tally.both + tally.only[0] + tally.only[1] + tally.only[2]);
        }
        EXPECT_FALSE(summary_json(facts, tallies)
                         .dump(-1, ' ', false, nlohmann::json::error_handler_t::replace)
                         .empty());
        EXPECT_FALSE(summary_lines(facts, tallies).empty());
        read += c.frames;
    }
    EXPECT_GT(read, 20'000u); // the damage is not so great that nothing is left
}

} // namespace
