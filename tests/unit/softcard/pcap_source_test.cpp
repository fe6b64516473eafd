#include "softcard/sources/pcap_source.h"

#include "support.h"

#include <gtest/gtest.h>

namespace softcard {
namespace {

using test::Bytes;
using namespace test;

struct Frame {
    uint64_t timestamp_ns;
    Bytes bytes;
    bool operator==(const Frame&) const = default;
};

std::unique_ptr<FrameSource> open_good(const std::string& path) {
    std::string error;
    auto source = open_pcap_source(path, error);
    EXPECT_NE(source, nullptr) << error;
    return source;
}

std::vector<Frame> read_all(FrameSource& source) {
    std::vector<Frame> frames;
    SourceFrame frame;
    while (source.next(frame)) {
        frames.push_back({frame.timestamp_ns, Bytes(frame.bytes.begin(), frame.bytes.end())});
    }
    EXPECT_FALSE(source.next(frame)); // and always
    return frames;
}

std::string refusal(const std::string& path) {
    std::string error;
    EXPECT_EQ(open_pcap_source(path, error), nullptr);
    return error;
}

void append_block(Bytes& pcapng, uint32_t type, const Bytes& body) {
    const auto size = static_cast<uint32_t>(body.size() + 12);
    append_le32(pcapng, type);
    append_le32(pcapng, size);
    wirekit::append(pcapng, body);
    append_le32(pcapng, size);
}

TEST(PcapSource, ReadsNanoseconds) {
    const TempDir directory;
    Bytes pcap = pcap_header(kPcapNano);
    append_record(pcap, 7, 123'456'789, {1, 2, 3});
    append_record(pcap, 8, 1, {4});
    const auto source = open_good(directory.file("nano.pcap", pcap));
    EXPECT_EQ(read_all(*source),
              (std::vector<Frame>{{7'123'456'789, {1, 2, 3}}, {8'000'000'001, {4}}}));
}

TEST(PcapSource, ReadsMicroseconds) {
    const TempDir directory;
    Bytes pcap = pcap_header(kPcapMicro);
    append_record(pcap, 7, 123'456, {1, 2, 3});
    const auto source = open_good(directory.file("micro.pcap", pcap));
    EXPECT_EQ(read_all(*source), (std::vector<Frame>{{7'123'456'000, {1, 2, 3}}}));
}

TEST(PcapSource, ReadsPcapng) {
    const TempDir directory;
    Bytes pcapng;
    append_block(pcapng, 0x0A0D0D0A, // section header: order, version 1.0, length unknown
                 {0x4D, 0x3C, 0x2B, 0x1A, 1, 0, 0, 0, 255, 255, 255, 255, 255, 255, 255, 255});
    append_block(pcapng, 1, {1, 0, 0, 0, 0, 0, 4, 0}); // Ethernet, microseconds
    append_block(
        pcapng, 6,
        {0, 0, 0, 0, 0, 0, 0, 0, 0x40, 0x42, 0x0F, 0, 5, 0, 0,
         0, 5, 0, 0, 0, 9, 8, 7, 6,    5,    0,    0, 0}); // one second, five bytes padded to eight
    const auto source = open_good(directory.file("a.pcapng", pcapng));
    EXPECT_EQ(read_all(*source), (std::vector<Frame>{{1'000'000'000, {9, 8, 7, 6, 5}}}));
}

TEST(PcapSource, NeverStepsBackInTime) {
    const TempDir directory;
    Bytes pcap = pcap_header();
    append_record(pcap, 9, 0, {1});
    append_record(pcap, 8, 0, {2});
    append_record(pcap, 10, 0, {3});
    const auto source = open_good(directory.file("merged.pcap", pcap));
    const auto frames = read_all(*source);
    ASSERT_EQ(frames.size(), 3u);
    EXPECT_EQ(frames[1].timestamp_ns, 9'000'000'000u);
    EXPECT_EQ(frames[2].timestamp_ns, 10'000'000'000u);
}

TEST(PcapSource, IsExhaustedAtOnceByACaptureWithoutFrames) {
    const TempDir directory;
    const auto source = open_good(directory.file("empty.pcap", pcap_header()));
    EXPECT_TRUE(read_all(*source).empty());
}

TEST(PcapSource, EndsAtARecordThatIsCutShort) {
    const TempDir directory;
    Bytes pcap = pcap_header();
    append_record(pcap, 1, 0, Bytes(50, 1));
    const std::size_t whole = pcap.size();
    append_record(pcap, 2, 0, Bytes(50, 2));
    for (const std::size_t size : {pcap.size() - 1, whole + 16, whole + 15, whole + 1}) {
        const Bytes cut(pcap.begin(), pcap.begin() + static_cast<std::ptrdiff_t>(size));
        const auto source = open_good(directory.file(std::to_string(size), cut));
        EXPECT_EQ(read_all(*source), (std::vector<Frame>{{1'000'000'000, Bytes(50, 1)}})) << size;
    }
}

TEST(PcapSource, EndsAtARecordThatCannotBe) {
    const TempDir directory;
    Bytes pcap = pcap_header();
    append_record(pcap, 1, 0, {1});
    for (const uint32_t word : {2u, 0u, 0xFFFFFFFFu, 0xFFFFFFFFu}) {
        append_le32(pcap, word);
    }
    const auto source = open_good(directory.file("damaged.pcap", pcap));
    EXPECT_EQ(read_all(*source).size(), 1u);
}

TEST(PcapSource, RefusesWhatIsNoCaptureOfEthernet) {
    const TempDir directory;
    const std::string missing = directory.path("missing.pcap");
    EXPECT_EQ(refusal(missing),
              "cannot read capture " + missing + ": " + missing + ": No such file or directory");
    const std::string empty = directory.file("zero", {});
    EXPECT_EQ(refusal(empty).find("cannot read capture " + empty), 0u);
    const std::string text = directory.file("text", Bytes(100, 'x'));
    EXPECT_EQ(refusal(text).find("cannot read capture " + text), 0u);
    const std::string cooked = directory.file("cooked", pcap_header(kPcapNano, 113));
    EXPECT_EQ(refusal(cooked),
              "capture " + cooked + " is of link type LINUX_SLL; it must be Ethernet (EN10MB)");
    EXPECT_NE(refusal(directory.path("")), "");
}

} // namespace
} // namespace softcard
