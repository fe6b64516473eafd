#pragma once

// The feed's logger owns standard output: every line of it goes to descriptor 1, and it has no
// switch. While the feed runs, descriptor 1 therefore leads elsewhere, and a copy of where it led
// before carries the subcommand's data.

namespace vorn_cli {

class StdoutAside {
public:
    // Points descriptor 1 at `log_descriptor` (standard error, a file, the write end of a pipe),
    // which stays the caller's. Throws Failure.
    explicit StdoutAside(int log_descriptor);
    // Puts descriptor 1 back.
    ~StdoutAside();
    StdoutAside(const StdoutAside&) = delete;
    StdoutAside& operator=(const StdoutAside&) = delete;

    // Where standard output led before. Closed with this object.
    int data_descriptor() const { return data_descriptor_; }

private:
    int data_descriptor_ = -1;
};

} // namespace vorn_cli
