// The five-level book of the snapshot, built from its price fields.

#include "tests/unit/tcp/segment_script.h"

#include <cstring>

namespace tcp_test {
namespace {

using wirekit::kNoValue;
using wirekit::mdqp_message;

struct Level {
    double px;
    int32_t vol;
    bool operator==(const Level&) const = default;
};
using Levels = std::vector<Level>;

class SnapshotBook : public SnapshotChannel {
protected:
    SnapshotBook() {
        subscribe(12, "cu2601");
        subscribe(13, "cu2602");
    }

    // The first levels of one side, without the empty ones behind the last filled one.
    Levels side(int index, char direction) {
        const instrument& record = slot(index);
        Levels levels;
        for (int i = 0; i < 10; ++i) {
            levels.push_back(direction == '0' ? Level{record.bid_px[i], record.bid_vol[i]}
                                              : Level{record.ask_px[i], record.ask_vol[i]});
        }
        while (!levels.empty() && levels.back() == Level{0, 0}) {
            levels.pop_back();
        }
        return levels;
    }
    Levels built(char direction, const Levels& fields) {
        auto message = mdqp_message();
        for (const Level& level : fields) {
            message.price(12, direction, level.px, level.vol);
        }
        parse_as(SHFE_2PS, message.bytes());
        return side(12, direction);
    }
};

TEST_F(SnapshotBook, LevelsAreFilledInTheOrderOfTheirPrices) {
    // clang-format off
    const struct {
        const char* name;
        char direction;
        Levels fields;
        Levels book;
        const char* why;
    } rows[] = {
        {"BidFive", '0', {{100, 1}, {99, 2}, {98, 3}, {97, 4}, {96, 5}},
         {{100, 1}, {99, 2}, {98, 3}, {97, 4}, {96, 5}}, "best first"},
        {"BidSix", '0', {{100, 1}, {99, 2}, {98, 3}, {97, 4}, {96, 5}, {95, 6}},
         {{100, 1}, {99, 2}, {98, 3}, {97, 4}, {96, 5}, {95, 6}}, "the sixth is kept behind"},
        {"BidSeven", '0', {{100, 1}, {99, 2}, {98, 3}, {97, 4}, {96, 5}, {95, 6}, {94, 7}},
         {{100, 1}, {99, 2}, {98, 3}, {97, 4}, {96, 5}, {94, 7}}, "the seventh in its place"},
        {"BidBetter", '0', {{100, 1}, {99, 2}, {101, 3}}, {{101, 3}, {99, 2}},
         "a better price overwrites, nothing is shifted"},
        {"BidEqual", '0', {{100, 1}, {99, 2}, {99, 3}}, {{100, 1}, {99, 3}}, "an equal one too"},
        {"BidBetween", '0', {{100, 1}, {98, 2}, {99, 3}}, {{100, 1}, {99, 3}},
         "takes the place of the first that is not better"},
        {"BidEpsilon", '0', {{100, 1}, {99.999995, 3}}, {{99.999995, 3}},
         "less than 0.00001 below counts as equal"},
        {"BidOverEpsilon", '0', {{100, 1}, {99.99998, 3}}, {{100, 1}, {99.99998, 3}},
         "more than 0.00001 below is below"},
        {"BidNegative", '0', {{-1, 1}, {-2, 2}, {-1.5, 3}}, {{-1, 1}, {-1.5, 3}},
         "spreads have negative prices"},
        {"BidOnlyWorst", '0', {{-5, 1}}, {{-5, 1}}, "an empty level takes any price"},
        {"BidZeroVolume", '0', {{100, 0}, {99, 2}}, {{100, 0}, {99, 2}},
         "a price without volume is not empty"},
        {"BidZeroPrice", '0', {{0, 4}, {-1, 2}}, {{0, 4}, {-1, 2}},
         "a volume without price is not empty"},
        {"BidOneLot", '0', {{0, 1}, {-1, 2}}, {{0, 1}, {-1, 2}}, "one lot is a volume"},
        {"BidEmptyField", '0', {{0, 0}, {-1, 2}}, {{-1, 2}}, "an empty level is taken again"},
        {"BidNegativeVolume", '0', {{0, -3}, {-1, 2}}, {{-1, 2}}, "a volume below 1 is none"},
        {"BidTinyPrice", '0', {{0.000009, 0}, {-1, 2}}, {{-1, 2}}, "a price below 0.00001 is none"},
        {"BidSmallPrice", '0', {{0.00002, 0}, {-1, 2}}, {{0.00002, 0}, {-1, 2}},
         "a price of 0.00002 is one"},
        {"BidNoValue", '0', {{100, 1}, {kNoValue, 2}, {98, 3}}, {{100, 1}, {98, 3}},
         "no value is a price of 0, and 98 is better"},
        {"AskFive", '1', {{100, 1}, {101, 2}, {102, 3}, {103, 4}, {104, 5}},
         {{100, 1}, {101, 2}, {102, 3}, {103, 4}, {104, 5}}, "best first"},
        {"AskSix", '1', {{100, 1}, {101, 2}, {102, 3}, {103, 4}, {104, 5}, {105, 6}},
         {{100, 1}, {101, 2}, {102, 3}, {103, 4}, {104, 5}, {105, 6}}, "the sixth is kept behind"},
        {"AskEight", '1',
         {{100, 1}, {101, 2}, {102, 3}, {103, 4}, {104, 5}, {105, 6}, {106, 7}, {107, 8}},
         {{100, 1}, {101, 2}, {102, 3}, {103, 4}, {104, 5}, {107, 8}}, "later ones in its place"},
        {"AskBetter", '1', {{100, 1}, {101, 2}, {99, 3}}, {{99, 3}, {101, 2}},
         "a better price overwrites"},
        {"AskEqual", '1', {{100, 1}, {101, 2}, {101, 3}}, {{100, 1}, {101, 3}}, "an equal one too"},
        {"AskEpsilon", '1', {{100, 1}, {100.000005, 3}}, {{100.000005, 3}},
         "less than 0.00001 above counts as equal"},
        {"AskOverEpsilon", '1', {{100, 1}, {100.00002, 3}}, {{100, 1}, {100.00002, 3}},
         "more than 0.00001 above is above"},
        {"AskEmptyField", '1', {{0, 0}, {5, 2}}, {{5, 2}}, "an empty level is taken again"},
        {"AskZeroVolume", '1', {{100, 0}, {101, 2}}, {{100, 0}, {101, 2}},
         "a price without volume is not empty"},
        {"AskZeroPrice", '1', {{0, 4}, {1, 2}}, {{0, 4}, {1, 2}},
         "a volume without price is not empty"},
        {"AskTinyPrice", '1', {{-0.000009, 0}, {1, 2}}, {{1, 2}}, "a price near 0 is none"},
        {"AskNegative", '1', {{-2, 1}, {-1, 2}, {-1.5, 3}}, {{-2, 1}, {-1.5, 3}},
         "spreads have negative prices"},
        {"AskNoValue", '1', {{100, 1}, {kNoValue, 2}}, {{0, 2}}, "no value is a price of 0"},
        {"AskLargest", '1', {{100, 1}, {-kNoValue, 2}}, {{-kNoValue, 2}}, "only one value is none"},
    };
    // clang-format on
    for (const auto& row : rows) {
        SCOPED_TRACE(std::string(row.name) + ": " + row.why);
        slot(12) = instrument{};
        subscribe(12, "cu2601");
        EXPECT_EQ(built(row.direction, row.fields), row.book);
        EXPECT_EQ(side(12, row.direction == '0' ? '1' : '0'), Levels{});
        EXPECT_EQ(side(13, '0'), Levels{});
    }
}

TEST_F(SnapshotBook, OnlyTheBooksBytesChange) {
    const ChannelState before = state();
    instrument expected = slot(12);
    parse_as(INE_4PS, mdqp_message().price(20479 - 12, '0', 1, 1).bytes()); // beyond: nothing
    parse_as(SHFE_4PS, mdqp_message().price(12, '0', 7.5, 8).price(12, '1', 9.5, -10).bytes());
    session().em_dqp_data_type = MDQP_DATA_TYPE_UNKNOW;
    core->ine_cnt_flag = true;
    expected.bid_px[0] = 7.5;
    expected.bid_vol[0] = 8;
    expected.ask_px[0] = 9.5;
    expected.ask_vol[0] = -10;
    EXPECT_EQ(std::memcmp(&slot(12), &expected, sizeof(expected)), 0);
    slot(12) = instrument{};
    subscribe(12, "cu2601");
    EXPECT_EQ(difference(before), "");
}

TEST_F(SnapshotBook, IneBooksLieAtTheBackOfTheTable) {
    subscribe(20479, "sc2612");
    parse_as(INE_2PS, mdqp_message().price(0, '1', 3, 4).bytes());
    EXPECT_EQ(side(20479, '1'), (Levels{{3, 4}}));
}

TEST_F(SnapshotBook, TheFirstPriceFieldOfAMessageResetsFiveLevelsOfBothSides) {
    for (int i = 0; i < 10; ++i) {
        slot(12).bid_px[i] = 100 - i;
        slot(12).ask_px[i] = 200 + i;
        slot(12).bid_vol[i] = slot(12).ask_vol[i] = i + 1;
    }
    const Levels bid = built('0', {{50, 5}});
    EXPECT_EQ(bid, (Levels{{50, 5},
                           {0, 0},
                           {0, 0},
                           {0, 0},
                           {0, 0},
                           {95, 6},
                           {94, 7},
                           {93, 8},
                           {92, 9},
                           {91, 10}}));
    EXPECT_EQ(side(12, '1'), (Levels{{0, 0},
                                     {0, 0},
                                     {0, 0},
                                     {0, 0},
                                     {0, 0},
                                     {205, 6},
                                     {206, 7},
                                     {207, 8},
                                     {208, 9},
                                     {209, 10}}));
}

TEST_F(SnapshotBook, TheResetIsKeyedOnThePreviousFieldOfTheMessage) {
    const auto book_after = [&](const std::function<void(wirekit::MdqpMessageBuilder&)>& between) {
        slot(12) = instrument{};
        subscribe(12, "cu2601");
        subscribe(13, "cu2602");
        auto message = mdqp_message();
        message.price(12, '0', 100, 1);
        between(message);
        message.price(12, '0', 99, 2);
        parse_as(SHFE_2PS, message.bytes());
        return side(12, '0');
    };
    const Levels both = {{100, 1}, {99, 2}};
    const Levels reset = {{99, 2}};
    using Builder = wirekit::MdqpMessageBuilder;
    EXPECT_EQ(book_after([](Builder&) {}), both);
    EXPECT_EQ(book_after([](Builder& m) { m.price(13, '0', 50, 1); }), both)
        << "another instrument's price field is one too";
    EXPECT_EQ(book_after([](Builder& m) { m.price(99, '0', 50, 1); }), both)
        << "also an unsubscribed one's";
    EXPECT_EQ(book_after([](Builder& m) { m.price(20000, '0', 50, 1); }), both)
        << "also a rejected one's";
    EXPECT_EQ(book_after([](Builder& m) { m.price(13, 'x', 50, 1); }), both)
        << "also one of no side";
    EXPECT_EQ(book_after([](Builder& m) { m.order_totals(12, 1, 1, 1, 1); }), reset);
    EXPECT_EQ(book_after([](Builder& m) { m.deal({.inst_no = 13}); }), reset);
    EXPECT_EQ(book_after([](Builder& m) { m.packet_no(1); }), reset);
    EXPECT_EQ(book_after([](Builder& m) { m.field(0x1002, 1, Bytes(1)); }), reset)
        << "a skipped field";
    EXPECT_EQ(book_after([](Builder& m) { m.field(0x7777, 1, Bytes(1)); }), reset)
        << "an unknown field";
}

TEST_F(SnapshotBook, TheNextInstrumentIsNotResetBehindAPriceField) {
    for (int i = 0; i < 5; ++i) {
        slot(13).bid_px[i] = 10 - i;
        slot(13).bid_vol[i] = 1;
    }
    parse_as(SHFE_2PS, mdqp_message().price(12, '0', 100, 1).price(13, '0', 7.5, 9).bytes());
    EXPECT_EQ(side(13, '0'), (Levels{{10, 1}, {9, 1}, {8, 1}, {7.5, 9}, {6, 1}}));
}

TEST_F(SnapshotBook, AnotherMessageBeginsAnotherBook) {
    built('0', {{100, 1}, {99, 2}, {98, 3}, {97, 4}, {96, 5}, {95, 6}});
    EXPECT_EQ(built('0', {{90, 1}}), (Levels{{90, 1}, {0, 0}, {0, 0}, {0, 0}, {0, 0}, {95, 6}}));
}

TEST_F(SnapshotBook, AnyOtherDirectionResetsAndWritesNothing) {
    for (int direction = 0; direction < 256; ++direction) {
        if (direction == '0' || direction == '1') {
            continue;
        }
        built('0', {{100, 1}});
        parse_as(SHFE_2PS, mdqp_message().price(12, static_cast<char>(direction), 50, 5).bytes());
        EXPECT_EQ(side(12, '0'), Levels{}) << direction;
        EXPECT_EQ(side(12, '1'), Levels{}) << direction;
    }
}

TEST_F(SnapshotBook, BothSidesAreBuiltFromOneRunOfFields) {
    parse_as(SHFE_2PS, mdqp_message()
                           .price(12, '1', 102, 1)
                           .price(12, '0', 100, 2)
                           .price(12, '1', 103, 3)
                           .price(12, '0', 99, 4)
                           .bytes());
    EXPECT_EQ(side(12, '0'), (Levels{{100, 2}, {99, 4}}));
    EXPECT_EQ(side(12, '1'), (Levels{{102, 1}, {103, 3}}));
}

TEST_F(SnapshotBook, NoValueIsReplacedInTheMessageToo) {
    Bytes sent = mdqp_message()
                     .price(12, '0', kNoValue, 1)
                     .price(12, '0', 5, 1)
                     .price(12, 'x', kNoValue, 1)
                     .bytes();
    const Bytes left = parse_as(SHFE_2PS, sent);
    // Field headers at 8, 29 and 50; the price 9 bytes behind each.
    wirekit::put_le_f64(sent.data() + 17, 0.0);
    wirekit::put_le_f64(sent.data() + 59, 0.0);
    EXPECT_EQ(left, sent);
}

TEST_F(SnapshotBook, NoValueStaysInTheMessageOfASkippedInstrument) {
    const Bytes sent = mdqp_message()
                           .price(99, '0', kNoValue, 1)
                           .price(16384, '0', kNoValue, 1)
                           .price(-1, '0', kNoValue, 1)
                           .bytes();
    EXPECT_EQ(parse_as(SHFE_2PS, sent), sent);
}

TEST_F(SnapshotBook, TheReplacementMayReachIntoTheNextMessage) {
    // The price field begins nine bytes before the end of its message: its price lies where the
    // next message's header stands, and no value there is replaced all the same.
    auto message = mdqp_message();
    Bytes cut = {12, 0, 0, 0, '0'};
    message.field(0x1002, 20, Bytes(20)).field(0x0103, 17, cut);
    Bytes two = message.bytes();
    const std::size_t first = two.size();
    two.resize(first + 8);
    wirekit::put_le_f64(two.data() + first, kNoValue);
    const Bytes left = parse_as(SHFE_2PS, two);
    EXPECT_EQ(wirekit::get_le_f64(left.data() + first), 0.0);
}

TEST_F(SnapshotBook, NotANumberIsNeitherEmptyNorBetter) {
    const double nan = std::numeric_limits<double>::quiet_NaN();
    EXPECT_EQ(built('0', {{100, 1}, {nan, 2}}).size(), 2u); // goes to the first empty level
    const Levels five = {{100, 1}, {99, 1}, {98, 1}, {97, 1}, {96, 1}};
    Levels fields = five;
    fields.push_back({nan, 7});
    EXPECT_EQ(built('0', fields)[5].vol, 7); // better than none of them
}

} // namespace
} // namespace tcp_test
