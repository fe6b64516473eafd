#include "capture_writer.h"

#include <algorithm>
#include <pcap/pcap.h>
#include <stdexcept>

namespace recorder {

namespace {

constexpr wirekit::Endpoint kMulticastSender{0x0A010103, 40000};
constexpr int64_t kFirstSecond = 1'768'438'800;

} // namespace

SnapshotConnection::SnapshotConnection(uint16_t client_port, uint32_t first_seq)
    : client_{0x0A010102, client_port}, seq_(first_seq) {}

Segment SnapshotConnection::next(std::span<const uint8_t> payload) {
    Segment segment{server_, client_, seq_, Bytes(payload.begin(), payload.end())};
    seq_ += static_cast<uint32_t>(payload.size());
    return segment;
}

std::vector<Segment> SnapshotConnection::one_by_one(const std::vector<Bytes>& messages) {
    std::vector<Segment> result;
    result.reserve(messages.size());
    for (const Bytes& message : messages) {
        result.push_back(next(message));
    }
    return result;
}

std::vector<Segment> SnapshotConnection::cut(const std::vector<Bytes>& messages,
                                             std::size_t segment_size) {
    std::vector<Segment> result{next(messages.front())};
    Bytes stream;
    for (std::size_t i = 1; i < messages.size(); ++i) {
        wirekit::append(stream, messages[i]);
    }
    std::span<const uint8_t> rest = stream;
    while (!rest.empty()) {
        const auto size = std::min(segment_size, rest.size());
        result.push_back(next(rest.first(size)));
        rest = rest.subspan(size);
    }
    return result;
}

struct CaptureWriter::Dump {
    pcap_t* format;
    pcap_dumper_t* file;
};

CaptureWriter::CaptureWriter(const std::filesystem::path& path) : dump_(std::make_unique<Dump>()) {
    dump_->format =
        pcap_open_dead_with_tstamp_precision(DLT_EN10MB, 65535, PCAP_TSTAMP_PRECISION_NANO);
    dump_->file = pcap_dump_open(dump_->format, path.c_str());
    if (dump_->file == nullptr) {
        throw std::runtime_error("cannot write " + path.string());
    }
}

CaptureWriter::~CaptureWriter() {
    pcap_dump_close(dump_->file);
    pcap_close(dump_->format);
}

void CaptureWriter::frame(std::span<const uint8_t> bytes) {
    pcap_pkthdr header{};
    header.ts.tv_sec = kFirstSecond + static_cast<int64_t>(frames_ / 1'000'000);
    header.ts.tv_usec = static_cast<int64_t>(frames_ % 1'000'000) * 1000; // nanoseconds
    header.caplen = static_cast<bpf_u_int32>(bytes.size());
    header.len = header.caplen;
    pcap_dump(reinterpret_cast<u_char*>(dump_->file), &header, bytes.data());
    ++frames_;
}

void CaptureWriter::segment(const Segment& segment) {
    wirekit::write_tcp_frame(scratch_, segment.server, segment.client,
                             static_cast<uint16_t>(frames_), segment.seq, 1, wirekit::kTcpAck,
                             segment.payload);
    frame(scratch_);
}

void CaptureWriter::segments(const std::vector<Segment>& segments) {
    for (const Segment& each : segments) {
        segment(each);
    }
}

void CaptureWriter::damaged(const Segment& segment) {
    frame(wirekit::tcp_segment()
              .from(segment.server.ip, segment.server.port)
              .to(segment.client.ip, segment.client.port)
              .seq(segment.seq)
              .payload(segment.payload)
              .bad_checksum()
              .bytes());
}

void CaptureWriter::flagged(const Segment& at, uint8_t flags, std::size_t payload_size) {
    wirekit::write_tcp_frame(scratch_, at.server, at.client, static_cast<uint16_t>(frames_), at.seq,
                             1, flags, Bytes(payload_size));
    frame(scratch_);
}

void CaptureWriter::reset(const Segment& at) {
    flagged(at, wirekit::kTcpRst | wirekit::kTcpAck, 1);
}

void CaptureWriter::on_line(Line line, const Change& change) {
    wirekit::write_udp_frame(scratch_, kMulticastSender,
                             line == Line::kA ? change.feed->line_a : change.feed->line_b,
                             static_cast<uint16_t>(frames_), change.buffer);
    frame(scratch_);
    ++datagrams_;
}

void CaptureWriter::on_both_lines(const Change& change) {
    on_line(Line::kA, change);
    on_line(Line::kB, change);
}

} // namespace recorder
