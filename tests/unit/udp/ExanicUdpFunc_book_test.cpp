// The book step: inserts, overwrites and deletes on the ten entries of a side, and the depth that a
// message assumes. All on an identifier that is exempt from the book check, so that any book can be
// looked at.

#include "udp_fixture.h"

#include <limits>
#include <sstream>

namespace udp_test {
namespace {

using wirekit::Bytes;
using wirekit::DecodeBufferBuilder;
using wirekit::Side;

constexpr double kNan = std::numeric_limits<double>::quiet_NaN();

struct Level {
    double price = 0.0;
    int32_t volume = 0;
};
using Book = std::vector<Level>; // always ten

// "100x11 - 98x13": a price and a volume per level, best first, a dash for an empty one; what is
// not named is empty. The ask side's book is the bid side's mirrored at 100.5.
double mirrored(Side side, double price) {
    return side == Side::kBid ? price : 201.0 - price;
}

Level level_of(Side side, const std::string& token) {
    if (token == "-") {
        return {};
    }
    Level level;
    char separator = 0;
    std::istringstream(token) >> level.price >> separator >> level.volume;
    EXPECT_EQ(separator, 'x') << token;
    level.price = mirrored(side, level.price);
    return level;
}

Book book_of(Side side, const std::string& text) {
    Book book;
    std::istringstream in(text);
    for (std::string token; in >> token;) {
        book.push_back(level_of(side, token));
    }
    book.resize(10);
    return book;
}

// "I3 98x9; U2 97x4; D1" onto a message.
void add_events(DecodeBufferBuilder& builder, Side side, const std::string& text) {
    std::istringstream events(text);
    for (std::string event; std::getline(events, event, ';');) {
        std::istringstream in(event);
        char kind = 0;
        int number = 0;
        std::string token;
        in >> kind >> number >> token;
        const auto level = static_cast<uint8_t>(number);
        if (kind == 'D') {
            builder.erase(side, level);
            continue;
        }
        const Level value = level_of(side, token);
        const auto price = static_cast<int32_t>(value.price);
        const auto volume = static_cast<uint32_t>(value.volume);
        kind == 'I' ? builder.insert(side, level, price, volume)
                    : builder.update(side, level, price, volume);
    }
}

class UdpBookTest : public UdpTest {
protected:
    UdpBookTest() { renew(); }
    void renew() { subscribe(kSlot, "cuTAS"); }

    void put_book(Side side, const Book& book) { put_book(record(), side, book); }
    static void put_book(instrument& inst, Side side, const Book& book) {
        for (std::size_t i = 0; i < 10; ++i) {
            (side == Side::kBid ? inst.bid_px : inst.ask_px)[i] = book[i].price;
            (side == Side::kBid ? inst.bid_vol : inst.ask_vol)[i] = book[i].volume;
        }
    }

    // The record with the stamps of `message` number `count` since renew().
    instrument stamped(uint32_t count = 1) {
        instrument expected = record();
        expected.type = EXCHANGE_TYPE_SHFE;
        expected.update_time = kTime;
        expected.update_milli_sec = kMillisec;
        expected.change_no = kChangeNo + count;
        return expected;
    }

    // Without the watch of parse(), for loops over many messages.
    int32_t decode(const DecodeBufferBuilder& builder) {
        const Bytes& bytes = builder.bytes();
        const std::unique_ptr<char[]> exact(new char[bytes.size()]);
        std::memcpy(exact.get(), bytes.data(), bytes.size());
        return udp_._ParseMirp(exact.get(), static_cast<uint32_t>(bytes.size()));
    }
};

const char* const kFive = "100x1 99x2 98x3 97x4 96x5";
const char* const kTen = "100x1 99x2 98x3 97x4 96x5 95x6 94x7 93x8 92x9 91x10";

struct BookCase {
    const char* name;
    const char* before;
    const char* events;
    const char* after;
    const char* why;
};

const BookCase kBookCases[] = {
    {"InsertBest", kFive, "I1 101x9", "101x9 100x1 99x2 98x3 97x4 96x5",
     "the fifth level moves to the sixth entry"},
    {"InsertMiddle", kFive, "I3 99x9", "100x1 99x2 99x9 98x3 97x4 96x5", "better levels stay"},
    {"InsertLast", kFive, "I5 96x9", "100x1 99x2 98x3 97x4 96x9 96x5", "only the fifth moves"},
    {"InsertOverwritesTheSixth", kTen, "I5 96x9",
     "100x1 99x2 98x3 97x4 96x9 96x5 94x7 93x8 92x9 91x10",
     "five levels are assumed, so the sixth entry is not kept"},
    {"InsertIntoGap", "100x1 99x2 - 97x4 96x5", "I3 98x9", "100x1 99x2 98x9 97x4 96x5",
     "an empty entry is filled without shifting"},
    {"InsertIntoGapDeepens", "100x1 99x2 - 97x4 96x5 95x6", "I3 98x9; I1 101x8",
     "101x8 100x1 99x2 98x9 97x4 96x5 95x6",
     "the depth grew to six, so the second insert moves the sixth level too"},
    {"InsertIntoEmptyBook", "", "I1 100x1", "100x1", "nothing to shift"},
    {"InsertsBuildABook", "", "I1 100x1; I2 99x2; I3 98x3; I4 97x4; I5 96x5", kFive, "in order"},
    {"InsertsBuildABookBackwards", "", "I1 96x5; I1 97x4; I1 98x3; I1 99x2; I1 100x1", kFive,
     "each one shifts the ones before"},
    {"InsertSixth", kFive, "I6 95x6", "100x1 99x2 98x3 97x4 96x5 95x6", "beyond the depth"},
    {"InsertBeyondDepthOverwrites", kTen, "I6 95x9",
     "100x1 99x2 98x3 97x4 96x5 95x9 94x7 93x8 92x9 91x10",
     "beyond the depth nothing shifts, whatever stands there"},
    {"InsertTenthDeepens", kTen, "I10 91x9; I1 101x9",
     "101x9 100x1 99x2 98x3 97x4 96x5 95x6 93x8 92x9 91x9",
     "the depth is a count, not the place of the insert: it is six now"},
    {"InsertsToFullDepth", kTen, "I6 95x6; I7 94x7; I8 93x8; I9 92x9; I10 91x10; I1 101x9",
     "101x9 100x1 99x2 98x3 97x4 96x5 95x6 94x7 93x8 92x9", "the tenth level falls out"},
    {"InsertTenthAtFullDepth", kTen, "I6 95x6; I7 94x7; I8 93x8; I9 92x9; I10 91x10; I10 91x9",
     "100x1 99x2 98x3 97x4 96x5 95x6 94x7 93x8 92x9 91x9", "the last entry has nowhere to move"},
    {"DepthStaysAtTen", kTen,
     "I6 95x6; I7 94x7; I8 93x8; I9 92x9; I10 91x10; I1 102x1; I1 103x1; D10",
     "103x1 102x1 100x1 99x2 98x3 97x4 96x5 95x6 94x7", "a delete at ten clears the tenth entry"},
    {"InsertFifthEmptyKeepsDepth", kTen, "I5 -; D10",
     "100x1 99x2 98x3 97x4 - 96x5 94x7 93x8 92x9 91x10",
     "an empty fifth level does not deepen: the delete clears the fifth entry again"},
    {"InsertFifthEmptyKeepsAnyDepth", kTen, "I6 95x6; I5 -; D10",
     "100x1 99x2 98x3 97x4 - - 95x6 93x8 92x9 91x10",
     "the depth stayed six: the delete clears the sixth entry"},
    {"InsertFifthFilledDeepens", kTen, "I5 96x9; D10",
     "100x1 99x2 98x3 97x4 96x9 - 94x7 93x8 92x9 91x10", "depth six: the sixth entry is cleared"},
    {"InsertFourthEmptyDeepens", kTen, "I4 -; D10", "100x1 99x2 98x3 - 97x4 - 94x7 93x8 92x9 91x10",
     "the rule is about level five alone"},
    {"InsertSixthEmptyDeepens", kTen, "I6 -; D10",
     "100x1 99x2 98x3 97x4 96x5 - 94x7 93x8 92x9 91x10", "the rule is about level five alone"},
    {"InsertFourthOverEmptyFifth", "100x1 99x2 98x3 97x4 - 95x6", "I4 97x9; D10",
     "100x1 99x2 98x3 97x9 97x4", "the fifth entry matters only when level five is written"},
    {"UpdateBest", kFive, "U1 100x9", "100x9 99x2 98x3 97x4 96x5", "overwritten in place"},
    {"UpdateTenth", kTen, "U10 91x77", "100x1 99x2 98x3 97x4 96x5 95x6 94x7 93x8 92x9 91x77",
     "beyond the depth too"},
    {"UpdateEmptyLevel", "100x1", "U3 98x3", "100x1 - 98x3", "no neighbour is needed"},
    {"UpdateToEmpty", kFive, "U2 -", "100x1 - 98x3 97x4 96x5", "an overwrite moves nothing up"},
    {"UpdateKeepsDepth", kTen, "U5 -; U6 95x9; D10",
     "100x1 99x2 98x3 97x4 - 95x9 94x7 93x8 92x9 91x10", "the delete clears the fifth entry"},
    {"DeleteBest", kFive, "D1", "99x2 98x3 97x4 96x5", "worse levels move up"},
    {"DeleteMiddle", kFive, "D3", "100x1 99x2 97x4 96x5", "better levels stay"},
    {"DeleteFourth", kFive, "D4", "100x1 99x2 98x3 96x5", "one level moves up"},
    {"DeleteLast", kFive, "D5", "100x1 99x2 98x3 97x4", "nothing moves"},
    {"DeleteLeavesTheSixth", kTen, "D2", "100x1 98x3 97x4 96x5 - 95x6 94x7 93x8 92x9 91x10",
     "five levels are assumed, so the sixth does not move up"},
    {"DeleteBeyondDepth", kFive, "D6", "100x1 99x2 98x3 97x4",
     "the last level within the depth is cleared, not the one named"},
    {"DeleteTenth", kTen, "D10", "100x1 99x2 98x3 97x4 - 95x6 94x7 93x8 92x9 91x10",
     "the last level within the depth is cleared, not the one named"},
    {"ThreeDeletesAtOne", kFive, "D1; D1; D1", "97x4 96x5", "the fourth and fifth lead"},
    {"ThreeDeletesAtOneOfTen", kTen, "D1; D1; D1", "97x4 96x5 - - - 95x6 94x7 93x8 92x9 91x10",
     "entries behind the depth stay where they are"},
    {"FiveDeletes", kTen, "D1; D1; D1; D1; D1", "- - - - - 95x6 94x7 93x8 92x9 91x10", "all gone"},
    {"SixDeletes", kTen, "D1; D1; D1; D1; D1; D1", "- - - - - 95x6 94x7 93x8 92x9 91x10",
     "depth zero: nothing is left to delete"},
    {"InsertAtDepthZero", kTen, "D1; D1; D1; D1; D1; I1 99x9; I1 100x9",
     "100x9 99x9 - - - 95x6 94x7 93x8 92x9 91x10",
     "the first grows the depth to one, so the second shifts"},
    {"InsertBeyondShrunkDepth", kTen, "D5; D4; I5 96x9; D10",
     "100x1 99x2 98x3 - 96x9 95x6 94x7 93x8 92x9 91x10",
     "depth three, then four: the delete clears the fourth, empty, entry"},
    {"DeleteThenInsert", kFive, "D2; I5 95x6", "100x1 98x3 97x4 96x5 95x6", "a rolling book"},
    {"InsertThenDelete", kFive, "I1 101x9; D6", "101x9 100x1 99x2 98x3 97x4",
     "the level pushed out is taken off"},
    {"InsertThenDeleteSame", kFive, "I2 99x9; D2", kFive, "back where it was"},
    {"ShiftMovesGapsToo", "100x1 - 98x3 - 96x5", "I1 101x9", "101x9 100x1 - 98x3 - 96x5",
     "entries move whether empty or not"},
    {"DeleteMovesGapsToo", "100x1 - 98x3 - 96x5", "D1", "- 98x3 - 96x5",
     "empty entries move up too"},
};

TEST_F(UdpBookTest, EventsMoveTheEntriesOfTheirSideOnly) {
    for (const BookCase& row : kBookCases) {
        for (const Side side : {Side::kBid, Side::kAsk}) {
            SCOPED_TRACE(std::string(row.name) + (side == Side::kBid ? " bid: " : " ask: ") +
                         row.why);
            renew();
            put_book(side, book_of(side, row.before));
            instrument expected = stamped();
            put_book(expected, side, book_of(side, row.after));
            auto builder = message();
            add_events(builder, side, row.events);
            const Outcome outcome = parse(builder);
            EXPECT_EQ(outcome.result, RET_TO_CALLBACK);
            EXPECT_TRUE(same_record(expected, record()));
            EXPECT_TRUE(at_levels(outcome, "EWID").empty());
        }
    }
}

// Every event at every level with every depth, on an occupied and on an empty entry, with a filled
// and with an empty new level. The expected book comes from vector operations; the depth is made
// visible by a delete at level ten, which clears the last entry within it.
TEST_F(UdpBookTest, EveryLevelWithEveryDepth) {
    const support::LogCapture quiet(0);
    enum class Event { kInsert, kInsertEmpty, kUpdate, kDelete };
    const auto is_empty = [](const Level& level) { return level.price == 0.0 && level.volume < 1; };
    int books = 0;
    for (const Side side : {Side::kBid, Side::kAsk}) {
        for (std::size_t level = 1; level <= 10; ++level) {
            for (std::size_t depth = 0; depth <= 10; ++depth) {
                for (const bool blank : {false, true}) {
                    for (const Event event :
                         {Event::kInsert, Event::kInsertEmpty, Event::kUpdate, Event::kDelete}) {
                        for (const bool probe : {false, true}) {
                            renew();
                            Book book = book_of(side, kTen);
                            const std::size_t k = level - 1;
                            if (blank) {
                                book[k] = {};
                            }
                            put_book(side, book);
                            instrument expected = stamped();
                            auto builder = message();
                            // To the depth wanted: deletes shrink it, inserts at ten that write
                            // what stands there deepen it.
                            for (std::size_t d = 5; d > depth; --d) {
                                builder.erase(side, 10);
                                book[d - 1] = {};
                            }
                            for (std::size_t d = 5; d < depth; ++d) {
                                builder.insert(side, 10, static_cast<int32_t>(book[9].price),
                                               static_cast<uint32_t>(book[9].volume));
                            }
                            const Level fresh =
                                event == Event::kInsertEmpty ? Level{0.0, 0} : Level{500.0, 50};
                            const auto price = static_cast<int32_t>(fresh.price);
                            const auto volume = static_cast<uint32_t>(fresh.volume);
                            const auto at = [&](std::size_t index) {
                                return book.begin() + static_cast<std::ptrdiff_t>(index);
                            };
                            const auto wire_level = static_cast<uint8_t>(level);
                            std::size_t after = depth;
                            if (event == Event::kUpdate) {
                                builder.update(side, wire_level, price, volume);
                                book[k] = fresh;
                            } else if (event == Event::kDelete) {
                                builder.erase(side, wire_level);
                                if (level < depth) {
                                    book.erase(at(k));
                                    book.insert(at(depth - 1), Level{});
                                } else if (depth > 0) {
                                    book[depth - 1] = {};
                                }
                                after = depth > 0 ? depth - 1 : 0;
                            } else {
                                builder.insert(side, wire_level, price, volume);
                                if (level <= depth && !is_empty(book[k])) {
                                    book.insert(at(k), fresh);
                                    book.erase(at(std::min<std::size_t>(depth + 1, 10)));
                                } else {
                                    book[k] = fresh;
                                }
                                if (level != 5 || !is_empty(book[4])) {
                                    after = std::min<std::size_t>(depth + 1, 10);
                                }
                            }
                            if (probe) {
                                for (std::size_t i = 0; i < 10; ++i) {
                                    builder.update(side, static_cast<uint8_t>(i + 1), 900, 90);
                                    book[i] = Level{900.0, 90};
                                }
                                builder.erase(side, 10);
                                if (after > 0) {
                                    book[after - 1] = {};
                                }
                            }
                            put_book(expected, side, book);
                            ASSERT_EQ(decode(builder), RET_TO_CALLBACK);
                            ASSERT_TRUE(same_record(expected, record()))
                                << (side == Side::kBid ? "bid" : "ask") << " event "
                                << static_cast<int>(event) << " level " << level << " depth "
                                << depth << (blank ? " blank" : "") << (probe ? " probed" : "");
                            ++books;
                        }
                    }
                }
            }
        }
    }
    EXPECT_EQ(books, 2 * 10 * 11 * 2 * 4 * 2);
}

struct EmptyCase {
    const char* name;
    double price;
    int32_t volume;
    bool empty;
    const char* why;
};

const EmptyCase kEmptyCases[] = {
    {"Zero", 0.0, 0, true, "nothing there"},
    {"MinusZero", -0.0, 0, true, "zero has two signs"},
    {"NegativeVolume", 0.0, -1, true, "a volume below one"},
    {"LeastVolume", 0.0, INT32_MIN, true, "a volume below one"},
    {"VolumeOne", 0.0, 1, false, "a volume alone fills an entry"},
    {"MostVolume", 0.0, INT32_MAX, false, "a volume alone fills an entry"},
    {"Epsilon", 0.00001, 0, false, "strictly between"},
    {"BelowEpsilon", next_below(0.00001), 0, true, "strictly between"},
    {"MinusEpsilon", -0.00001, 0, false, "strictly between"},
    {"AboveMinusEpsilon", next_above(-0.00001), 0, true, "strictly between"},
    {"BelowEpsilonWithVolume", next_below(0.00001), 1, false, "both must hold"},
    {"Price", 98.0, 0, false, "a price alone fills an entry"},
    {"PriceWithNegativeVolume", 98.0, -7, false, "a price alone fills an entry"},
    {"NegativePrice", -98.0, 0, false, "spreads have negative prices"},
    {"NotANumber", kNan, 0, false, "not between anything"},
    {"Infinity", std::numeric_limits<double>::infinity(), 0, false, "not between"},
};

TEST_F(UdpBookTest, AnEntryIsEmptyByPriceAndVolume) {
    for (const EmptyCase& row : kEmptyCases) {
        for (const Side side : {Side::kBid, Side::kAsk}) {
            SCOPED_TRACE(std::string(row.name) + (side == Side::kBid ? " bid: " : " ask: ") +
                         row.why);
            renew();
            Book book = book_of(side, kFive);
            book[2] = Level{row.price, row.volume};
            put_book(side, book);
            instrument expected = stamped();
            if (row.empty) {
                book[2] = Level{7.0, 70};
            } else {
                book.insert(book.begin() + 2, Level{7.0, 70});
                book.resize(10);
            }
            put_book(expected, side, book);
            EXPECT_EQ(parse(message().insert(side, 3, 7, 70)).result, RET_TO_CALLBACK);
            EXPECT_TRUE(same_record(expected, record()));
        }
    }
}

// The same question about a fifth level that was just written.
TEST_F(UdpBookTest, AFifthLevelDeepensByPriceOrVolume) {
    struct Row {
        const char* name;
        double tick;
        int32_t ticks;
        uint32_t volume;
        bool deepens;
    };
    const Row rows[] = {
        {"Nothing", 1.0, 0, 0, false},
        {"Price", 1.0, 1, 0, true},
        {"NegativePrice", 1.0, -1, 0, true},
        {"Volume", 1.0, 0, 1, true},
        {"NegativeVolume", 1.0, 0, 0x80000000, false},
        {"MinusOneVolume", 1.0, 0, 0xFFFFFFFF, false},
        {"BelowEpsilon", 0.000009, 1, 0, false},
        {"AboveMinusEpsilon", 0.000009, -1, 0, false},
        {"Epsilon", 0.00001, 1, 0, true},
        {"MinusEpsilon", 0.00001, -1, 0, true},
        {"NotANumber", std::numeric_limits<double>::infinity(), 0, 0, true},
    };
    for (const Row& row : rows) {
        for (const Side side : {Side::kBid, Side::kAsk}) {
            SCOPED_TRACE(std::string(row.name) + (side == Side::kBid ? " bid" : " ask"));
            subscribe(kSlot, "cuTAS", row.tick);
            Book book = book_of(side, kTen);
            put_book(side, book);
            parse(message().insert(side, 5, row.ticks, row.volume).erase(side, 10));
            // Depth six: the sixth entry, the former fifth, is cleared. Depth five: the new fifth.
            const double sixth = (side == Side::kBid ? record().bid_px : record().ask_px)[5];
            EXPECT_EQ(sixth, row.deepens ? 0.0 : book[4].price);
        }
    }
}

TEST_F(UdpBookTest, EachSideHasItsOwnDepth) {
    put_book(Side::kBid, book_of(Side::kBid, kTen));
    put_book(Side::kAsk, book_of(Side::kAsk, kTen));
    instrument expected = stamped();
    put_book(expected, Side::kBid,
             book_of(Side::kBid, "97x4 96x5 - - - 95x6 94x7 93x8 92x9 91x10"));
    put_book(expected, Side::kAsk,
             book_of(Side::kAsk, "103x1 102x1 101x1 100x1 99x2 98x3 97x4 96x5 92x9 91x10"));
    auto builder = message();
    for (const char* price : {"101x1", "102x1", "103x1"}) {
        add_events(builder, Side::kBid, "D1");
        add_events(builder, Side::kAsk, std::string("I1 ") + price);
    }
    EXPECT_EQ(parse(builder).result, RET_TO_CALLBACK);
    EXPECT_TRUE(same_record(expected, record()));
}

TEST_F(UdpBookTest, EveryMessageStartsAgainFromFiveLevels) {
    put_book(Side::kBid, book_of(Side::kBid, kTen));
    auto first = message();
    add_events(first, Side::kBid, "I6 95x6; I7 94x7; I8 93x8"); // depth eight, book unchanged
    add_events(first, Side::kAsk, "D5; D4");                    // depth three
    ASSERT_EQ(parse(first).result, RET_TO_CALLBACK);
    instrument expected = stamped(2);
    put_book(expected, Side::kBid,
             book_of(Side::kBid, "101x9 100x1 99x2 98x3 97x4 96x5 94x7 93x8 92x9 91x10"));
    auto second = message().change_no(kChangeNo + 2);
    add_events(second, Side::kBid, "I1 101x9");
    // With depth five the gaps that the deletes left are within it and the insert moves them.
    second.insert(Side::kAsk, 2, 102, 9);
    expected.ask_px[1] = 102.0;
    expected.ask_vol[1] = 9;
    expected.ask_px[2] = 102.0;
    expected.ask_vol[2] = 32;
    expected.ask_px[3] = 103.0;
    expected.ask_vol[3] = 33;
    expected.ask_px[4] = 0.0;
    expected.ask_vol[4] = 0;
    expected.ask_px[5] = 0.0;
    expected.ask_vol[5] = 0;
    EXPECT_EQ(parse(second).result, RET_TO_CALLBACK);
    EXPECT_TRUE(same_record(expected, record()));
}

TEST_F(UdpBookTest, DeletesIgnoreTheirPriceAndVolume) {
    instrument expected = stamped();
    put_book(expected, Side::kBid,
             book_of(Side::kBid, "100x11 98x13 97x14 96x15 - 95x16 94x17 93x18 "
                                 "92x19 91x20"));
    EXPECT_EQ(parse(message().price_change(0, 2, 12345, 678, 3)).result, RET_TO_CALLBACK);
    EXPECT_TRUE(same_record(expected, record()));
}

} // namespace
} // namespace udp_test
