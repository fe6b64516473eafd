#include "exchange_sim/snapshot_publisher.h"

#include "exchange_sim/session.h"
#include "test_consumer.h"
#include "wire_reader.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <map>

namespace exchange_sim {
namespace {

using testing::mdqp_fields;
using testing::MdqpField;
using testing::Message;
using testing::Received;
using testing::SnapshotEntry;
using testing::SnapshotTable;
using testing::StreamReader;

SessionOptions small_session() {
    SessionOptions options;
    options.seed = 11;
    options.instruments = 300;
    options.changes = 20000;
    return options;
}

std::array<StreamReader, 2> read_streams(const SessionOptions& options) {
    std::array<StreamReader, 2> streams;
    Session session(options);
    for (WireFrame wire; session.next(wire);) {
        const Received received = testing::receive(options, wire);
        if (received.kind == Received::Kind::kSnapshot) {
            EXPECT_TRUE(received.frame.checksum_ok);
            streams[static_cast<std::size_t>(received.exchange)].segment(received.frame);
        }
    }
    for (const StreamReader& stream : streams) {
        EXPECT_TRUE(stream.whole());
        EXPECT_FALSE(stream.messages.empty());
    }
    return streams;
}

TEST(SnapshotPublisher, RoundsBeginAndEndAsReceiversExpect) {
    const SessionOptions options = small_session();
    const auto streams = read_streams(options);
    for (std::size_t feed = 0; feed < 2; ++feed) {
        const auto rounds = testing::rounds_of(streams[feed]);
        EXPECT_GE(rounds.size(), 4u);
        int32_t snap_no = 0;
        for (const auto& round : rounds) {
            const Message& first = round.front();
            EXPECT_TRUE(first.starts_segment);
            EXPECT_TRUE(first.ends_segment);
            EXPECT_EQ(first.first_segment, first.last_segment);
            EXPECT_GE(first.bytes.size(), 45u);
            const auto fields = mdqp_fields(first.bytes);
            ASSERT_GE(fields.size(), 2u);
            EXPECT_EQ(fields[0].id, 0x1001);
            ASSERT_EQ(fields[0].data.size(), 6u);
            EXPECT_EQ(wirekit::get_le16(&fields[0].data[0]),
                      feed == 0 ? options.shfe.topic_id : options.ine.topic_id);
            EXPECT_EQ(testing::get_i32(&fields[0].data[2]), ++snap_no);
            EXPECT_EQ(fields[1].id, 0x0101);
            EXPECT_TRUE(round.back().ends_segment);
            for (const Message& message : round) {
                EXPECT_EQ(message.bytes[0], &message == &round.back() ? 0x01 : 0x11);
                EXPECT_EQ(message.bytes[1], 0x32);
            }
        }
    }
}

TEST(SnapshotPublisher, MessagesAreOfAsManyInstrumentsAsAsked) {
    SessionOptions options = small_session();
    options.message_instruments = 7;
    std::map<std::size_t, int> sizes; // messages by the number of their instruments
    for (const StreamReader& stream : read_streams(options)) {
        for (const auto& round : testing::rounds_of(stream)) {
            for (std::size_t i = 1; i < round.size(); ++i) {
                const auto fields = mdqp_fields(round[i].bytes);
                const auto instruments =
                    std::count_if(fields.begin(), fields.end(), [](const MdqpField& field) {
                        return field.id == 0x0101 || field.id == 0x0102;
                    });
                ++sizes[static_cast<std::size_t>(instruments)];
            }
        }
    }
    EXPECT_EQ(sizes.rbegin()->first, 7u);
    EXPECT_EQ(sizes.count(0), 0u);
    // The last message of the dictionary and of the books is of what is left.
    const int whole = sizes[7];
    sizes.erase(7);
    for (const auto& [size, count] : sizes) {
        EXPECT_LT(count * 5, whole) << size;
    }
}

TEST(SnapshotPublisher, EveryMessageEndsWithAPacketNumberThatNobodyDecodes) {
    for (const StreamReader& stream : read_streams(small_session())) {
        for (const Message& message : stream.messages) {
            EXPECT_LT(message.bytes.size(), 65000u);
            std::vector<MdqpField> trailing;
            const auto fields = mdqp_fields(message.bytes, &trailing);
            ASSERT_EQ(trailing.size(), 1u);
            EXPECT_EQ(trailing[0].id, 0x1004);
            EXPECT_EQ(trailing[0].data.size(), 4u);
            ASSERT_FALSE(fields.empty());
            for (const MdqpField& field : fields) {
                EXPECT_NE(field.id, 0x1004);
            }
        }
    }
}

TEST(SnapshotPublisher, MessagesShareAndStraddleFullSegments) {
    for (const StreamReader& stream : read_streams(small_session())) {
        EXPECT_GE(stream.largest_payload(), 1448u);
        EXPECT_LE(stream.largest_payload(), 1460u);
        std::size_t straddling = 0;
        std::size_t inside = 0;
        std::size_t over_three = 0;
        for (const Message& message : stream.messages) {
            straddling += message.first_segment != message.last_segment ? 1 : 0;
            inside += !message.starts_segment && !message.ends_segment &&
                              message.first_segment == message.last_segment
                          ? 1
                          : 0;
            over_three += message.last_segment >= message.first_segment + 3 ? 1 : 0;
        }
        EXPECT_GT(straddling, 10u);
        EXPECT_GT(inside, 0u);
        EXPECT_GT(over_three, 0u);
    }
}

TEST(SnapshotPublisher, EachInstrumentStandsInOneMessageWithItsBookTogether) {
    for (const StreamReader& stream : read_streams(small_session())) {
        for (const auto& round : testing::rounds_of(stream)) {
            std::map<int32_t, const Message*> message_of;
            for (const Message& message : round) {
                int32_t current = -1;
                for (const MdqpField& field : mdqp_fields(message.bytes)) {
                    if (field.id == 0x0102) {
                        current = testing::get_i32(field.data.data());
                        EXPECT_TRUE(message_of.emplace(current, &message).second) << current;
                    } else if (field.id == 0x0103 || field.id == 0x0104) {
                        EXPECT_EQ(testing::get_i32(field.data.data()), current);
                    }
                }
            }
        }
    }
}

// The rules by which a receiver judges a finished snapshot: from the fifth ask down to the fifth
// bid prices fall strictly, lie within the limits and have a volume.
std::string price_fault(const SnapshotEntry& entry) {
    const std::string id = entry.record.inst_id.data();
    if (id.find("TAS") != std::string::npos) {
        return {};
    }
    const bool spread = id.find('-') != std::string::npos;
    double previous = testing::kMax;
    for (int i = 0; i < 10; ++i) {
        const auto at = static_cast<std::size_t>(i < 5 ? 4 - i : i - 5);
        const double price = i < 5 ? entry.record.ask_px[at] : entry.record.bid_px[at];
        const int32_t volume = i < 5 ? entry.record.ask_vol[at] : entry.record.bid_vol[at];
        const bool zero = price > -1e-5 && price < 1e-5;
        if (!spread && (zero ? volume > 0 : volume < 1)) {
            return "price and volume disagree";
        }
        if (zero && volume < 1) {
            continue;
        }
        if (!spread && (price < entry.lower_limit - 1e-5 || price > entry.upper_limit + 1e-5)) {
            return "outside the limits";
        }
        if (previous <= price) {
            return "not falling";
        }
        previous = price;
    }
    return {};
}

TEST(SnapshotPublisher, EveryBookOfEveryRoundPassesThePriceCheck) {
    SessionOptions options = small_session();
    options.spreads_percent = 20;
    options.options_percent = 30;
    std::size_t below_zero = 0;
    std::size_t zero_with_volume = 0;
    for (const StreamReader& stream : read_streams(options)) {
        for (const auto& round : testing::rounds_of(stream)) {
            SnapshotTable table;
            for (const Message& message : round) {
                apply_mdqp_message(table, message.bytes);
            }
            for (const auto& [number, entry] : table) {
                EXPECT_EQ(price_fault(entry), "") << entry.record.inst_id.data();
                EXPECT_LE(entry.books, 1);
                // A sixth level would have been written behind the five.
                EXPECT_EQ(entry.record.bid_vol[5], 0);
                EXPECT_EQ(entry.record.ask_vol[5], 0);
                for (std::size_t i = 0; i < 5; ++i) {
                    const double price = entry.record.bid_px[i];
                    below_zero += price < 0.0 ? 1 : 0;
                    zero_with_volume += price == 0.0 && entry.record.bid_vol[i] > 0 ? 1 : 0;
                }
            }
        }
    }
    EXPECT_GT(below_zero, 0u);
    EXPECT_GT(zero_with_volume, 0u);
}

TEST(SnapshotPublisher, DictionaryHoldsEveryInstrumentAndItsScale) {
    const SessionOptions options = small_session();
    const Session session(options);
    const auto streams = read_streams(options);
    std::array<SnapshotTable, 2> tables;
    std::size_t unpublished = 0;
    for (std::size_t feed = 0; feed < 2; ++feed) {
        const auto rounds = testing::rounds_of(streams[feed]);
        for (const Message& message : rounds.front()) {
            apply_mdqp_message(tables[feed], message.bytes);
        }
    }
    for (const Instrument& instrument : session.instruments()) {
        auto& table = tables[static_cast<std::size_t>(instrument.exchange)];
        ASSERT_EQ(table.count(instrument.number), 1u);
        const SnapshotEntry& entry = table[instrument.number];
        EXPECT_EQ(entry.record.inst_id.data(), instrument.id);
        EXPECT_EQ(entry.scale.tick, instrument.price_tick);
        EXPECT_EQ(entry.scale.codec, instrument.codec_price);
        EXPECT_EQ(entry.scale.multiple, instrument.volume_multiple);
        EXPECT_EQ(entry.lower_limit, published_price(instrument, instrument.lower_limit_ticks));
        EXPECT_EQ(entry.upper_limit, published_price(instrument, instrument.upper_limit_ticks));
        unpublished += instrument.codec_unpublished ? 1 : 0;
    }
    EXPECT_EQ(tables[0].size() + tables[1].size(), session.instruments().size());
    EXPECT_GT(unpublished, 0u);
}

TEST(SnapshotPublisher, CountsOfRoundsAreRespected) {
    SessionOptions options = small_session();
    for (const uint32_t rounds : {1u, 2u}) {
        options.rounds = rounds;
        Session session(options);
        for (WireFrame wire; session.next(wire);) {
        }
        EXPECT_EQ(session.counters().shfe_rounds, rounds);
        EXPECT_EQ(session.counters().ine_rounds, rounds);
    }
}

TEST(SnapshotPublisher, EvenTheShortestSessionHasARound) {
    SessionOptions options = small_session();
    options.changes = 1;
    Session session(options);
    for (WireFrame wire; session.next(wire);) {
    }
    EXPECT_EQ(session.counters().shfe_rounds, 1u);
    EXPECT_EQ(session.counters().ine_rounds, 1u);
    EXPECT_EQ(session.counters().changes, 1 + session.instruments().size());
}

} // namespace
} // namespace exchange_sim
