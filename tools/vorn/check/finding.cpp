#include "tools/vorn/check/finding.h"

#include "tools/vorn/terminal.h"

#include <fmt/format.h>

namespace vorn_cli {

std::string Finding::text() const {
    std::string all = what;
    for (const std::string& part : {effect, instead}) {
        if (!part.empty()) {
            all += "; ";
            all += part;
        }
    }
    return all;
}

const char* severity_name(Severity severity) {
    return severity == Severity::kError ? "error" : "warning";
}

std::string quoted(const std::string& text) {
    constexpr std::size_t kShown = 60;
    if (text.size() <= kShown) {
        return fmt::format("\"{}\"", printable(text));
    }
    // Not in the middle of a UTF-8 character.
    std::size_t end = kShown;
    while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80) {
        --end;
    }
    return fmt::format("\"{}...\" ({} bytes)", printable(text.substr(0, end)), text.size());
}

} // namespace vorn_cli
