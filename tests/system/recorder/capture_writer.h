#pragma once

// Captures of the line in front of the card (pcap with nanoseconds), written frame by frame, so
// that a test knows every byte and its place. What a capture holds in one order is delivered in
// that order, whatever the receiver's threads do.

#include "wirekit/bytes.h"
#include "wirekit/ethernet.h"

#include <cstdint>
#include <filesystem>
#include <memory>
#include <span>
#include <string>
#include <vector>

namespace recorder {

using wirekit::Bytes;

// One exchange's feed at its default addresses.
struct Feed {
    uint16_t topic_id;
    wirekit::Endpoint line_a;
    wirekit::Endpoint line_b;
    uint32_t type; // what the recorder prints in the first column
};
inline constexpr Feed kShfe{1000, {0xEF042A48, 21000}, {0xEF032A47, 21000}, 0};
inline constexpr Feed kIne{5000, {0xEF033447, 25000}, {0xEF043448, 25000}, 1};

enum class Line { kA, kB };

// A change as the exchange sends it, and the row that a recorder writes once it was applied.
struct Change {
    const Feed* feed;
    Bytes buffer;
    std::string row;
};

struct Segment {
    wirekit::Endpoint server;
    wirekit::Endpoint client;
    uint32_t seq;
    Bytes payload;
};

// The server's direction of one TCP connection: numbers what is sent.
class SnapshotConnection {
public:
    explicit SnapshotConnection(uint16_t client_port, uint32_t first_seq = 1000);

    Segment next(std::span<const uint8_t> payload);
    // Every message in a segment of its own.
    std::vector<Segment> one_by_one(const std::vector<Bytes>& messages);
    // The first message in a segment of its own, the others as one stream in segments of
    // `segment_size` bytes.
    std::vector<Segment> cut(const std::vector<Bytes>& messages, std::size_t segment_size);

private:
    wirekit::Endpoint server_{0x0A010101, 33022};
    wirekit::Endpoint client_;
    uint32_t seq_;
};

class CaptureWriter {
public:
    // Frames are a microsecond apart.
    explicit CaptureWriter(const std::filesystem::path& path);
    ~CaptureWriter();
    CaptureWriter(const CaptureWriter&) = delete;
    CaptureWriter& operator=(const CaptureWriter&) = delete;

    void frame(std::span<const uint8_t> bytes);

    void segment(const Segment& segment);
    void segments(const std::vector<Segment>& segments);
    void damaged(const Segment& segment); // one bit of the checksum flipped
    // A segment with these flags and this much payload, all zeros, where another one stands.
    void flagged(const Segment& at, uint8_t flags, std::size_t payload_size);
    // The connection is cut off: RST and ACK, with the one byte of payload without which the
    // receiver does not look at the flags.
    void reset(const Segment& at);

    void on_line(Line line, const Change& change);
    void on_both_lines(const Change& change);

    // Datagrams written so far.
    int datagrams() const { return datagrams_; }

private:
    struct Dump;
    std::unique_ptr<Dump> dump_;
    uint64_t frames_ = 0;
    int datagrams_ = 0;
    Bytes scratch_;
};

} // namespace recorder
