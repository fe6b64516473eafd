#pragma once

// Reassembly tests as scripts: a stream of messages, and one line for each segment that arrives,
// with what the session looks like after it.
//
//   stream.start(1).message(2, 100).message(3, 40);
//   play(stream, {
//       // bytes      next held joined decoded  why
//       {  0,  60,     60,   0,   0, {1},    {}, "starts the session"},
//       {160, 200,     60,   1,   0, {},     {}, "early: held"},
//       { 60, 160,    200,   0,   0, {2, 3}, {}, "closes the gap"},
//   });

#include "tests/unit/tcp/snapshot_channel.h"

namespace tcp_test {

class Stream {
public:
    explicit Stream(uint32_t first_seq = 100000) : first_seq_(first_seq) {}

    // Messages with the given packet number, appended to the stream.
    Stream& start(int packet_no, std::size_t size = 60, int16_t topic = kShfe2psTopic);
    Stream& message(int packet_no, std::size_t size = 40, uint8_t flag = wirekit::kFlagMore);
    Stream& raw(const Bytes& bytes);

    std::size_t size() const { return bytes_.size(); }
    uint32_t seq(std::size_t at) const { return first_seq_ + static_cast<uint32_t>(at); }
    Bytes slice(std::size_t from, std::size_t to) const;
    // The frame that carries bytes [from, to) of the stream.
    Bytes frame(std::size_t from, std::size_t to, uint16_t port = kPort) const;

private:
    uint32_t first_seq_;
    Bytes bytes_;
};

struct Step {
    std::size_t from; // bytes of the stream in this segment
    std::size_t to;
    std::size_t next;         // next byte of the stream that is expected afterwards
    uint32_t held;            // early segments held afterwards
    int32_t joined;           // bytes of an unfinished message kept afterwards
    std::vector<int> decoded; // packet numbers decoded by this segment, in order
    Log said;                 // lines at error, warning and info level
    const char* why;
};

class Reassembly : public SnapshotChannel {
protected:
    // Delivers the segments one by one and compares after each.
    void play(const Stream& stream, const std::vector<Step>& steps, uint16_t port = kPort);
    // Packet numbers that an action decodes, in order.
    std::vector<int> decoded_by(const std::function<void()>& action);
    // Starts a session by the first message of a stream.
    void establish(const Stream& stream, std::size_t to, uint16_t port = kPort);
};

std::vector<int> packet_numbers(const Log& log);

} // namespace tcp_test
