#include "tools/vorn/convert/csv_event.h"

#include <cstring>

namespace vorn_cli {

namespace {

constexpr uint64_t kSecond = 1'000'000'000;
constexpr uint64_t kMillisecond = 1'000'000;

} // namespace

uint64_t csv_time_ns(const instrument& record) {
    return record.update_time * kSecond + record.update_milli_sec * kMillisecond;
}

instrument csv_event_record(const ResearchRow& event) {
    instrument record{};
    record.type = static_cast<uint16_t>(kCsvEventType + event.event);
    std::memcpy(record.inst_id, event.record.inst_id, sizeof(record.inst_id));
    record.update_time = static_cast<uint32_t>(event.receive_time_ns / kSecond);
    record.update_milli_sec = static_cast<uint16_t>(event.receive_time_ns % kSecond / kMillisecond);
    record.change_no = event.received;
    record.volume = event.expected;
    record.open_interest = static_cast<double>(event.count);
    record.bid_vol[0] = event.phase;
    record.bid_vol[1] = event.previous_phase;
    record.bid_vol[2] = static_cast<int32_t>(event.feed);
    record.bid_vol[3] = static_cast<int32_t>(event.slot);
    return record;
}

ResearchRow event_of_csv_record(const instrument& record) {
    ResearchRow row = event_row(static_cast<RowEvent>(record.type - kCsvEventType));
    row.flags |= kRowFromCsv;
    row.receive_time_ns = csv_time_ns(record);
    std::memcpy(row.record.inst_id, record.inst_id, sizeof(row.record.inst_id));
    row.received = record.change_no;
    row.expected = record.volume;
    row.count = static_cast<uint64_t>(record.open_interest);
    row.phase = static_cast<uint16_t>(record.bid_vol[0]);
    row.previous_phase = static_cast<uint16_t>(record.bid_vol[1]);
    row.feed = static_cast<uint32_t>(record.bid_vol[2]);
    row.slot = static_cast<uint32_t>(record.bid_vol[3]);
    return row;
}

} // namespace vorn_cli
