// Whole snapshot rounds: two feeds through the card, the decoder thread and its worker, over a
// network that loses, repeats and reorders. Afterwards the table is what the exchanges sent.

#include "tests/component/feed_parts.h"
#include "tests/component/market.h"

#include <cstring>
#include <random>

namespace component_test {
namespace {

class SnapshotRound : public FeedParts {
protected:
    // Frames of several streams as they arrive on one wire.
    void push_interleaved(uint32_t seed, const std::vector<std::vector<Bytes>>& streams) {
        std::mt19937 random(seed);
        std::vector<std::size_t> next(streams.size(), 0);
        for (bool left = true; left;) {
            left = false;
            for (std::size_t i = 0; i < streams.size(); ++i) {
                for (uint32_t burst = random() % 4; burst > 0 && next[i] < streams[i].size();
                     --burst) {
                    card.push(kRawPort, streams[i][next[i]++]);
                }
                left = left || next[i] < streams[i].size();
            }
        }
    }

    void expect_market(const Market& market, bool ine) {
        for (const Instrument& sent : market.instruments()) {
            SCOPED_TRACE(sent.info.inst_id + (ine ? " INE " : " SHFE ") +
                         std::to_string(sent.info.inst_no));
            const int slot = slot_of(ine, sent.info.inst_no);
            const instrument expected = Market::record_of(sent);
            ASSERT_EQ(std::memcmp(&table->instmts[slot], &expected, sizeof(expected)), 0);
            ASSERT_EQ(calc->priceTick[slot], sent.info.price_tick);
            ASSERT_EQ(calc->codecPrice[slot],
                      sent.info.codec_price == wirekit::kNoValue ? 0.0 : sent.info.codec_price);
            ASSERT_EQ(calc->volumeMulti[slot], sent.info.volume_multiple);
            ASSERT_EQ(tcp->inter_infos[slot].upper_limit_price, sent.deal.upper_limit_price);
            ASSERT_EQ(tcp->inter_infos[slot].lower_limit_price, sent.deal.lower_limit_price);
        }
    }
    int filled_slots() const {
        int filled = 0;
        const instrument empty{};
        for (const instrument& record : table->instmts) {
            filled += std::memcmp(&record, &empty, sizeof(empty)) != 0 ? 1 : 0;
        }
        return filled;
    }
};

TEST_F(SnapshotRound, BothFeedsArriveWholeOverARoughNetwork) {
    for (uint32_t seed = 1; seed <= 20; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        card.reset();
        card.record_stores(false);
        const Market shfe(seed, 120, 131, "cu");
        const Market ine(seed + 1000, 60, 67, "sc");
        push_interleaved(
            seed,
            {rough_delivery(seed, shfe.snapshot(kShfe2psTopic), 4000, kMd2psPort, 50001),
             rough_delivery(seed + 1, ine.snapshot(kIne2psTopic), 900000, kMd2psPort, 50002)});
        ASSERT_EQ(snapshot_phase(), MD_INIT_DONE);
        EXPECT_EQ(finished.mask, enabled.mask);
        EXPECT_EQ(table->shfe_inst_cnt, shfe.highest_number() + 1);
        EXPECT_EQ(table->ine_inst_cnt, ine.highest_number() + 1);
        EXPECT_EQ(table->shfe_pktno, 99);
        EXPECT_EQ(table->ine_pktno, 99);
        expect_market(shfe, false);
        expect_market(ine, true);
        EXPECT_EQ(filled_slots(), 180);
    }
}

TEST_F(SnapshotRound, SubscribedInstrumentsAreWrittenIntoTheCardInOrder) {
    const Market shfe(3, 40, 400, "cu");
    const Market ine(4, 40, 100, "sc");
    config.recvall = 0;
    config.listen_insts = {"sc", "cu2601", "cu2603"};
    config.total_listen_cnt = 3;
    push_interleaved(3, {rough_delivery(3, shfe.snapshot(kShfe2psTopic), 1, kMd2psPort, 1),
                         rough_delivery(4, ine.snapshot(kIne2psTopic), 1, kMd4psPort, 2)});
    card.record_stores(true);
    ASSERT_EQ(snapshot_phase(), MD_INIT_DONE);
    std::vector<support::RegisterStore> shfe_stores;
    std::vector<support::RegisterStore> ine_stores;
    for (const support::RegisterStore& store : card.stores()) {
        (store.word < 1796 ? shfe_stores : ine_stores).push_back(store);
    }
    EXPECT_EQ(shfe_stores,
              (std::vector<support::RegisterStore>{{1792, 0}, {1793, 1}, {1792, 800}, {1793, 1}}));
    ASSERT_EQ(ine_stores.size(), 80u);
    for (uint32_t i = 0; i < 40; ++i) {
        EXPECT_EQ(ine_stores[2 * i], (support::RegisterStore{1796, i * 100}));
        EXPECT_EQ(ine_stores[2 * i + 1], (support::RegisterStore{1797, 1}));
    }
    EXPECT_EQ(filled_slots(), 42);
    EXPECT_EQ(calc->priceTick[400], shfe.instruments()[1].info.price_tick); // known all the same
}

TEST_F(SnapshotRound, ASecondRoundReplacesTheFirst) {
    const Market first(5, 50, 3, "cu");
    const Market second(6, 30, 5, "al");
    enabled.mask = MASK_SHFE_2PS;
    for (const Market* market : {&first, &second}) {
        card.reset();
        card.record_stores(false);
        push_interleaved(7,
                         {rough_delivery(7, market->snapshot(kShfe2psTopic), 100, kMd2psPort, 9)});
        ASSERT_EQ(snapshot_phase(), MD_INIT_DONE);
        expect_market(*market, false);
        EXPECT_EQ(filled_slots(), static_cast<int>(market->instruments().size()));
    }
}

TEST_F(SnapshotRound, ABadBookThrowsTheRoundAwayAndTheNextOneCounts) {
    enabled.mask = MASK_SHFE_2PS;
    const Market good(8, 50, 3, "cu");
    auto bad = good.snapshot(kShfe2psTopic);
    auto crossed = wirekit::mdqp_message();
    crossed.inst({.inst_id = "zn2601", .inst_no = 7000})
        .price(7000, '0', 10, 1)
        .price(7000, '1', 9, 1);
    bad.insert(bad.end() - 1, crossed.bytes());
    push_interleaved(8, {rough_delivery(8, bad, 100, kMd2psPort, 9)});
    push_interleaved(8, {rough_delivery(9, good.snapshot(kShfe2psTopic), 5000000, kMd2psPort, 10)});
    ASSERT_EQ(snapshot_phase(), MD_INIT_DONE);
    expect_market(good, false);
    EXPECT_EQ(filled_slots(), 50);
    EXPECT_EQ(table->shfe_inst_cnt, good.highest_number() + 1);
}

} // namespace
} // namespace component_test
