// The sum behind the TCP checksum, against the textbook's.

#include "tcp/Checksum.h"

#include <gtest/gtest.h>
#include <random>
#include <vector>

namespace tcp_test {
namespace {

// 16-bit words in network order, an odd last byte padded with zero behind it.
uint16_t textbook(const std::vector<char>& bytes, std::size_t begin, std::size_t size) {
    uint32_t sum = 0;
    for (std::size_t i = 0; i < size; ++i) {
        const auto byte = static_cast<uint8_t>(bytes[begin + i]);
        sum += i % 2 == 0 ? static_cast<uint32_t>(byte) << 8 : byte;
        sum = (sum & 0xFFFF) + (sum >> 16);
    }
    return static_cast<uint16_t>(sum);
}

TEST(Checksum, OfEveryLengthAtEveryOffsetIsTheTextbooks) {
    std::mt19937 random(20260818);
    for (const int filler : {-1, 0, 0xFF}) {
        std::vector<char> bytes(600);
        for (char& byte : bytes) {
            byte = static_cast<char>(filler < 0 ? static_cast<int>(random() & 0xFF) : filler);
        }
        for (std::size_t begin = 0; begin < 17; ++begin) {
            for (std::size_t size = 0; size < 550; ++size) {
                const uint16_t sum = FoldSum(SumWords(bytes.data() + begin, size));
                ASSERT_EQ(__builtin_bswap16(sum), textbook(bytes, begin, size))
                    << size << " bytes at " << begin;
            }
        }
    }
}

TEST(Checksum, TakesNoByteBehindTheData) {
    // A block of exactly the size, so that the sanitizer sees a wide read beyond it.
    for (std::size_t size = 1; size < 200; ++size) {
        const std::vector<char> bytes(size, 1);
        EXPECT_EQ(__builtin_bswap16(FoldSum(SumWords(bytes.data(), size))),
                  textbook(bytes, 0, size));
    }
}

TEST(Checksum, OfAllOnesDoesNotOverflow) {
    const std::vector<char> bytes(2048, static_cast<char>(0xFF));
    EXPECT_EQ(FoldSum(SumWords(bytes.data(), bytes.size())), 0xFFFF);
}

} // namespace
} // namespace tcp_test
