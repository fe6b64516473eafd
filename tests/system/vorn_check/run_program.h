#pragma once

#include "tests/support/child_process.h"

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

namespace vorn_check {

// Runs `command` (program and arguments) in `directory` to its end, without terminal and without
// input. `before_exec` runs in the child just before.
support::ChildRun run_program(const std::vector<std::string>& command,
                              const std::filesystem::path& directory,
                              const std::function<void()>& before_exec = {});

} // namespace vorn_check
