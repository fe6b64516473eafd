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
    {"sizeof(vorn_md_gap_t)", 40},
    {"offsetof(vorn_md_gap_t, time_ns)", 0},
    {"offsetof(vorn_md_gap_t, slot)", 8},
    {"offsetof(vorn_md_gap_t, expected)", 12},
    {"offsetof(vorn_md_gap_t, received)", 16},
    {"offsetof(vorn_md_gap_t, reserved)", 20},
    {"offsetof(vorn_md_gap_t, inst_id)", 24},
    {"sizeof(vorn_md_counters_t)", 424},
    {"offsetof(vorn_md_counters_t, size)", 0},
    {"offsetof(vorn_md_counters_t, version)", 4},
    {"offsetof(vorn_md_counters_t, phase)", 8},
    {"offsetof(vorn_md_counters_t, reserved)", 12},
    {"offsetof(vorn_md_counters_t, phase_since_ns)", 16},
    {"offsetof(vorn_md_counters_t, time_in_phase_ns)", 24},
    {"offsetof(vorn_md_counters_t, last_update_ns)", 88},
    {"offsetof(vorn_md_counters_t, cycles)", 96},
    {"offsetof(vorn_md_counters_t, restarts)", 104},
    {"offsetof(vorn_md_counters_t, frames)", 112},
    {"offsetof(vorn_md_counters_t, updates)", 120},
    {"offsetof(vorn_md_counters_t, silent_updates)", 128},
    {"offsetof(vorn_md_counters_t, stale)", 136},
    {"offsetof(vorn_md_counters_t, unsubscribed)", 144},
    {"offsetof(vorn_md_counters_t, options_skipped)", 152},
    {"offsetof(vorn_md_counters_t, restored_books)", 160},
    {"offsetof(vorn_md_counters_t, gaps)", 168},
    {"offsetof(vorn_md_counters_t, refused)", 176},
    {"offsetof(vorn_md_counters_t, overflows)", 184},
    {"offsetof(vorn_md_counters_t, abnormal_lengths)", 192},
    {"offsetof(vorn_md_counters_t, cached)", 200},
    {"offsetof(vorn_md_counters_t, replayed)", 208},
    {"offsetof(vorn_md_counters_t, cache_dropped)", 216},
    {"offsetof(vorn_md_counters_t, snapshot_frames)", 224},
    {"offsetof(vorn_md_counters_t, snapshot_overflows)", 232},
    {"offsetof(vorn_md_counters_t, snapshot_abnormal_lengths)", 240},
    {"offsetof(vorn_md_counters_t, snapshot_fate)", 248},
    {"offsetof(vorn_md_counters_t, snapshot_rounds)", 344},
    {"offsetof(vorn_md_counters_t, snapshot_wipes)", 376},
    {"sizeof(vorn_md_event_t)", 64},
    {"offsetof(vorn_md_event_t, size)", 0},
    {"offsetof(vorn_md_event_t, type)", 4},
    {"offsetof(vorn_md_event_t, time_ns)", 8},
    {"offsetof(vorn_md_event_t, phase)", 16},
    {"offsetof(vorn_md_event_t, previous_phase)", 20},
    {"offsetof(vorn_md_event_t, count)", 24},
    {"offsetof(vorn_md_event_t, slot)", 32},
    {"offsetof(vorn_md_event_t, expected)", 36},
    {"offsetof(vorn_md_event_t, received)", 40},
    {"offsetof(vorn_md_event_t, feed)", 44},
    {"offsetof(vorn_md_event_t, inst_id)", 48},
    {"VORN_MD_PHASE_STOPPED", 0},
    {"VORN_MD_PHASE_BRING_UP", 1},
    {"VORN_MD_PHASE_SNAPSHOT", 2},
    {"VORN_MD_PHASE_REPLAY", 3},
    {"VORN_MD_PHASE_LIVE", 4},
    {"VORN_MD_PHASE_CNT", 8},
    {"VORN_MD_FATE_STARTED", 0},
    {"VORN_MD_FATE_IN_ORDER", 1},
    {"VORN_MD_FATE_HELD", 2},
    {"VORN_MD_FATE_OLD", 3},
    {"VORN_MD_FATE_UNSTARTED", 4},
    {"VORN_MD_FATE_FOREIGN", 5},
    {"VORN_MD_FATE_MALFORMED", 6},
    {"VORN_MD_FATE_EMPTY", 7},
    {"VORN_MD_FATE_CHECKSUM", 8},
    {"VORN_MD_FATE_RESET", 9},
    {"VORN_MD_FATE_LATE", 10},
    {"VORN_MD_FATE_DROPPED", 11},
    {"VORN_MD_FATE_CNT", 12},
    {"VORN_MD_FEED_SHFE_2PS", 0},
    {"VORN_MD_FEED_SHFE_4PS", 1},
    {"VORN_MD_FEED_INE_2PS", 2},
    {"VORN_MD_FEED_INE_4PS", 3},
    {"VORN_MD_FEED_CNT", 4},
    {"VORN_MD_COUNTERS_VERSION", 1},
    {"VORN_MD_EVENT_PHASE", 1},
    {"VORN_MD_EVENT_GAP", 2},
    {"VORN_MD_EVENT_RESTART", 3},
    {"VORN_MD_EVENT_ROUND", 4},
    {"VORN_MD_EVENT_OVERFLOW", 5},
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

TEST(Names, AreTheSameEightForCAndCxx) {
    const void* in_c[8] = {};
    const void* in_cxx[8] = {};
    c11_names(in_c);
    cxx17_names(in_cxx);
    EXPECT_THAT(in_c, testing::ElementsAreArray(in_cxx));
    EXPECT_EQ(in_c[0], reinterpret_cast<const void*>(&update_md));
    EXPECT_EQ(in_c[2], reinterpret_cast<const void*>(&vorn_recv));
    EXPECT_THAT(in_c, testing::Each(testing::NotNull()));
}

} // namespace
