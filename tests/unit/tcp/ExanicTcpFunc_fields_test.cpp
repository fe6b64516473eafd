// The four records of an instrument: every value that they carry and where it goes.

#include "tests/unit/tcp/segment_script.h"

#include <cmath>
#include <cstring>

namespace tcp_test {
namespace {

using wirekit::DealInfo;
using wirekit::InstInfo;
using wirekit::kNoValue;
using wirekit::mdqp_message;

class RecordFields : public SnapshotChannel {
protected:
    // Two slots with a pattern in every byte, so that an untouched one can be told.
    RecordFields() {
        for (const int index : {12, 20479 - 12}) {
            std::memset(static_cast<void*>(&slot(index)), 0x41, sizeof(instrument));
            wirekit::put_text(slot(index).inst_id, 16, "cu2601");
            calc->priceTick[index] = calc->codecPrice[index] = 41;
            calc->volumeMulti[index] = 41;
            core->inter_infos[index] = {41, 41};
        }
        before_ = state();
    }

    // The slot's record is as expected and nothing else in the channel has changed.
    void expect_record(int index, const instrument& expected) {
        EXPECT_EQ(std::memcmp(&slot(index), &expected, sizeof(instrument)), 0);
        slot(index) = original(index);
        EXPECT_EQ(difference(before_), "");
    }
    instrument original(int index) const {
        instrument record;
        std::memcpy(&record,
                    before_.table.data() + static_cast<std::size_t>(index) * sizeof(record),
                    sizeof(record));
        return record;
    }

    static DealInfo distinct_deal() {
        return {.inst_no = 12,
                .last_price = 1.5,
                .volume = 2,
                .turnover = 3.5,
                .open_interest = 4.5,
                .highest_price = 5.5,
                .lowest_price = 6.5,
                .open_price = 7.5,
                .close_price = 8.5,
                .settlement_price = 9.5,
                .upper_limit_price = 10.5,
                .lower_limit_price = 11.5,
                .pre_settlement_price = 12.5,
                .pre_close_price = 13.5,
                .pre_open_interest = 14.5,
                .pre_delta = 15.5,
                .curr_delta = 16.5,
                .action_day = "20260818",
                .update_time = "10:04:05",
                .update_mill_sec = 17,
                .change_no = 18};
    }

    ChannelState before_;
};

TEST_F(RecordFields, ADealFillsItsRecordAndTheLimits) {
    const struct {
        EMdqpDataType type;
        int slot;
    } rows[] = {{SHFE_2PS, 12}, {SHFE_4PS, 12}, {INE_2PS, 20467}, {INE_4PS, 20467}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.type);
        parse_as(row.type, mdqp_message().deal(distinct_deal()).bytes());
        session().em_dqp_data_type = MDQP_DATA_TYPE_UNKNOW;
        instrument expected = original(row.slot);
        expected.last_px = 1.5;
        expected.volume = 2;
        expected.turnover = 3.5;
        expected.open_interest = 4.5;
        expected.highest_price = 5.5;
        expected.lowest_price = 6.5;
        expected.update_milli_sec = 17;
        expected.change_no = 18;
        EXPECT_EQ(core->inter_infos[row.slot].upper_limit_price, 10.5);
        EXPECT_EQ(core->inter_infos[row.slot].lower_limit_price, 11.5);
        core->inter_infos[row.slot] = {41, 41};
        expect_record(row.slot, expected);
    }
}

TEST_F(RecordFields, IntegersOfADealKeepTheirBits) {
    DealInfo deal{
        .inst_no = 12, .volume = -1, .update_mill_sec = 0x12345, .change_no = -2147483647};
    parse_as(SHFE_2PS, mdqp_message().deal(deal).bytes());
    EXPECT_EQ(slot(12).volume, 4294967295u);
    EXPECT_EQ(slot(12).update_milli_sec, 0x2345u); // the low 16 bits
    EXPECT_EQ(slot(12).change_no, 2147483649u);
}

TEST_F(RecordFields, NoValueIsReplacedWhereTheTableSaysSo) {
    const struct {
        const char* name;
        double DealInfo::*field;
        bool replaced;
        std::function<double()> stored;
    } rows[] = {
        {"LastPrice", &DealInfo::last_price, true, [&] { return slot(12).last_px; }},
        {"Turnover", &DealInfo::turnover, true, [&] { return slot(12).turnover; }},
        {"OpenInterest", &DealInfo::open_interest, false, [&] { return slot(12).open_interest; }},
        {"Highest", &DealInfo::highest_price, true, [&] { return slot(12).highest_price; }},
        {"Lowest", &DealInfo::lowest_price, true, [&] { return slot(12).lowest_price; }},
        {"Upper", &DealInfo::upper_limit_price, true,
         [&] { return core->inter_infos[12].upper_limit_price; }},
        {"Lower", &DealInfo::lower_limit_price, true,
         [&] { return core->inter_infos[12].lower_limit_price; }},
    };
    const double values[] = {kNoValue, -kNoValue, std::nextafter(kNoValue, 0.0),
                             INFINITY, -0.0,      7.25};
    for (const auto& row : rows) {
        for (const double value : values) {
            SCOPED_TRACE(row.name);
            DealInfo deal = distinct_deal();
            deal.*row.field = value;
            parse_as(SHFE_2PS, mdqp_message().deal(deal).bytes());
            const double expected = value == kNoValue && row.replaced ? 0.0 : value;
            EXPECT_EQ(std::signbit(row.stored()), std::signbit(expected));
            EXPECT_EQ(row.stored(), expected);
        }
    }
}

TEST_F(RecordFields, OrderTotalsAreCopiedAsTheyCome) {
    parse_as(SHFE_2PS, mdqp_message().order_totals(12, -1, kNoValue, 2147483647, -2.5).bytes());
    session().em_dqp_data_type = MDQP_DATA_TYPE_UNKNOW;
    instrument expected = original(12);
    expected.bid_totvol = -1;
    expected.bid_totamount = kNoValue; // no value is stored as it is here
    expected.ask_totvol = 2147483647;
    expected.ask_totamount = -2.5;
    expect_record(12, expected);

    EXPECT_EQ(
        logged([&] { parse_as(INE_4PS, mdqp_message().order_totals(12, 1, 2.5, 3, 4.5).bytes()); },
               "EWID"),
        Log{});
    session().em_dqp_data_type = MDQP_DATA_TYPE_UNKNOW;
    expected = original(20467);
    expected.bid_totvol = 1;
    expected.bid_totamount = 2.5;
    expected.ask_totvol = 3;
    expected.ask_totamount = 4.5;
    expect_record(20467, expected);
}

TEST_F(RecordFields, AnEntryWritesIdentifierAndScaling) {
    const InstInfo info{.inst_id = "sc2612",
                        .underlying_inst_id = "sc",
                        .product_class = '9',
                        .strike_price = 101.5,
                        .options_type = '8',
                        .volume_multiple = -1000,
                        .underlying_multiple = 102.5,
                        .is_trading = 103,
                        .currency_id = "USD",
                        .price_tick = 0.1,
                        .codec_price = 571.3,
                        .inst_no = 12};
    const struct {
        EMdqpDataType type;
        int slot;
    } rows[] = {{SHFE_2PS, 12}, {SHFE_4PS, 12}, {INE_2PS, 20467}, {INE_4PS, 20467}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.type);
        parse_as(row.type, mdqp_message().inst(info).bytes());
        session().em_dqp_data_type = MDQP_DATA_TYPE_UNKNOW;
        EXPECT_EQ(calc->priceTick[row.slot], 0.1);
        EXPECT_EQ(calc->codecPrice[row.slot], 571.3);
        EXPECT_EQ(calc->volumeMulti[row.slot], -1000);
        calc->priceTick[row.slot] = calc->codecPrice[row.slot] = 41;
        calc->volumeMulti[row.slot] = 41;
        table->shfe_inst_cnt = table->ine_inst_cnt = 0;
        instrument expected = original(row.slot);
        std::memcpy(expected.inst_id, "sc2612\0\0\0\0\0\0\0\0\0", 15);
        expect_record(row.slot, expected);
    }
}

TEST_F(RecordFields, NoValueOfTheScalingIsReplacedForTheCodecPriceOnly) {
    parse_as(
        SHFE_2PS,
        mdqp_message()
            .inst({.inst_id = "a", .price_tick = kNoValue, .codec_price = kNoValue, .inst_no = 1})
            .bytes());
    EXPECT_EQ(calc->priceTick[1], kNoValue);
    EXPECT_EQ(calc->codecPrice[1], 0.0);
    parse_as(SHFE_2PS,
             mdqp_message()
                 .inst({.inst_id = "a", .price_tick = 1, .codec_price = -kNoValue, .inst_no = 1})
                 .bytes());
    EXPECT_EQ(calc->codecPrice[1], -kNoValue);
}

TEST_F(RecordFields, AtMost15CharactersOfAnIdentifierAreKept) {
    slot(12).inst_id[15] = 0xEE; // not written
    const struct {
        const char* inst_id;
        const char* kept;
    } rows[] = {{"a", "a"},
                {"ab1234567890cd", "ab1234567890cd"},
                {"ab1234567890cde", "ab1234567890cde"},
                {"ab1234567890cdef", "ab1234567890cde"},
                {"ab1234567890cdefghijklmnopqrst", "ab1234567890cde"}};
    for (const auto& row : rows) {
        parse_as(SHFE_2PS, mdqp_message().inst({.inst_id = row.inst_id, .inst_no = 12}).bytes());
        unsigned char expected[16] = {};
        std::memcpy(expected, row.kept, std::strlen(row.kept));
        expected[15] = 0xEE;
        EXPECT_EQ(std::memcmp(slot(12).inst_id, expected, 16), 0) << row.inst_id;
    }
}

TEST_F(RecordFields, AnIdentifierWithoutAnEndStopsAtItsField) {
    auto message = mdqp_message();
    message.inst({.inst_no = 12});
    Bytes bytes = message.bytes();
    std::fill(bytes.begin() + 12, bytes.begin() + 12 + 31, 'Q');
    bytes[12 + 31] = 'R'; // the next field of the record
    const Log log = logged([&] { parse_as(SHFE_2PS, bytes); }, "X");
    EXPECT_EQ(at(log, 2), line('X', "_ParseMdqp",
                               "inst_id: " + std::string(31, 'Q') +
                                   ", inst_no: 12, vol_multi: 1, price_tick: "
                                   "1.000000, codec_price: 0.000000"));
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(slot(12).inst_id), 15),
              std::string(15, 'Q'));
    EXPECT_EQ(slot(12).inst_id[15], 0);
}

TEST_F(RecordFields, ATimeWithoutAnEndStopsAtItsField) {
    Bytes bytes = mdqp_message().deal(distinct_deal()).bytes();
    std::fill(bytes.begin() + 12 + 137, bytes.begin() + 12 + 146, 'T');
    bytes[12 + 146] = 'U'; // milliseconds
    const Log log = logged([&] { parse_as(SHFE_2PS, bytes); }, "X");
    EXPECT_EQ(last(log),
              line('X', "_ParseMdqp",
                   "last_price: 1.500000, volume: 2, turnover: 3.500000, open_interest: 4.500000, "
                   "change_no: 18, update_time: TTTTTTTTT, update_mill_sec: 85"));
}

TEST_F(RecordFields, UnsubscribedInstrumentsAreLeftAlone) {
    for (const char* const inst_id : {"", " cu2601"}) { // a blank in front counts as none
        std::memset(slot(12).inst_id, 0, 16);
        wirekit::put_text(slot(12).inst_id, 16, inst_id);
        const instrument expected = slot(12);
        const Log log = logged(
            [&] {
                parse_as(SHFE_2PS, mdqp_message()
                                       .deal(distinct_deal())
                                       .order_totals(12, 1, 1, 1, 1)
                                       .price(12, '0', 1, 1)
                                       .bytes());
            },
            "X");
        EXPECT_EQ(last(log), line('X', "_ParseMdqp", "skip unsubscribed inst, instNo : 12"));
        EXPECT_EQ(log.size(), 1u + 3u + 1u); // header, three fields, and no word about the others
        EXPECT_EQ(std::memcmp(&slot(12), &expected, sizeof(expected)), 0);
        EXPECT_EQ(core->inter_infos[12].upper_limit_price, 41);
        EXPECT_EQ(core->inter_infos[12].lower_limit_price, 41);
    }
    // The line names the slot, not the number.
    EXPECT_EQ(last(logged([&] { parse_as(INE_2PS, mdqp_message().price(3, '0', 1, 1).bytes()); })),
              line('X', "_ParseMdqp", "skip unsubscribed inst, instNo : 20476"));
}

TEST_F(RecordFields, EveryFirstByteOfAnIdentifierButTwoMeansSubscribed) {
    for (int byte = 0; byte < 256; ++byte) {
        slot(100).inst_id[0] = static_cast<unsigned char>(byte);
        slot(100).inst_id[1] = 'x';
        EXPECT_EQ(core->_IsSubscribed(100), byte != 0 && byte != ' ') << byte;
    }
}

} // namespace
} // namespace tcp_test
