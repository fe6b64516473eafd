// Linked when the card is the card maker's library. Opening a card to look at it would disturb a
// feed that is using it, so only what cannot be one is reported.

#include "tools/vorn/check/check_context.h"

#include <fmt/format.h>

namespace vorn_cli {

std::string device_trouble_of_card(const std::string& device) {
    if (device.starts_with("sim:") || device.starts_with("pcap:") || device.starts_with("if:")) {
        return fmt::format("device = {} names a source of the software card, but this build uses "
                           "the ExaNIC library",
                           quoted(device));
    }
    if (device.find_first_of(" \t,/") != std::string::npos) {
        return fmt::format("device = {} is no name of a device, as in exanic0", quoted(device));
    }
    return {};
}

} // namespace vorn_cli
