#pragma once

// What a subcommand that has run the feed says about the run, as text or as JSON.

#include "tools/vorn/feed/feed_run.h"
#include "tools/vorn/globals.h"

#include <nlohmann/json.hpp>

#include <cstdint>
#include <string>
#include <vector>

namespace vorn_cli {

struct RunTotals {
    uint64_t updates = 0;     // that the consumer saw
    uint64_t instruments = 0; // that had one
};

// Writes to standard output. `json` and `lines` are what the subcommand has to add, at the
// beginning of the one and at the end of the other.
void print_summary(const FeedReport& report, const RunTotals& totals, nlohmann::json json,
                   const std::vector<std::string>& lines, const Globals& globals);

} // namespace vorn_cli
