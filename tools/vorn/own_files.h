#pragma once

// Files that come with the program.

#include <string>

namespace vorn_cli {

// The folder ../share/vorn/NAME beside the folder of the running program, which is where it is both
// in an installation, whatever the prefix, and in the build tree. Empty when there is none.
std::string own_folder(const std::string& name);

} // namespace vorn_cli
