#pragma once

// What a subcommand says on standard error. One write per line, so that lines of a feed that runs
// beside it are not torn.

#include "tools/vorn/globals.h"

#include <fmt/format.h>

#include <string_view>
#include <utility>

namespace vorn_cli {

void write_message(std::string_view line); // without its line end

// Unless -q.
template <typename... Args>
void say(const Globals& globals, fmt::format_string<Args...> format, Args&&... args) {
    if (!globals.quiet) {
        write_message(fmt::format(format, std::forward<Args>(args)...));
    }
}

// With -v (level 1) or -vv (level 2).
template <typename... Args>
void detail(const Globals& globals, int level, fmt::format_string<Args...> format, Args&&... args) {
    if (globals.verbose >= level) {
        write_message(fmt::format(format, std::forward<Args>(args)...));
    }
}

} // namespace vorn_cli
