#pragma once

// Frames from a capture file: classic pcap with micro- or nanoseconds, and pcapng.

#include "softcard/sources/frame_source.h"

#include <memory>
#include <string>

namespace softcard {

// Null with a one-line reason in `error`. The capture must be of Ethernet. A file that ends in the
// middle of a record, or turns out damaged, is exhausted there.
std::unique_ptr<FrameSource> open_pcap_source(const std::string& path, std::string& error);

} // namespace softcard
