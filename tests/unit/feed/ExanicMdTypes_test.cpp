// Layouts by value: consumers address the records in place, from C and from C++.

#include "ExanicMdImpl.h"
#include "headers/consumer_probe.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

extern "C" unsigned c11_mask_bits(unsigned char byte);

namespace {

using Rows = std::vector<std::pair<std::string, std::size_t>>;

const Rows kExpected = {
    {"sizeof(instrument)", 336},
    {"sizeof(instrument_t)", 336},
    {"offsetof(instrument, inst_id)", 0},
    {"offsetof(instrument, last_px)", 16},
    {"offsetof(instrument, volume)", 24},
    {"offsetof(instrument, update_time)", 28},
    {"offsetof(instrument, update_milli_sec)", 32},
    {"offsetof(instrument, type)", 34},
    {"offsetof(instrument, change_no)", 36},
    {"offsetof(instrument, turnover)", 40},
    {"offsetof(instrument, open_interest)", 48},
    {"offsetof(instrument, bid_totvol)", 56},
    {"offsetof(instrument, ask_totvol)", 60},
    {"offsetof(instrument, bid_totamount)", 64},
    {"offsetof(instrument, ask_totamount)", 72},
    {"offsetof(instrument, highest_price)", 80},
    {"offsetof(instrument, lowest_price)", 88},
    {"offsetof(instrument, bid_px)", 96},
    {"offsetof(instrument, bid_vol)", 176},
    {"offsetof(instrument, ask_vol)", 216},
    {"offsetof(instrument, ask_px)", 256},
    {"sizeof(share)", 6881296},
    {"sizeof(share_t)", 6881296},
    {"offsetof(share, instmts)", 0},
    {"offsetof(share, shfe_inst_cnt)", 6881280},
    {"offsetof(share, ine_inst_cnt)", 6881284},
    {"offsetof(share, shfe_pktno)", 6881288},
    {"offsetof(share, ine_pktno)", 6881292},
    {"sizeof(PriceCalcInfo)", 409600},
    {"offsetof(PriceCalcInfo, priceTick)", 0},
    {"offsetof(PriceCalcInfo, codecPrice)", 163840},
    {"offsetof(PriceCalcInfo, volumeMulti)", 327680},
    {"sizeof(UEnableMask)", 1},
    {"sizeof(CacheBufInfo)", 24},
    {"offsetof(CacheBufInfo, pCacheBuf)", 0},
    {"offsetof(CacheBufInfo, piOffset)", 8},
    {"offsetof(CacheBufInfo, ciOffset)", 12},
    {"offsetof(CacheBufInfo, cachedCount)", 16},
    {"RET_OK", 0},
    {"RET_TO_CALLBACK", 1},
    {"MD_INIT_DOING", 0},
    {"MD_INIT_DONE", 1},
    {"BID_PX_LEVEL", 5},
    {"ASK_PX_LEVEL", 5},
    {"RECV_BUF_SIZE", 2048},
    {"CACHE_BUF_SIZE", 209715200},
    {"MAX_SESSION_CNT", 65536},
    {"MAX_LOST_BUF_SIZE", 500},
    {"DIRECTION_BUY", '0'},
    {"DIRECTION_SELL", '1'},
    {"MD_EVENT_TYPE_ADD", 1},
    {"MD_EVENT_TYPE_MODIFY", 2},
    {"MD_EVENT_TYPE_DEL", 3},
    {"MD_ENTRY_TYPE_BID", 0},
    {"MD_ENTRY_TYPE_ASK", 1},
    {"RET_FAILED + 2", 1},
    {"MD_INIT_FAILED + 2", 1},
};

Rows rows_of(const layout_probe* probe) {
    Rows rows;
    for (; probe->name != nullptr; ++probe) {
        // Macros arrive with their names, because the row's text is taken before they are replaced.
        rows.emplace_back(probe->name, probe->value);
    }
    return rows;
}

std::vector<std::size_t> values_of(const Rows& rows) {
    std::vector<std::size_t> values;
    for (const auto& row : rows) {
        values.push_back(row.second);
    }
    return values;
}

TEST(Layout, IsTheSameForAC11Consumer) {
    EXPECT_EQ(rows_of(c11_layout()).size(), kExpected.size());
    EXPECT_EQ(rows_of(c11_layout()), kExpected);
}

TEST(Layout, IsTheSameForACxx17Consumer) {
    EXPECT_EQ(values_of(rows_of(cxx17_layout())), values_of(kExpected));
}

TEST(Layout, GivesEveryBitOfTheMaskItsFeed) {
    UEnableMask mask{};
    EXPECT_EQ(mask.mask, 0);
    mask.shfe2ps = 1;
    EXPECT_EQ(mask.mask, 0x01);
    mask.mask = 0;
    mask.shfe4ps = 1;
    EXPECT_EQ(mask.mask, 0x02);
    mask.mask = 0;
    mask.ine2ps = 1;
    EXPECT_EQ(mask.mask, 0x04);
    mask.mask = 0;
    mask.ine4ps = 1;
    EXPECT_EQ(mask.mask, 0x08);
    mask.mask = 0;
    mask.reserved = 15;
    EXPECT_EQ(mask.mask, 0xF0);
    for (unsigned byte = 0; byte < 256; ++byte) {
        EXPECT_EQ(c11_mask_bits(static_cast<unsigned char>(byte)), byte);
    }
}

TEST(Layout, HasTheFieldTypesThatConsumersRead) {
    instrument record{};
    static_assert(std::is_same_v<decltype(record.inst_id), unsigned char[16]>);
    static_assert(std::is_same_v<decltype(record.volume), uint32_t>);
    static_assert(std::is_same_v<decltype(record.update_time), uint32_t>);
    static_assert(std::is_same_v<decltype(record.update_milli_sec), uint16_t>);
    static_assert(std::is_same_v<decltype(record.type), uint16_t>);
    static_assert(std::is_same_v<decltype(record.change_no), uint32_t>);
    static_assert(std::is_same_v<decltype(record.bid_totvol), int32_t>);
    static_assert(std::is_same_v<decltype(record.bid_px), double[10]>);
    static_assert(std::is_same_v<decltype(record.bid_vol), int32_t[10]>);
    static_assert(std::is_same_v<decltype(record.ask_vol), int32_t[10]>);
    static_assert(std::is_same_v<decltype(record.ask_px), double[10]>);
    static_assert(std::is_same_v<decltype(share::shfe_inst_cnt), int32_t>);
    static_assert(std::is_same_v<decltype(PriceCalcInfo::volumeMulti), int32_t[20480]>);
    static_assert(std::is_same_v<decltype(CacheBufInfo::piOffset), int32_t>);
    EXPECT_EQ(record.change_no, 0U);
}

TEST(Names, AreTheSameFiveForCAndCxx) {
    const void* in_c[5] = {};
    const void* in_cxx[5] = {};
    c11_names(in_c);
    cxx17_names(in_cxx);
    EXPECT_THAT(in_c, testing::ElementsAreArray(in_cxx));
    EXPECT_EQ(in_c[0], reinterpret_cast<const void*>(&update_md));
    EXPECT_EQ(in_c[2], reinterpret_cast<const void*>(&vorn_recv));
    EXPECT_THAT(in_c, testing::Each(testing::NotNull()));
}

} // namespace
