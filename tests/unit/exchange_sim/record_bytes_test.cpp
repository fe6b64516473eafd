#include "exchange_sim/record_bytes.h"

#include "wirekit/bytes.h"

#include <algorithm>
#include <cstring>
#include <gtest/gtest.h>
#include <set>
#include <string>
#include <vector>

namespace exchange_sim {
namespace {

constexpr std::size_t kLevels = kDepth;

// Every member has a value of its own.
ExpectedRecord distinct_record() {
    ExpectedRecord record;
    std::memcpy(record.inst_id.data(), "cu2601C70000", 12);
    record.last_px = 1.5;
    record.volume = 0xF0000002u;
    record.update_time = 0xF0000003u;
    record.update_milli_sec = 0xF004;
    record.type = 0xF005;
    record.change_no = 0xF0000006u;
    record.turnover = 7.5;
    record.open_interest = 8.5;
    record.bid_totvol = -9;
    record.ask_totvol = -10;
    record.bid_totamount = 11.5;
    record.ask_totamount = 12.5;
    record.highest_price = 13.5;
    record.lowest_price = -14.5;
    for (std::size_t i = 0; i < kLevels; ++i) {
        const int level = static_cast<int>(i);
        record.bid_px[i] = 100.25 + level;
        record.bid_vol[i] = -200 - level;
        record.ask_vol[i] = 300 + level;
        record.ask_px[i] = 400.75 + level;
    }
    return record;
}

TEST(RecordBytes, EachMemberStandsAtItsOffset) {
    using wirekit::get_le16;
    using wirekit::get_le32;
    using wirekit::get_le_f64;
    const RecordBytes bytes = record_bytes(distinct_record());
    EXPECT_EQ(std::memcmp(&bytes[0], "cu2601C70000\0\0\0\0", 16), 0);
    EXPECT_EQ(get_le_f64(&bytes[16]), 1.5);
    EXPECT_EQ(get_le32(&bytes[24]), 0xF0000002u);
    EXPECT_EQ(get_le32(&bytes[28]), 0xF0000003u);
    EXPECT_EQ(get_le16(&bytes[32]), 0xF004u);
    EXPECT_EQ(get_le16(&bytes[34]), 0xF005u);
    EXPECT_EQ(get_le32(&bytes[36]), 0xF0000006u);
    EXPECT_EQ(get_le_f64(&bytes[40]), 7.5);
    EXPECT_EQ(get_le_f64(&bytes[48]), 8.5);
    EXPECT_EQ(static_cast<int32_t>(get_le32(&bytes[56])), -9);
    EXPECT_EQ(static_cast<int32_t>(get_le32(&bytes[60])), -10);
    EXPECT_EQ(get_le_f64(&bytes[64]), 11.5);
    EXPECT_EQ(get_le_f64(&bytes[72]), 12.5);
    EXPECT_EQ(get_le_f64(&bytes[80]), 13.5);
    EXPECT_EQ(get_le_f64(&bytes[88]), -14.5);
    for (std::size_t i = 0; i < kLevels; ++i) {
        const int level = static_cast<int>(i);
        EXPECT_EQ(get_le_f64(&bytes[96 + 8 * i]), 100.25 + level) << i;
        EXPECT_EQ(static_cast<int32_t>(get_le32(&bytes[176 + 4 * i])), -200 - level) << i;
        EXPECT_EQ(static_cast<int32_t>(get_le32(&bytes[216 + 4 * i])), 300 + level) << i;
        EXPECT_EQ(get_le_f64(&bytes[256 + 8 * i]), 400.75 + level) << i;
    }
}

TEST(RecordBytes, AnEmptyRecordIsZeros) {
    const RecordBytes bytes = record_bytes({});
    EXPECT_TRUE(std::all_of(bytes.begin(), bytes.end(), [](uint8_t byte) { return byte == 0; }));
}

// Little-endian: the least significant byte first.
TEST(RecordBytes, TheByteOrderIsFixed) {
    ExpectedRecord record;
    record.change_no = 0x04030201;
    record.last_px = 1.0; // 3F F0 00 00 00 00 00 00, most significant first
    const RecordBytes bytes = record_bytes(record);
    EXPECT_EQ(std::memcmp(&bytes[36], "\x01\x02\x03\x04", 4), 0);
    EXPECT_EQ(std::memcmp(&bytes[16], "\0\0\0\0\0\0\xF0\x3F", 8), 0);
}

TEST(RecordFields, CoverTheRecordOnceAndInOrder) {
    std::vector<int> covered(kRecordSize, 0);
    std::set<std::string> names;
    std::size_t end = 0;
    for (const RecordField& field : record_fields()) {
        EXPECT_EQ(field.offset, end) << field.name;
        EXPECT_TRUE(names.insert(field.name).second) << field.name;
        end = field.offset + field.count * field_width(field.type);
        ASSERT_LE(end, kRecordSize) << field.name;
        for (std::size_t at = field.offset; at < end; ++at) {
            ++covered[at];
        }
    }
    EXPECT_EQ(end, kRecordSize);
    EXPECT_EQ(covered, std::vector<int>(kRecordSize, 1));
}

TEST(RecordFields, WidthsAreThoseOfTheTypes) {
    using Type = RecordField::Type;
    EXPECT_EQ(field_width(Type::kText), 1u);
    EXPECT_EQ(field_width(Type::kU16), 2u);
    EXPECT_EQ(field_width(Type::kU32), 4u);
    EXPECT_EQ(field_width(Type::kI32), 4u);
    EXPECT_EQ(field_width(Type::kF64), 8u);
}

} // namespace
} // namespace exchange_sim
