#pragma once

// A ring of bytes between one thread that puts entries in and one that takes them out, without lock
// or system call. What the receive thread pays for an entry is a copy, two loads and a store: it
// keeps the consumer's position that it saw last and looks again only when that leaves no room.
//
// An entry is a head of 16 bytes and its bytes, filled up to a multiple of 16, always in one piece:
// one that does not fit before the end of the ring starts at its beginning. All memory is touched
// when the ring is made, so that no page fault meets the receive thread.

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

namespace vorn_cli {

// NOLINTNEXTLINE(clang-analyzer-optin.performance.Padding): one cache line each, by who writes it
class FrameRing {
public:
    static constexpr std::size_t kSmallest = 16384;
    // Room that entries which must not be lost may still use when the ring is full for others.
    static constexpr std::size_t kReserve = 4096;

    struct Entry {
        uint32_t kind;
        uint64_t time_ns;
        std::span<const char> bytes; // valid inside the call
    };

    // `size` in bytes, raised to a power of two.
    explicit FrameRing(std::size_t size);

    // The producer's. False when there is no room; nothing was put in then.
    bool push(uint32_t kind, uint64_t time_ns, std::span<const char> bytes) {
        return put(kind, time_ns, bytes, kReserve);
    }
    bool push_urgent(uint32_t kind, std::span<const char> bytes) { return put(kind, 0, bytes, 0); }

    // The consumer's: calls `take` with each entry that was there when the call began, and gives
    // their room back one by one, until it returns false: that entry stays. Returns how many were
    // taken.
    template <typename Take>
    std::size_t drain(Take take);

    std::size_t size() const { return size_; }

private:
    struct Head {
        uint32_t size; // of the bytes; kFiller: nothing until the end of the ring
        uint32_t kind;
        uint64_t time_ns;
    };
    static_assert(sizeof(Head) == 16);
    static constexpr uint32_t kFiller = UINT32_MAX;

    static constexpr std::size_t rounded(std::size_t size) {
        return (size + 15) & ~std::size_t{15};
    }
    bool put(uint32_t kind, uint64_t time_ns, std::span<const char> bytes, std::size_t reserve);
    Head head_at(uint64_t position) const;

    const std::size_t size_;
    const std::unique_ptr<char[]> memory_;
    // Positions only grow; each on a cache line of its own.
    alignas(64) std::atomic<uint64_t> written_{0};
    uint64_t read_seen_ = 0; // the producer's: read_ as it was last seen
    alignas(64) std::atomic<uint64_t> read_{0};
};

template <typename Take>
std::size_t FrameRing::drain(Take take) {
    std::size_t entries = 0;
    uint64_t position = read_.load(std::memory_order_relaxed);
    const uint64_t end = written_.load(std::memory_order_acquire);
    while (position != end) {
        const std::size_t at = position & (size_ - 1);
        const Head head = head_at(position);
        if (head.size == kFiller) {
            position += size_ - at;
        } else {
            if (!take(Entry{head.kind, head.time_ns, {&memory_[at + sizeof(Head)], head.size}})) {
                break;
            }
            position += sizeof(Head) + rounded(head.size);
            ++entries;
        }
        read_.store(position, std::memory_order_release);
    }
    return entries;
}

} // namespace vorn_cli
