#pragma once

// The card of a fuzz target: the seven libexanic calls, of which only a receive does anything. It
// hands out one frame or status and then has none. No lock and no allocation, because a campaign
// polls it some hundred million times.
//
// One thread.

#include <cstdint>
#include <span>
#include <sys/types.h>

struct exanic_rx; // the library's receive buffer

namespace fuzz {

class FuzzCard {
public:
    static ::exanic_rx* rx();

    // What the next poll answers; the bytes must live until then. A frame larger than the caller's
    // buffer is answered with -257, as the library does, and an empty one is no frame.
    static void put(std::span<const uint8_t> frame);
    static void put_status(ssize_t status);
    // Whether it has been polled since.
    static bool is_empty();
};

} // namespace fuzz
