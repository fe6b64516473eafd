#pragma once

#include <stdexcept>
#include <string>

namespace vorn_cli {

// The exit statuses of every subcommand. Scripts depend on them.
enum ExitCode : int {
    kFine = 0,     // also after SIGINT or SIGTERM
    kFailed = 1,   // at run time: a file, the card, the feed
    kUsage = 2,    // command line or configuration
    kDiffer = 3,   // the data are not what they should be: a gap, a mismatch
    kTimedOut = 4, // what was waited for did not come
};

// Ends a subcommand with one line on standard error. The text says what is wrong and, where there
// is something, what would work; it has neither the program's name nor a line end.
class Failure : public std::runtime_error {
public:
    Failure(ExitCode code, const std::string& text) : std::runtime_error(text), code_(code) {}
    ExitCode code() const { return code_; }

private:
    ExitCode code_;
};

} // namespace vorn_cli
