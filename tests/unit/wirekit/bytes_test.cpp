#include "wirekit/bytes.h"

#include <array>
#include <gtest/gtest.h>
#include <string>

namespace wirekit {
namespace {

TEST(Bytes, LittleEndianStoresLowestByteFirstAndReadsBack) {
    std::array<uint8_t, 8> at{};
    put_le16(at.data(), 0x1234);
    EXPECT_EQ(at[0], 0x34);
    EXPECT_EQ(at[1], 0x12);
    EXPECT_EQ(get_le16(at.data()), 0x1234);
    put_le64(at.data(), 0x0102030405060708);
    EXPECT_EQ(at, (std::array<uint8_t, 8>{8, 7, 6, 5, 4, 3, 2, 1}));
    EXPECT_EQ(get_le32(at.data()), 0x05060708u);
    EXPECT_EQ(get_le64(at.data()), 0x0102030405060708u);
}

TEST(Bytes, BigEndianStoresHighestByteFirstAndReadsBack) {
    std::array<uint8_t, 4> at{};
    put_be32(at.data(), 0xEF042A48);
    EXPECT_EQ(at, (std::array<uint8_t, 4>{0xEF, 0x04, 0x2A, 0x48}));
    EXPECT_EQ(get_be32(at.data()), 0xEF042A48u);
    EXPECT_EQ(get_be16(at.data() + 1), 0x042Au);
}

TEST(Bytes, HighBitsDoNotSpillIntoTheNextWord) {
    const std::array<uint8_t, 8> at{0xFF, 0xFF, 0xFF, 0xFF, 0, 0, 0, 0};
    EXPECT_EQ(get_le64(at.data()), 0xFFFFFFFFu);
    EXPECT_EQ(get_be32(at.data()), 0xFFFFFFFFu);
}

TEST(Bytes, DoublesKeepTheirBits) {
    std::array<uint8_t, 8> at{};
    put_le_f64(at.data(), 1.0);
    EXPECT_EQ(at[7], 0x3F);
    EXPECT_EQ(at[6], 0xF0);
    EXPECT_EQ(get_le_f64(at.data()), 1.0);
}

TEST(Bytes, TextIsFilledWithZerosAndCutBeforeItsLastByte) {
    std::array<uint8_t, 6> at;
    at.fill(0xAA);
    put_text(at.data(), 4, "cu");
    EXPECT_EQ(at, (std::array<uint8_t, 6>{'c', 'u', 0, 0, 0xAA, 0xAA}));
    put_text(at.data(), 4, "cu2601");
    EXPECT_EQ(at, (std::array<uint8_t, 6>{'c', 'u', '2', 0, 0xAA, 0xAA}));
    put_text(at.data(), 4, "cu26");
    EXPECT_EQ(at[3], 0);
}

} // namespace
} // namespace wirekit
