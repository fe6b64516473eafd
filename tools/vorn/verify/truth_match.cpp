#include "tools/vorn/verify/truth_match.h"

#include "wirekit/bytes.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>

namespace vorn_cli {

namespace {

using exchange_sim::RecordBytes;
using exchange_sim::RecordField;

constexpr std::size_t kShown = 10;
// What an instrument that nobody subscribes may pile up; the oldest goes first.
constexpr std::size_t kMostAhead = 65536;
constexpr std::size_t kChangeNoOffset = 36;
constexpr std::size_t kStatedLevels = 5; // levels that a snapshot carries

static_assert(sizeof(instrument) == exchange_sim::kRecordSize);

uint32_t change_no_of(const RecordBytes& record) {
    return wirekit::get_le32(record.data() + kChangeNoOffset);
}

std::string element_text(RecordField::Type type, const uint8_t* at, std::size_t size) {
    switch (type) {
    case RecordField::Type::kText: {
        const char* text = reinterpret_cast<const char*>(at);
        return std::string(text, strnlen(text, size));
    }
    case RecordField::Type::kU16:
        return std::to_string(wirekit::get_le16(at));
    case RecordField::Type::kU32:
        return std::to_string(wirekit::get_le32(at));
    case RecordField::Type::kI32:
        return std::to_string(static_cast<int32_t>(wirekit::get_le32(at)));
    default:
        return fmt::format("{}", wirekit::get_le_f64(at)); // shortest text that reads back the same
    }
}

bool is_bid_level(const RecordField& field) {
    return std::strncmp(field.name, "bid_", 4) == 0;
}

// Levels 6 to 10 of one side are the same in both.
bool deep_levels_equal(const RecordBytes& a, const RecordBytes& b, bool bids) {
    for (const RecordField& field : exchange_sim::record_fields()) {
        if (field.count == exchange_sim::kDepth && is_bid_level(field) == bids) {
            const std::size_t width = exchange_sim::field_width(field.type);
            const std::size_t begin = field.offset + kStatedLevels * width;
            if (std::memcmp(&a[begin], &b[begin], kStatedLevels * width) != 0) {
                return false;
            }
        }
    }
    return true;
}

bool is_zero(const uint8_t* at, std::size_t size) {
    return std::all_of(at, at + size, [](uint8_t byte) { return byte == 0; });
}

// Price and volume of a level are both zero: the feed holds nothing there.
bool level_is_empty(const RecordBytes& record, bool bids, std::size_t level) {
    for (const RecordField& field : exchange_sim::record_fields()) {
        if (field.count == exchange_sim::kDepth && is_bid_level(field) == bids) {
            const std::size_t width = exchange_sim::field_width(field.type);
            if (!is_zero(&record[field.offset + level * width], width)) {
                return false;
            }
        }
    }
    return true;
}

} // namespace

TruthMatch::TruthMatch(const std::string& truth_path)
    : truth_(truth_path), index_of_slot_(INSTRUMENT_SLOT_CNT, -1),
      states_(truth_.instruments().size()) {
    for (std::size_t i = 0; i < states_.size(); ++i) {
        const auto& entry = truth_.instruments()[i];
        const int64_t slot =
            entry.exchange == 0 ? int64_t{entry.number} : LAST_SLOT - int64_t{entry.number};
        if (slot >= 0 && slot <= LAST_SLOT) {
            index_of_slot_[static_cast<std::size_t>(slot)] = static_cast<int32_t>(i);
        }
    }
}

void TruthMatch::snapshot_begins() {
    for (State& state : states_) {
        state.bids_stated = false;
        state.asks_stated = false;
        state.live = false;
    }
}

void TruthMatch::update(const instrument& record, uint32_t slot) {
    ++updates_;
    RecordBytes got;
    std::memcpy(got.data(), &record, got.size());
    const int32_t index = slot < index_of_slot_.size() ? index_of_slot_[slot] : -1;
    if (index < 0) {
        ++difference_count_;
        if (shown_.size() < kShown) {
            shown_.push_back({std::string(reinterpret_cast<const char*>(record.inst_id),
                                          strnlen(reinterpret_cast<const char*>(record.inst_id),
                                                  sizeof(record.inst_id))),
                              record.change_no, "slot", "no instrument", std::to_string(slot)});
        }
        return;
    }
    const auto at = static_cast<std::size_t>(index);
    State& state = states_[at];
    // Changes are passed over only between a snapshot and the first update.
    const uint32_t next = change_no_of(state.last) + 1;
    const bool in_order = !state.live || record.change_no == next;
    state.seen = true;
    state.live = true;
    state.last = got;
    if (!in_order) {
        differ(at, record.change_no, "change_no", std::to_string(next),
               std::to_string(record.change_no));
        return;
    }
    const RecordBytes* expected = expect(state, record.change_no);
    if (expected == nullptr) {
        differ(at, record.change_no, "change_no", "a change that the exchange made, in order",
               std::to_string(record.change_no));
        return;
    }
    compare(state, at, *expected, got);
}

// The record that the exchange had after this change of the instrument, or null.
const RecordBytes* TruthMatch::expect(State& state, uint32_t change_no) {
    while (!state.ahead.empty() && change_no_of(state.ahead.front()) < change_no) {
        state.ahead.pop_front();
    }
    exchange_sim::TruthChange change;
    while (state.ahead.empty() && truth_.next(change)) {
        State& owner = states_[change.instrument];
        if (&owner == &state && change_no_of(*change.record) < change_no) {
            continue; // applied silently, or contained in the snapshot
        }
        owner.ahead.push_back(*change.record);
        if (owner.ahead.size() > kMostAhead) {
            owner.ahead.pop_front();
        }
    }
    if (state.ahead.empty() || change_no_of(state.ahead.front()) != change_no) {
        return nullptr;
    }
    return &state.ahead.front();
}

void TruthMatch::compare(State& state, std::size_t index, const RecordBytes& expected,
                         const RecordBytes& got) {
    state.bids_stated = state.bids_stated || deep_levels_equal(expected, got, true);
    state.asks_stated = state.asks_stated || deep_levels_equal(expected, got, false);
    if (expected == got) {
        return;
    }
    for (const RecordField& field : exchange_sim::record_fields()) {
        const bool is_text = field.type == RecordField::Type::kText;
        const std::size_t width = is_text ? field.count : exchange_sim::field_width(field.type);
        const std::size_t elements = is_text ? 1 : field.count;
        for (std::size_t i = 0; i < elements; ++i) {
            const uint8_t* want = &expected[field.offset + i * width];
            const uint8_t* have = &got[field.offset + i * width];
            if (std::memcmp(want, have, width) == 0) {
                continue;
            }
            const bool stated = is_bid_level(field) ? state.bids_stated : state.asks_stated;
            if (field.count == exchange_sim::kDepth && i >= kStatedLevels && !stated &&
                level_is_empty(got, is_bid_level(field), i)) {
                continue; // a snapshot has five levels; this one has not been restated yet
            }
            differ(index, change_no_of(got),
                   elements == 1 ? std::string(field.name) : fmt::format("{}[{}]", field.name, i),
                   element_text(field.type, want, width), element_text(field.type, have, width));
        }
    }
}

void TruthMatch::finish(bool all_subscribed) {
    for (std::size_t i = 0; i < states_.size(); ++i) {
        State& state = states_[i];
        const RecordBytes& final_record = truth_.final_records()[i];
        if (!state.seen) {
            if (all_subscribed && change_no_of(final_record) != 0) {
                differ(i, 0, "updates", "at least one", "none");
            }
            continue;
        }
        const uint32_t change_no = change_no_of(state.last);
        if (change_no != change_no_of(final_record)) {
            differ(i, change_no, "last change", std::to_string(change_no_of(final_record)),
                   std::to_string(change_no));
        }
    }
}

std::size_t TruthMatch::updated() const {
    return static_cast<std::size_t>(
        std::count_if(states_.begin(), states_.end(), [](const State& s) { return s.seen; }));
}

void TruthMatch::differ(std::size_t index, uint32_t change_no, std::string field,
                        std::string expected, std::string got) {
    ++difference_count_;
    if (shown_.size() < kShown) {
        shown_.push_back({truth_.instruments()[index].id, change_no, std::move(field),
                          std::move(expected), std::move(got)});
    }
}

} // namespace vorn_cli
