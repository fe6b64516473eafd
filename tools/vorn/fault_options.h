#pragma once

// --fault and --fault-seed, as the subcommands have them that make or play a session.

#include "faults/fault_spec.h"
#include "tools/vorn/globals.h"

#include <cstdint>
#include <string>
#include <vector>

namespace vorn_cli {

struct FaultOptions {
    std::vector<std::string> texts; // as given
    uint64_t seed = 1;
};

void add_fault_options(CLI::App& sub, FaultOptions& options);

// Throws Failure with what is wrong with a text.
std::vector<faults::FaultSpec> parsed_faults(const FaultOptions& options);

// As a software card's device takes them, to be appended to its options; empty for none. Throws as
// parsed_faults does.
std::string fault_device_options(const FaultOptions& options);

} // namespace vorn_cli
