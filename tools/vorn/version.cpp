#include "tools/vorn/version.h"

#include "vorn_build_info.h"

#include <fmt/format.h>
#include <string_view>
#include <sys/utsname.h>

namespace vorn_cli {

namespace {

std::string system_text() {
    utsname system{};
    if (::uname(&system) != 0) {
        return "unknown";
    }
    return fmt::format("{} {} {}", system.sysname, system.release, system.machine);
}

} // namespace

std::string version_text() {
    const std::string_view stamp = build_info::kGitStamp;
    return fmt::format("vorn {}{}\n"
                       "compiler  {}, {}\n"
                       "card      {}\n"
                       "system    {}",
                       build_info::kVersion, stamp.empty() ? "" : fmt::format(" ({})", stamp),
                       build_info::kCompiler, build_info::kBuildType, build_info::kCard,
                       system_text());
}

} // namespace vorn_cli
