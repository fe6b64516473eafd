#include "tools/vorn/session_files.h"

#include "tools/vorn/exit_code.h"

#include <fmt/format.h>

#include <filesystem>

namespace vorn_cli {

SessionFiles session_files(const std::string& capture) {
    const std::filesystem::path base = std::filesystem::path(capture).replace_extension();
    return {capture, base.string() + ".truth", base.string() + ".manifest.json"};
}

std::string file_name(const std::string& path) {
    return std::filesystem::path(path).filename().string();
}

void refuse_existing(const std::vector<std::string>& paths, bool force) {
    for (const std::string& path : paths) {
        if (!force && !path.empty() && std::filesystem::exists(path)) {
            throw Failure(kUsage, fmt::format("{} exists; -f replaces it", path));
        }
    }
}

} // namespace vorn_cli
