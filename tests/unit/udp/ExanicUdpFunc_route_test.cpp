// From a decode buffer to a slot: length, topic, instrument number, subscription, options, and what
// a message leaves behind that ends on the way.

#include "udp_fixture.h"

namespace udp_test {
namespace {

using support::RegisterStore;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;

constexpr uint32_t kIneNumber = 5;
constexpr uint32_t kIneSlot = 20474;

class UdpRouteTest : public UdpTest {
protected:
    // Nothing of the table, the register window, curInstNo or the packet numbers was written.
    void expect_untouched(const Outcome& outcome) {
        EXPECT_EQ(outcome.slot, kNoSlot);
        EXPECT_THAT(outcome.changed, IsEmpty());
        EXPECT_THAT(outcome.stores, IsEmpty());
        EXPECT_EQ(table_->shfe_pktno, -11);
        EXPECT_EQ(table_->ine_pktno, -12);
    }
};

TEST_F(UdpRouteTest, RefusesEveryLengthBelowTheHeader) {
    const wirekit::Bytes whole = message().bytes();
    for (std::size_t len = 0; len < 24; ++len) {
        SCOPED_TRACE(len);
        const Outcome outcome =
            parse(wirekit::Bytes(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(len)));
        EXPECT_EQ(outcome.result, RET_FAILED);
        EXPECT_THAT(outcome.log,
                    ElementsAre("E ExanicUdpFunc _ParseMirp packet length too small: " +
                                std::to_string(len)));
        expect_untouched(outcome);
    }
}

TEST_F(UdpRouteTest, HeaderAloneStampsTheRecord) {
    instrument expected = record();
    expected.type = EXCHANGE_TYPE_SHFE;
    expected.update_time = kTime;
    expected.update_milli_sec = kMillisec;
    expected.change_no = kChangeNo + 1;
    const Outcome outcome = parse(message());
    EXPECT_EQ(outcome.result, RET_TO_CALLBACK);
    EXPECT_EQ(outcome.slot, kSlot);
    EXPECT_THAT(outcome.changed, ElementsAre(kSlot));
    EXPECT_TRUE(same_record(expected, record()));
    EXPECT_THAT(outcome.stores, ElementsAre(RegisterStore{kSnapTimeWord, kTime}));
    EXPECT_EQ(table_->shfe_pktno, kPacketNo);
    EXPECT_EQ(table_->ine_pktno, -12);
    EXPECT_THAT(
        outcome.log,
        ElementsAre("X ExanicUdpFunc _ParseMirp topicID: 0x3e8, snapMillisec: 500, "
                    "snapTime: 93000, packetNo: 4711",
                    "X ExanicUdpFunc _ParseMirp fieldID: 0x3, instrumentNo: 17, changeNo: 8",
                    "X ExanicUdpFunc _ParseMirp snap instrumentID: cu2609, changeNo: 7"));
}

TEST_F(UdpRouteTest, HeaderValuesAreLoggedUnsigned) {
    const Outcome outcome = parse(message()
                                      .topic(0xFFF0)
                                      .time(0xFFFFFFFE, 0xFFFF)
                                      .packet_no(-1)
                                      .field_id(0xFFFD)
                                      .instrument(0xFFFFFFFF)
                                      .change_no(0xFFFFFFFD));
    EXPECT_EQ(outcome.result, RET_FAILED);
    EXPECT_THAT(outcome.log,
                ElementsAre("X ExanicUdpFunc _ParseMirp topicID: 0xfff0, snapMillisec: 65535, "
                            "snapTime: 4294967294, packetNo: 4294967295",
                            "X ExanicUdpFunc _ParseMirp fieldID: 0xfffd, instrumentNo: 4294967295, "
                            "changeNo: 4294967293",
                            "E ExanicUdpFunc _ParseMirp unsupported topicID: 0xfff0"));
    expect_untouched(outcome);
}

TEST_F(UdpRouteTest, TheRecordsChangeNumberIsLoggedSigned) {
    record().change_no = 0xFFFFFFFE;
    const Outcome outcome = parse(message().change_no(0xFFFFFFFF));
    EXPECT_EQ(outcome.result, RET_TO_CALLBACK);
    EXPECT_EQ(record().change_no, 0xFFFFFFFFu);
    EXPECT_THAT(outcome.log,
                Contains("X ExanicUdpFunc _ParseMirp snap instrumentID: cu2609, changeNo: -2"));
}

struct RouteCase {
    const char* name;
    uint16_t topic;
    uint32_t number;
    uint32_t slot; // kNoSlot: out of range
    uint16_t type;
    const char* warning; // when out of range
    const char* why;
};

const RouteCase kRouteCases[] = {
    {"Shfe2psZero", kShfe2psTopic, 0, 0, 0, nullptr, "SHFE counts up from the first slot"},
    {"Shfe4psZero", kShfe4psTopic, 0, 0, 0, nullptr, "both feeds of an exchange share its slots"},
    {"Shfe2psOne", kShfe2psTopic, 1, 1, 0, nullptr, "SHFE counts up"},
    {"Shfe4psMiddle", kShfe4psTopic, 4096, 4096, 0, nullptr, "the INE limit is not SHFE's"},
    {"Shfe2psLast", kShfe2psTopic, 16383, 16383, 0, nullptr, "last of SHFE's 16384 numbers"},
    {"Shfe4psLast", kShfe4psTopic, 16383, 16383, 0, nullptr, "last of SHFE's 16384 numbers"},
    {"Shfe2psBeyond", kShfe2psTopic, 16384, kNoSlot, 0,
     "shfe InstNo [16384] is out of range [16383]", "would be INE's last slot"},
    {"Shfe4psBeyond", kShfe4psTopic, 16384, kNoSlot, 0,
     "shfe InstNo [16384] is out of range [16383]", "would be INE's last slot"},
    {"Shfe2psBeyondTable", kShfe2psTopic, 20480, kNoSlot, 0,
     "shfe InstNo [20480] is out of range [16383]", "behind the table"},
    {"Shfe2psHalf", kShfe2psTopic, 0x80000000, kNoSlot, 0,
     "shfe InstNo [-2147483648] is out of range [16383]", "compared unsigned, printed signed"},
    {"Shfe2psMost", kShfe2psTopic, 0xFFFFFFFF, kNoSlot, 0,
     "shfe InstNo [-1] is out of range [16383]", "compared unsigned, printed signed"},
    {"Ine2psZero", kIne2psTopic, 0, 20479, 1, nullptr, "INE counts down from the last slot"},
    {"Ine4psZero", kIne4psTopic, 0, 20479, 1, nullptr, "both feeds of an exchange share its slots"},
    {"Ine2psOne", kIne2psTopic, 1, 20478, 1, nullptr, "INE counts down"},
    {"Ine2psLast", kIne2psTopic, 4095, 16384, 1, nullptr, "first slot behind SHFE's"},
    {"Ine4psLast", kIne4psTopic, 4095, 16384, 1, nullptr, "first slot behind SHFE's"},
    {"Ine2psBeyond", kIne2psTopic, 4096, kNoSlot, 1, "ine InstNo [4096] is out of range [4095]",
     "would be SHFE's last slot"},
    {"Ine4psBeyond", kIne4psTopic, 4096, kNoSlot, 1, "ine InstNo [4096] is out of range [4095]",
     "would be SHFE's last slot"},
    {"Ine2psWrapping", kIne2psTopic, 20480, kNoSlot, 1, "ine InstNo [20480] is out of range [4095]",
     "20479 - n would wrap"},
    {"Ine2psMost", kIne2psTopic, 0xFFFFFFFF, kNoSlot, 1, "ine InstNo [-1] is out of range [4095]",
     "compared unsigned, printed signed"},
};

TEST_F(UdpRouteTest, TopicAndNumberSelectTheSlot) {
    for (const RouteCase& row : kRouteCases) {
        SCOPED_TRACE(std::string(row.name) + ": " + row.why);
        udp_.shfelogflag = true;
        udp_.inelogflag = true;
        table_->shfe_pktno = -11;
        table_->ine_pktno = -12;
        // Everything is subscribed, so that a message that goes astray shows on some record.
        for (uint32_t slot = 0; slot < INSTRUMENT_SLOT_CNT; ++slot) {
            set_id(record(slot), "cu2609");
            record(slot).change_no = kChangeNo;
        }
        const Outcome outcome = parse(message().topic(row.topic).instrument(row.number));
        if (row.slot == kNoSlot) {
            EXPECT_EQ(outcome.result, RET_OK);
            expect_untouched(outcome);
            EXPECT_THAT(at_levels(outcome, "EWID"),
                        ElementsAre(std::string("W ExanicUdpFunc _ParseMirp ") + row.warning));
            continue;
        }
        EXPECT_EQ(outcome.result, RET_TO_CALLBACK);
        EXPECT_EQ(outcome.slot, row.slot);
        EXPECT_THAT(outcome.changed, ElementsAre(row.slot));
        EXPECT_EQ(record(row.slot).type, row.type);
        EXPECT_EQ(record(row.slot).change_no, kChangeNo + 1);
        EXPECT_EQ(table_->shfe_pktno, row.type == 0 ? kPacketNo : -11);
        EXPECT_EQ(table_->ine_pktno, row.type == 1 ? kPacketNo : -12);
        EXPECT_THAT(outcome.stores, ElementsAre(RegisterStore{kSnapTimeWord, kTime}));
        EXPECT_THAT(at_levels(outcome, "EWID"), IsEmpty());
        EXPECT_TRUE(udp_.shfelogflag);
        EXPECT_TRUE(udp_.inelogflag);
    }
}

TEST_F(UdpRouteTest, WarnsOnceAnExchangeAboutNumbersOutOfRange) {
    const auto shfe = message().instrument(16384);
    const auto ine = message().topic(kIne2psTopic).instrument(4096);
    EXPECT_THAT(
        at_levels(parse(shfe), "EW"),
        ElementsAre("W ExanicUdpFunc _ParseMirp shfe InstNo [16384] is out of range [16383]"));
    const Outcome again = parse(shfe);
    EXPECT_EQ(again.result, RET_OK);
    EXPECT_THAT(at_levels(again, "EWID"), IsEmpty());
    // The other feed of the exchange is silent too, the other exchange has its own warning.
    EXPECT_THAT(at_levels(parse(message().topic(kShfe4psTopic).instrument(30000)), "EWID"),
                IsEmpty());
    EXPECT_THAT(at_levels(parse(ine), "EW"),
                ElementsAre("W ExanicUdpFunc _ParseMirp ine InstNo [4096] is out of range [4095]"));
    EXPECT_THAT(at_levels(parse(ine), "EWID"), IsEmpty());
    EXPECT_THAT(at_levels(parse(message().topic(kIne4psTopic).instrument(9999)), "EWID"),
                IsEmpty());
    // A good message in between does not arm them again.
    EXPECT_EQ(parse(message()).result, RET_TO_CALLBACK);
    EXPECT_THAT(at_levels(parse(shfe), "EWID"), IsEmpty());
    EXPECT_THAT(at_levels(parse(ine), "EWID"), IsEmpty());
}

TEST_F(UdpRouteTest, AWarningThatIsMaskedOutIsSpentAllTheSame) {
    const support::LogCapture silent(LOG_ERROR);
    const auto bytes = message().instrument(16384).bytes();
    wirekit::Bytes copy = bytes;
    EXPECT_EQ(udp_._ParseMirp(reinterpret_cast<char*>(copy.data()), 24), RET_OK);
    EXPECT_FALSE(udp_.shfelogflag);
    EXPECT_TRUE(udp_.inelogflag);
}

struct TopicCase {
    const char* name;
    int16_t shfe2ps, shfe4ps, ine2ps, ine4ps;
    uint16_t topic;
    int exchange; // 0 SHFE, 1 INE, -1 none
    const char* why;
};

const TopicCase kTopicCases[] = {
    {"Zero", 0, 1, 2, 3, 0, 0, "zero is an id like any other"},
    {"Largest", 1, 32767, 2, 3, 32767, 0, "largest id that a configuration can hold"},
    {"NegativeShfe2ps", -5, 1, 2, 3, 0xFFFB, -1, "a negative id equals no 16-bit topic"},
    {"NegativeShfe4ps", 1, -5, 2, 3, 0xFFFB, -1, "a negative id equals no 16-bit topic"},
    {"NegativeIne2ps", 1, 2, -5, 3, 0xFFFB, -1, "a negative id equals no 16-bit topic"},
    {"NegativeIne4ps", 1, 2, 3, -5, 0xFFFB, -1, "a negative id equals no 16-bit topic"},
    {"MostNegative", INT16_MIN, INT16_MIN, INT16_MIN, INT16_MIN, 0x8000, -1, "same bits, no match"},
    {"MinusOne", -1, -1, -1, -1, 0xFFFF, -1, "same bits, no match"},
    {"BothExchanges", 7, 8, 7, 8, 7, 0, "the SHFE ids are tested first"},
    {"BothExchangesCross", 7, 8, 9, 8, 8, 0, "the SHFE ids are tested first"},
    {"Unknown", 1, 2, 3, 4, 5, -1, "no feed of ours"},
    {"HighByte", 1, 2, 3, 4, 0x0101, -1, "all sixteen bits count"},
};

TEST_F(UdpRouteTest, TopicsAreComparedWithTheConfiguredIds) {
    for (const TopicCase& row : kTopicCases) {
        SCOPED_TRACE(std::string(row.name) + ": " + row.why);
        config_.shfe2ps_topic_id = row.shfe2ps;
        config_.shfe4ps_topic_id = row.shfe4ps;
        config_.ine2ps_topic_id = row.ine2ps;
        config_.ine4ps_topic_id = row.ine4ps;
        table_->shfe_pktno = -11;
        table_->ine_pktno = -12;
        subscribe(kSlot, "cu2609");
        subscribe(LAST_SLOT - kNumber, "sc2609");
        const Outcome outcome = parse(message().topic(row.topic));
        if (row.exchange == -1) {
            char text[64];
            std::snprintf(text, sizeof text, "E ExanicUdpFunc _ParseMirp unsupported topicID: 0x%x",
                          row.topic);
            EXPECT_EQ(outcome.result, RET_FAILED);
            EXPECT_THAT(at_levels(outcome, "EWID"), ElementsAre(text));
            expect_untouched(outcome);
        } else {
            EXPECT_EQ(outcome.result, RET_TO_CALLBACK);
            EXPECT_EQ(outcome.slot, row.exchange == 0 ? kSlot : LAST_SLOT - kNumber);
        }
    }
}

TEST_F(UdpRouteTest, UnknownTopicIsJudgedBeforeTheNumber) {
    const Outcome outcome = parse(message().topic(999).instrument(0xFFFFFFFF));
    EXPECT_EQ(outcome.result, RET_FAILED);
    EXPECT_THAT(at_levels(outcome, "EWID"),
                ElementsAre("E ExanicUdpFunc _ParseMirp unsupported topicID: 0x3e7"));
    expect_untouched(outcome);
}

TEST_F(UdpRouteTest, UnsubscribedInstrumentOnlyCountsThePacket) {
    const Outcome outcome =
        parse(message().topic(kIne2psTopic).instrument(kIneNumber).packet_no(-3).highest(1));
    EXPECT_EQ(outcome.result, RET_OK);
    EXPECT_EQ(outcome.slot, kIneSlot);
    EXPECT_THAT(outcome.changed, IsEmpty());
    EXPECT_THAT(outcome.stores, IsEmpty());
    EXPECT_EQ(table_->ine_pktno, -3);
    EXPECT_EQ(table_->shfe_pktno, -11);
    EXPECT_THAT(outcome.log,
                ElementsAre("X ExanicUdpFunc _ParseMirp topicID: 0x1388, snapMillisec: 500, "
                            "snapTime: 93000, packetNo: 4294967293",
                            "X ExanicUdpFunc _ParseMirp fieldID: 0x3, instrumentNo: 5, changeNo: 8",
                            "X ExanicUdpFunc _ParseMirp snap instrumentID: , changeNo: 0",
                            "X ExanicUdpFunc _ParseMirp unsubscribed instrument"));
}

TEST_F(UdpRouteTest, SubscriptionIsTheFirstByteOfTheIdentifierAlone) {
    instrument& inst = record();
    inst.inst_id[0] = 0; // "u2609" behind it stays
    const instrument before = inst;
    const Outcome outcome = parse(message());
    EXPECT_EQ(outcome.result, RET_OK);
    EXPECT_TRUE(same_record(before, inst));
    EXPECT_THAT(outcome.stores, IsEmpty());
    EXPECT_EQ(outcome.slot, kSlot);
    EXPECT_EQ(outcome.log.back(), "X ExanicUdpFunc _ParseMirp unsubscribed instrument");
    inst.inst_id[0] = ' '; // a blank subscribes here
    EXPECT_EQ(parse(message()).result, RET_TO_CALLBACK);
}

TEST_F(UdpRouteTest, UnsubscribedIdentifierWithASeventhCharacterIsSaidToBeAnOption) {
    for (const int options : {0, 1}) {
        SCOPED_TRACE(options);
        config_.options = static_cast<int8_t>(options);
        subscribe(kSlot, "cu2609C50000");
        record().inst_id[0] = 0;
        const Outcome outcome = parse(message());
        EXPECT_EQ(outcome.result, RET_OK);
        EXPECT_THAT(outcome.changed, IsEmpty());
        EXPECT_THAT(outcome.stores, IsEmpty());
        ASSERT_EQ(outcome.log.size(), 5u);
        EXPECT_EQ(outcome.log[3], "X ExanicUdpFunc _ParseMirp unsubscribed instrument");
        EXPECT_EQ(outcome.log[4],
                  "X ExanicUdpFunc _ParseMirp do not handle options, instrumentID: ");
    }
}

struct OptionCase {
    const char* name;
    int8_t options;
    const char* inst_id;
    bool handled;
    const char* why;
};

const OptionCase kOptionCases[] = {
    {"FutureWithoutOptions", 0, "cu2609", true, "six characters are a future"},
    {"ShortWithoutOptions", 0, "cu", true, "fewer than seven characters"},
    {"SevenWithoutOptions", 0, "cu2609C", false, "the seventh character makes an option"},
    {"OptionWithoutOptions", 0, "cu2609C50000", false, "an option"},
    {"LongestWithoutOptions", 0, "cu2609C50000abc", false, "fifteen characters"},
    {"TasWithoutOptions", 0, "cu2609TAS", false, "TAS is exempt from the book check only"},
    {"FutureWithOptions", 1, "cu2609", true, "everything is handled"},
    {"OptionWithOptions", 1, "cu2609C50000", true, "everything is handled"},
    {"OptionWithOtherValue", 2, "cu2609C50000", true, "any value but zero"},
    {"OptionWithNegativeValue", -1, "cu2609C50000", true, "any value but zero"},
};

TEST_F(UdpRouteTest, OptionsAreHandledOnlyWhenConfigured) {
    for (const OptionCase& row : kOptionCases) {
        SCOPED_TRACE(std::string(row.name) + ": " + row.why);
        config_.options = row.options;
        subscribe(kSlot, row.inst_id);
        table_->shfe_pktno = -11;
        const Outcome outcome = parse(message());
        EXPECT_EQ(table_->shfe_pktno, kPacketNo);
        EXPECT_EQ(outcome.slot, kSlot);
        if (row.handled) {
            EXPECT_EQ(outcome.result, RET_TO_CALLBACK);
            EXPECT_THAT(outcome.changed, ElementsAre(kSlot));
            continue;
        }
        EXPECT_EQ(outcome.result, RET_OK);
        EXPECT_THAT(outcome.changed, IsEmpty());
        EXPECT_THAT(outcome.stores, IsEmpty());
        EXPECT_EQ(outcome.log.back(),
                  std::string("X ExanicUdpFunc _ParseMirp do not handle options, instrumentID: ") +
                      row.inst_id);
        EXPECT_THAT(outcome.log,
                    Not(Contains("X ExanicUdpFunc _ParseMirp unsubscribed instrument")));
    }
}

TEST_F(UdpRouteTest, AnyOtherHeaderFieldReportsTheRecordButAppliesNothing) {
    for (const int field_id : {0, 1, 2, 4, 0x1001, 0x8003, 0xFFFF, 0x0300, 0x0103}) {
        SCOPED_TRACE(field_id);
        instrument expected = subscribe(kSlot, "cu2609");
        expected.type = EXCHANGE_TYPE_SHFE;
        // Neither a gap nor a bad book nor a field is looked at.
        record().bid_px[1] = expected.bid_px[1] = 500.0;
        const Outcome outcome = parse(message()
                                          .field_id(static_cast<uint16_t>(field_id))
                                          .change_no(kChangeNo + 50)
                                          .packet_no(99)
                                          .highest(1)
                                          .raw(wirekit::Bytes(5, 0xEE)));
        EXPECT_EQ(outcome.result, RET_TO_CALLBACK);
        EXPECT_EQ(outcome.slot, kSlot);
        EXPECT_TRUE(same_record(expected, record()));
        EXPECT_THAT(outcome.stores, ElementsAre(RegisterStore{kSnapTimeWord, kTime}));
        EXPECT_EQ(table_->shfe_pktno, 99);
        EXPECT_EQ(outcome.log.size(), 3u); // header, header, record
    }
}

TEST_F(UdpRouteTest, OtherHeaderFieldOfAnIneInstrumentWritesItsExchange) {
    subscribe(kIneSlot, "sc2609");
    instrument expected = record(kIneSlot);
    expected.type = EXCHANGE_TYPE_INE;
    const Outcome outcome =
        parse(message().topic(kIne4psTopic).instrument(kIneNumber).field_id(2).time(5, 6));
    EXPECT_EQ(outcome.result, RET_TO_CALLBACK);
    EXPECT_TRUE(same_record(expected, record(kIneSlot)));
    EXPECT_THAT(outcome.stores, ElementsAre(RegisterStore{kSnapTimeWord, 5}));
}

// The identifier's sixteen bytes are all there is: behind them lies the last price, here one that
// reads as text.
TEST_F(UdpRouteTest, AnIdentifierWithoutTerminatorEndsAtItsField) {
    const std::string id = "cu2609C500000000";
    const auto renew = [&] {
        subscribe(kSlot, id);
        std::memcpy(&record().last_px, "TAS.TAS", 8);
    };
    renew();
    record().bid_px[1] = 500.0; // a bad book, so that the exemption would show
    const Outcome bid = parse(message());
    EXPECT_EQ(bid.result, RET_OK);
    EXPECT_THAT(bid.log,
                Contains("X ExanicUdpFunc _ParseMirp snap instrumentID: " + id + ", changeNo: 7"));
    EXPECT_EQ(bid.log.back(), "X ExanicUdpFunc _ParseMirp bad mirp bid: bid[0]=100.00 <= "
                              "bid[1]=500.00, inst=" +
                                  id + ", restore");
    renew();
    record().ask_px[1] = 1.0;
    EXPECT_EQ(parse(message()).log.back(), "X ExanicUdpFunc _ParseMirp bad mirp ask: "
                                           "ask[0]=101.00 >= ask[1]=1.00, inst=" +
                                               id + ", restore");
    renew();
    record().bid_px[0] = 101.0;
    EXPECT_EQ(parse(message()).log.back(), "X ExanicUdpFunc _ParseMirp bad mirp crossed: "
                                           "bid1=101.00 >= ask1=101.00, inst=" +
                                               id + ", restore");
    renew();
    EXPECT_EQ(parse(message().erase(wirekit::Side::kBid, 0)).log.back(),
              "E ExanicUdpFunc _ParseMirp invalid priceLevel: 0, instrumentID: " + id);
    renew();
    EXPECT_EQ(parse(message().change_no(kChangeNo + 2)).log.back(),
              "E ExanicUdpFunc _ParseMirp discontinuous changeNo: 9, expected changeNo: 8, "
              "instrumentID: " +
                  id + ", instrumentNo: 17, instrumentNo: 17");
    config_.options = 0;
    renew();
    EXPECT_EQ(parse(message()).log.back(),
              "X ExanicUdpFunc _ParseMirp do not handle options, instrumentID: " + id);
}

TEST_F(UdpRouteTest, WritesTheSnapshotTimeAsDelivered) {
    for (const uint32_t time : {0u, 1u, 0x80000000u, 0xFFFFFFFFu}) {
        subscribe(kSlot, "cu2609");
        const Outcome outcome = parse(message().time(time, 65535));
        EXPECT_EQ(outcome.result, RET_TO_CALLBACK);
        EXPECT_THAT(outcome.stores, ElementsAre(RegisterStore{kSnapTimeWord, time}));
        EXPECT_EQ(record().update_time, time);
        EXPECT_EQ(record().update_milli_sec, 65535u);
    }
}

} // namespace
} // namespace udp_test
