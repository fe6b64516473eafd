#pragma once

// A large block of zeros that tells which of its pages were touched, so that a scenario which uses
// three slots of a table of 20480 is cheap to set up, to look through and to forget.

#include <cstddef>
#include <functional>

namespace differential {

class SparseMemory {
public:
    explicit SparseMemory(std::size_t size);
    ~SparseMemory();
    SparseMemory(const SparseMemory&) = delete;
    SparseMemory& operator=(const SparseMemory&) = delete;

    template <typename Type>
    Type* as() const {
        return static_cast<Type*>(data_);
    }
    void forget(); // all zeros again

    // Calls `visit` with the index of every element of `size` bytes that lies, from `begin` on, in
    // touched pages and is not all zeros; by index.
    void each_used(std::size_t begin, std::size_t size, std::size_t count,
                   const std::function<void(std::size_t)>& visit) const;

private:
    void* data_;
    std::size_t size_;
};

} // namespace differential
