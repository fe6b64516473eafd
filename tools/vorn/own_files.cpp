#include "tools/vorn/own_files.h"

#include <filesystem>
#include <system_error>

namespace vorn_cli {

std::string own_folder(const std::string& name) {
    std::error_code failure;
    const std::filesystem::path program = std::filesystem::read_symlink("/proc/self/exe", failure);
    if (failure) {
        return "";
    }
    const std::filesystem::path folder =
        program.parent_path().parent_path() / "share" / "vorn" / name;
    return std::filesystem::is_directory(folder, failure) ? folder.string() : "";
}

} // namespace vorn_cli
