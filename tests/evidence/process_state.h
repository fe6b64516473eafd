#pragma once

// What a process holds, as the kernel counts it, and small things that its tests share.

#include <cstddef>
#include <cstdint>
#include <string>

namespace evidence {

// Threads of this process. A thread that was joined stays in the kernel's list for a moment: waits
// for it to go, at most some seconds.
std::size_t threads_left(std::size_t expected = 1);
std::size_t thread_count();
std::size_t descriptor_count();
int64_t resident_bytes();

// All that was written to a file, by its descriptor.
std::string text_of(int fd);

// A working directory of its own, removed at the end.
class ScratchDirectory {
public:
    ScratchDirectory();
    ~ScratchDirectory();
    ScratchDirectory(const ScratchDirectory&) = delete;
    ScratchDirectory& operator=(const ScratchDirectory&) = delete;

private:
    std::string path_;
};

} // namespace evidence
