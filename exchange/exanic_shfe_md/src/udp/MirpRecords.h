#ifndef MIRP_RECORDS_H
#define MIRP_RECORDS_H

// The decode buffer that the firmware makes of one incremental message, one per received frame.
// Little-endian, packed. A header of 24 bytes, then fields that each begin with their id. Prices
// are ticks from the instrument's codec price; amounts are tick-weighted sums.
//
// Read with ReadRecord, never by casting the buffer: nothing in it is aligned.

#include <cstddef>
#include <cstdint>

using FieldIDType = uint16_t;

enum : int16_t {
    FIELD_MARKET_DATA_INCRE = 3, // header: an incremental message
    FIELD_PRICE_CHANGE = 0x1001,
    FIELD_DEAL_SUMMARY = 0x1002,
    FIELD_HIGHEST_PRICE = 0x1011,
    FIELD_LOWEST_PRICE = 0x1012,
    FIELD_BUY_STATICS = 0x1019,
    FIELD_SELL_STATICS = 0x101A
};

#pragma pack(push, 1)

struct DecodeHeader {
    uint16_t topicID;      //  0: selects the exchange
    uint16_t snapMillisec; //  2: milliseconds of the update time
    uint32_t snapTime;     //  4: update time
    int32_t packetNo;      //  8: packet number of the feed
};

struct MarketDataIncreField {
    FieldIDType fieldID;   //  0: 3 for an incremental message
    uint32_t instrumentNo; //  2: the exchange's number, not the slot
    uint32_t changeNo;     //  6: counts the changes of the instrument
    uint16_t reserved;     // 10
};

struct MirpHeader {
    DecodeHeader decode;        //  0
    MarketDataIncreField incre; // 12
};

// One book change.
struct PriceChangeField {
    FieldIDType fieldID; //  0: 0x1001
    uint8_t mdEntryType; //  2: 0 bid, 1 ask
    uint8_t priceLevel;  //  3: 1 (best) to 10
    int32_t priceOffset; //  4: ticks
    uint32_t volume;     //  8: lots
    uint8_t eventType;   // 12: 1 insert, 2 overwrite, 3 delete
    uint8_t reserved1;   // 13
    uint16_t reserved2;  // 14
};

// Trades since the last message.
struct DealSummaryField {
    FieldIDType fieldID;        //  0: 0x1002
    int32_t lastPriceOffset;    //  2: ticks
    int32_t volumeChange;       //  6: lots
    int64_t turnoverOffset;     // 10: lots times ticks
    int64_t openInterestChange; // 18: lots
    uint16_t reserved1;         // 26
    uint32_t reserved2;         // 28
};

struct HighestPriceField {
    FieldIDType fieldID;     //  0: 0x1011
    int32_t highPriceOffset; //  2: ticks
    uint16_t reserved;       //  6
};

struct LowestPriceField {
    FieldIDType fieldID;    //  0: 0x1012
    int32_t lowPriceOffset; //  2: ticks
    uint16_t reserved;      //  6
};

// Change of the bid side's order totals.
struct BuyStaticsField {
    FieldIDType fieldID;     //  0: 0x1019
    int32_t bidVolumeChange; //  2: lots
    int64_t bidAmountOffset; //  6: lots times ticks
    uint16_t reserved;       // 14
};

// Change of the ask side's order totals.
struct SellStaticsField {
    FieldIDType fieldID;     //  0: 0x101A
    int32_t askVolumeChange; //  2: lots
    int64_t askAmountOffset; //  6: lots times ticks
    uint16_t reserved;       // 14
};

#pragma pack(pop)

static_assert(sizeof(DecodeHeader) == 12);
static_assert(offsetof(DecodeHeader, snapTime) == 4);
static_assert(offsetof(DecodeHeader, packetNo) == 8);
static_assert(sizeof(MarketDataIncreField) == 12);
static_assert(offsetof(MarketDataIncreField, instrumentNo) == 2);
static_assert(offsetof(MarketDataIncreField, changeNo) == 6);
static_assert(sizeof(MirpHeader) == 24);
static_assert(sizeof(PriceChangeField) == 16);
static_assert(offsetof(PriceChangeField, priceOffset) == 4);
static_assert(offsetof(PriceChangeField, volume) == 8);
static_assert(offsetof(PriceChangeField, eventType) == 12);
static_assert(sizeof(DealSummaryField) == 32);
static_assert(offsetof(DealSummaryField, lastPriceOffset) == 2);
static_assert(offsetof(DealSummaryField, volumeChange) == 6);
static_assert(offsetof(DealSummaryField, turnoverOffset) == 10);
static_assert(offsetof(DealSummaryField, openInterestChange) == 18);
static_assert(sizeof(HighestPriceField) == 8);
static_assert(offsetof(HighestPriceField, highPriceOffset) == 2);
static_assert(sizeof(LowestPriceField) == 8);
static_assert(offsetof(LowestPriceField, lowPriceOffset) == 2);
static_assert(sizeof(BuyStaticsField) == 16);
static_assert(offsetof(BuyStaticsField, bidVolumeChange) == 2);
static_assert(offsetof(BuyStaticsField, bidAmountOffset) == 6);
static_assert(sizeof(SellStaticsField) == 16);
static_assert(offsetof(SellStaticsField, askVolumeChange) == 2);
static_assert(offsetof(SellStaticsField, askAmountOffset) == 6);

#endif
