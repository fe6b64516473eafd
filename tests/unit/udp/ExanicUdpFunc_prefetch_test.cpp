// The prefetch hint over the price tables: whatever the counts, it changes nothing and says
// nothing.

#include "udp_fixture.h"

namespace udp_test {
namespace {

using ::testing::IsEmpty;

class UdpPrefetchTest : public UdpTest {};

TEST_F(UdpPrefetchTest, IsAHintForAnyCounts) {
    struct Row {
        int32_t shfe, ine;
    };
    const Row rows[] = {{0, 0},     {1, 1},         {8, 8},        {9, 9},   {17, 17},
                        {9, 0},     {0, 9},         {16384, 4096}, {-1, -1}, {-1000, -1000},
                        {16385, 0}, {20480, 20480}, {12800, 3200}};
    for (uint32_t slot = 0; slot < INSTRUMENT_SLOT_CNT; ++slot) {
        calc_->priceTick[slot] = 0.5 + slot;
        calc_->codecPrice[slot] = 1000.0 + slot;
        calc_->volumeMulti[slot] = static_cast<int32_t>(slot);
    }
    const auto before = std::make_unique<PriceCalcInfo>(*calc_);
    for (const Row& row : rows) {
        SCOPED_TRACE(std::to_string(row.shfe) + " " + std::to_string(row.ine));
        table_->shfe_inst_cnt = row.shfe;
        table_->ine_inst_cnt = row.ine;
        const Outcome outcome = watch([&] {
            udp_.PrefetchCalcInfo();
            return 0;
        });
        EXPECT_THAT(outcome.log, IsEmpty());
        EXPECT_THAT(outcome.changed, IsEmpty());
        EXPECT_THAT(outcome.stores, IsEmpty());
        EXPECT_EQ(outcome.slot, kNoSlot);
        EXPECT_EQ(std::memcmp(before.get(), calc_.get(), sizeof(PriceCalcInfo)), 0);
        EXPECT_EQ(table_->shfe_pktno, -11);
        EXPECT_EQ(table_->ine_pktno, -12);
    }
    EXPECT_EQ(support::ScriptedCard::instance().polls(0), 0u);
}

} // namespace
} // namespace udp_test
