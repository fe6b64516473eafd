// The two readings of a record's layout, the feed's header and the simulator's offsets, agree.

#include "ExanicMdTypes.h"
#include "exchange_sim/record_bytes.h"

#include <cstring>
#include <gtest/gtest.h>
#include <map>
#include <string>

namespace {

using exchange_sim::ExpectedRecord;
using exchange_sim::RecordField;

instrument as_instrument(const ExpectedRecord& record) {
    const auto bytes = exchange_sim::record_bytes(record);
    instrument result;
    static_assert(sizeof(result) == sizeof(bytes));
    std::memcpy(&result, bytes.data(), bytes.size());
    return result;
}

TEST(RecordLayout, EveryMemberIsReadAsItWasWritten) {
    ExpectedRecord record;
    std::memcpy(record.inst_id.data(), "ABCDEFGHIJKLMNO", 16);
    record.last_px = 1.25;
    record.volume = 0x82030405u;
    record.update_time = 0x93040506u;
    record.update_milli_sec = 0xA405;
    record.type = 0xB506;
    record.change_no = 0xC6070809u;
    record.turnover = 2.25;
    record.open_interest = 3.25;
    record.bid_totvol = -0x17080910;
    record.ask_totvol = -0x18090A11;
    record.bid_totamount = 4.25;
    record.ask_totamount = 5.25;
    record.highest_price = 6.25;
    record.lowest_price = 7.25;
    for (std::size_t i = 0; i < 10; ++i) {
        const int level = static_cast<int>(i);
        record.bid_px[i] = 1000.5 + level;
        record.bid_vol[i] = -2000 - level;
        record.ask_vol[i] = 3000 + level;
        record.ask_px[i] = 4000.5 + level;
    }
    const instrument seen = as_instrument(record);
    EXPECT_EQ(std::memcmp(seen.inst_id, "ABCDEFGHIJKLMNO", 16), 0);
    EXPECT_EQ(seen.last_px, record.last_px);
    EXPECT_EQ(seen.volume, record.volume);
    EXPECT_EQ(seen.update_time, record.update_time);
    EXPECT_EQ(seen.update_milli_sec, record.update_milli_sec);
    EXPECT_EQ(seen.type, record.type);
    EXPECT_EQ(seen.change_no, record.change_no);
    EXPECT_EQ(seen.turnover, record.turnover);
    EXPECT_EQ(seen.open_interest, record.open_interest);
    EXPECT_EQ(seen.bid_totvol, record.bid_totvol);
    EXPECT_EQ(seen.ask_totvol, record.ask_totvol);
    EXPECT_EQ(seen.bid_totamount, record.bid_totamount);
    EXPECT_EQ(seen.ask_totamount, record.ask_totamount);
    EXPECT_EQ(seen.highest_price, record.highest_price);
    EXPECT_EQ(seen.lowest_price, record.lowest_price);
    for (std::size_t i = 0; i < 10; ++i) {
        EXPECT_EQ(seen.bid_px[i], record.bid_px[i]) << i;
        EXPECT_EQ(seen.bid_vol[i], record.bid_vol[i]) << i;
        EXPECT_EQ(seen.ask_vol[i], record.ask_vol[i]) << i;
        EXPECT_EQ(seen.ask_px[i], record.ask_px[i]) << i;
    }
}

struct Member {
    std::size_t offset;
    std::size_t size;
};

TEST(RecordLayout, TheFieldsOfReportsAreTheMembers) {
#define MEMBER(name)                                                                               \
    {                                                                                              \
#name, {                                                                                   \
            offsetof(instrument, name), sizeof(instrument::name)                                   \
        }                                                                                          \
    }
    const std::map<std::string, Member> members = {
        MEMBER(inst_id),       MEMBER(last_px),          MEMBER(volume),
        MEMBER(update_time),   MEMBER(update_milli_sec), MEMBER(type),
        MEMBER(change_no),     MEMBER(turnover),         MEMBER(open_interest),
        MEMBER(bid_totvol),    MEMBER(ask_totvol),       MEMBER(bid_totamount),
        MEMBER(ask_totamount), MEMBER(highest_price),    MEMBER(lowest_price),
        MEMBER(bid_px),        MEMBER(bid_vol),          MEMBER(ask_vol),
        MEMBER(ask_px),
    };
#undef MEMBER
    EXPECT_EQ(exchange_sim::record_fields().size(), members.size());
    for (const RecordField& field : exchange_sim::record_fields()) {
        const auto member = members.find(field.name);
        ASSERT_NE(member, members.end()) << field.name;
        EXPECT_EQ(field.offset, member->second.offset) << field.name;
        EXPECT_EQ(field.count * exchange_sim::field_width(field.type), member->second.size)
            << field.name;
    }
}

} // namespace
