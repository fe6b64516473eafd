#include "guarded_memory.h"

#include <cerrno>
#include <sys/mman.h>
#include <system_error>

namespace udp_test {

GuardedMemory::GuardedMemory(std::size_t size) : size_(size) {
    void* const at = ::mmap(nullptr, size + 2 * kPage, PROT_NONE,
                            MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (at == MAP_FAILED) {
        throw std::system_error(errno, std::generic_category(), "mmap");
    }
    base_ = static_cast<char*>(at);
    if (::mprotect(begin(), size, PROT_READ | PROT_WRITE) != 0) {
        const int reason = errno;
        ::munmap(base_, size + 2 * kPage);
        throw std::system_error(reason, std::generic_category(), "mprotect");
    }
}

GuardedMemory::~GuardedMemory() {
    ::munmap(base_, size_ + 2 * kPage);
}

} // namespace udp_test
