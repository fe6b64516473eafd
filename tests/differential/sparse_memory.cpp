#include "sparse_memory.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <sys/mman.h>
#include <system_error>
#include <vector>

namespace differential {
namespace {

constexpr std::size_t kPage = 4096;

alignas(64) const uint8_t kZeros[kPage] = {};

bool all_zero(const uint8_t* data, std::size_t size) { // at most a page
    return std::memcmp(data, kZeros, size) == 0;
}

} // namespace

SparseMemory::SparseMemory(std::size_t size) : size_((size + kPage - 1) / kPage * kPage) {
    data_ = ::mmap(nullptr, size_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    // A huge page would count as touched as a whole.
    if (data_ == MAP_FAILED || ::madvise(data_, size_, MADV_NOHUGEPAGE) != 0) {
        throw std::system_error(errno, std::generic_category(), "memory for a scenario");
    }
}

SparseMemory::~SparseMemory() {
    ::munmap(data_, size_);
}

void SparseMemory::forget() {
    ::madvise(data_, size_, MADV_DONTNEED);
}

void SparseMemory::each_used(std::size_t begin, std::size_t size, std::size_t count,
                             const std::function<void(std::size_t)>& visit) const {
    std::vector<unsigned char> resident(size_ / kPage);
    if (::mincore(data_, size_, resident.data()) != 0) {
        throw std::system_error(errno, std::generic_category(), "mincore");
    }
    const auto* bytes = static_cast<const uint8_t*>(data_);
    std::size_t next = 0; // element not yet looked at
    for (std::size_t page = 0; page < resident.size(); ++page) {
        if ((resident[page] & 1) == 0 || (page + 1) * kPage <= begin ||
            all_zero(bytes + page * kPage, kPage)) {
            continue;
        }
        const std::size_t from = std::max(page * kPage, begin) - begin;
        const std::size_t to = (page + 1) * kPage - begin;
        for (next = std::max(next, from / size); next < count && next * size < to; ++next) {
            if (!all_zero(bytes + begin + next * size, size)) {
                visit(next);
            }
        }
    }
}

} // namespace differential
