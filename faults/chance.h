#pragma once

// The chance behind a fault. The same seed gives the same draws on every machine.

#include <cstdint>

namespace faults {

class Chance {
public:
    // `stream` keeps the faults of one filter apart.
    Chance(uint64_t seed, uint64_t stream) : state_(seed * kStep + (stream + 1) * kStream) {}

    // 0 to bound - 1; 0 for a bound of 0.
    uint64_t below(uint64_t bound) { return bound == 0 ? 0 : draw() % bound; }

private:
    static constexpr uint64_t kStep = 0x9E3779B97F4A7C15;
    static constexpr uint64_t kStream = 0xD1B54A32D192ED03;

    uint64_t draw() {
        state_ += kStep;
        uint64_t mixed = state_;
        mixed = (mixed ^ mixed >> 30) * 0xBF58476D1CE4E5B9;
        mixed = (mixed ^ mixed >> 27) * 0x94D049BB133111EB;
        return mixed ^ mixed >> 31;
    }

    uint64_t state_;
};

} // namespace faults
