#include "exchange_sim/tcp_stream.h"

namespace exchange_sim {

namespace {

constexpr std::size_t kShortestFrame = 60; // what Ethernet pads to
constexpr uint64_t kNsPerByte = 8;         // 1 Gbit/s
constexpr std::size_t kFrameOverhead = 24; // preamble, checksum and gap
constexpr uint64_t kTurnaroundNs = 40'000;
constexpr uint32_t kMinUntilAck = 12;

} // namespace

TcpStream::TcpStream(FrameQueue& frames, wirekit::Endpoint server, wirekit::Endpoint client,
                     Rng rng)
    : frames_(frames), server_(server), client_(client), rng_(rng),
      segment_size_(static_cast<std::size_t>(rng_.between(1448, 1460))) {}

void TcpStream::connect(uint64_t now_ns) {
    using namespace wirekit;
    server_seq_ = 0x00100000 + rng_.below(0x01000000);
    client_seq_ = 0x00100000 + rng_.below(0x01000000);
    put(now_ns, false, kTcpSyn, {});
    ++client_seq_;
    put(now_ns + kTurnaroundNs, true, kTcpSyn | kTcpAck, {});
    ++server_seq_;
    put(now_ns + 2 * kTurnaroundNs, false, kTcpAck, {});
    until_ack_ = kMinUntilAck;
}

void TcpStream::close(uint64_t now_ns) {
    using namespace wirekit;
    flush(now_ns);
    put(now_ns, true, kTcpFin | kTcpAck, {});
    ++server_seq_;
    put(now_ns + kTurnaroundNs, false, kTcpFin | kTcpAck, {});
    ++client_seq_;
    put(now_ns + 2 * kTurnaroundNs, true, kTcpAck, {});
}

void TcpStream::send(uint64_t now_ns, std::span<const uint8_t> bytes) {
    wirekit::append(waiting_, bytes);
    std::size_t sent = 0;
    while (waiting_.size() - sent >= segment_size_) {
        put(now_ns, true, wirekit::kTcpAck, {waiting_.data() + sent, segment_size_});
        sent += segment_size_;
    }
    waiting_.erase(waiting_.begin(), waiting_.begin() + static_cast<std::ptrdiff_t>(sent));
}

void TcpStream::flush(uint64_t now_ns) {
    if (!waiting_.empty()) {
        put(now_ns, true, wirekit::kTcpPsh | wirekit::kTcpAck, waiting_);
        waiting_.clear();
    }
}

void TcpStream::put(uint64_t now_ns, bool from_server, uint8_t flags,
                    std::span<const uint8_t> payload) {
    const uint64_t time_ns = std::max(now_ns, free_ns_);
    wirekit::Bytes& frame = frames_.add(time_ns);
    const uint32_t acknowledged = (flags & wirekit::kTcpAck) == 0 ? 0
                                  : from_server                   ? client_seq_
                                                                  : server_seq_;
    if (from_server) {
        wirekit::write_tcp_frame(frame, server_, client_, ++server_ip_id_, server_seq_,
                                 acknowledged, flags, payload);
        server_seq_ += static_cast<uint32_t>(payload.size());
    } else {
        wirekit::write_tcp_frame(frame, client_, server_, ++client_ip_id_, client_seq_,
                                 acknowledged, flags, payload);
    }
    frame.resize(std::max(frame.size(), kShortestFrame));
    free_ns_ = time_ns + (frame.size() + kFrameOverhead) * kNsPerByte;
    ++segments_;
    if (!payload.empty() && until_ack_-- == 0) {
        until_ack_ = kMinUntilAck + rng_.below(24);
        put(time_ns + kTurnaroundNs / 2, false, wirekit::kTcpAck, {});
    }
}

} // namespace exchange_sim
