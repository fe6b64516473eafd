#pragma once

// Draws what `vorn top` shows: model to cells, at any size.

#include "tools/vorn/top/screen.h"
#include "tools/vorn/top/top_model.h"

#include <cstdint>
#include <string>

namespace vorn_cli {

struct PictureOptions {
    bool unicode = true; // lines and bars; else ASCII
    bool keys = true;    // the last line says which keys there are
};

// Below this size the picture only says that there is too little room.
inline constexpr int kLeastWidth = 24;
inline constexpr int kLeastHeight = 6;

Screen draw_top(const TopModel& model, int width, int height, const PictureOptions& options);

// "3 ms", "1.5 s", "2:05", "1:02:05"
std::string duration_text(uint64_t ns);
// "16:58:02", local time; "-" for 0.
std::string clock_text(uint64_t epoch_ns);
// "0.2", "51", "5,120", "1.2 M"
std::string rate_text(double per_second);

} // namespace vorn_cli
