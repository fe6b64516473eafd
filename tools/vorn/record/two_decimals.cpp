#include "tools/vorn/record/two_decimals.h"

#include <bit>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <cstring>

namespace vorn_cli {

namespace {

// A double below 2^43 is significand * 2^-shift with a shift of at least 10. Everything that rounds
// to 0.00 aside, the shift is at most 60, so that the part behind the point times 100 (60 bits) and
// the bits that decide the rounding are exact in 64.
constexpr unsigned kExponentBias = 1075;
constexpr unsigned kLeastShift = 10;
constexpr unsigned kLargestShift = 60;

constexpr uint64_t kSignificandMask = (uint64_t{1} << 52) - 1;

char* put_with_printf(char* to, double value) {
    const int length = std::snprintf(to, kLongestTwoDecimals + 1, "%.2f", value);
    return to + (length < 0 ? 0 : length);
}

char* put_cents(char* to, unsigned cents) { // below 100
    to[0] = '.';
    to[1] = static_cast<char>('0' + cents / 10);
    to[2] = static_cast<char>('0' + cents % 10);
    return to + 3;
}

} // namespace

char* put_two_decimals(char* to, double value) {
    const auto bits = std::bit_cast<uint64_t>(value);
    const auto exponent = static_cast<unsigned>(bits >> 52) & 0x7FF;
    if (exponent > kExponentBias - kLeastShift) { // 2^43 and above, infinite, no number
        return put_with_printf(to, value);
    }
    *to = '-';
    to += bits >> 63;
    const unsigned shift = kExponentBias - exponent;
    if (shift > kLargestShift) { // below 2^-8, also 0 and what is too small to be normal
        *to = '0';
        return put_cents(to + 1, 0);
    }
    const uint64_t significand = (bits & kSignificandMask) | (kSignificandMask + 1);
    const uint64_t below_one = (uint64_t{1} << shift) - 1;
    const uint64_t hundredfold = (significand & below_one) * 100;
    const uint64_t rest = hundredfold & below_one;
    const uint64_t half = uint64_t{1} << (shift - 1);
    uint64_t whole = significand >> shift;
    auto cents = static_cast<unsigned>(hundredfold >> shift);
    // A tie goes to the even neighbour.
    cents += static_cast<unsigned>(rest > half || (rest == half && (cents & 1) != 0));
    if (cents == 100) {
        cents = 0;
        ++whole;
    }
    return put_cents(std::to_chars(to, to + 20, whole).ptr, cents);
}

} // namespace vorn_cli
