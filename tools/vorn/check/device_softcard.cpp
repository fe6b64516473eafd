// Linked when the card is the software card.

#include "exchange_sim/session_options.h"
#include "softcard/sources/device_text.h"
#include "softcard/sources/network_interface.h"
#include "softcard/sources/pcap_source.h"
#include "tools/vorn/check/check_context.h"

namespace vorn_cli {

std::string device_trouble_of_card(const std::string& device) {
    softcard::DeviceText text;
    std::string error;
    if (!softcard::parse_device_text(device, text, error)) {
        return error;
    }
    if (text.scheme == "if") {
        return softcard::interface_trouble(text.path);
    }
    if (text.scheme == "pcap") {
        softcard::open_pcap_source(text.path, error);
        return error;
    }
    return exchange_sim::parse_session_options(text.source_options).error;
}

} // namespace vorn_cli
