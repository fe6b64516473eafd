#pragma once

// The ring of one receive port, as deep as the card's: 16384 chunks of 128 bytes, 120 of them
// payload. Frames take whole chunks. Whoever delivers writes and never waits; each reader has its
// own position and finds out by itself that it was lapped. Guarded by the card's lock, except for
// written().

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <sys/types.h>

namespace softcard {

inline constexpr ssize_t kStatusLapped = -256;
inline constexpr ssize_t kStatusTooLarge = -257;

class ChunkRing {
public:
    static constexpr std::size_t kChunks = 16384;
    static constexpr std::size_t kChunkPayload = 120;

    ChunkRing();

    // Chunks written so far; where a new reader starts. Any thread, without the lock.
    uint64_t written() const { return written_.load(std::memory_order_acquire); }

    // Frames that are empty or larger than the ring have no place in it and are left out.
    // The time stamp is in nanoseconds; readers get its low half, as from the card, and all of it
    // on request.
    void write(std::span<const uint8_t> frame, uint64_t timestamp_ns);

    // The next frame behind `position`, which moves on: its length, 0 when there is none, or one of
    // the negative states. The time stamps may be null.
    ssize_t read(uint64_t& position, char* buffer, std::size_t size, uint32_t* timestamp,
                 uint64_t* timestamp_ns = nullptr) const;

private:
    struct Chunk {
        std::array<uint8_t, kChunkPayload> payload;
        uint32_t timestamp;
        uint32_t frame_length; // of the whole frame, in its first chunk
    };
    static_assert(sizeof(Chunk) == 128);

    std::unique_ptr<Chunk[]> chunks_;           // touched only as far as frames reach
    std::unique_ptr<uint64_t[]> timestamps_ns_; // by a frame's first chunk
    std::atomic<uint64_t> written_{0};
};

// A reader of one port.
struct Reader {
    int port = 0;
    uint64_t position = 0;     // in chunks; used by the thread that polls
    uint64_t timestamp_ns = 0; // whole time stamp of the frame that it got last
    uint64_t losses_told = 0;  // live card: the source's losses that this reader knows of
};

} // namespace softcard
