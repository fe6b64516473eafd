#pragma once

// What the firmware does with a frame from the line: deliver a multicast datagram's payload on the
// decode path, mirror a TCP frame on the raw path, or ignore it.

#include "softcard/registers/register_window.h"

#include <cstdint>
#include <span>

namespace softcard {

// The two receive paths by their port numbers.
inline constexpr int kDecodePort = 0;
inline constexpr int kRawPort = 1;

enum class Path : uint8_t { kIgnored, kDecode, kRaw };

struct Classified {
    Path path = Path::kIgnored;
    std::span<const uint8_t> delivered; // points into the frame
};

// Judged by the switches given and by the lines and filter tables as they are now.
Classified classify(std::span<const uint8_t> frame, const Switches& switches,
                    const RegisterWindow& registers);

} // namespace softcard
