#pragma once

// Numbers and times as the screen shows them.

#include <cstdint>
#include <string>

namespace vorn_cli {

// "3 ms", "1.5 s", "2:05", "1:02:05"
std::string duration_text(uint64_t ns);
// "16:58:02", local time; "-" for 0.
std::string clock_text(uint64_t epoch_ns);
// "0.2", "51", "5,120", "1.2 M"
std::string rate_text(double per_second);

} // namespace vorn_cli
