// The card. Whether the name means anything is for the card to say that this program was built
// with; see device_softcard.cpp and device_exanic.cpp.

#include "tools/vorn/check/check_context.h"

#include <fmt/format.h>

namespace vorn_cli {

void check_device(CheckContext& context) {
    const IniEntry* const entry = context.entry("device");
    constexpr char kDoesNotStart[] = "the feed logs \"null device name\" and does not start";
    if (context.file.find("device") == nullptr) {
        context.error(context.file.header_line(), "no-device", "device", "device is missing",
                      kDoesNotStart, "write device = and the name of the card");
        return;
    }
    if (entry == nullptr) {
        return;
    }
    if (entry->value.empty()) {
        context.error(entry->line, "no-device", "device", "device has no value", kDoesNotStart,
                      "write the name of the card");
        return;
    }
    const std::string trouble = context.machine.device_trouble(entry->value);
    if (!trouble.empty()) {
        context.error(entry->line, "device", "device", trouble,
                      fmt::format("the feed logs \"get [...] handle failed\" and does not start"));
    }
}

} // namespace vorn_cli
