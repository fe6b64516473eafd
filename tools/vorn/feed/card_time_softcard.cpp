// Linked when the card is the software card: its frames carry the time of their source.

#include "softcard/inspect.h"
#include "softcard/sources/device_text.h"
#include "tools/vorn/feed/card_time.h"

namespace vorn_cli {

uint64_t frame_time_ns(const exanic_rx_t* rx) {
    const uint64_t time_ns = softcard::frame_time_ns(rx);
    return time_ns != 0 ? time_ns : time_of_receipt_ns();
}

bool works_in_step(const std::string& device) {
    softcard::DeviceText text;
    std::string error;
    return softcard::parse_device_text(device, text, error) &&
           (text.scheme == "sim" || text.scheme == "pcap") && text.speed == 0;
}

} // namespace vorn_cli
