#pragma once

// Both ends of one TCP connection as a mirror port sees it: the handshake, the server's bytes cut
// into segments, an acknowledgement of the client now and then. Nothing is lost or repeated.

#include "exchange_sim/frame_queue.h"
#include "exchange_sim/rng.h"
#include "wirekit/ethernet.h"

#include <span>

namespace exchange_sim {

class TcpStream {
public:
    TcpStream(FrameQueue& frames, wirekit::Endpoint server, wirekit::Endpoint client, Rng rng);

    void connect(uint64_t now_ns);
    void close(uint64_t now_ns);
    // Full segments leave at once, the rest waits for more or for flush().
    void send(uint64_t now_ns, std::span<const uint8_t> bytes);
    void flush(uint64_t now_ns);

    // A passive listener need not follow sequence numbers that wrap. To be asked between two units
    // of transfer: a new connection then starts the count again, long before it wraps.
    bool wants_reconnect() const { return server_seq_ > kReconnectBeyond; }
    uint64_t segments() const { return segments_; }

private:
    static constexpr uint32_t kReconnectBeyond = 0x10000000;

    void put(uint64_t now_ns, bool from_server, uint8_t flags, std::span<const uint8_t> payload);

    FrameQueue& frames_;
    wirekit::Endpoint server_;
    wirekit::Endpoint client_;
    Rng rng_;
    std::size_t segment_size_; // largest payload
    uint64_t free_ns_ = 0;     // when the line is free again
    uint32_t server_seq_ = 0;
    uint32_t client_seq_ = 0;
    uint16_t server_ip_id_ = 0;
    uint16_t client_ip_id_ = 0;
    uint32_t until_ack_ = 0; // segments
    uint64_t segments_ = 0;
    wirekit::Bytes waiting_;
};

} // namespace exchange_sim
