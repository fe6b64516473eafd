#include "memory_file.h"

#include "fuzz_input.h"

#include <sys/mman.h>
#include <unistd.h>

namespace fuzz {

MemoryFile::MemoryFile(const char* name)
    : fd_(::memfd_create(name, MFD_CLOEXEC)), path_("/proc/self/fd/" + std::to_string(fd_)) {
    REQUIRE(fd_ >= 0);
}

MemoryFile::~MemoryFile() {
    ::close(fd_);
}

void MemoryFile::fill(std::span<const uint8_t> bytes) {
    REQUIRE(::ftruncate(fd_, 0) == 0);
    REQUIRE(::pwrite(fd_, bytes.data(), bytes.size(), 0) == static_cast<ssize_t>(bytes.size()));
}

} // namespace fuzz
