#include "process_state.h"

#include <cerrno>
#include <cstdio>
#include <dirent.h>
#include <fcntl.h>
#include <filesystem>
#include <system_error>
#include <unistd.h>

namespace evidence {
namespace {

// Without the C++ library, so that nothing but opendir allocates.
std::size_t entries_of(const char* directory) {
    DIR* const stream = ::opendir(directory);
    if (stream == nullptr) {
        throw std::system_error(errno, std::generic_category(), directory);
    }
    std::size_t count = 0;
    while (const dirent* entry = ::readdir(stream)) {
        count += entry->d_name[0] == '.' ? 0 : 1;
    }
    ::closedir(stream);
    return count;
}

} // namespace

std::size_t thread_count() {
    return entries_of("/proc/self/task");
}

std::size_t threads_left(std::size_t expected) {
    constexpr int kTries = 10000;
    std::size_t count = thread_count();
    for (int i = 0; i < kTries && count != expected; ++i) {
        ::usleep(1000);
        count = thread_count();
    }
    return count;
}

std::size_t descriptor_count() {
    return entries_of("/proc/self/fd") - 1; // the one that reads the list
}

int64_t resident_bytes() {
    char line[128] = {};
    const int file = ::open("/proc/self/statm", O_RDONLY | O_CLOEXEC);
    if (file < 0 || ::read(file, line, sizeof line - 1) <= 0) {
        throw std::system_error(errno, std::generic_category(), "/proc/self/statm");
    }
    ::close(file);
    long long size = 0;
    long long resident = 0;
    std::sscanf(line, "%lld %lld", &size, &resident);
    return resident * ::sysconf(_SC_PAGESIZE);
}

std::string text_of(int fd) {
    std::string text;
    char buffer[65536];
    ssize_t got = 0;
    for (off_t at = 0; (got = ::pread(fd, buffer, sizeof buffer, at)) > 0; at += got) {
        text.append(buffer, static_cast<std::size_t>(got));
    }
    return text;
}

ScratchDirectory::ScratchDirectory() {
    std::string name = (std::filesystem::temp_directory_path() / "vorn-evidence-XXXXXX").string();
    if (::mkdtemp(name.data()) == nullptr || ::chdir(name.c_str()) != 0) {
        throw std::system_error(errno, std::generic_category(), name);
    }
    path_ = name;
}

ScratchDirectory::~ScratchDirectory() {
    std::error_code ignored;
    (void)::chdir("/");
    std::filesystem::remove_all(path_, ignored);
}

} // namespace evidence
