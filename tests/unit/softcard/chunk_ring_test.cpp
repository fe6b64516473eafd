#include "softcard/rx/chunk_ring.h"

#include "support.h"

#include <gtest/gtest.h>
#include <numeric>

namespace softcard {
namespace {

using test::Bytes;

Bytes frame_of(std::size_t size, uint8_t first) {
    Bytes bytes(size);
    std::iota(bytes.begin(), bytes.end(), first);
    return bytes;
}

struct Read {
    ssize_t status = 0;
    Bytes bytes;
    uint32_t timestamp = 0;
};

Read read(const ChunkRing& ring, uint64_t& position, std::size_t size = 4096) {
    Read result;
    Bytes buffer(size);
    result.status =
        ring.read(position, reinterpret_cast<char*>(buffer.data()), size, &result.timestamp);
    if (result.status > 0) {
        buffer.resize(static_cast<std::size_t>(result.status));
        result.bytes = buffer;
    }
    return result;
}

TEST(ChunkRing, ReturnsFramesOfEverySizeAsTheyWereWritten) {
    ChunkRing ring;
    uint64_t position = ring.written();
    for (std::size_t size = 1; size < 1000; ++size) {
        ring.write(frame_of(size, static_cast<uint8_t>(size)), static_cast<uint32_t>(size));
        const Read got = read(ring, position);
        ASSERT_EQ(got.bytes, frame_of(size, static_cast<uint8_t>(size)));
        ASSERT_EQ(got.timestamp, size);
        ASSERT_EQ(position, ring.written());
    }
    EXPECT_EQ(read(ring, position).status, 0);
}

TEST(ChunkRing, SpendsAChunkOnEvery120Bytes) {
    ChunkRing ring;
    const std::pair<std::size_t, uint64_t> rows[] = {{1, 1},   {120, 1}, {121, 2},
                                                     {240, 2}, {241, 3}, {1514, 13}};
    for (const auto& [size, chunks] : rows) {
        const uint64_t before = ring.written();
        ring.write(frame_of(size, 0), 0);
        EXPECT_EQ(ring.written() - before, chunks) << size;
    }
}

TEST(ChunkRing, KeepsAFullRingForASlowReader) {
    ChunkRing ring;
    uint64_t position = ring.written();
    for (uint32_t i = 0; i < ChunkRing::kChunks; ++i) {
        ring.write(frame_of(8, static_cast<uint8_t>(i)), i);
    }
    for (uint32_t i = 0; i < ChunkRing::kChunks; ++i) {
        ASSERT_EQ(read(ring, position).timestamp, i);
    }
}

TEST(ChunkRing, TellsALappedReaderOnceAndGoesOnFromTheNewest) {
    ChunkRing ring;
    uint64_t position = ring.written();
    for (uint32_t i = 0; i <= ChunkRing::kChunks; ++i) {
        ring.write(frame_of(8, 0), i);
    }
    EXPECT_EQ(read(ring, position).status, kStatusLapped);
    EXPECT_EQ(read(ring, position).status, 0);
    ring.write(frame_of(9, 0), 4711);
    const Read got = read(ring, position);
    EXPECT_EQ(got.status, 9);
    EXPECT_EQ(got.timestamp, 4711u);
}

TEST(ChunkRing, ConsumesAFrameThatIsLargerThanTheBuffer) {
    ChunkRing ring;
    uint64_t position = ring.written();
    ring.write(frame_of(301, 0), 1);
    ring.write(frame_of(300, 7), 2);
    EXPECT_EQ(read(ring, position, 300).status, kStatusTooLarge);
    EXPECT_EQ(read(ring, position, 300).bytes, frame_of(300, 7));
}

TEST(ChunkRing, LetsEachReaderGoItsOwnWay) {
    ChunkRing ring;
    ring.write(frame_of(5, 1), 0); // before either of them
    uint64_t early = ring.written();
    ring.write(frame_of(6, 2), 0);
    uint64_t late = ring.written();
    ring.write(frame_of(7, 3), 0);
    EXPECT_EQ(read(ring, late).bytes, frame_of(7, 3));
    EXPECT_EQ(read(ring, early).bytes, frame_of(6, 2));
    EXPECT_EQ(read(ring, early).bytes, frame_of(7, 3));
    EXPECT_EQ(read(ring, late).status, 0);
}

TEST(ChunkRing, LeavesOutWhatHasNoPlaceInIt) {
    ChunkRing ring;
    ring.write({}, 0);
    EXPECT_EQ(ring.written(), 0u);
    ring.write(Bytes(ChunkRing::kChunks * ChunkRing::kChunkPayload + 1), 0);
    EXPECT_EQ(ring.written(), 0u);
    ring.write(Bytes(ChunkRing::kChunks * ChunkRing::kChunkPayload), 0);
    EXPECT_EQ(ring.written(), ChunkRing::kChunks);
}

TEST(ChunkRing, NeedsNoPlaceForTheTimestamp) {
    ChunkRing ring;
    uint64_t position = ring.written();
    ring.write(frame_of(3, 0), 5);
    char buffer[8];
    EXPECT_EQ(ring.read(position, buffer, sizeof(buffer), nullptr), 3);
}

} // namespace
} // namespace softcard
