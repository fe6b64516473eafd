#include "softcard/rx/chunk_ring.h"

#include <algorithm>
#include <cstring>

namespace softcard {

namespace {

constexpr uint64_t chunks_of(std::size_t length) {
    return (length + ChunkRing::kChunkPayload - 1) / ChunkRing::kChunkPayload;
}

} // namespace

ChunkRing::ChunkRing() : chunks_(new Chunk[kChunks]), timestamps_ns_(new uint64_t[kChunks]) {}

void ChunkRing::write(std::span<const uint8_t> frame, uint64_t timestamp_ns) {
    const uint64_t count = chunks_of(frame.size());
    if (count == 0 || count > kChunks) {
        return;
    }
    const uint64_t first = written_.load(std::memory_order_relaxed);
    uint64_t at = first;
    for (auto rest = frame; !rest.empty(); ++at) {
        Chunk& chunk = chunks_[at % kChunks];
        const std::size_t part = std::min(rest.size(), kChunkPayload);
        std::memcpy(chunk.payload.data(), rest.data(), part);
        rest = rest.subspan(part);
    }
    Chunk& head = chunks_[first % kChunks];
    head.timestamp = static_cast<uint32_t>(timestamp_ns);
    timestamps_ns_[first % kChunks] = timestamp_ns;
    head.frame_length = static_cast<uint32_t>(frame.size());
    written_.store(at, std::memory_order_release);
}

ssize_t ChunkRing::read(uint64_t& position, char* buffer, std::size_t size, uint32_t* timestamp,
                        uint64_t* timestamp_ns) const {
    const uint64_t end = written();
    if (position == end) {
        return 0;
    }
    if (end - position > kChunks) {
        position = end;
        return kStatusLapped;
    }
    const Chunk& head = chunks_[position % kChunks];
    const std::size_t length = head.frame_length;
    const uint64_t first = position;
    position += chunks_of(length);
    if (length > size) {
        return kStatusTooLarge;
    }
    if (timestamp != nullptr) {
        *timestamp = head.timestamp;
    }
    if (timestamp_ns != nullptr) {
        *timestamp_ns = timestamps_ns_[first % kChunks];
    }
    uint64_t at = first;
    for (std::size_t copied = 0; copied < length; ++at) {
        const std::size_t part = std::min(length - copied, kChunkPayload);
        std::memcpy(buffer + copied, chunks_[at % kChunks].payload.data(), part);
        copied += part;
    }
    return static_cast<ssize_t>(length);
}

} // namespace softcard
