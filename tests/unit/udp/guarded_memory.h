#pragma once

#include <cstddef>

namespace udp_test {

// Zeroed memory between two pages that cannot be accessed, so that a read or a store beside it ends
// the test in every build and not only under a sanitizer. Pages that are not written cost nothing.
class GuardedMemory {
public:
    // A multiple of the page size, 4096.
    explicit GuardedMemory(std::size_t size);
    ~GuardedMemory();
    GuardedMemory(const GuardedMemory&) = delete;
    GuardedMemory& operator=(const GuardedMemory&) = delete;

    char* begin() const { return base_ + kPage; }
    char* end() const { return begin() + size_; }

private:
    static constexpr std::size_t kPage = 4096;

    std::size_t size_;
    char* base_;
};

} // namespace udp_test
