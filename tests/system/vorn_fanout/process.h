#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace vorn_fanout {

// Waits for a condition; false when it has not come within four minutes, which no machine that
// works needs.
bool comes_true(const std::function<bool()>& condition);

// A program that runs beside the test, without terminal; its output goes into the files NAME.out
// and NAME.err of a directory. It is killed at the end of the test, and when the test is.
class Process {
public:
    Process(const std::vector<std::string>& command, const std::filesystem::path& directory,
            const std::string& name);
    ~Process();
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    bool runs(); // false once it has ended by itself
    void send(int signal) const;
    // Waits for the end. Returns the exit status, or -1 after a signal.
    int wait();
    // Sends the signal and waits for the end.
    int end_by(int signal);

    std::string out() const;
    std::string err() const;
    std::size_t lines() const; // whole lines of the output so far
    // Waits until the errors have this text; false when the program has ended without it.
    bool says(const std::string& text);

private:
    pid_t pid_ = -1;
    int status_ = -1;
    std::filesystem::path out_;
    std::filesystem::path err_;
};

} // namespace vorn_fanout
