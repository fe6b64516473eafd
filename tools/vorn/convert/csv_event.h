#pragma once

// Events in a file that has the recorder's columns. A row whose type is 100 or more is an event:
// the type less 100 is the RowEvent, and these columns carry what it tells. All others are 0.
//
//   inst_id       identifier, of a gap or a skip
//   update_time, update_milli_sec   receive time
//   change_no     received
//   volume        expected
//   open_interest count
//   bid1_volume, bid2_volume, bid3_volume   phase, previous_phase, feed
//   bid4_volume   slot, -1 for none

#include "tools/vorn/convert/research_row.h"

namespace vorn_cli {

inline constexpr uint16_t kCsvEventType = 100;

// The event as a record for append_csv_row(), and back. The sequence is not part of it.
instrument csv_event_record(const ResearchRow& event);
ResearchRow event_of_csv_record(const instrument& record);

// The time that a recorder's row has, nanoseconds since the Unix epoch.
uint64_t csv_time_ns(const instrument& record);

} // namespace vorn_cli
