// Whole simulated sessions: what is recorded is what the exchange's own books say.

#include "recording.h"

#include "exchange_sim/session.h"
#include "exchange_sim/session_options.h"

#include <algorithm>
#include <charconv>
#include <gtest/gtest.h>
#include <map>

namespace recorder {
namespace {

constexpr char kOptions[] = "seed=7&changes=20000&instruments=60";

std::string two_decimals(double value) {
    char text[400];
    const auto end =
        std::to_chars(text, text + sizeof(text), value, std::chars_format::fixed, 2).ptr;
    return std::string(text, end);
}

std::string row_of(const exchange_sim::ExpectedRecord& record) {
    std::string row = std::to_string(record.type) + "," + record.inst_id.data();
    const auto whole = [&row](auto value) { row += "," + std::to_string(value); };
    const auto money = [&row](double value) { row += "," + two_decimals(value); };
    whole(record.update_time);
    whole(record.update_milli_sec);
    whole(record.change_no);
    money(record.last_px);
    whole(record.volume);
    money(record.turnover);
    money(record.open_interest);
    for (std::size_t i = 0; i < 5; ++i) {
        whole(record.bid_vol[i]);
        money(record.bid_px[i]);
    }
    for (std::size_t i = 0; i < 5; ++i) {
        whole(record.ask_vol[i]);
        money(record.ask_px[i]);
    }
    whole(record.bid_totvol);
    money(record.bid_totamount);
    whole(record.ask_totvol);
    money(record.ask_totamount);
    money(record.highest_price);
    money(record.lowest_price);
    return row;
}

using RowsByInstrument = std::map<std::string, Lines>;

// The rows that every change of the session would give.
RowsByInstrument rows_of_session() {
    std::map<std::string, std::string> pairs;
    std::string_view rest = kOptions;
    while (!rest.empty()) {
        const auto pair = rest.substr(0, rest.find('&'));
        const auto equals = pair.find('=');
        pairs.emplace(pair.substr(0, equals), pair.substr(equals + 1));
        rest.remove_prefix(std::min(pair.size() + 1, rest.size()));
    }
    const auto parsed = exchange_sim::parse_session_options(pairs);
    EXPECT_EQ(parsed.error, "");
    exchange_sim::Session session(parsed.options);
    RowsByInstrument rows;
    session.on_change([&rows](std::size_t, const exchange_sim::ExpectedRecord& record) {
        rows[record.inst_id.data()].push_back(row_of(record));
    });
    for (exchange_sim::WireFrame frame; session.next(frame);) {
    }
    return rows;
}

RowsByInstrument rows_of_recording(std::string_view csv) {
    RowsByInstrument rows;
    csv.remove_prefix(std::min(kCsvHeader.size(), csv.size()));
    while (!csv.empty()) {
        const auto row = csv.substr(0, csv.find('\n'));
        const auto id = row.substr(2, row.find(',', 2) - 2);
        rows[std::string(id)].emplace_back(row);
        csv.remove_prefix(std::min(row.size() + 1, csv.size()));
    }
    return rows;
}

class SimulatedSession : public testing::Test {
protected:
    Recording record(const std::string& insts, const std::string& more = "") {
        return work.record({.device = "sim:" + std::string(kOptions) + "&eof=stop",
                            .insts = insts,
                            .ine = true,
                            .more = more});
    }
    Workspace work;
};

// From an instrument's first recorded change on, every change up to its last one.
void expect_true_rows(const RowsByInstrument& recorded, const RowsByInstrument& truth) {
    for (const auto& [id, rows] : recorded) {
        const auto found = truth.find(id);
        ASSERT_NE(found, truth.end()) << id;
        const Lines& all = found->second;
        ASSERT_LE(rows.size(), all.size()) << id;
        EXPECT_EQ(rows.back(), all.back()) << id;
        EXPECT_TRUE(std::equal(rows.rbegin(), rows.rend(), all.rbegin())) << id;
    }
}

TEST_F(SimulatedSession, EndsWithTheExchangesOwnBooks) {
    const RowsByInstrument truth = rows_of_session();
    const Recording run = record("all");
    EXPECT_EQ(run.end.exit_status, 0);
    EXPECT_EQ(run.end.err, "");
    const RowsByInstrument recorded = rows_of_recording(run.csv);
    EXPECT_EQ(truth.size(), 60u);
    EXPECT_EQ(recorded.size(), truth.size());
    EXPECT_GT(count_of("\n", run.csv), 15'000u);
    expect_true_rows(recorded, truth);
    // No restart and nothing to complain of.
    EXPECT_EQ(count_of("[E]", run.end.out) + count_of("[W]", run.end.out), 0u);
    EXPECT_EQ(count_of("start initialization", run.end.out), 1u);
}

TEST_F(SimulatedSession, GivesTheSameBytesTwice) {
    const Recording first = record("all");
    const Recording second = record("all");
    EXPECT_GT(first.csv.size(), 1'000'000u);
    EXPECT_EQ(first_difference(second.csv, first.csv), "");
    EXPECT_EQ(second.log, first.log);
}

TEST_F(SimulatedSession, RecordsASubscribedProductAsIfItWereAll) {
    const RowsByInstrument truth = rows_of_session();
    const std::string product = "cu";
    const Recording run = record(product, "options = norecv\n");
    const RowsByInstrument recorded = rows_of_recording(run.csv);
    std::size_t listed = 0;
    for (const auto& [id, rows] : truth) {
        listed += id.starts_with(product) && id.size() <= 6 ? 1 : 0;
        EXPECT_EQ(recorded.contains(id), id.starts_with(product) && id.size() <= 6) << id;
    }
    EXPECT_GT(listed, 0u);
    expect_true_rows(recorded, truth);
}

} // namespace
} // namespace recorder
