#pragma once

#include <string>

namespace vorn_cli {

// Hexadecimal. Throws Failure when the file cannot be read.
std::string sha256_of_file(const std::string& path);

} // namespace vorn_cli
