#pragma once

// A source whose frames come when they come: next() gives false when none is there now, and
// exhausted() tells whether that is for good.

#include "softcard/sources/frame_source.h"

#include <cstdint>
#include <span>

namespace softcard {

class LiveSource : public FrameSource {
public:
    // Frames that came and could not be kept, so far. Never falls. Cheap: asked at every poll.
    virtual uint64_t lost() = 0;

    // From now on the multicast groups to be received (IPv4, host order), instead of those before.
    virtual void join(std::span<const uint32_t> groups) = 0;
};

} // namespace softcard
