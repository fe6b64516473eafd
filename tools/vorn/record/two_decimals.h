#pragma once

// A double with two decimals, byte for byte what printf's "%.2f" gives in the C locale.

#include <cstddef>

namespace vorn_cli {

// The longest: a sign, the 309 digits of the largest double, a point and two decimals.
inline constexpr std::size_t kLongestTwoDecimals = 313;

// Writes to `to`, which has room for kLongestTwoDecimals characters and one more, and returns the
// end of what was written; no terminator is part of it.
char* put_two_decimals(char* to, double value);

} // namespace vorn_cli
