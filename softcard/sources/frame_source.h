#pragma once

// Where a software card gets its frames from. A source is a sequence of whole Ethernet frames with
// time stamps that never fall; the firmware model decides what each frame is and whether the card
// passes it. Pulled by the card, on the thread that polls it; a source starts no thread.

#include <cstdint>
#include <memory>
#include <span>
#include <string>

namespace softcard {

struct SourceFrame {
    uint64_t timestamp_ns = 0;      // since the Unix epoch
    std::span<const uint8_t> bytes; // whole Ethernet frame, valid until the next call of next()
    // Frames in front of this one were lost to readers that were too slow: their next poll says so.
    bool reader_lapped = false;
};

class FrameSource {
public:
    FrameSource() = default;
    FrameSource(const FrameSource&) = delete;
    FrameSource& operator=(const FrameSource&) = delete;
    virtual ~FrameSource() = default;

    // The next frame, or false when there is none: for good, unless exhausted() says otherwise.
    virtual bool next(SourceFrame& frame) = 0;

    // After next() gave false: whether that is for good. A live source may have frames later.
    virtual bool exhausted() const { return true; }
};

} // namespace softcard
