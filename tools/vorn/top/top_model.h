#pragma once

// What `vorn top` shows, before it is drawn.

#include "tools/vorn/bus_view/feed_view.h"

#include <optional>
#include <string>
#include <vector>

namespace vorn_cli {

struct TopRow {
    uint32_t slot = 0;
    std::string inst_id;
    double updates_per_s = 0;
};

struct TopModel {
    FeedStatus status;
    std::vector<FeedEvent> events; // newest first
    // All instruments, the busiest first; or those that a search finds.
    std::vector<TopRow> rows;
    std::size_t chosen = 0; // index of the row that is shown; meaningless when there is none
    std::optional<InstrumentState> shown;
    bool automatic = true;  // the busiest is shown, whichever that is
    bool searching = false; // keys go into `search`
    std::string search;
};

} // namespace vorn_cli
