#pragma once

// Processes as the bus names them: by pid and by the time at which they began, because a pid is
// given again.

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/stat.h>
#include <time.h>

namespace vorn_bus {

inline uint64_t clock_ns(clockid_t clock) {
    timespec now{};
    clock_gettime(clock, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1'000'000'000u + static_cast<uint64_t>(now.tv_nsec);
}

// 0 when it cannot be known.
inline uint64_t own_pid_namespace() {
    struct stat status {};
    return ::stat("/proc/self/ns/pid", &status) == 0 ? status.st_ino : 0;
}

struct ProcessStat {
    bool known = false; // false: there is no such process, or it may not be looked at
    char state = 0;     // 'Z' for one that has died and was not waited for
    uint64_t start_ticks = 0;
};

inline ProcessStat process_stat(uint32_t pid) {
    ProcessStat stat;
    std::FILE* file = std::fopen(("/proc/" + std::to_string(pid) + "/stat").c_str(), "re");
    if (file == nullptr) {
        return stat;
    }
    char text[1024];
    text[std::fread(text, 1, sizeof(text) - 1, file)] = '\0';
    std::fclose(file);
    // The second field is the program's name in brackets, which may hold anything.
    const char* at = std::strrchr(text, ')');
    if (at == nullptr || std::strlen(at) < 3) {
        return stat;
    }
    at += 2;
    stat.state = *at;
    for (int field = 3; field < 22 && at != nullptr; ++field) {
        at = std::strchr(at, ' ');
        at = at != nullptr ? at + 1 : nullptr;
    }
    if (at != nullptr) {
        stat.start_ticks = std::strtoull(at, nullptr, 10);
        stat.known = true;
    }
    return stat;
}

// Whether the process of this pid, which began at this time, runs no longer. One that may not be
// looked at counts as running.
inline bool process_is_gone(uint32_t pid, uint64_t start_ticks) {
    if (pid == 0 || pid > 0x7fffffff) {
        return true; // kill() would take these for something else
    }
    if (::kill(static_cast<pid_t>(pid), 0) != 0 && errno == ESRCH) {
        return true;
    }
    const ProcessStat stat = process_stat(pid);
    return stat.known &&
           (stat.start_ticks != start_ticks || stat.state == 'Z' || stat.state == 'X');
}

} // namespace vorn_bus
