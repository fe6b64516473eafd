// Instrument numbers: which are accepted for which exchange, and what a negative one may touch.

#include "tests/support/scripted_card.h"
#include "tests/unit/tcp/segment_script.h"

#include <limits>

namespace tcp_test {
namespace {

using wirekit::mdqp_message;

constexpr int32_t kLowest = std::numeric_limits<int32_t>::min();
constexpr int32_t kHighest = std::numeric_limits<int32_t>::max();

class NumberGuard : public SnapshotChannel {
protected:
    bool accepts(EMdqpDataType type, int number) { return core->_ProtectInstNo(type, number); }
    static std::string exceed(int64_t number, int limit) {
        return line('W', "_ProtectInstNo",
                    "instrument No [" + std::to_string(number) + "] exceed limit " +
                        std::to_string(limit));
    }
    // Every record of an instrument under one number; all of them are decoded.
    static Bytes all_records(int32_t number) {
        auto message = mdqp_message();
        message.inst({.inst_id = "cu2601",
                      .volume_multiple = 5,
                      .price_tick = 5,
                      .codec_price = 5,
                      .inst_no = number});
        message.deal({.inst_no = number, .last_price = 5, .upper_limit_price = 5, .change_no = 5});
        message.price(number, '0', 5, 5).price(number, '1', 6, 6);
        return message.order_totals(number, 5, 5, 5, 5).bytes();
    }
};

TEST_F(NumberGuard, AcceptsEachExchangesRange) {
    const struct {
        const char* name;
        EMdqpDataType type;
        int number;
        bool accepted;
        const char* why;
    } rows[] = {
        {"ShfeZero", SHFE_2PS, 0, true, "first"},
        {"ShfeLast", SHFE_2PS, 16383, true, "last entry of the card's table"},
        {"ShfeBeyond", SHFE_2PS, 16384, false, "belongs to the other exchange's slots"},
        {"ShfeHighest", SHFE_2PS, kHighest, false, "far beyond"},
        {"ShfeMinusOne", SHFE_2PS, -1, true, "the comparison is signed"},
        {"ShfeLowest", SHFE_2PS, kLowest, true, "the comparison is signed"},
        {"Shfe4psLast", SHFE_4PS, 16383, true, "as 2PS"},
        {"Shfe4psBeyond", SHFE_4PS, 16384, false, "as 2PS"},
        {"IneZero", INE_2PS, 0, true, "first"},
        {"IneLast", INE_2PS, 4095, true, "last entry of the card's table"},
        {"IneBeyond", INE_2PS, 4096, false, "would reach into SHFE's slots"},
        {"IneMinusOne", INE_2PS, -1, true, "the comparison is signed"},
        {"IneLowest", INE_2PS, kLowest, true, "the comparison is signed"},
        {"Ine4psLast", INE_4PS, 4095, true, "as 2PS"},
        {"Ine4psBeyond", INE_4PS, 4096, false, "as 2PS"},
        {"UnknownZero", MDQP_DATA_TYPE_UNKNOW, 0, false, "no exchange, no range"},
        {"UnknownMinusOne", MDQP_DATA_TYPE_UNKNOW, -1, false, "no exchange, no range"},
        {"NoSuchType", static_cast<EMdqpDataType>(4), 0, false, "no exchange, no range"},
        {"NegativeType", static_cast<EMdqpDataType>(-2), 0, false, "no exchange, no range"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(std::string(row.name) + ": " + row.why);
        EXPECT_EQ(accepts(row.type, row.number), row.accepted);
    }
}

TEST_F(NumberGuard, WarnsOncePerExchange) {
    EXPECT_EQ(logged([&] { accepts(SHFE_2PS, 16384); }), Log{exceed(16384, 16383)});
    EXPECT_EQ(logged([&] {
                  accepts(SHFE_2PS, 16385);
                  accepts(SHFE_4PS, 20000);
                  accepts(MDQP_DATA_TYPE_UNKNOW, 20000);
              }),
              Log{});
    EXPECT_EQ(logged([&] { accepts(INE_4PS, 4096); }), Log{exceed(4096, 4095)});
    EXPECT_EQ(logged([&] { accepts(INE_2PS, kHighest); }), Log{});
    EXPECT_FALSE(core->shfe_cnt_flag);
    EXPECT_FALSE(core->ine_cnt_flag);
    EXPECT_TRUE(core->shfe_cnt_80_flag);
    EXPECT_TRUE(core->ine_cnt_80_flag);
}

TEST_F(NumberGuard, ARejectedNumberSkipsTheFieldWhateverItIs) {
    for (const EMdqpDataType type : {SHFE_2PS, INE_2PS}) {
        const int32_t number = type == SHFE_2PS ? 16384 : 4096;
        const int32_t limit = number - 1;
        // The slots that the number would land in are subscribed.
        subscribe(type == SHFE_2PS ? number : 20479 - number, "cu2601");
        session().em_dqp_data_type = type;
        const ChannelState before = state();
        EXPECT_EQ(logged([&] { parse(all_records(number)); }, "EWID"), Log{exceed(number, limit)});
        bool& flag = type == SHFE_2PS ? core->shfe_cnt_flag : core->ine_cnt_flag;
        EXPECT_FALSE(flag);
        flag = true;
        EXPECT_EQ(difference(before), "");
        for (const uint32_t word : {1792u, 1793u, 1796u, 1797u}) {
            EXPECT_EQ(registers[word], 0u);
        }
    }
}

TEST_F(NumberGuard, EveryKindOfFieldGoesThroughIt) {
    auto entry = mdqp_message().inst({.inst_id = "x", .inst_no = 4096});
    auto deal = mdqp_message().deal({.inst_no = 4096});
    auto price = mdqp_message().price(4096, '0', 1, 1);
    auto totals = mdqp_message().order_totals(4096, 1, 1, 1, 1);
    for (auto* message : {&entry, &deal, &price, &totals}) {
        core->ine_cnt_flag = true;
        EXPECT_EQ(logged([&] { parse_as(INE_2PS, message->bytes()); }, "EWID"),
                  Log{exceed(4096, 4095)});
    }
}

TEST_F(NumberGuard, NegativeNumbersTouchNothing) {
    auto& card = support::ScriptedCard::instance();
    card.reset(); // records register stores
    core->InitTcp(card.registers(), nullptr);
    for (int index = 0; index < 20480; ++index) {
        subscribe(index, "cu2601"); // whatever slot it were, it would take the data
    }
    table->shfe_inst_cnt = table->ine_inst_cnt = 0;
    for (const EMdqpDataType type : {SHFE_2PS, SHFE_4PS, INE_2PS, INE_4PS}) {
        for (const int32_t number : {-1, -2, -4096, -16384, -20479, -20480, -20481, kLowest,
                                     kLowest + 1, kLowest + 20479, kLowest + 20480}) {
            SCOPED_TRACE(std::to_string(type) + " " + std::to_string(number));
            session().em_dqp_data_type = type;
            const ChannelState before = state();
            EXPECT_EQ(logged([&] { parse(all_records(number)); }, "EWID"), Log{});
            EXPECT_EQ(difference(before), "");
            EXPECT_EQ(card.stores().size(), 0u);
        }
    }
    card.reset();
}

TEST_F(NumberGuard, NegativeNumbersAreSkippedWithoutALineOfTheirOwn) {
    // What is said of every field, and of every entry, before its number is looked at.
    const Log log = logged([&] { parse_as(INE_2PS, all_records(-1)); });
    EXPECT_EQ(log.size(), 1u + 5u + 1u);
    EXPECT_EQ(at(log, 2), line('X', "_ParseMdqp",
                               "inst_id: cu2601, inst_no: -1, vol_multi: 5, price_tick: 5.000000, "
                               "codec_price: 5.000000"));
    EXPECT_EQ(only(log, "skip unsubscribed"), Log{});
}

TEST_F(NumberGuard, ANegativeNumberStillCountsAsThePreviousField) {
    subscribe(3, "cu2601");
    slot(3).bid_px[4] = 9;
    auto message = mdqp_message();
    message.price(-1, '0', 1, 1).price(3, '0', 100, 7);
    parse_as(SHFE_2PS, message.bytes());
    EXPECT_EQ(slot(3).bid_px[0], 100);
    EXPECT_EQ(slot(3).bid_px[4], 9); // the book was not reset
}

TEST_F(NumberGuard, SlotsOfBothExchangesMeetWithoutOverlap) {
    auto shfe = mdqp_message();
    shfe.inst({.inst_id = "first", .inst_no = 0}).inst({.inst_id = "last", .inst_no = 16383});
    auto ine = mdqp_message();
    ine.inst({.inst_id = "ifirst", .inst_no = 0}).inst({.inst_id = "ilast", .inst_no = 4095});
    parse_as(SHFE_2PS, shfe.bytes());
    parse_as(INE_2PS, ine.bytes());
    EXPECT_STREQ(reinterpret_cast<char*>(slot(0).inst_id), "first");
    EXPECT_STREQ(reinterpret_cast<char*>(slot(16383).inst_id), "last");
    EXPECT_STREQ(reinterpret_cast<char*>(slot(16384).inst_id), "ilast");
    EXPECT_STREQ(reinterpret_cast<char*>(slot(20479).inst_id), "ifirst");
    EXPECT_EQ(table->shfe_inst_cnt, 16384);
    EXPECT_EQ(table->ine_inst_cnt, 4096);
}

} // namespace
} // namespace tcp_test
