#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace vorn_top {

// Waits for a condition; false when it has not come within a minute and a half, which no machine
// that works needs.
bool comes_true(const std::function<bool()>& condition,
                std::chrono::milliseconds pause = std::chrono::milliseconds(20));

// A program that runs beside the test, without terminal; its output goes into the files "out" and
// "err" of its directory. Killed at the end of the test.
class Background {
public:
    Background(const std::vector<std::string>& command, const std::filesystem::path& directory);
    ~Background();
    Background(const Background&) = delete;
    Background& operator=(const Background&) = delete;

    pid_t pid() const { return pid_; }
    // Sends the signal and waits for the end. Returns the exit status, or -1 after a signal.
    int end_by(int signal);

private:
    pid_t pid_ = -1;
};

} // namespace vorn_top
