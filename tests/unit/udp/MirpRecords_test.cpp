// The feed reads decode buffers through packed records, wirekit writes them by byte offset, and
// neither knows the other. Every member is written with a pattern of its own and read back through
// the record, so that an offset or a width that is wrong on one side shows.

#include "ExanicMdTypes.h"
#include "WireRead.h"
#include "udp/MirpRecords.h"
#include "wirekit/mirp.h"

#include <gtest/gtest.h>

#include <numeric>

namespace {

using wirekit::decode_buffer;

constexpr std::size_t kHeaderSize = 24;

// A packed member has no address that a reference could be bound to: it is compared by value.
template <typename Value>
Value value(Value member) {
    return member;
}

template <typename Record>
Record behind_header(const wirekit::Bytes& bytes) {
    EXPECT_EQ(bytes.size(), kHeaderSize + sizeof(Record));
    return ReadRecord<Record>(bytes.data() + kHeaderSize);
}

TEST(MirpRecords, HeaderIsReadWhereTheBuilderPutsIt) {
    const auto bytes = decode_buffer()
                           .topic(0xA1A2)
                           .time(0xB1B2B3B4, 0xC1C2)
                           .packet_no(static_cast<int32_t>(0xD1D2D3D4))
                           .field_id(0xE1E2)
                           .instrument(0xF1F2F3F4)
                           .change_no(0x91929394)
                           .bytes();
    ASSERT_EQ(bytes.size(), kHeaderSize);
    const auto header = ReadRecord<MirpHeader>(bytes.data());
    EXPECT_EQ(value(header.decode.topicID), 0xA1A2u);
    EXPECT_EQ(value(header.decode.snapMillisec), 0xC1C2u);
    EXPECT_EQ(value(header.decode.snapTime), 0xB1B2B3B4u);
    EXPECT_EQ(value(header.decode.packetNo), static_cast<int32_t>(0xD1D2D3D4));
    EXPECT_EQ(value(header.incre.fieldID), 0xE1E2u);
    EXPECT_EQ(value(header.incre.instrumentNo), 0xF1F2F3F4u);
    EXPECT_EQ(value(header.incre.changeNo), 0x91929394u);
    EXPECT_EQ(value(header.incre.reserved), 0u);
}

TEST(MirpRecords, PriceChangeIsReadWhereTheBuilderPutsIt) {
    const auto change = behind_header<PriceChangeField>(
        decode_buffer()
            .price_change(0xA5, 0xB6, static_cast<int32_t>(0xC1C2C3C4), 0xD1D2D3D4, 0xE7)
            .bytes());
    EXPECT_EQ(value(change.fieldID), FIELD_PRICE_CHANGE);
    EXPECT_EQ(value(change.mdEntryType), 0xA5u);
    EXPECT_EQ(value(change.priceLevel), 0xB6u);
    EXPECT_EQ(value(change.priceOffset), static_cast<int32_t>(0xC1C2C3C4));
    EXPECT_EQ(value(change.volume), 0xD1D2D3D4u);
    EXPECT_EQ(value(change.eventType), 0xE7u);
    EXPECT_EQ(value(change.reserved1), 0u);
    EXPECT_EQ(value(change.reserved2), 0u);
}

TEST(MirpRecords, BookEventsCarryTheFeedsCodes) {
    const auto insert = behind_header<PriceChangeField>(
        decode_buffer().insert(wirekit::Side::kAsk, 3, -4, 5).bytes());
    EXPECT_EQ(value(insert.mdEntryType), MD_ENTRY_TYPE_ASK);
    EXPECT_EQ(value(insert.eventType), MD_EVENT_TYPE_ADD);
    EXPECT_EQ(value(insert.priceLevel), 3u);
    EXPECT_EQ(value(insert.priceOffset), -4);
    EXPECT_EQ(value(insert.volume), 5u);
    const auto update = behind_header<PriceChangeField>(
        decode_buffer().update(wirekit::Side::kBid, 10, 6, 7).bytes());
    EXPECT_EQ(value(update.mdEntryType), MD_ENTRY_TYPE_BID);
    EXPECT_EQ(value(update.eventType), MD_EVENT_TYPE_MODIFY);
    EXPECT_EQ(value(update.priceLevel), 10u);
    const auto erase =
        behind_header<PriceChangeField>(decode_buffer().erase(wirekit::Side::kAsk, 2).bytes());
    EXPECT_EQ(value(erase.mdEntryType), MD_ENTRY_TYPE_ASK);
    EXPECT_EQ(value(erase.eventType), MD_EVENT_TYPE_DEL);
    EXPECT_EQ(value(erase.priceLevel), 2u);
}

TEST(MirpRecords, DealSummaryIsReadWhereTheBuilderPutsIt) {
    const auto deal = behind_header<DealSummaryField>(
        decode_buffer()
            .deal(static_cast<int32_t>(0xA1A2A3A4), static_cast<int32_t>(0xB1B2B3B4),
                  static_cast<int64_t>(0xC1C2C3C4C5C6C7C8),
                  static_cast<int64_t>(0xD1D2D3D4D5D6D7D8))
            .bytes());
    EXPECT_EQ(value(deal.fieldID), FIELD_DEAL_SUMMARY);
    EXPECT_EQ(value(deal.lastPriceOffset), static_cast<int32_t>(0xA1A2A3A4));
    EXPECT_EQ(value(deal.volumeChange), static_cast<int32_t>(0xB1B2B3B4));
    EXPECT_EQ(value(deal.turnoverOffset), static_cast<int64_t>(0xC1C2C3C4C5C6C7C8));
    EXPECT_EQ(value(deal.openInterestChange), static_cast<int64_t>(0xD1D2D3D4D5D6D7D8));
    EXPECT_EQ(value(deal.reserved1), 0u);
    EXPECT_EQ(value(deal.reserved2), 0u);
}

TEST(MirpRecords, ExtremesAreReadWhereTheBuilderPutsThem) {
    const auto highest = behind_header<HighestPriceField>(
        decode_buffer().highest(static_cast<int32_t>(0xA1A2A3A4)).bytes());
    EXPECT_EQ(value(highest.fieldID), FIELD_HIGHEST_PRICE);
    EXPECT_EQ(value(highest.highPriceOffset), static_cast<int32_t>(0xA1A2A3A4));
    EXPECT_EQ(value(highest.reserved), 0u);
    const auto lowest = behind_header<LowestPriceField>(
        decode_buffer().lowest(static_cast<int32_t>(0xB1B2B3B4)).bytes());
    EXPECT_EQ(value(lowest.fieldID), FIELD_LOWEST_PRICE);
    EXPECT_EQ(value(lowest.lowPriceOffset), static_cast<int32_t>(0xB1B2B3B4));
    EXPECT_EQ(value(lowest.reserved), 0u);
}

TEST(MirpRecords, SideTotalsAreReadWhereTheBuilderPutsThem) {
    const auto bid = behind_header<BuyStaticsField>(
        decode_buffer()
            .bid_totals(static_cast<int32_t>(0xA1A2A3A4), static_cast<int64_t>(0xB1B2B3B4B5B6B7B8))
            .bytes());
    EXPECT_EQ(value(bid.fieldID), FIELD_BUY_STATICS);
    EXPECT_EQ(value(bid.bidVolumeChange), static_cast<int32_t>(0xA1A2A3A4));
    EXPECT_EQ(value(bid.bidAmountOffset), static_cast<int64_t>(0xB1B2B3B4B5B6B7B8));
    EXPECT_EQ(value(bid.reserved), 0u);
    const auto ask = behind_header<SellStaticsField>(
        decode_buffer()
            .ask_totals(static_cast<int32_t>(0xC1C2C3C4), static_cast<int64_t>(0xD1D2D3D4D5D6D7D8))
            .bytes());
    EXPECT_EQ(value(ask.fieldID), FIELD_SELL_STATICS);
    EXPECT_EQ(value(ask.askVolumeChange), static_cast<int32_t>(0xC1C2C3C4));
    EXPECT_EQ(value(ask.askAmountOffset), static_cast<int64_t>(0xD1D2D3D4D5D6D7D8));
    EXPECT_EQ(value(ask.reserved), 0u);
}

// The offsets themselves, without the builder: byte i of the buffer holds i, so a member's value
// names the bytes that it covers.
TEST(MirpRecords, EveryMemberCoversItsBytes) {
    uint8_t bytes[32];
    std::iota(std::begin(bytes), std::end(bytes), uint8_t{0});
    const auto header = ReadRecord<MirpHeader>(bytes);
    EXPECT_EQ(value(header.decode.topicID), 0x0100u);
    EXPECT_EQ(value(header.decode.snapMillisec), 0x0302u);
    EXPECT_EQ(value(header.decode.snapTime), 0x07060504u);
    EXPECT_EQ(value(header.decode.packetNo), 0x0B0A0908);
    EXPECT_EQ(value(header.incre.fieldID), 0x0D0Cu);
    EXPECT_EQ(value(header.incre.instrumentNo), 0x11100F0Eu);
    EXPECT_EQ(value(header.incre.changeNo), 0x15141312u);
    EXPECT_EQ(value(header.incre.reserved), 0x1716u);
    const auto change = ReadRecord<PriceChangeField>(bytes);
    EXPECT_EQ(value(change.fieldID), 0x0100u);
    EXPECT_EQ(value(change.mdEntryType), 2u);
    EXPECT_EQ(value(change.priceLevel), 3u);
    EXPECT_EQ(value(change.priceOffset), 0x07060504);
    EXPECT_EQ(value(change.volume), 0x0B0A0908u);
    EXPECT_EQ(value(change.eventType), 12u);
    EXPECT_EQ(value(change.reserved1), 13u);
    EXPECT_EQ(value(change.reserved2), 0x0F0Eu);
    const auto deal = ReadRecord<DealSummaryField>(bytes);
    EXPECT_EQ(value(deal.lastPriceOffset), 0x05040302);
    EXPECT_EQ(value(deal.volumeChange), 0x09080706);
    EXPECT_EQ(value(deal.turnoverOffset), 0x11100F0E0D0C0B0A);
    EXPECT_EQ(value(deal.openInterestChange), 0x1918171615141312);
    EXPECT_EQ(value(deal.reserved1), 0x1B1Au);
    EXPECT_EQ(value(deal.reserved2), 0x1F1E1D1Cu);
    EXPECT_EQ(value(ReadRecord<HighestPriceField>(bytes).highPriceOffset), 0x05040302);
    EXPECT_EQ(value(ReadRecord<HighestPriceField>(bytes).reserved), 0x0706u);
    EXPECT_EQ(value(ReadRecord<LowestPriceField>(bytes).lowPriceOffset), 0x05040302);
    EXPECT_EQ(value(ReadRecord<LowestPriceField>(bytes).reserved), 0x0706u);
    const auto bid = ReadRecord<BuyStaticsField>(bytes);
    EXPECT_EQ(value(bid.bidVolumeChange), 0x05040302);
    EXPECT_EQ(value(bid.bidAmountOffset), 0x0D0C0B0A09080706);
    EXPECT_EQ(value(bid.reserved), 0x0F0Eu);
    const auto ask = ReadRecord<SellStaticsField>(bytes);
    EXPECT_EQ(value(ask.askVolumeChange), 0x05040302);
    EXPECT_EQ(value(ask.askAmountOffset), 0x0D0C0B0A09080706);
    EXPECT_EQ(value(ask.reserved), 0x0F0Eu);
}

} // namespace
