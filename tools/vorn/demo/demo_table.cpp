#include "tools/vorn/demo/demo_table.h"

#include "exchange_sim/record_bytes.h"
#include "tools/session_report/truth_rows.h"
#include "tools/vorn/record/csv_row.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>

namespace vorn_cli {

namespace {

constexpr std::size_t kShown = 10;

uint32_t slot_of(const exchange_sim::Instrument& which) {
    return which.exchange == exchange_sim::Exchange::kShfe ? which.number
                                                           : LAST_SLOT - which.number;
}

std::string row_of(const instrument& record) {
    std::string row;
    append_csv_row(row, record);
    row.pop_back();
    return row;
}

} // namespace

DemoTable::DemoTable() : records_(INSTRUMENT_SLOT_CNT), counts_(INSTRUMENT_SLOT_CNT) {}

void DemoTable::update(const instrument& record, uint32_t slot) {
    records_[slot] = record;
    ++counts_[slot];
    ++updates_;
}

std::size_t DemoTable::instruments() const {
    return counts_.size() -
           static_cast<std::size_t>(std::count(counts_.begin(), counts_.end(), uint64_t{0}));
}

std::size_t DemoTable::busiest() const {
    return static_cast<std::size_t>(std::max_element(counts_.begin(), counts_.end()) -
                                    counts_.begin());
}

uint64_t DemoTable::busiest_updates() const {
    return counts_[busiest()];
}

std::string DemoTable::busiest_row() const {
    return updates_ == 0 ? std::string() : row_of(records_[busiest()]);
}

TableComparison DemoTable::compare(const exchange_sim::Session& session) const {
    TableComparison result;
    for (std::size_t index = 0; index < session.instruments().size(); ++index) {
        const exchange_sim::ExpectedRecord& truth = session.truth(index);
        const uint32_t slot = slot_of(session.instruments()[index]);
        const auto expected = exchange_sim::record_bytes(truth);
        static_assert(sizeof(instrument) == exchange_sim::kRecordSize);
        // NOLINTNEXTLINE(bugprone-suspicious-memory-comparison): bit for bit, on purpose
        if (std::memcmp(&records_[slot], expected.data(), expected.size()) == 0) {
            ++result.equal;
            continue;
        }
        ++result.different;
        if (result.shown.size() < kShown) {
            const std::string what =
                counts_[slot] == 0 ? "no update"
                                   : session_report::first_difference(
                                         row_of(records_[slot]), session_report::csv_row(truth));
            result.shown.push_back(fmt::format("{}: {}", truth.inst_id.data(), what));
        }
    }
    return result;
}

} // namespace vorn_cli
