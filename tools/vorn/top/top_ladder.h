#pragma once

// The ladder of one instrument: asks above bids, ten levels a side where there is room.

#include "tools/vorn/bus_view/feed_view.h"
#include "tools/vorn/top/screen.h"

namespace vorn_cli {

// An area of a screen, ends not included.
struct Area {
    int top = 0;
    int left = 0;
    int bottom = 0;
    int right = 0;
    int width() const { return right - left; }
    int height() const { return bottom - top; }
};

void draw_ladder(Screen& screen, const Area& area, const InstrumentState& state, bool unicode);

} // namespace vorn_cli
