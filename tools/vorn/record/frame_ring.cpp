#include "tools/vorn/record/frame_ring.h"

#include <algorithm>
#include <bit>
#include <cstring>

namespace vorn_cli {

FrameRing::FrameRing(std::size_t size)
    : size_(std::bit_ceil(std::max(size, kSmallest))), memory_(std::make_unique<char[]>(size_)) {
    for (std::size_t at = 0; at < size_; at += 4096) {
        const_cast<volatile char&>(memory_[at]) = 0;
    }
}

FrameRing::Head FrameRing::head_at(uint64_t position) const {
    Head head;
    std::memcpy(&head, &memory_[position & (size_ - 1)], sizeof(head));
    return head;
}

bool FrameRing::put(uint32_t kind, uint64_t time_ns, std::span<const char> bytes,
                    std::size_t reserve) {
    const std::size_t needed = sizeof(Head) + rounded(bytes.size());
    const uint64_t begin = written_.load(std::memory_order_relaxed);
    const std::size_t at = begin & (size_ - 1);
    const std::size_t skipped = size_ - at < needed ? size_ - at : 0;
    const uint64_t end = begin + skipped + needed;
    if (end + reserve - read_seen_ > size_) {
        read_seen_ = read_.load(std::memory_order_acquire);
        if (end + reserve - read_seen_ > size_) {
            return false;
        }
    }
    if (skipped != 0) {
        const Head filler{kFiller, 0, 0};
        std::memcpy(&memory_[at], &filler, sizeof(filler));
    }
    char* const to = &memory_[skipped != 0 ? 0 : at];
    const Head head{static_cast<uint32_t>(bytes.size()), kind, time_ns};
    std::memcpy(to, &head, sizeof(head));
    std::memcpy(to + sizeof(head), bytes.data(), bytes.size());
    written_.store(end, std::memory_order_release);
    return true;
}

} // namespace vorn_cli
