// The field walk: what each field changes, that nothing else changes, and where the walk ends.

#include "udp_fixture.h"

#include <functional>

namespace udp_test {
namespace {

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;
using wirekit::DecodeBufferBuilder;
using wirekit::Side;

class UdpFieldsTest : public UdpTest {
protected:
    // Prices of this file: ticks of 0.5 from 1000, ten units a lot.
    UdpFieldsTest() { renew(); }
    instrument& renew() { return subscribe(kSlot, "cu2609", 0.5, 1000.0, 10); }

    // The record as it was, with the stamps of message().
    instrument stamped() {
        instrument expected = record();
        expected.type = EXCHANGE_TYPE_SHFE;
        expected.update_time = kTime;
        expected.update_milli_sec = kMillisec;
        expected.change_no = kChangeNo + 1;
        return expected;
    }
};

struct FieldCase {
    const char* name;
    uint16_t id;
    std::size_t size;
    std::function<void(DecodeBufferBuilder&)> build;
    std::function<void(instrument&)> apply;
};

const std::vector<FieldCase>& field_cases() {
    static const std::vector<FieldCase> kCases = {
        {"Deal", 0x1002, 32, [](DecodeBufferBuilder& b) { b.deal(-6, 3, 40, -25); },
         [](instrument& r) {
             r.last_px = 997.0;
             r.volume = 5003;
             r.open_interest = 1209.0;
             r.turnover = 501250.5 + 30200.0; // (3 * 1000 + 40 * 0.5) * 10
         }},
        {"BidTotals", 0x1019, 16, [](DecodeBufferBuilder& b) { b.bid_totals(4, -100); },
         [](instrument& r) {
             r.bid_totvol = 644;
             r.bid_totamount = 62000.25 + 39500.0;
         }},
        {"AskTotals", 0x101A, 16, [](DecodeBufferBuilder& b) { b.ask_totals(-7, 2); },
         [](instrument& r) {
             r.ask_totvol = 723;
             r.ask_totamount = 75000.75 - 69990.0;
         }},
        {"Highest", 0x1011, 8, [](DecodeBufferBuilder& b) { b.highest(9); },
         [](instrument& r) { r.highest_price = 1004.5; }},
        {"Lowest", 0x1012, 8, [](DecodeBufferBuilder& b) { b.lowest(-9); },
         [](instrument& r) { r.lowest_price = 995.5; }},
        {"PriceChange", 0x1001, 16, [](DecodeBufferBuilder& b) { b.update(Side::kAsk, 10, 2, 77); },
         [](instrument& r) {
             r.ask_px[9] = 1001.0;
             r.ask_vol[9] = 77;
         }},
    };
    return kCases;
}

std::string field_line(uint16_t id) {
    char text[64];
    std::snprintf(text, sizeof text, "X ExanicUdpFunc _ParseMirp fieldID: 0x%x", id);
    return text;
}

std::string abnormal_line(uint16_t id, std::size_t length) {
    char text[96];
    std::snprintf(text, sizeof text,
                  "E ExanicUdpFunc _ParseMirp abnormal process fieldID: 0x%x length: %zu", id,
                  length);
    return text;
}

TEST_F(UdpFieldsTest, EachFieldChangesItsMembersAndNothingElse) {
    for (const FieldCase& row : field_cases()) {
        SCOPED_TRACE(row.name);
        renew();
        instrument expected = stamped();
        row.apply(expected);
        auto builder = message();
        row.build(builder);
        ASSERT_EQ(builder.bytes().size(), 24 + row.size);
        const Outcome outcome = parse(builder);
        EXPECT_EQ(outcome.result, RET_TO_CALLBACK);
        EXPECT_TRUE(same_record(expected, record()));
        EXPECT_THAT(outcome.changed, ElementsAre(kSlot));
        ASSERT_EQ(outcome.log.size(), 4u);
        EXPECT_EQ(outcome.log[3], field_line(row.id));
    }
}

TEST_F(UdpFieldsTest, ReservedBytesAreIgnored) {
    for (const FieldCase& row : field_cases()) {
        SCOPED_TRACE(row.name);
        renew();
        instrument expected = stamped();
        row.apply(expected);
        auto builder = message();
        row.build(builder);
        wirekit::Bytes bytes = builder.bytes();
        bytes[22] = bytes[23] = 0xEE; // the header's
        const std::size_t reserved = row.id == 0x1002 ? 26 : row.id == 0x1001 ? 13 : row.size - 2;
        for (std::size_t i = 24 + reserved; i < bytes.size(); ++i) {
            bytes[i] = 0xEE;
        }
        EXPECT_EQ(parse(bytes).result, RET_TO_CALLBACK);
        EXPECT_TRUE(same_record(expected, record()));
    }
}

TEST_F(UdpFieldsTest, FieldsApplyInAnyOrderAndEachAsOftenAsItComes) {
    instrument expected = stamped();
    for (int round = 0; round < 2; ++round) {
        for (const FieldCase& row : field_cases()) {
            row.apply(expected);
        }
    }
    // What is added up is added twice; what is set is set again.
    expected.volume = 5006;
    expected.open_interest = 1184.0;
    expected.turnover = 501250.5 + 30200.0 + 30200.0;
    expected.bid_totvol = 648;
    expected.bid_totamount = 62000.25 + 39500.0 + 39500.0;
    expected.ask_totvol = 716;
    expected.ask_totamount = 75000.75 - 69990.0 - 69990.0;
    auto builder = message();
    const auto& cases = field_cases();
    std::for_each(cases.rbegin(), cases.rend(), [&](const FieldCase& row) { row.build(builder); });
    std::for_each(cases.begin(), cases.end(), [&](const FieldCase& row) { row.build(builder); });
    const Outcome outcome = parse(builder);
    EXPECT_EQ(outcome.result, RET_TO_CALLBACK);
    EXPECT_TRUE(same_record(expected, record()));
    const std::vector<std::string> fields(outcome.log.begin() + 3, outcome.log.end());
    EXPECT_THAT(fields, ElementsAre(field_line(0x1001), field_line(0x1012), field_line(0x1011),
                                    field_line(0x101A), field_line(0x1019), field_line(0x1002),
                                    field_line(0x1002), field_line(0x1019), field_line(0x101A),
                                    field_line(0x1011), field_line(0x1012), field_line(0x1001)));
}

TEST_F(UdpFieldsTest, AFieldIsTakenOnlyWhole) {
    for (const FieldCase& row : field_cases()) {
        for (std::size_t present = 0; present < row.size; ++present) {
            SCOPED_TRACE(std::string(row.name) + " cut to " + std::to_string(present));
            renew();
            instrument expected = stamped();
            expected.lowest_price = 1010.0; // of the field before it
            auto builder = message().lowest(20);
            row.build(builder);
            wirekit::Bytes bytes = builder.bytes();
            bytes.resize(24 + 8 + present);
            const Outcome outcome = parse(bytes);
            EXPECT_EQ(outcome.result, RET_TO_CALLBACK);
            EXPECT_TRUE(same_record(expected, record()));
            if (present < 3) { // not even looked at
                EXPECT_EQ(outcome.log.size(), 4u);
                continue;
            }
            ASSERT_EQ(outcome.log.size(), 6u);
            EXPECT_EQ(outcome.log[4], field_line(row.id));
            EXPECT_EQ(outcome.log[5], abnormal_line(row.id, present));
        }
    }
}

struct UnknownCase {
    const char* name;
    uint16_t id;
    const char* why;
};

const UnknownCase kUnknownFields[] = {
    {"Zero", 0x0000, "padding is no field"},
    {"Incremental", 0x0003, "the header's id means nothing here"},
    {"Below", 0x1000, "next to a known one"},
    {"AfterDeal", 0x1003, "next to a known one"},
    {"BeforeHighest", 0x1010, "next to a known one"},
    {"AfterLowest", 0x1013, "next to a known one"},
    {"BeforeBidTotals", 0x1018, "next to a known one"},
    {"AfterAskTotals", 0x101B, "next to a known one"},
    {"SwappedPriceChange", 0x0110, "ids are little-endian"},
    {"SignBit", 0x9001, "printed as sixteen bits although read signed"},
    {"AllOnes", 0xFFFF, "printed as sixteen bits although read signed"},
};

TEST_F(UdpFieldsTest, AnUnknownFieldEndsTheWalkAndKeepsWhatWasApplied) {
    for (const UnknownCase& row : kUnknownFields) {
        SCOPED_TRACE(std::string(row.name) + ": " + row.why);
        renew();
        instrument expected = stamped();
        expected.highest_price = 1010.0;
        wirekit::Bytes unknown(16, 0);
        wirekit::put_le16(unknown.data(), row.id);
        const Outcome outcome = parse(message().highest(20).raw(unknown).lowest(20));
        EXPECT_EQ(outcome.result, RET_TO_CALLBACK);
        EXPECT_TRUE(same_record(expected, record()));
        ASSERT_EQ(outcome.log.size(), 6u);
        EXPECT_EQ(outcome.log[3], field_line(0x1011));
        EXPECT_EQ(outcome.log[4], field_line(row.id));
        EXPECT_EQ(outcome.log[5], abnormal_line(row.id, 24));
    }
}

TEST_F(UdpFieldsTest, OneOrTwoBytesLeftAreNoField) {
    for (const std::size_t rest : {1u, 2u}) {
        SCOPED_TRACE(rest);
        renew();
        const instrument expected = stamped();
        const Outcome outcome = parse(message().raw(wirekit::Bytes(rest, 0xFF)));
        EXPECT_EQ(outcome.result, RET_TO_CALLBACK);
        EXPECT_TRUE(same_record(expected, record()));
        EXPECT_EQ(outcome.log.size(), 3u);
    }
    renew();
    const Outcome three = parse(message().raw(wirekit::Bytes(3, 0xFF)));
    EXPECT_EQ(three.result, RET_TO_CALLBACK);
    EXPECT_THAT(at_levels(three, "EWID"), ElementsAre(abnormal_line(0xFFFF, 3)));
}

TEST_F(UdpFieldsTest, TheBookIsCheckedAfterAnUnknownField) {
    const wirekit::Bytes unknown(4, 0xEE);
    instrument expected = record();
    expected.type = EXCHANGE_TYPE_SHFE;
    // Bid 1 at 1000 crosses ask 1 at 101: everything before the unknown field is undone.
    const Outcome outcome = parse(message().highest(20).update(Side::kBid, 1, 0, 1).raw(unknown));
    EXPECT_EQ(outcome.result, RET_OK);
    EXPECT_TRUE(same_record(expected, record()));
    EXPECT_EQ(outcome.log[5], field_line(0xEEEE));
    EXPECT_EQ(outcome.log[6], abnormal_line(0xEEEE, 4));
    EXPECT_EQ(outcome.log[7], "X ExanicUdpFunc _ParseMirp bad mirp crossed: bid1=1000.00 >= "
                              "ask1=101.00, inst=cu2609, restore");
}

TEST_F(UdpFieldsTest, BadFieldValuesSkipThatFieldOnly) {
    struct Row {
        const char* name;
        uint8_t entry, level, event;
        const char* text;
        const char* why;
    };
    const Row rows[] = {
        {"LevelZero", 0, 0, 1, "invalid priceLevel: 0, instrumentID: cu2609", "levels begin at 1"},
        {"LevelEleven", 1, 11, 2, "invalid priceLevel: 11, instrumentID: cu2609", "and end at 10"},
        {"LevelMost", 0, 255, 3, "invalid priceLevel: 255, instrumentID: cu2609", "unsigned"},
        {"LevelBeforeEvent", 9, 0, 9, "invalid priceLevel: 0, instrumentID: cu2609",
         "the level is judged first"},
        {"EventZero", 0, 1, 0, "unkonwn event type: 0", "no event"},
        {"EventFour", 1, 1, 4, "unkonwn event type: 4", "no event"},
        {"EventMost", 1, 10, 255, "unkonwn event type: 255", "unsigned"},
        {"EventBeforeEntry", 2, 1, 4, "unkonwn event type: 4",
         "the event is judged before the side"},
        {"EntryAtInsert", 2, 1, 1, "unkonwn md entry type: 2", "neither bid nor ask"},
        {"EntryAtUpdate", 3, 10, 2, "unkonwn md entry type: 3", "neither bid nor ask"},
        {"EntryAtDelete", 255, 5, 3, "unkonwn md entry type: 255", "neither bid nor ask"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(std::string(row.name) + ": " + row.why);
        renew();
        instrument expected = stamped();
        expected.highest_price = 1010.0;
        expected.lowest_price = 990.0;
        // A delete beyond the depth shows the depth of a side: it clears the last entry.
        expected.bid_px[4] = expected.ask_px[4] = 0.0;
        expected.bid_vol[4] = expected.ask_vol[4] = 0;
        const Outcome outcome = parse(message()
                                          .highest(20)
                                          .price_change(row.entry, row.level, -50, 60, row.event)
                                          .erase(Side::kBid, 10)
                                          .erase(Side::kAsk, 10)
                                          .lowest(-20));
        EXPECT_EQ(outcome.result, RET_TO_CALLBACK);
        EXPECT_TRUE(same_record(expected, record()));
        EXPECT_THAT(at_levels(outcome, "EWID"),
                    ElementsAre(std::string("E ExanicUdpFunc _ParseMirp ") + row.text));
        EXPECT_EQ(outcome.log[4], field_line(0x1001));
    }
}

TEST_F(UdpFieldsTest, EveryBadFieldIsReported) {
    auto builder = message();
    std::vector<std::string> expected;
    for (int i = 0; i < 126; ++i) {
        const auto event = static_cast<uint8_t>(100 + i);
        builder.price_change(0, 1, 0, 0, event);
        expected.push_back("E ExanicUdpFunc _ParseMirp unkonwn event type: " +
                           std::to_string(event));
    }
    const Outcome outcome = parse(builder);
    EXPECT_EQ(outcome.result, RET_TO_CALLBACK);
    EXPECT_THAT(at_levels(outcome, "EWID"), ElementsAreArray(expected));
}

TEST_F(UdpFieldsTest, AGoodMessageIsSilentBelowTheFinestLevel) {
    auto builder = message();
    for (const FieldCase& row : field_cases()) {
        row.build(builder);
    }
    EXPECT_THAT(at_levels(parse(builder), "EWID"), IsEmpty());
}

} // namespace
} // namespace udp_test
