#pragma once

// A run of the feed as text for people.

#include "tools/vorn/feed/feed_run.h"

#include <string>
#include <vector>

namespace vorn_cli {

// "12,345,678"
std::string grouped(uint64_t number);

// One line each; what did not happen is left out.
std::vector<std::string> feed_lines(const FeedReport& report);

} // namespace vorn_cli
