#include "tools/vorn/verify/truth_match.h"

#include "exchange_sim/session.h"
#include "tests/support/temp_dir.h"

#include <algorithm>
#include <cstring>
#include <functional>
#include <gtest/gtest.h>
#include <stdexcept>

namespace vorn_cli {
namespace {

struct Update {
    std::size_t index = 0; // of the instrument
    instrument record;
};

class TruthMatches : public testing::Test {
protected:
    TruthMatches() {
        exchange_sim::SessionOptions options;
        options.seed = 3;
        options.instruments = 20;
        options.changes = 2000;
        exchange_sim::Session session(options);
        std::FILE* const file = std::fopen(path().c_str(), "wb");
        exchange_sim::TruthWriter writer(file, session);
        session.on_change([&](std::size_t index, const exchange_sim::ExpectedRecord& record) {
            writer.change(index, record);
            const auto bytes = exchange_sim::record_bytes(record);
            Update& update = updates_.emplace_back();
            update.index = index;
            std::memcpy(&update.record, bytes.data(), bytes.size());
        });
        for (exchange_sim::WireFrame frame; session.next(frame);) {
        }
        writer.finish();
        std::fclose(file);
        instruments_ = session.instruments();
    }

    std::string path() const { return (directory_.path() / "session.truth").string(); }
    uint32_t slot(std::size_t index) const {
        const auto& entry = instruments_[index];
        return entry.exchange == exchange_sim::Exchange::kShfe ? uint32_t{entry.number}
                                                               : uint32_t{LAST_SLOT} - entry.number;
    }
    void feed(TruthMatch& match, const Update& update) const {
        match.update(update.record, slot(update.index));
    }
    // Every update with number `from` or later.
    void feed_all(TruthMatch& match, std::size_t from = 0) const {
        for (std::size_t i = from; i < updates_.size(); ++i) {
            feed(match, updates_[i]);
        }
    }
    // The first update for which this holds.
    std::size_t find(const std::function<bool(const instrument&)>& wanted) const {
        const auto found = std::find_if(updates_.begin(), updates_.end(),
                                        [&](const Update& u) { return wanted(u.record); });
        EXPECT_NE(found, updates_.end());
        return static_cast<std::size_t>(found - updates_.begin());
    }
    // The update after this one of the same instrument, whose `wanted` holds for both.
    std::pair<std::size_t, std::size_t>
    find_pair(const std::function<bool(const instrument&)>& wanted) const {
        for (std::size_t i = 0; i < updates_.size(); ++i) {
            for (std::size_t j = i + 1; wanted(updates_[i].record) && j < updates_.size(); ++j) {
                if (updates_[j].index == updates_[i].index) {
                    if (wanted(updates_[j].record)) {
                        return {i, j};
                    }
                    break;
                }
            }
        }
        ADD_FAILURE() << "the session has no such pair";
        return {0, 0};
    }

    support::TempDir directory_;
    std::vector<Update> updates_;
    std::vector<exchange_sim::Instrument> instruments_;
};

bool has_deep_bids(const instrument& record) {
    return record.bid_vol[5] != 0 && record.bid_vol[6] != 0;
}

instrument without_deep_bids(instrument record) {
    for (int i = 5; i < 10; ++i) {
        record.bid_px[i] = 0;
        record.bid_vol[i] = 0;
    }
    return record;
}

TEST_F(TruthMatches, TheTrueUpdatesOfAWholeSession) {
    TruthMatch match(path());
    match.snapshot_begins();
    feed_all(match);
    match.finish(true);
    EXPECT_EQ(match.differences(), 0u);
    EXPECT_TRUE(match.shown().empty());
    EXPECT_EQ(match.updates(), updates_.size());
    EXPECT_EQ(match.instruments(), 20u);
    EXPECT_EQ(match.updated(), 20u);
}

// What came before the first update was in the snapshot or was applied without a callback.
TEST_F(TruthMatches, AFeedThatBeginsLate) {
    TruthMatch match(path());
    match.snapshot_begins();
    feed_all(match, 700);
    match.finish(true);
    EXPECT_EQ(match.differences(), 0u);
}

// The two exchanges reach the feed by ways of their own.
TEST_F(TruthMatches, UpdatesOfTwoFeedsApart) {
    TruthMatch match(path());
    for (const auto exchange : {exchange_sim::Exchange::kIne, exchange_sim::Exchange::kShfe}) {
        for (const Update& update : updates_) {
            if (instruments_[update.index].exchange == exchange) {
                feed(match, update);
            }
        }
    }
    match.finish(true);
    EXPECT_EQ(match.differences(), 0u);
}

struct Change {
    const char* field;
    std::function<void(instrument&)> make;
    std::function<double(const instrument&)> value;
};

TEST_F(TruthMatches, AChangedFieldIsNamedWithBothValues) {
    const Change changes[] = {
        {"last_px", [](instrument& r) { r.last_px += 1; },
         [](const instrument& r) { return r.last_px; }},
        {"volume", [](instrument& r) { r.volume += 1; },
         [](const instrument& r) { return static_cast<double>(r.volume); }},
        {"update_time", [](instrument& r) { r.update_time += 1; },
         [](const instrument& r) { return static_cast<double>(r.update_time); }},
        {"update_milli_sec", [](instrument& r) { r.update_milli_sec ^= 1; },
         [](const instrument& r) { return static_cast<double>(r.update_milli_sec); }},
        {"type", [](instrument& r) { r.type ^= 1; },
         [](const instrument& r) { return static_cast<double>(r.type); }},
        {"turnover", [](instrument& r) { r.turnover += 64; },
         [](const instrument& r) { return r.turnover; }},
        {"open_interest", [](instrument& r) { r.open_interest += 1; },
         [](const instrument& r) { return r.open_interest; }},
        {"bid_totvol", [](instrument& r) { r.bid_totvol -= 1; },
         [](const instrument& r) { return static_cast<double>(r.bid_totvol); }},
        {"ask_totvol", [](instrument& r) { r.ask_totvol -= 1; },
         [](const instrument& r) { return static_cast<double>(r.ask_totvol); }},
        {"bid_totamount", [](instrument& r) { r.bid_totamount += 64; },
         [](const instrument& r) { return r.bid_totamount; }},
        {"ask_totamount", [](instrument& r) { r.ask_totamount += 64; },
         [](const instrument& r) { return r.ask_totamount; }},
        {"highest_price", [](instrument& r) { r.highest_price += 1; },
         [](const instrument& r) { return r.highest_price; }},
        {"lowest_price", [](instrument& r) { r.lowest_price -= 1; },
         [](const instrument& r) { return r.lowest_price; }},
        {"bid_px[0]", [](instrument& r) { r.bid_px[0] += 1; },
         [](const instrument& r) { return r.bid_px[0]; }},
        {"bid_vol[4]", [](instrument& r) { r.bid_vol[4] += 1; },
         [](const instrument& r) { return static_cast<double>(r.bid_vol[4]); }},
        {"ask_vol[2]", [](instrument& r) { r.ask_vol[2] += 1; },
         [](const instrument& r) { return static_cast<double>(r.ask_vol[2]); }},
        {"ask_px[9]", [](instrument& r) { r.ask_px[9] += 1; },
         [](const instrument& r) { return r.ask_px[9]; }},
    };
    constexpr std::size_t kChanged = 900;
    for (const Change& change : changes) {
        TruthMatch match(path());
        for (std::size_t i = 0; i < updates_.size(); ++i) {
            Update update = updates_[i];
            if (i == kChanged) {
                change.make(update.record);
            }
            feed(match, update);
        }
        match.finish(true);
        ASSERT_EQ(match.differences(), 1u) << change.field;
        Update changed = updates_[kChanged];
        change.make(changed.record);
        const Difference& shown = match.shown().front();
        EXPECT_EQ(shown.instrument, instruments_[changed.index].id) << change.field;
        EXPECT_EQ(shown.change_no, changed.record.change_no) << change.field;
        EXPECT_EQ(shown.field, change.field);
        EXPECT_EQ(std::stod(shown.expected), change.value(updates_[kChanged].record))
            << change.field;
        EXPECT_EQ(std::stod(shown.got), change.value(changed.record)) << change.field;
    }
}

TEST_F(TruthMatches, AnotherNameIsADifference) {
    TruthMatch match(path());
    Update update = updates_[0];
    update.record.inst_id[0] = '?';
    feed(match, update);
    ASSERT_EQ(match.differences(), 1u);
    EXPECT_EQ(match.shown()[0].field, "inst_id");
    EXPECT_EQ(match.shown()[0].expected, instruments_[update.index].id);
    EXPECT_EQ(match.shown()[0].got, "?" + instruments_[update.index].id.substr(1));
}

// A rounding error in the last place is one too.
TEST_F(TruthMatches, TheLastBitCounts) {
    TruthMatch match(path());
    Update update = updates_[find([](const instrument& r) { return r.bid_totamount > 0; })];
    uint64_t bits = 0;
    std::memcpy(&bits, &update.record.bid_totamount, sizeof(bits));
    bits ^= 1;
    std::memcpy(&update.record.bid_totamount, &bits, sizeof(bits));
    feed(match, update);
    ASSERT_EQ(match.differences(), 1u);
    EXPECT_EQ(match.shown()[0].field, "bid_totamount");
    EXPECT_NE(match.shown()[0].expected, match.shown()[0].got);
}

TEST_F(TruthMatches, LevelsBeyondASnapshotMayBeEmptyUntilTheyAreRestated) {
    const auto [first, second] = find_pair(has_deep_bids);
    TruthMatch match(path());
    match.snapshot_begins();
    Update update = updates_[first];
    update.record = without_deep_bids(update.record);
    feed(match, update);
    EXPECT_EQ(match.differences(), 0u);
    // Restated.
    feed(match, updates_[second]);
    EXPECT_EQ(match.differences(), 0u);
}

TEST_F(TruthMatches, LevelsOnceRestatedMustStay) {
    const auto [first, second] = find_pair(has_deep_bids);
    TruthMatch match(path());
    match.snapshot_begins();
    feed(match, updates_[first]);
    Update update = updates_[second];
    update.record = without_deep_bids(update.record);
    feed(match, update);
    EXPECT_GE(match.differences(), 4u);
    EXPECT_EQ(match.shown()[0].field, "bid_px[5]");
    EXPECT_EQ(match.shown()[0].got, "0");
}

TEST_F(TruthMatches, TheNextSnapshotForgetsThemAgain) {
    const auto [first, second] = find_pair(has_deep_bids);
    TruthMatch match(path());
    match.snapshot_begins();
    feed(match, updates_[first]);
    match.snapshot_begins();
    Update update = updates_[second];
    update.record = without_deep_bids(update.record);
    feed(match, update);
    EXPECT_EQ(match.differences(), 0u);
}

TEST_F(TruthMatches, AWrongLevelIsRefusedEvenBeforeItIsRestated) {
    TruthMatch match(path());
    match.snapshot_begins();
    Update update = updates_[find(has_deep_bids)];
    update.record = without_deep_bids(update.record);
    update.record.bid_vol[6] = 12345;
    feed(match, update);
    ASSERT_EQ(match.differences(), 2u); // a price of 0 is wrong as well where there is a volume
    EXPECT_EQ(match.shown()[0].field, "bid_px[6]");
    EXPECT_EQ(match.shown()[0].got, "0");
    EXPECT_EQ(match.shown()[1].field, "bid_vol[6]");
    EXPECT_EQ(match.shown()[1].got, "12345");
}

TEST_F(TruthMatches, TheFirstFiveLevelsNeverMayBeEmpty) {
    TruthMatch match(path());
    match.snapshot_begins();
    Update update = updates_[find(has_deep_bids)];
    update.record.bid_px[4] = 0;
    feed(match, update);
    ASSERT_EQ(match.differences(), 1u);
    EXPECT_EQ(match.shown()[0].field, "bid_px[4]");
}

TEST_F(TruthMatches, AChangeMissingAtTheEndIsFoundByFinish) {
    const Update& last = updates_.back();
    TruthMatch match(path());
    for (std::size_t i = 0; i + 1 < updates_.size(); ++i) {
        feed(match, updates_[i]);
    }
    EXPECT_EQ(match.differences(), 0u);
    match.finish(false);
    ASSERT_EQ(match.differences(), 1u);
    EXPECT_EQ(match.shown()[0].instrument, instruments_[last.index].id);
    EXPECT_EQ(match.shown()[0].field, "last change");
    EXPECT_EQ(match.shown()[0].expected, std::to_string(last.record.change_no));
    EXPECT_EQ(match.shown()[0].got, std::to_string(last.record.change_no - 1));
}

TEST_F(TruthMatches, AnInstrumentWithoutAnyUpdateCountsIfItIsSubscribed) {
    for (const bool subscribed : {false, true}) {
        TruthMatch match(path());
        for (const Update& update : updates_) {
            if (update.index != 4) {
                feed(match, update);
            }
        }
        match.finish(subscribed);
        ASSERT_EQ(match.differences(), subscribed ? 1u : 0u);
        EXPECT_EQ(match.updated(), 19u);
        if (subscribed) {
            EXPECT_EQ(match.shown()[0].instrument, instruments_[4].id);
            EXPECT_EQ(match.shown()[0].field, "updates");
            EXPECT_EQ(match.shown()[0].got, "none");
        }
    }
}

TEST_F(TruthMatches, AnUpdateLeftOutOrMadeTwiceIsADifference) {
    const std::size_t index = updates_[0].index;
    for (const int times : {0, 2}) {
        TruthMatch match(path());
        uint32_t nth = 0;
        for (const Update& update : updates_) {
            const bool chosen = update.index == index && ++nth == 5;
            for (int i = 0; i < (chosen ? times : 1); ++i) {
                feed(match, update);
            }
        }
        match.finish(true);
        ASSERT_EQ(match.differences(), 1u) << times;
        EXPECT_EQ(match.shown()[0].instrument, instruments_[index].id);
        EXPECT_EQ(match.shown()[0].field, "change_no");
        EXPECT_EQ(match.shown()[0].expected, times == 0 ? "5" : "6");
        EXPECT_EQ(match.shown()[0].got, times == 0 ? "6" : "5");
    }
}

TEST_F(TruthMatches, AChangeThatTheExchangeNeverMade) {
    TruthMatch match(path());
    Update update = updates_[10];
    update.record.change_no += 1'000'000;
    feed(match, update);
    ASSERT_EQ(match.differences(), 1u);
    EXPECT_EQ(match.shown()[0].field, "change_no");
    EXPECT_EQ(match.shown()[0].got, std::to_string(update.record.change_no));
}

TEST_F(TruthMatches, AnUpdateOfAnUnknownSlot) {
    std::vector<bool> used(INSTRUMENT_SLOT_CNT, false);
    for (std::size_t i = 0; i < instruments_.size(); ++i) {
        used[slot(i)] = true;
    }
    const auto unused =
        static_cast<uint32_t>(std::find(used.begin(), used.end(), false) - used.begin());
    TruthMatch match(path());
    for (const uint32_t unknown : {unused, uint32_t{INSTRUMENT_SLOT_CNT}, ~uint32_t{0}}) {
        match.update(updates_[0].record, unknown);
        const Difference& shown = match.shown().back();
        EXPECT_EQ(shown.instrument, instruments_[updates_[0].index].id);
        EXPECT_EQ(shown.field, "slot");
        EXPECT_EQ(shown.got, std::to_string(unknown));
    }
    EXPECT_EQ(match.differences(), 3u);
    EXPECT_EQ(match.updates(), 3u);
    EXPECT_EQ(match.updated(), 0u);
}

TEST_F(TruthMatches, OnlyTheFirstFewAreKept) {
    TruthMatch match(path());
    for (Update update : updates_) {
        update.record.last_px += 1;
        feed(match, update);
    }
    EXPECT_EQ(match.differences(), updates_.size());
    EXPECT_EQ(match.shown().size(), 10u);
}

TEST_F(TruthMatches, AMissingTruthIsNamed) {
    try {
        const TruthMatch match((directory_.path() / "absent.truth").string());
        FAIL();
    } catch (const std::runtime_error& error) {
        EXPECT_NE(std::string(error.what()).find("absent.truth"), std::string::npos);
    }
}

} // namespace
} // namespace vorn_cli
