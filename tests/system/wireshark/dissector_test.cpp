// Names, values and filters.

#include "dissection.h"

#include "wirekit/ethernet.h"
#include "wirekit/mdqp.h"
#include "wirekit/mirp.h"

#include <gtest/gtest.h>

using wirekit::Bytes;
using wirekit::decode_buffer;
using wirekit::mdqp_message;
using wirekit::Side;
using wireshark_test::Dissection;

namespace {

using Frames = std::vector<int>;
using Texts = std::vector<std::string>;

Bytes dictionary() {
    return mdqp_message(wirekit::kFlagMore)
        .snap(1000, 7)
        .inst({.inst_id = "cu2603",
               .volume_multiple = 5,
               .price_tick = 10,
               .codec_price = 70000,
               .inst_no = 17})
        .inst({.inst_id = "cu2603C70000",
               .underlying_inst_id = "cu2603",
               .product_class = '2',
               .strike_price = 70000,
               .codec_price = wirekit::kNoValue,
               .inst_no = 18})
        .packet_no(3)
        .bytes();
}

Bytes values() {
    return mdqp_message(wirekit::kFlagMore)
        .deal({.inst_no = 17,
               .last_price = 70010,
               .volume = 3,
               .turnover = 1050150,
               .open_interest = 12,
               .highest_price = 70020,
               .lowest_price = 69990,
               .open_price = wirekit::kNoValue,
               .upper_limit_price = 77000,
               .lower_limit_price = 63000,
               .action_day = "20260115",
               .update_time = "09:00:01",
               .update_mill_sec = 500,
               .change_no = 4})
        .price(17, '0', 70000, 5)
        .price(17, '1', 70010.5, 6)
        .order_totals(17, 11, 22.5, 33, 44.5)
        .packet_no(4)
        .bytes();
}

Bytes end_of_snapshot() {
    return mdqp_message(wirekit::kFlagLast).packet_no(5).bytes();
}

// 1 change before the dictionary, 2 dictionary, 3 values, 4 end, 5 change of everything, 6 another
// instrument of the other exchange with the same number
void fill(Dissection& dissection) {
    dissection.line_a(decode_buffer().instrument(17).change_no(4).highest(1).bytes());
    dissection.segment(dictionary());
    dissection.segment(values());
    dissection.segment(end_of_snapshot());
    dissection.line_a(decode_buffer()
                          .time(93000, 250)
                          .packet_no(77)
                          .instrument(17)
                          .change_no(5)
                          .insert(Side::kBid, 1, 12, 5)
                          .erase(Side::kAsk, 2)
                          .deal(3, 2, 7, -1)
                          .highest(30)
                          .lowest(-1)
                          .bid_totals(1, 2)
                          .ask_totals(-3, 4)
                          .bytes());
    dissection.line_a(decode_buffer().topic(5000).instrument(17).change_no(1).bytes());
}

struct FilterCase {
    const char* filter;
    Frames frames;
};

TEST(Dissector, FiltersFindTheirFrames) {
    Dissection dissection;
    fill(dissection);
    const FilterCase cases[] = {
        {"vorn", {1, 2, 3, 4, 5, 6}},
        {"vorn.change_no == 5", {5}},
        {"vorn.change_no == 4", {1, 3}},
        {"vorn.inst_no == 17", {1, 2, 3, 5, 6}},
        {"vorn.inst_no == 18", {2}},
        {"vorn.topic == 1000", {1, 2, 5}},
        {"vorn.exchange == \"INE\"", {6}},
        {"vorn.inst_id == \"cu2603\"", {2, 3, 5}},
        {"vorn.mdqp.flag == 0x01", {4}},
        {"vorn.snap_no == 7", {2}},
        {"vorn.packet_no == 77", {5}},
        {"vorn.field_id == 0x0104", {3}},
        {"vorn.last_price > 70000", {3}},
        {"vorn.side == 1 && vorn.event == 3", {5}},
        {"vorn.level == 2", {5}},
        {"vorn.price_offset < 0", {5}},
        {"vorn.time == 93000 && vorn.time_ms == 250", {5}},
        {"vorn.strike_price == 70000", {2}},
        {"vorn.unknown_field || vorn.truncated || vorn.gap || vorn.bad_value", {}},
        {"_ws.malformed", {}},
    };
    for (const FilterCase& row : cases) {
        EXPECT_EQ(dissection.frames(row.filter), row.frames) << row.filter;
    }
}

TEST(Dissector, InfoNamesInstrumentAndChange) {
    Dissection dissection;
    fill(dissection);
    EXPECT_EQ(dissection.info(),
              (Texts{"SHFE 17 change 4: high", // the dictionary has not come yet
                     "SHFE snapshot 7, 2 instruments", "SHFE cu2603 (17) change 4, 2 levels",
                     "SHFE end of snapshot",
                     "SHFE cu2603 (17) change 5: insert bid 1, delete ask 2, deal, high, low, bid "
                     "totals, ask totals",
                     "INE 17 change 1"}));
    // With a second pass the dictionary is known from the first frame on.
    EXPECT_EQ(dissection.info({"-2"}).front(), "SHFE cu2603 (17) change 4: high");
}

TEST(Dissector, EveryFieldHasItsNameUnitAndValue) {
    Dissection dissection;
    fill(dissection);
    const std::string tree = dissection.tree();
    for (const char* line :
         {"Flag: more messages follow (0x11)", "Message type: snapshot (0x32)",
          "Body length (bytes): 250", "Request id: 0", "Snapshot start: SHFE, number 7",
          "Topic: 1000", "Snapshot number: 7", "Instrument: cu2603C70000 (18)",
          "Underlying instrument: cu2603", "Product class: 2", "Strike price (currency): 70000",
          "Volume multiple (units per lot): 5", "Price tick (currency): 10",
          "Codec price (currency): 70000", "Codec price (currency): no value", "Currency: CNY",
          "Last price (currency): 70010", "Volume (lots): 3", "Turnover (currency): 1050150",
          "Open interest (lots): 12", "Highest price (currency): 70020",
          "Lowest price (currency): 69990", "Open price (currency): no value",
          "Upper limit price (currency): 77000", "Lower limit price (currency): 63000",
          "Day: 20260115", "Update time: 09:00:01", "Update time, milliseconds (ms): 500",
          "Change number: 4", "Direction: 0 (buy)", "Direction: 1 (sell)",
          "Price (currency): 70010.5", "Bid volume, total (lots): 11",
          "Bid amount, total (currency): 22.5", "Ask volume, total (lots): 33",
          "Ask amount, total (currency): 44.5", "Kind of buffer: 3",
          "Update time (as delivered): 93000", "Side: bid (0)", "Event: delete (3)",
          "Level (1 is best): 1", "Price offset (ticks from the codec price): 12",
          "[Price (currency): 70120]", "Volume of the level (lots): 5", "Volume change (lots): 2",
          "Amount offset (lots times ticks): 7", "Open interest change (lots): -1",
          // (2 * 70000 + 7 * 10) * 5
          "[Amount change (currency): 700350]",
          "Packet number: 4 (in the last 8 bytes: not read by the feed)"}) {
        EXPECT_NE(tree.find(std::string(line) + "\n"), std::string::npos) << line;
    }
}

TEST(Dissector, DictionariesOfTheExchangesAreApart) {
    Dissection dissection;
    dissection.segment(dictionary());
    dissection.frame(wirekit::tcp_segment()
                         .to(0x0A010102, 50002)
                         .payload(mdqp_message(wirekit::kFlagMore)
                                      .snap(5000, 1)
                                      .inst({.inst_id = "sc2604", .inst_no = 17})
                                      .packet_no(1)
                                      .bytes())
                         .bytes());
    dissection.line_a(decode_buffer().topic(1000).instrument(17).change_no(1).bytes());
    dissection.line_a(decode_buffer().topic(5000).instrument(17).change_no(1).bytes());
    const Texts info = dissection.info();
    ASSERT_EQ(info.size(), 4u);
    EXPECT_EQ(info[2], "SHFE cu2603 (17) change 1");
    EXPECT_EQ(info[3], "INE sc2604 (17) change 1");
}

TEST(Dissector, PortsAndTopicsAreSettings) {
    Dissection dissection;
    dissection.segment(dictionary(), 44000, 50005);
    dissection.frame(wirekit::udp_datagram()
                         .to(0xEF010203, 31000)
                         .payload(decode_buffer().topic(77).instrument(17).change_no(1).bytes())
                         .bytes());
    EXPECT_EQ(dissection.frames("vorn"), Frames{});
    const Texts set = {"-o", "vorn.mdqp_ports:44000",   "-o", "vorn.mirp_ports:30000-31000",
                       "-o", "vorn.shfe_topics:77,1000"};
    EXPECT_EQ(dissection.info(set),
              (Texts{"SHFE snapshot 7, 2 instruments", "SHFE cu2603 (17) change 1"}));
    EXPECT_EQ(dissection.info({"-o", "vorn.heuristics:TRUE", "-o", "vorn.shfe_topics:77,1000"}),
              (Texts{"SHFE snapshot 7, 2 instruments", "SHFE cu2603 (17) change 1"}));
}

} // namespace
