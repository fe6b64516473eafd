#pragma once

// A program that runs beside the test.

#include <cstdint>
#include <functional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace bus_test {

struct Ended {
    int status = -1; // exit status; -1 when a signal ended it
    int signal = 0;
    std::string out;
    std::string err;
};

class Process {
public:
    explicit Process(const std::vector<std::string>& command);
    ~Process(); // kills it if it still runs
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    pid_t pid() const { return pid_; }
    void send(int signal) const;
    std::string out() const; // what it has written so far
    const Ended& wait();     // for its end

private:
    pid_t pid_ = -1;
    int out_ = -1; // files without a name
    int err_ = -1;
    bool over_ = false;
    Ended ended_;
};

// Whether the condition holds within a minute, which is for a machine under load: nothing here is
// about time.
bool becomes_true(const std::function<bool()>& condition);

// The number behind `name` in a line of pairs; fails the test when there is none.
uint64_t value_of(const std::string& line, const std::string& name);

} // namespace bus_test
