#include "tools/vorn/tap/tap_order.h"

#include <algorithm>

namespace vorn_cli {

TapVerdict TapOrder::judge(std::string_view subject, const UpdateId& id) {
    key_.assign(id.label).append(1, '/').append(subject);
    Last& last = last_[key_];
    const uint32_t number = id.change_no;
    if (id.is_value) {
        if (last.has_any && number <= last.any) {
            ++repeated_;
            return TapVerdict::kRepeated;
        }
        last.has_any = true;
        last.any = number;
        ++values_;
        return TapVerdict::kNewest;
    }
    if (last.has_update && number <= last.update) {
        ++repeated_;
        return TapVerdict::kRepeated;
    }
    missing_ += last.has_update ? number - last.update - 1 : 0;
    const bool newest = !last.has_any || number >= last.any;
    last.any = last.has_any ? std::max(last.any, number) : number;
    last.has_any = true;
    last.has_update = true;
    last.update = number;
    ++updates_;
    return newest ? TapVerdict::kNewest : TapVerdict::kLate;
}

bool TapOrder::is_new_event(std::string_view id) {
    if (event_ids_.size() >= kEventIds) {
        event_ids_.clear();
    }
    return event_ids_.emplace(id).second;
}

} // namespace vorn_cli
