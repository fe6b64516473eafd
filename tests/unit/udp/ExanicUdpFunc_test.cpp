// Construction, InitUdp and the polling call.

#include "udp_fixture.h"

namespace udp_test {
namespace {

using support::RegisterStore;
using support::ScriptedCard;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using wirekit::Side;

constexpr int kDecodePort = 0;

class UdpRecvTest : public UdpTest {
protected:
    Outcome receive() {
        return watch([&] { return udp_.UdpRecv(); });
    }
};

TEST_F(UdpRecvTest, StartsWithoutCardAndWithBothWarningsArmed) {
    CExanicUdpFunc fresh(config_, table_.get(), cache_, *calc_, cur_inst_no_);
    EXPECT_EQ(fresh.m_pRegisters, nullptr);
    EXPECT_EQ(fresh.m_pRxBuffer, nullptr);
    EXPECT_EQ(fresh.m_pShareMem, table_.get());
    EXPECT_TRUE(fresh.shfelogflag);
    EXPECT_TRUE(fresh.inelogflag);
}

TEST_F(UdpRecvTest, InitUdpKeepsBothPointersAndReturnsZero) {
    CExanicUdpFunc fresh(config_, table_.get(), cache_, *calc_, cur_inst_no_);
    auto& card = ScriptedCard::instance();
    EXPECT_EQ(fresh.InitUdp(card.registers(), card.rx(1)), 0);
    EXPECT_EQ(fresh.m_pRegisters, card.registers());
    EXPECT_EQ(fresh.m_pRxBuffer, card.rx(1));
    // A restart hands over new ones.
    EXPECT_EQ(fresh.InitUdp(nullptr, card.rx(0)), 0);
    EXPECT_EQ(fresh.m_pRegisters, nullptr);
    EXPECT_EQ(fresh.m_pRxBuffer, card.rx(0));
}

TEST_F(UdpRecvTest, TakesFramesFromTheBufferThatItWasGiven) {
    auto& card = ScriptedCard::instance();
    udp_.InitUdp(card.registers(), card.rx(1));
    card.push(1, message().bytes());
    EXPECT_EQ(receive().result, RET_TO_CALLBACK);
    EXPECT_EQ(card.polls(1), 1u);
    EXPECT_EQ(card.polls(kDecodePort), 0u);
}

struct LengthCase {
    const char* name;
    ssize_t result; // of the receive call
    const char* text;
    const char* why;
};

const LengthCase kUnusableLengths[] = {
    {"One", 1, "1", "the shortest thing that is not nothing"},
    {"HeaderLessOne", 23, "23", "one byte short of a header"},
    {"AboveTheBuffer", 2049, "2049", "more than was asked for"},
    {"FarAbove", 1 << 20, "1048576", "more than was asked for"},
    {"HardwareError", -1, "4294967295", "a damaged frame, status seen as unsigned"},
    {"HardwareErrorBits", -14, "4294967282", "a damaged frame, status seen as unsigned"},
    {"Lapped", -256, "4294967040", "frames were lost; only the debug log tells"},
    {"TooLarge", -257, "4294967039", "the frame did not fit"},
    {"MostNegative", INT32_MIN, "2147483648", "any status is a size above 2048"},
};

TEST_F(UdpRecvTest, ReportsUnusableLengthsAtDebugAndGoesOn) {
    for (const LengthCase& row : kUnusableLengths) {
        SCOPED_TRACE(std::string(row.name) + ": " + row.why);
        ScriptedCard::instance().push_result(kDecodePort, row.result);
        const Outcome outcome = receive();
        EXPECT_EQ(outcome.result, RET_OK);
        EXPECT_THAT(outcome.log,
                    ElementsAre("D ExanicUdpFunc UdpRecv receive abnormal decode length: " +
                                std::string(row.text)));
        EXPECT_EQ(outcome.slot, kNoSlot);
        EXPECT_THAT(outcome.changed, IsEmpty());
        EXPECT_THAT(outcome.stores, IsEmpty());
        EXPECT_EQ(table_->shfe_pktno, -11);
        EXPECT_EQ(table_->ine_pktno, -12);
    }
    // And the next good frame is taken.
    ScriptedCard::instance().push(kDecodePort, message().bytes());
    EXPECT_EQ(receive().result, RET_TO_CALLBACK);
}

TEST_F(UdpRecvTest, SaysNothingWhenNothingIsWaiting) {
    const Outcome outcome = receive();
    EXPECT_EQ(outcome.result, RET_OK);
    EXPECT_THAT(outcome.log, IsEmpty());
    EXPECT_THAT(outcome.changed, IsEmpty());
    EXPECT_EQ(outcome.slot, kNoSlot);
    EXPECT_EQ(ScriptedCard::instance().polls(kDecodePort), 1u);
}

TEST_F(UdpRecvTest, AppliesTheShortestFrame) {
    ScriptedCard::instance().push(kDecodePort, message().bytes());
    instrument expected = record();
    expected.type = EXCHANGE_TYPE_SHFE;
    expected.update_time = kTime;
    expected.update_milli_sec = kMillisec;
    expected.change_no = kChangeNo + 1;
    const Outcome outcome = receive();
    EXPECT_EQ(outcome.result, RET_TO_CALLBACK);
    EXPECT_EQ(outcome.slot, kSlot);
    EXPECT_THAT(outcome.changed, ElementsAre(kSlot));
    EXPECT_TRUE(same_record(expected, record()));
    EXPECT_THAT(outcome.stores, ElementsAre(RegisterStore{kSnapTimeWord, kTime}));
    ASSERT_FALSE(outcome.log.empty());
    EXPECT_EQ(outcome.log[0], "X ExanicUdpFunc UdpRecv receive decode length: 24");
}

TEST_F(UdpRecvTest, AppliesTheLongestFrameToItsLastField) {
    auto builder = message();
    for (int i = 0; i < 126; ++i) {
        builder.update(Side::kBid, 10, 50 + i, 1);
    }
    builder.highest(777); // 24 + 126 * 16 + 8
    ASSERT_EQ(builder.bytes().size(), 2048u);
    ScriptedCard::instance().push(kDecodePort, builder.bytes());
    const Outcome outcome = receive();
    EXPECT_EQ(outcome.result, RET_TO_CALLBACK);
    EXPECT_EQ(record().bid_px[9], 175.0);
    EXPECT_EQ(record().highest_price, 777.0);
    EXPECT_THAT(at_levels(outcome, "EWID"), IsEmpty());
    EXPECT_EQ(outcome.log[0], "X ExanicUdpFunc UdpRecv receive decode length: 2048");
}

TEST_F(UdpRecvTest, OffersTheCardExactlyItsBuffer) {
    // One byte more does not fit, and the card says so.
    auto builder = message();
    builder.raw(wirekit::Bytes(2049 - 24, 0));
    ScriptedCard::instance().push(kDecodePort, builder.bytes());
    const Outcome outcome = receive();
    EXPECT_EQ(outcome.result, RET_OK);
    EXPECT_THAT(outcome.log, ElementsAre("D ExanicUdpFunc UdpRecv receive abnormal decode length: "
                                         "4294967039"));
    EXPECT_THAT(outcome.changed, IsEmpty());
}

TEST_F(UdpRecvTest, NeverDecodesWhatALongerFrameLeftInTheBuffer) {
    ScriptedCard::instance().push(kDecodePort,
                                  message().highest(200).lowest(50).deal(100, 1, 1, 1).bytes());
    ASSERT_EQ(receive().result, RET_TO_CALLBACK);
    instrument expected = record();
    expected.change_no = kChangeNo + 2;
    expected.highest_price = 300.0;
    ScriptedCard::instance().push(kDecodePort,
                                  message().change_no(kChangeNo + 2).highest(300).bytes());
    const Outcome outcome = receive();
    EXPECT_EQ(outcome.result, RET_TO_CALLBACK);
    EXPECT_TRUE(same_record(expected, record()));
    EXPECT_THAT(at_levels(outcome, "EW"), IsEmpty());
}

TEST_F(UdpRecvTest, ReturnsWhatTheDecoderReturned) {
    auto& card = ScriptedCard::instance();
    card.push(kDecodePort, message().bytes());
    card.push(kDecodePort, message().bytes());                          // the other line's copy
    card.push(kDecodePort, message().change_no(kChangeNo + 3).bytes()); // one is missing
    card.push(kDecodePort, message().change_no(kChangeNo + 2).bytes());
    EXPECT_EQ(receive().result, RET_TO_CALLBACK);
    EXPECT_EQ(receive().result, RET_OK);
    EXPECT_EQ(receive().result, RET_FAILED);
    EXPECT_EQ(receive().result, RET_TO_CALLBACK);
    EXPECT_EQ(card.left(kDecodePort), 0u);
}

TEST_F(UdpRecvTest, PollsOnceACallAndKeepsOrder) {
    auto& card = ScriptedCard::instance();
    for (uint32_t i = 1; i <= 3; ++i) {
        card.push(kDecodePort, message().change_no(kChangeNo + i).bytes());
    }
    for (uint32_t i = 1; i <= 3; ++i) {
        EXPECT_EQ(receive().result, RET_TO_CALLBACK);
        EXPECT_EQ(card.polls(kDecodePort), i);
        EXPECT_EQ(record().change_no, kChangeNo + i);
    }
}

TEST_F(UdpRecvTest, LeavesTheCacheAlone) {
    cache_.piOffset = 10;
    cache_.ciOffset = 20;
    cache_.cachedCount = 3;
    ScriptedCard::instance().push(kDecodePort, message().bytes());
    EXPECT_EQ(receive().result, RET_TO_CALLBACK); // the cache has no buffer: a store would crash
    EXPECT_EQ(cache_.piOffset, 10);
    EXPECT_EQ(cache_.ciOffset, 20);
    EXPECT_EQ(cache_.cachedCount, 3);
}

} // namespace
} // namespace udp_test
