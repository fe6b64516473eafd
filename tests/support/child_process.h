#pragma once

#include <filesystem>
#include <functional>
#include <string>

namespace support {

struct ChildRun {
    int exit_status = -1; // -1: killed by a signal
    int signal = 0;
    std::string out; // standard output
    std::string err; // standard error
};

// Runs `body` in a forked child whose working directory is `directory` and waits for its end. For
// what happens once per process (the logger opens its file once) or ends the process. The exit
// status is 0 after a body that returned, 1 when an assertion in it failed; nothing is flushed on
// the body's behalf and no exit handler runs, unless it calls exit() itself.
ChildRun run_child(const std::filesystem::path& directory, const std::function<void()>& body);

} // namespace support
