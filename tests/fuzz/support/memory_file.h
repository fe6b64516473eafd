#pragma once

// A file in memory with a name that anything can open.

#include <cstdint>
#include <span>
#include <string>

namespace fuzz {

class MemoryFile {
public:
    explicit MemoryFile(const char* name);
    ~MemoryFile();
    MemoryFile(const MemoryFile&) = delete;
    MemoryFile& operator=(const MemoryFile&) = delete;

    void fill(std::span<const uint8_t> bytes);
    const std::string& path() const { return path_; }

private:
    int fd_;
    std::string path_;
};

} // namespace fuzz
