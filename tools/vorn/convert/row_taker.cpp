#include "tools/vorn/convert/row_taker.h"

#include <algorithm>
#include <cstring>

namespace vorn_cli {

void RowTaker::put_numbered(const ResearchRow& row) {
    done_ = done_ || filter_.is_done(row);
    if (done_ || !filter_.wants(row)) {
        return;
    }
    sink_.put(row);
    ++counts_.rows;
    if (is_event(row)) {
        if (row.event < kRowEvents) {
            ++counts_.events[row.event];
        }
    } else {
        ++counts_.updates;
        const auto* const inst_id = reinterpret_cast<const char*>(row.record.inst_id);
        inst_id_.assign(inst_id, strnlen(inst_id, sizeof(row.record.inst_id)));
        instruments_.insert(inst_id_);
    }
    const uint64_t time_ns = row.receive_time_ns;
    counts_.first_time_ns = counts_.rows == 1 ? time_ns : std::min(counts_.first_time_ns, time_ns);
    counts_.last_time_ns = std::max(counts_.last_time_ns, time_ns);
    done_ = filter_.limit_reached();
    progress_.update(counts_.rows);
}

} // namespace vorn_cli
