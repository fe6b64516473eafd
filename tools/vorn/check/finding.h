#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace vorn_cli {

enum class Severity {
    kWarning, // the feed runs, but a part of the file has no effect or is probably not what was
              // meant
    kError,   // the feed does not start, or does not do what the file asks for
};

// One thing in a configuration file that will surprise its author.
struct Finding {
    uint32_t line = 1; // from 1; what concerns the whole file stands at its section header
    Severity severity = Severity::kWarning;
    std::string rule;    // short name that scripts can rely on, as in "unknown-key"
    std::string key;     // empty when it is about no key
    std::string what;    // what stands there
    std::string effect;  // what the feed makes of it
    std::string instead; // what to write; may be empty

    std::string text() const; // the three in one line
};

using Findings = std::vector<Finding>;

const char* severity_name(Severity severity);

// `text` in double quotes, made fit for one line of a terminal, and shortened if it is long.
std::string quoted(const std::string& text);

} // namespace vorn_cli
