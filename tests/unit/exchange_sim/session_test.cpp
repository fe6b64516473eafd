#include "exchange_sim/session.h"

#include "test_consumer.h"
#include "wire_reader.h"

#include <deque>
#include <gtest/gtest.h>
#include <set>
#include <stdexcept>
#include <utility>

namespace exchange_sim {
namespace {

using testing::Applied;
using testing::apply_decode_buffer;
using testing::Received;
using testing::Scale;
using testing::StreamReader;

SessionOptions options_of(uint64_t seed) {
    SessionOptions options;
    options.seed = seed;
    options.instruments = 160;
    options.changes = 30000;
    options.spreads_percent = 12;
    return options;
}

// A hash of all frames and their times.
uint64_t fingerprint(const SessionOptions& options) {
    uint64_t hash = 0xCBF29CE484222325u;
    const auto mix = [&](uint64_t value) { hash = (hash ^ value) * 0x100000001B3u; };
    Session session(options);
    for (WireFrame wire; session.next(wire);) {
        mix(wire.timestamp_ns);
        for (const uint8_t byte : wire.bytes) {
            mix(byte);
        }
    }
    return hash;
}

Scale scale_of(const Instrument& instrument) {
    return {instrument.price_tick, instrument.codec_price, instrument.volume_multiple};
}

TEST(Session, SameOptionsGiveTheSameBytes) {
    EXPECT_EQ(fingerprint(options_of(5)), fingerprint(options_of(5)));
}

TEST(Session, AnotherSeedGivesAnotherSession) {
    EXPECT_NE(fingerprint(options_of(5)), fingerprint(options_of(6)));
}

TEST(Session, LinesAndRoundsDoNotChangeTheMarket) {
    std::vector<ExpectedRecord> first;
    SessionOptions options = options_of(7);
    for (int variant = 0; variant < 3; ++variant) {
        options.lines = variant == 1 ? Lines::kB : Lines::kBoth;
        options.rounds = variant == 2 ? 1 : UINT32_MAX;
        std::vector<ExpectedRecord> records;
        Session session(options);
        session.on_change([&](std::size_t, const ExpectedRecord& record) {
            if (records.size() < 20000) {
                records.push_back(record);
            }
        });
        for (WireFrame wire; session.next(wire);) {
        }
        if (variant == 0) {
            first = std::move(records);
        } else {
            EXPECT_EQ(records, first);
        }
    }
}

TEST(Session, FramesAreInOrderOfTimeAndWellFormed) {
    const SessionOptions options = options_of(8);
    Session session(options);
    uint64_t last_ns = 0;
    uint64_t frames = 0;
    for (WireFrame wire; session.next(wire); ++frames) {
        ASSERT_GE(wire.timestamp_ns, last_ns);
        last_ns = wire.timestamp_ns;
        ASSERT_LE(wire.bytes.size(), 1514u);
        ASSERT_TRUE(wirekit::parse_frame(wire.bytes).checksum_ok);
    }
    const SessionCounters counters = session.counters();
    EXPECT_EQ(frames, counters.datagrams + counters.tcp_segments);
    EXPECT_EQ(counters.datagrams, 2 * counters.changes);
    WireFrame none;
    EXPECT_FALSE(session.next(none));
    EXPECT_FALSE(session.next(none));
    // 2026-01-15 09:00:00 at UTC+8, and a third of a second of changes.
    EXPECT_EQ(last_ns / 1'000'000'000, 1768438800u);
}

TEST(Session, EachConnectionBeginsWithAHandshakeAndIsAcknowledged) {
    const SessionOptions options = options_of(9);
    Session session(options);
    std::map<uint16_t, std::vector<uint8_t>> flags; // by the client's port
    std::map<uint16_t, int> acknowledgements;
    for (WireFrame wire; session.next(wire);) {
        const auto frame = wirekit::parse_frame(wire.bytes);
        if (frame.kind != wirekit::ParsedFrame::Kind::kTcp) {
            continue;
        }
        const bool from_server = frame.from.port == options.snapshot_port;
        const uint16_t client = from_server ? frame.to.port : frame.from.port;
        if (flags[client].size() < 3) {
            EXPECT_TRUE(frame.payload.empty());
            flags[client].push_back(frame.tcp_flags);
        } else if (!from_server && frame.payload.empty()) {
            ++acknowledgements[client];
        }
    }
    ASSERT_EQ(flags.size(), 2u);
    for (const auto& [client, first] : flags) {
        EXPECT_EQ(first,
                  (std::vector<uint8_t>{wirekit::kTcpSyn, wirekit::kTcpSyn | wirekit::kTcpAck,
                                        wirekit::kTcpAck}));
        EXPECT_GT(acknowledgements[client], 3);
    }
}

// Both lines of a feed carry each change once, in order, without a gap.
TEST(Session, ChangeNumbersAndPacketNumbersHaveNoGaps) {
    const SessionOptions options = options_of(10);
    Session session(options);
    std::map<std::pair<bool, std::size_t>, uint32_t> change_no; // by line and instrument
    std::map<std::pair<bool, Exchange>, int32_t> packet_no;
    int b_before_a = 0;
    for (WireFrame wire; session.next(wire);) {
        const Received received = testing::receive(options, wire);
        if (received.kind != Received::Kind::kChange) {
            continue;
        }
        const auto& payload = received.frame.payload;
        ASSERT_GE(payload.size(), 24u + 8u);
        ASSERT_LE(payload.size(), 1472u);
        EXPECT_EQ(wirekit::get_le16(&payload[0]), received.exchange == Exchange::kShfe
                                                      ? options.shfe.topic_id
                                                      : options.ine.topic_id);
        const auto index = session.find(received.exchange, wirekit::get_le32(&payload[14]));
        ASSERT_TRUE(index.has_value());
        ASSERT_EQ(wirekit::get_le32(&payload[18]), (++change_no[{received.line_a, *index}]));
        ASSERT_EQ(testing::get_i32(&payload[8]),
                  (++packet_no[{received.line_a, received.exchange}]));
        b_before_a += !received.line_a && change_no[{true, *index}] < change_no[{false, *index}];
    }
    EXPECT_GT(b_before_a, 100);
    for (std::size_t index = 0; index < session.instruments().size(); ++index) {
        for (const bool line_a : {true, false}) {
            EXPECT_EQ((change_no[{line_a, index}]), session.change_count(index));
        }
    }
}

// Follows line A from given records, comparing with the truth after every change. Levels beyond the
// fifth are compared at the end only, when `five` is set.
class Follower {
public:
    Follower(Session& session, bool five) : session_(session), five_(five) {
        for (const Instrument& instrument : session.instruments()) {
            scales_.push_back(scale_of(instrument));
        }
        records_.resize(scales_.size());
    }

    ExpectedRecord& record(std::size_t index) { return records_[index]; }

    void change(Exchange exchange, std::span<const uint8_t> bytes, const ExpectedRecord& truth) {
        const auto index = session_.find(exchange, wirekit::get_le32(&bytes[14]));
        ASSERT_TRUE(index.has_value());
        ExpectedRecord& record = records_[*index];
        const Applied applied =
            apply_decode_buffer(record, scales_[*index], static_cast<uint16_t>(exchange), bytes);
        if (applied == Applied::kStale) {
            return;
        }
        ASSERT_EQ(applied, Applied::kYes) << record.inst_id.data() << " " << truth.change_no;
        if (!five_) {
            ASSERT_EQ(record, truth) << record.inst_id.data() << " " << truth.change_no;
            return;
        }
        ExpectedRecord upper = truth;
        for (std::size_t i = 5; i < kDepth; ++i) {
            upper.bid_px[i] = record.bid_px[i];
            upper.bid_vol[i] = record.bid_vol[i];
            upper.ask_px[i] = record.ask_px[i];
            upper.ask_vol[i] = record.ask_vol[i];
        }
        ASSERT_EQ(record, upper) << record.inst_id.data() << " " << truth.change_no;
    }

    void expect_truth() const {
        for (std::size_t index = 0; index < records_.size(); ++index) {
            EXPECT_EQ(records_[index], session_.truth(index)) << records_[index].inst_id.data();
        }
    }

private:
    Session& session_;
    bool five_;
    std::vector<Scale> scales_;
    std::vector<ExpectedRecord> records_;
};

// The truth of each change in the order of the changes, by feed, for comparison as they arrive.
class ExpectedChanges {
public:
    explicit ExpectedChanges(Session& session) {
        session.on_change([this, &session](std::size_t index, const ExpectedRecord& record) {
            const Exchange exchange = session.instruments()[index].exchange;
            queues_[static_cast<std::size_t>(exchange)].push_back(record);
        });
    }
    ExpectedRecord pop(Exchange exchange) {
        auto& queue = queues_[static_cast<std::size_t>(exchange)];
        const ExpectedRecord record = queue.front();
        queue.pop_front();
        return record;
    }

private:
    std::array<std::deque<ExpectedRecord>, 2> queues_;
};

TEST(Session, ConsumerPresentFromTheStartHoldsTheTruthAfterEveryChange) {
    const SessionOptions options = options_of(12);
    Session session(options);
    ExpectedChanges expected(session);
    Follower follower(session, false);
    for (std::size_t index = 0; index < session.instruments().size(); ++index) {
        follower.record(index) = session.truth(index); // ten levels, as no snapshot could give
        follower.record(index).type = 0;
    }
    for (WireFrame wire; session.next(wire);) {
        const Received received = testing::receive(options, wire);
        if (received.kind == Received::Kind::kChange && received.line_a) {
            follower.change(received.exchange, received.frame.payload,
                            expected.pop(received.exchange));
            ASSERT_FALSE(HasFatalFailure());
        }
    }
    follower.expect_truth();
}

// As the feed does it: cache all changes until the round of each feed is complete, replay, go on.
TEST(Session, ConsumerFromAnyRoundEndsWithTheTruth) {
    for (const std::size_t join_round : {0u, 2u}) {
        SCOPED_TRACE(join_round);
        const SessionOptions options = options_of(13);
        Session session(options);
        ExpectedChanges expected(session);
        Follower follower(session, true);
        std::array<StreamReader, 2> streams;
        std::array<std::size_t, 2> rounds{};
        std::array<testing::SnapshotTable, 2> tables;
        struct Cached {
            Exchange exchange;
            wirekit::Bytes bytes;
            ExpectedRecord truth;
        };
        std::vector<Cached> cache;
        bool live = false;
        std::size_t cached_at_join = 0;
        for (WireFrame wire; session.next(wire);) {
            const Received received = testing::receive(options, wire);
            const auto feed = static_cast<std::size_t>(received.exchange);
            if (received.kind == Received::Kind::kChange && received.line_a) {
                const ExpectedRecord truth = expected.pop(received.exchange);
                const auto& payload = received.frame.payload;
                if (live) {
                    follower.change(received.exchange, payload, truth);
                    ASSERT_FALSE(HasFatalFailure());
                } else {
                    cache.push_back({received.exchange, {payload.begin(), payload.end()}, truth});
                }
            } else if (received.kind == Received::Kind::kSnapshot && !live) {
                streams[feed].segment(received.frame);
                ASSERT_FALSE(HasFatalFailure());
                for (const auto& message : std::exchange(streams[feed].messages, {})) {
                    if (rounds[feed] == join_round) {
                        apply_mdqp_message(tables[feed], message.bytes);
                    }
                    rounds[feed] += message.bytes[0] == wirekit::kFlagLast ? 1 : 0;
                }
            }
            if (!live && rounds[0] > join_round && rounds[1] > join_round) {
                live = true;
                cached_at_join = cache.size();
                for (std::size_t index = 0; index < session.instruments().size(); ++index) {
                    const Instrument& instrument = session.instruments()[index];
                    follower.record(index) = tables[static_cast<std::size_t>(instrument.exchange)]
                                                 .at(instrument.number)
                                                 .record;
                }
                for (const Cached& change : cache) {
                    follower.change(change.exchange, change.bytes, change.truth);
                    ASSERT_FALSE(HasFatalFailure());
                }
            }
        }
        ASSERT_TRUE(live);
        EXPECT_GT(cached_at_join, 1000u);
        follower.expect_truth();
    }
}

TEST(Session, RunningAmountsStayWithinHalfACentOfTheExactOnes) {
    SessionOptions options = options_of(14);
    options.changes = 300000;
    options.instruments = 120;
    Session session(options);
    for (WireFrame wire; session.next(wire);) {
    }
    for (std::size_t index = 0; index < session.instruments().size(); ++index) {
        const ExpectedRecord& truth = session.truth(index);
        const ExactAmounts& exact = session.exact(index);
        const double bound = 0.005 * session.instruments()[index].volume_multiple;
        const auto off = [](double running, int64_t milli) {
            return std::fabs(running - static_cast<double>(milli) / 1000.0);
        };
        EXPECT_LT(off(truth.turnover, exact.turnover_milli), bound) << truth.inst_id.data();
        EXPECT_LT(off(truth.bid_totamount, exact.bid_totamount_milli), bound);
        EXPECT_LT(off(truth.ask_totamount, exact.ask_totamount_milli), bound);
    }
}

TEST(Session, PricesKeepWithinTheLimits) {
    SessionOptions options = options_of(15);
    Session session(options);
    std::size_t checked = 0;
    session.on_change([&](std::size_t index, const ExpectedRecord& record) {
        const Instrument& instrument = session.instruments()[index];
        const double low = published_price(instrument, instrument.lower_limit_ticks);
        const double high = published_price(instrument, instrument.upper_limit_ticks);
        for (std::size_t i = 0; i < kDepth; ++i) {
            if (record.bid_vol[i] > 0) {
                ASSERT_GE(record.bid_px[i], low);
                ASSERT_LE(record.bid_px[i], high);
            }
            if (record.ask_vol[i] > 0) {
                ASSERT_GE(record.ask_px[i], low);
                ASSERT_LE(record.ask_px[i], high);
            }
        }
        if (record.volume > 0) {
            ASSERT_GE(record.lowest_price, low);
            ASSERT_LE(record.highest_price, high);
            ASSERT_GE(record.last_px, record.lowest_price);
            ASSERT_LE(record.last_px, record.highest_price);
        }
        ++checked;
    });
    for (WireFrame wire; session.next(wire);) {
    }
    EXPECT_EQ(checked, session.counters().changes);
}

TEST(Session, ClosingSweepTouchesEveryInstrumentLast) {
    const SessionOptions options = options_of(16);
    Session session(options);
    std::vector<std::size_t> order;
    session.on_change([&](std::size_t index, const ExpectedRecord&) { order.push_back(index); });
    for (WireFrame wire; session.next(wire);) {
    }
    ASSERT_EQ(order.size(), options.changes + session.instruments().size());
    const std::set<std::size_t> swept(
        order.end() - static_cast<std::ptrdiff_t>(session.instruments().size()), order.end());
    EXPECT_EQ(swept.size(), session.instruments().size());
}

TEST(Session, OneFeedAndOneLineCanStandAlone) {
    SessionOptions options = options_of(17);
    options.feeds = Feeds::kIne;
    options.lines = Lines::kA;
    options.instruments = 60;
    Session session(options);
    for (WireFrame wire; session.next(wire);) {
        const Received received = testing::receive(options, wire);
        if (received.kind != Received::Kind::kOther) {
            ASSERT_EQ(received.exchange, Exchange::kIne);
            ASSERT_TRUE(received.kind == Received::Kind::kSnapshot || received.line_a);
        }
    }
    EXPECT_EQ(session.counters().datagrams, session.counters().changes);
    EXPECT_EQ(session.counters().shfe_rounds, 0u);
    EXPECT_GT(session.counters().ine_rounds, 0u);
}

TEST(Session, SecondsBoundTheSession) {
    SessionOptions options = options_of(18);
    options.changes = 0;
    options.seconds_ns = 200'000'000;
    options.rate = 50'000;
    Session session(options);
    uint64_t first_ns = 0;
    uint64_t last_ns = 0;
    for (WireFrame wire; session.next(wire); last_ns = wire.timestamp_ns) {
        first_ns = first_ns == 0 ? wire.timestamp_ns : first_ns;
    }
    EXPECT_GT(last_ns - first_ns, 200'000'000u);
    EXPECT_LT(last_ns - first_ns, 300'000'000u);
    // About the rate asked for.
    EXPECT_NEAR(static_cast<double>(session.counters().changes), 10'000.0, 4'000.0);
}

TEST(Session, RefusesOptionsThatDoNotFit) {
    SessionOptions options;
    options.instruments = 0;
    EXPECT_THROW(Session{options}, std::invalid_argument);
}

} // namespace
} // namespace exchange_sim
