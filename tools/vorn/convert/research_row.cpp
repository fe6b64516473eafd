#include "tools/vorn/convert/research_row.h"

#include <cstring>

namespace vorn_cli {

namespace {

using Type = RowColumn::Type;

constexpr uint16_t kRecordAt = offsetof(ResearchRow, record);

constexpr RowColumn of_record(const char* name, Type type, std::size_t offset, uint16_t count = 1) {
    return {name, type, static_cast<uint16_t>(kRecordAt + offset), count};
}

} // namespace

const char* row_event_name(RowEvent event) {
    static constexpr const char* kNames[kRowEvents] = {"none",  "phase",    "gap",  "restart",
                                                       "round", "overflow", "lost", "skip"};
    const auto index = static_cast<uint16_t>(event);
    return index < kRowEvents ? kNames[index] : "unknown";
}

std::span<const RowColumn> row_columns() {
    static constexpr RowColumn kColumns[] = {
        {"receive_time_ns", Type::kU64, offsetof(ResearchRow, receive_time_ns), 1},
        {"sequence", Type::kU64, offsetof(ResearchRow, sequence), 1},
        {"flags", Type::kU16, offsetof(ResearchRow, flags), 1},
        {"event", Type::kU16, offsetof(ResearchRow, event), 1},
        {"slot", Type::kU32, offsetof(ResearchRow, slot), 1},
        {"phase", Type::kU16, offsetof(ResearchRow, phase), 1},
        {"previous_phase", Type::kU16, offsetof(ResearchRow, previous_phase), 1},
        {"expected", Type::kU32, offsetof(ResearchRow, expected), 1},
        {"received", Type::kU32, offsetof(ResearchRow, received), 1},
        {"feed", Type::kU32, offsetof(ResearchRow, feed), 1},
        {"count", Type::kU64, offsetof(ResearchRow, count), 1},
        of_record("inst_id", Type::kText, offsetof(instrument, inst_id), 16),
        of_record("last_px", Type::kF64, offsetof(instrument, last_px)),
        of_record("volume", Type::kU32, offsetof(instrument, volume)),
        of_record("update_time", Type::kU32, offsetof(instrument, update_time)),
        of_record("update_milli_sec", Type::kU16, offsetof(instrument, update_milli_sec)),
        of_record("type", Type::kU16, offsetof(instrument, type)),
        of_record("change_no", Type::kU32, offsetof(instrument, change_no)),
        of_record("turnover", Type::kF64, offsetof(instrument, turnover)),
        of_record("open_interest", Type::kF64, offsetof(instrument, open_interest)),
        of_record("bid_totvol", Type::kI32, offsetof(instrument, bid_totvol)),
        of_record("ask_totvol", Type::kI32, offsetof(instrument, ask_totvol)),
        of_record("bid_totamount", Type::kF64, offsetof(instrument, bid_totamount)),
        of_record("ask_totamount", Type::kF64, offsetof(instrument, ask_totamount)),
        of_record("highest_price", Type::kF64, offsetof(instrument, highest_price)),
        of_record("lowest_price", Type::kF64, offsetof(instrument, lowest_price)),
        of_record("bid_px", Type::kF64, offsetof(instrument, bid_px), 10),
        of_record("bid_vol", Type::kI32, offsetof(instrument, bid_vol), 10),
        of_record("ask_vol", Type::kI32, offsetof(instrument, ask_vol), 10),
        of_record("ask_px", Type::kF64, offsetof(instrument, ask_px), 10),
    };
    return kColumns;
}

ResearchRow update_row(const instrument& record, uint32_t slot) {
    ResearchRow row{};
    row.slot = slot;
    row.record = record;
    return row;
}

ResearchRow event_row(RowEvent event) {
    ResearchRow row{};
    row.flags = kRowEvent;
    row.event = static_cast<uint16_t>(event);
    row.slot = kNoRowSlot;
    return row;
}

ResearchRow event_row(const vorn_md_event_t& event) {
    ResearchRow row = event_row(static_cast<RowEvent>(event.type));
    if (event.type == VORN_MD_EVENT_GAP) {
        row.slot = event.slot;
    }
    row.phase = static_cast<uint16_t>(event.phase);
    row.previous_phase = static_cast<uint16_t>(event.previous_phase);
    row.expected = event.expected;
    row.received = event.received;
    row.feed = event.feed;
    row.count = event.count;
    std::memcpy(row.record.inst_id, event.inst_id, sizeof(row.record.inst_id));
    return row;
}

} // namespace vorn_cli
