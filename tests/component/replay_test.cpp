// The join of the two channels: decode buffers that arrive while the snapshot is being loaded are
// cached, and replayed on top of it when it is complete.

#include "tests/component/feed_parts.h"
#include "tests/component/market.h"
#include "wirekit/mirp.h"

#include <cstring>

namespace component_test {
namespace {

using wirekit::decode_buffer;
using wirekit::Side;

class Replay : public FeedParts {
protected:
    Replay() : shfe_(11, 20, 3, "cu"), ine_(12, 20, 3, "sc") {}

    void push_snapshot() {
        for (const Bytes& frame :
             rough_delivery(1, shfe_.snapshot(kShfe2psTopic), 100, kMd2psPort, 1)) {
            card.push(kRawPort, frame);
        }
        for (const Bytes& frame :
             rough_delivery(2, ine_.snapshot(kIne2psTopic), 100, kMd2psPort, 2)) {
            card.push(kRawPort, frame);
        }
    }
    // A deal on an instrument, `ahead` changes behind its snapshot.
    Bytes deal(bool ine, const Instrument& of, int32_t ahead, int32_t volume) {
        return decode_buffer()
            .topic(static_cast<uint16_t>(ine ? kIne2psTopic : kShfe2psTopic))
            .time(93000, 250)
            .packet_no(1000 + ahead)
            .instrument(static_cast<uint32_t>(of.info.inst_no))
            .change_no(static_cast<uint32_t>(of.deal.change_no + ahead))
            .deal(4, volume, 0, volume)
            .bytes();
    }
    // Replays everything cached; results in order.
    std::vector<int32_t> replay() {
        udp->PrefetchCalcInfo();
        cache.ciOffset = 0;
        std::vector<int32_t> results;
        while (cache.cachedCount > 0) {
            results.push_back(udp->ProcessCached());
        }
        return results;
    }
    static double price_of(const Instrument& of, int32_t ticks) {
        const double codec = of.info.codec_price == wirekit::kNoValue ? 0.0 : of.info.codec_price;
        return ticks * of.info.price_tick + codec;
    }

    Market shfe_;
    Market ine_;
};

TEST_F(Replay, OnlyWhatTheSnapshotDoesNotContainIsApplied) {
    const Instrument& cu = shfe_.instruments()[1];
    const Instrument& sc = ine_.instruments()[2];
    const Bytes cached[] = {deal(false, cu, -1, 7), deal(true, sc, 0, 7), // in the snapshot
                            deal(false, cu, 0, 7),  deal(false, cu, 1, 10),
                            deal(true, sc, 1, 20),  // behind it
                            deal(false, cu, 1, 10), // the other line's copy
                            deal(false, cu, 2, 5)};
    for (const Bytes& buffer : cached) {
        card.push(kDecodePort, buffer);
    }
    push_snapshot();
    ASSERT_EQ(snapshot_phase(), MD_INIT_DONE);
    while (card.left(kDecodePort) > 0) {
        udp->CachePacket();
    }
    ASSERT_EQ(cache.cachedCount, 7);
    EXPECT_EQ(replay(), (std::vector<int32_t>{0, 0, 0, 1, 1, 0, 1}));

    instrument expected = Market::record_of(cu);
    expected.last_px = price_of(cu, 4);
    expected.volume += 15;
    expected.open_interest += 15;
    const double codec = cu.info.codec_price;
    expected.turnover += (10 * codec + 0 * cu.info.price_tick) * cu.info.volume_multiple;
    expected.turnover += (5 * codec + 0 * cu.info.price_tick) * cu.info.volume_multiple;
    expected.update_time = 93000;
    expected.update_milli_sec = 250;
    expected.change_no += 2;
    EXPECT_EQ(std::memcmp(&table->instmts[cu.info.inst_no], &expected, sizeof(expected)), 0);

    const instrument& record = table->instmts[slot_of(true, sc.info.inst_no)];
    EXPECT_EQ(record.change_no, static_cast<uint32_t>(sc.deal.change_no + 1));
    EXPECT_EQ(record.volume, static_cast<uint32_t>(sc.deal.volume + 20));
    EXPECT_EQ(record.type, EXCHANGE_TYPE_INE);
    EXPECT_EQ(table->shfe_pktno, 1002);
    EXPECT_EQ(table->ine_pktno, 1001);
    // Every other record is the snapshot's.
    for (const Instrument& other : shfe_.instruments()) {
        if (other.info.inst_no != cu.info.inst_no) {
            const instrument untouched = Market::record_of(other);
            EXPECT_EQ(
                std::memcmp(&table->instmts[other.info.inst_no], &untouched, sizeof(untouched)), 0);
        }
    }
}

TEST_F(Replay, TheBookOfTheSnapshotIsTheOneThatChangesApplyTo) {
    const Instrument* with_book = nullptr;
    for (const Instrument& candidate : shfe_.instruments()) {
        if (candidate.bids.size() == 5 && candidate.info.codec_price != wirekit::kNoValue) {
            with_book = &candidate;
        }
    }
    ASSERT_NE(with_book, nullptr);
    // Delete the best bid, insert a new best ask; both cached before the snapshot is there.
    card.push(kDecodePort, decode_buffer()
                               .topic(static_cast<uint16_t>(kShfe2psTopic))
                               .instrument(static_cast<uint32_t>(with_book->info.inst_no))
                               .change_no(static_cast<uint32_t>(with_book->deal.change_no + 1))
                               .erase(Side::kBid, 1)
                               .insert(Side::kAsk, 1, 0, 77)
                               .bytes());
    push_snapshot();
    ASSERT_EQ(snapshot_phase(), MD_INIT_DONE);
    while (card.left(kDecodePort) > 0) {
        udp->CachePacket();
    }
    EXPECT_EQ(replay(), std::vector<int32_t>{1});
    const instrument& record = table->instmts[with_book->info.inst_no];
    for (std::size_t i = 0; i < 4; ++i) {
        EXPECT_EQ(record.bid_px[i], with_book->bids[i + 1].px);
        EXPECT_EQ(record.ask_px[i + 1], with_book->asks[i].px);
    }
    EXPECT_EQ(record.bid_px[4], 0.0);
    EXPECT_EQ(record.ask_px[0], price_of(*with_book, 0));
    EXPECT_EQ(record.ask_vol[0], 77);
}

TEST_F(Replay, AGapBetweenSnapshotAndCacheIsReported) {
    const Instrument& cu = shfe_.instruments()[1];
    card.push(kDecodePort, deal(false, cu, 2, 10)); // number 1 was missed
    push_snapshot();
    ASSERT_EQ(snapshot_phase(), MD_INIT_DONE);
    while (card.left(kDecodePort) > 0) {
        udp->CachePacket();
    }
    EXPECT_EQ(replay(), std::vector<int32_t>{-1});
    const instrument expected = [&] {
        instrument record = Market::record_of(cu);
        record.type = EXCHANGE_TYPE_SHFE;
        return record;
    }();
    EXPECT_EQ(std::memcmp(&table->instmts[cu.info.inst_no], &expected, sizeof(expected)), 0);
}

TEST_F(Replay, UnsubscribedInstrumentsAreCachedAndIgnored) {
    config.recvall = 0;
    config.listen_insts = {"sc"};
    config.total_listen_cnt = 1;
    card.push(kDecodePort, deal(false, shfe_.instruments()[1], 1, 10));
    card.push(kDecodePort, deal(true, ine_.instruments()[1], 1, 10));
    push_snapshot();
    ASSERT_EQ(snapshot_phase(), MD_INIT_DONE);
    while (card.left(kDecodePort) > 0) {
        udp->CachePacket();
    }
    EXPECT_EQ(replay(), (std::vector<int32_t>{0, 1}));
    EXPECT_EQ(cur_inst_no,
              static_cast<uint32_t>(slot_of(true, ine_.instruments()[1].info.inst_no)));
}

TEST_F(Replay, WhatArrivesAfterTheSnapshotIsAppliedDirectly) {
    const Instrument& cu = shfe_.instruments()[3];
    card.push(kDecodePort, deal(false, cu, 1, 10));
    push_snapshot();
    ASSERT_EQ(snapshot_phase(), MD_INIT_DONE);
    while (card.left(kDecodePort) > 0) {
        udp->CachePacket();
    }
    EXPECT_EQ(replay(), std::vector<int32_t>{1});
    card.push(kDecodePort, deal(false, cu, 1, 10));
    card.push(kDecodePort, deal(false, cu, 2, 10));
    EXPECT_EQ(udp->UdpRecv(), 0);
    EXPECT_EQ(udp->UdpRecv(), 1);
    EXPECT_EQ(cur_inst_no, static_cast<uint32_t>(cu.info.inst_no));
    EXPECT_EQ(table->instmts[cu.info.inst_no].volume, static_cast<uint32_t>(cu.deal.volume) + 20);
}

} // namespace
} // namespace component_test
