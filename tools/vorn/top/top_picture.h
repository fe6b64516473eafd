#pragma once

// Draws what `vorn top` shows: model to cells, at any size.

#include "tools/vorn/top/screen.h"
#include "tools/vorn/top/top_model.h"

namespace vorn_cli {

struct PictureOptions {
    bool unicode = true; // lines and bars; else ASCII
    bool keys = true;    // the last line says which keys there are
};

// Below this size the picture only says that there is too little room.
inline constexpr int kLeastWidth = 24;
inline constexpr int kLeastHeight = 6;

Screen draw_top(const TopModel& model, int width, int height, const PictureOptions& options);

} // namespace vorn_cli
