#pragma once

// Holds a configuration file against what the feed makes of it. The feed's parser is lenient and
// says nothing: what it does not know it ignores, what it cannot convert becomes 0. Here everything
// that will surprise is found, with its line, what the feed will do, and what to write instead.

#include "tools/vorn/check/check_context.h"

#include <string_view>

namespace vorn_cli {

struct CheckResult {
    Findings findings; // by line
    EffectiveConfig effective;
};

// `content` is the file's; `capture` may be null.
CheckResult check_configuration(std::string_view content, const Machine& machine,
                                const CaptureSurvey* capture);

} // namespace vorn_cli
