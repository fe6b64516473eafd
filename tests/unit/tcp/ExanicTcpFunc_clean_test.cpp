// Construction, the clean of everything and the reset of one session: what is cleared, what stays.

#include "tests/support/scripted_card.h"
#include "tests/unit/tcp/segment_script.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace tcp_test {
namespace {

bool all_zero(const Bytes& bytes) {
    return std::all_of(bytes.begin(), bytes.end(), [](uint8_t byte) { return byte == 0; });
}

class SnapshotClean : public Reassembly {
protected:
    // Something in every piece of the channel's state.
    void fill_everything() {
        std::memset(static_cast<void*>(table.get()), 0x41, sizeof(share));
        std::memset(static_cast<void*>(calc.get()), 0x42, sizeof(PriceCalcInfo));
        std::memset(static_cast<void*>(core->inter_infos), 0x43, sizeof(core->inter_infos));
        finished.mask = 0x0F;
        for (const uint16_t port : {uint16_t{0}, kPort, uint16_t{65535}}) {
            fill_session(session(port));
        }
        core->m_initialized.store(-1);
        core->m_runningFlag.store(true);
        std::memset(core->m_recvBuf, 0x44, sizeof(core->m_recvBuf));
    }

    void fill_session(TcpSession& into) {
        // Held segments and the joining buffer come from the channel itself.
        const auto port = static_cast<uint16_t>(&into - core->m_sessions);
        const uint8_t kept = finished.mask;
        finished.mask = 0;
        deliver(segment(1000, start_message(), port).bytes());
        deliver(segment(2000, plain_message(1), port).bytes());
        deliver(segment(3000, plain_message(1), port).bytes());
        deliver(segment(1060, Bytes{0x11, 0x32, 100, 0, 1, 2, 3, 4}, port).bytes());
        finished.mask = kept;
        ASSERT_EQ(into.lost_buf_size, 2u);
        ASSERT_EQ(into.frag_flag, 1);
    }

    void expect_empty(const TcpSession& now) {
        EXPECT_EQ(now.lost_buf_head, nullptr);
        EXPECT_EQ(now.frag_buf, nullptr);
        EXPECT_EQ(now.lost_buf_size, 0u);
        EXPECT_EQ(now.frag_buf_offset, 0);
        EXPECT_EQ(now.frag_flag, 0);
        EXPECT_EQ(now.lost_flag, 0);
        EXPECT_EQ(now.init, 0);
        EXPECT_EQ(now.em_dqp_data_type, MDQP_DATA_TYPE_UNKNOW);
    }
};

TEST_F(SnapshotClean, AFreshChannelIsEmptyAndWarns) {
    const ChannelState fresh = state();
    EXPECT_TRUE(all_zero(fresh.limits));
    for (uint32_t port = 0; port < MAX_SESSION_CNT; ++port) {
        const TcpSession& now = core->m_sessions[port];
        ASSERT_EQ(now.init, 0);
        ASSERT_EQ(now.em_dqp_data_type, MDQP_DATA_TYPE_UNKNOW);
        ASSERT_EQ(now.frag_buf, nullptr);
        ASSERT_EQ(now.lost_buf_head, nullptr);
        ASSERT_EQ(now.lost_buf_size, 0u);
        ASSERT_EQ(now.frag_buf_offset, 0);
        ASSERT_EQ(now.frag_flag + now.lost_flag, 0);
    }
    EXPECT_TRUE(core->shfe_cnt_80_flag);
    EXPECT_TRUE(core->ine_cnt_80_flag);
    EXPECT_TRUE(core->shfe_cnt_flag);
    EXPECT_TRUE(core->ine_cnt_flag);
    EXPECT_EQ(core->GetInitialized(), MD_INIT_DOING);
    EXPECT_FALSE(core->m_runningFlag.load());
}

TEST_F(SnapshotClean, ConstructionTouchesNothingThatIsGiven) {
    std::memset(static_cast<void*>(table.get()), 0x41, sizeof(share));
    std::memset(static_cast<void*>(calc.get()), 0x42, sizeof(PriceCalcInfo));
    finished.mask = 0x05;
    const auto another =
        std::make_unique<CExanicTcpFunc>(config, table.get(), enabled, finished, *calc);
    EXPECT_EQ(table->shfe_inst_cnt, 0x41414141);
    EXPECT_EQ(calc->volumeMulti[20479], 0x42424242);
    EXPECT_EQ(finished.mask, 0x05);
}

TEST_F(SnapshotClean, ClearsAllThatASnapshotLeaves) {
    for (const bool switches : {true, false}) {
        fill_everything();
        core->shfe_cnt_80_flag = core->ine_cnt_80_flag = switches;
        core->shfe_cnt_flag = core->ine_cnt_flag = switches;
        EXPECT_EQ(logged([&] { core->_Cleandata(); }), Log{});
        const ChannelState now = state();
        EXPECT_TRUE(all_zero(now.table)); // records and counters
        EXPECT_TRUE(all_zero(now.calc));
        EXPECT_TRUE(all_zero(now.limits));
        EXPECT_EQ(finished.mask, 0);
        EXPECT_EQ(now.joined.size(), 0u);
        EXPECT_EQ(now.held.size(), 0u);
        for (uint32_t port = 0; port < MAX_SESSION_CNT; ++port) {
            expect_empty(core->m_sessions[port]);
            if (HasFailure()) {
                FAIL() << "port " << port;
            }
        }
        // Off after any clean: the count warnings belong to the first snapshot only.
        EXPECT_FALSE(core->shfe_cnt_80_flag);
        EXPECT_FALSE(core->ine_cnt_80_flag);
        EXPECT_FALSE(core->shfe_cnt_flag);
        EXPECT_FALSE(core->ine_cnt_flag);
    }
}

TEST_F(SnapshotClean, LeavesTheRestAlone) {
    auto& card = support::ScriptedCard::instance();
    card.reset(); // records register stores
    core->InitTcp(card.registers(), card.rx(1));
    fill_everything();
    card.clear_stores();
    core->_Cleandata();
    EXPECT_EQ(card.stores().size(), 0u); // the card's tables keep their entries
    EXPECT_EQ(core->m_pRegisters, card.registers());
    EXPECT_EQ(core->m_pRxBuffer, card.rx(1));
    EXPECT_EQ(core->GetInitialized(), -1);
    EXPECT_TRUE(core->m_runningFlag.load());
    EXPECT_EQ(core->m_recvBuf[0], 0x44);
    EXPECT_EQ(enabled.mask, 0x0F);
    EXPECT_EQ(session().src_host, 0x0101010Au);
    EXPECT_EQ(session().dst_host, 0x0201010Au);
    EXPECT_EQ(session().src_port, kMd2psPort);
    EXPECT_EQ(session().dst_port, kPort);
    EXPECT_EQ(session().current_seq, 1000u);
    EXPECT_EQ(session().next_expt_seq, 1068u);
    card.reset();
}

TEST_F(SnapshotClean, ASecondSnapshotAfterItIsCompleteAndEqual) {
    const auto snapshot = [&] {
        auto first = wirekit::mdqp_message();
        first.snap(kShfe2psTopic, 1).inst({.inst_id = "cu2601", .price_tick = 10, .inst_no = 3});
        first.deal({.inst_no = 3, .last_price = 70000, .upper_limit_price = 80000, .change_no = 4});
        auto last = wirekit::mdqp_message(wirekit::kFlagLast);
        last.price(3, '0', 69990, 1).price(3, '1', 70010, 2).packet_no(9).packet_no(10);
        deliver(segment(10, first.bytes()).bytes());
        deliver(segment(10 + static_cast<uint32_t>(first.size()), last.bytes()).bytes());
        ChannelState now = state();
        now.sessions.clear(); // pointers differ
        now.joined.clear();
        now.switches = {};
        return now;
    };
    const ChannelState once = snapshot();
    EXPECT_EQ(once.finished, 0x01);
    core->_Cleandata();
    const ChannelState again = snapshot();
    EXPECT_EQ(once.table, again.table);
    EXPECT_EQ(once.calc, again.calc);
    EXPECT_EQ(once.limits, again.limits);
    EXPECT_EQ(once.finished, again.finished);
}

TEST_F(SnapshotClean, ResetSessionEmptiesOneSessionAndKeepsWhereItStood) {
    fill_session(session());
    fill_session(session(7));
    const ChannelState before = state();
    core->ResetSession(session());
    expect_empty(session());
    EXPECT_EQ(session().src_host, 0x0101010Au);
    EXPECT_EQ(session().dst_host, 0x0201010Au);
    EXPECT_EQ(session().src_port, kMd2psPort);
    EXPECT_EQ(session().dst_port, kPort);
    EXPECT_EQ(session().current_seq, 1000u);
    EXPECT_EQ(session().next_expt_seq, 1068u);
    EXPECT_EQ(held_seqs(7).size(), 2u);
    EXPECT_EQ(joined(7), before.joined.at(7));
    core->ResetSession(session()); // an empty one stays empty
    expect_empty(session());
}

TEST_F(SnapshotClean, ResetSessionFreesNodesThatTheFlagsDeny) {
    // The list is followed from its head, whatever flag and count say.
    fill_session(session());
    session().lost_flag = 0;
    session().lost_buf_size = 0;
    core->ResetSession(session());
    EXPECT_EQ(session().lost_buf_head, nullptr); // a leak checker sees the rest
}

TEST_F(SnapshotClean, TheDestructorReleasesWhatSessionsHold) {
    fill_session(session());
    core.reset(); // a leak checker sees the rest
    rebuild();
}

} // namespace
} // namespace tcp_test
