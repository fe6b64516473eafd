#pragma once

// The simulator's only source of chance. The same seed must give the same bytes on every machine,
// so nothing here calls a standard distribution (their results are the library's choice) or the
// math library (its last bit is): integers and the basic IEEE operations only.

#include <array>
#include <bit>
#include <cstdint>

namespace exchange_sim {

class Rng {
public:
    // Streams of one seed are independent of each other, so that, say, the jitter of the lines can
    // draw more numbers without changing the market.
    explicit Rng(uint64_t seed, uint64_t stream = 0) {
        uint64_t state = seed ^ (stream * 0xD1342543DE82EF95u);
        for (uint64_t& word : state_) {
            word = scramble(state += 0x9E3779B97F4A7C15u);
        }
    }

    // 64 uniform bits (xoshiro256++).
    uint64_t next() {
        const uint64_t result = std::rotl(state_[0] + state_[3], 23) + state_[0];
        const uint64_t shifted = state_[1] << 17;
        state_[2] ^= state_[0];
        state_[3] ^= state_[1];
        state_[1] ^= state_[2];
        state_[0] ^= state_[3];
        state_[2] ^= shifted;
        state_[3] = std::rotl(state_[3], 45);
        return result;
    }

    // 0 to bound - 1; the bound is at least 1.
    uint32_t below(uint32_t bound) { return static_cast<uint32_t>((next() >> 32) * bound >> 32); }
    // low to high, both included.
    int32_t between(int32_t low, int32_t high) {
        return low + static_cast<int32_t>(below(static_cast<uint32_t>(high - low) + 1));
    }
    bool chance(uint32_t per_mille) { return below(1000) < per_mille; }

    // Exponentially distributed around `mean`, as the times between independent arrivals are.
    uint64_t exponential(uint64_t mean) {
        const uint64_t bits = (next() >> 11) + 1; // 1 to 2^53
        return static_cast<uint64_t>(static_cast<double>(mean) * minus_log(bits));
    }

private:
    static uint64_t scramble(uint64_t value) {
        value = (value ^ value >> 30) * 0xBF58476D1CE4E5B9u;
        value = (value ^ value >> 27) * 0x94D049BB133111EBu;
        return value ^ value >> 31;
    }

    // -ln(bits / 2^53). The power of two is taken out, the rest lies in (0.5, 1] and
    // ln m = 2 (s + s^3/3 + s^5/5 + ...) with s = (m - 1) / (m + 1), |s| <= 1/3.
    static double minus_log(uint64_t bits) {
        const int shift = 54 - static_cast<int>(std::bit_width(bits));
        const double m = static_cast<double>(bits << shift) * 0x1p-54;
        const double s = (m - 1.0) / (m + 1.0);
        const double s2 = s * s;
        double sum = 1.0 / 15.0;
        for (const double odd : {13.0, 11.0, 9.0, 7.0, 5.0, 3.0, 1.0}) {
            sum = sum * s2 + 1.0 / odd;
        }
        constexpr double kLn2 = 0.69314718055994530942;
        const double result = static_cast<double>(shift - 1) * kLn2 - 2.0 * s * sum;
        return result > 0.0 ? result : 0.0; // the series is cut off: -4e-10 for the largest input
    }

    std::array<uint64_t, 4> state_{};
};

} // namespace exchange_sim
