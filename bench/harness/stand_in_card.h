#pragma once

// The seven calls of the card, answered from memory: exanic_receive_frame copies the next frame of
// a list into the caller's buffer and says 0 behind its end. Every contender receives through it,
// so that all pay the same for the card.

#include <cstddef>
#include <cstdint>
#include <vector>

namespace bench {

// Frames one behind the other in one block, as a ring would hold them.
class FrameList {
public:
    void add(const void* bytes, std::size_t size);
    std::size_t size() const { return ends_.size(); }
    const char* bytes(std::size_t index) const { return bytes_.data() + begin(index); }
    std::size_t length(std::size_t index) const { return ends_[index] - begin(index); }

private:
    std::size_t begin(std::size_t index) const { return index == 0 ? 0 : ends_[index - 1]; }

    std::vector<char> bytes_;
    std::vector<std::size_t> ends_;
};

// From now on every receive buffer hands out the list's frames [first, last).
void serve(const FrameList& frames, std::size_t first, std::size_t last);
void serve(const FrameList& frames);

// Reads the frame that is handed out next, so that it lies in the first-level cache.
void warm_next();

// The register window that the stand-in hands out; 32768 words.
volatile uint32_t* registers();

} // namespace bench
