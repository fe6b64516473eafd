#pragma once

#include <string>

namespace vorn_cli {

// Several lines: version and build stamp, compiler, card, system.
std::string version_text();

} // namespace vorn_cli
