#pragma once

// The device name of a software card: which source it has, and how it plays it.
//
//   sim:key=value&...            the simulated exchange
//   pcap:PATH?key=value&...      a capture file
//   if:INTERFACE?key=value&...   a network interface, live
//
// eof, speed, fault and fault_seed belong to the card and mean the same with every source that has
// an end; whatever else is named is the source's own.

#include "faults/fault_spec.h"
#include "softcard/firmware/card.h"
#include "softcard/sources/interface_source.h"

#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace softcard {

struct DeviceText {
    std::string scheme;
    std::string path; // pcap: and if: the interface
    AtEnd at_end = AtEnd::kIdle;
    double speed = 0; // 0: step mode, if not live
    std::vector<faults::FaultSpec> faults;
    uint64_t fault_seed = 1;
    InterfaceOptions live; // if: only
    std::map<std::string, std::string> source_options;
};

// False with a one-line reason in `error` that says what would work.
bool parse_device_text(std::string_view text, DeviceText& device, std::string& error);

// The card that the text describes, with its source opened; null with a reason in `error`.
std::unique_ptr<Card> open_card(std::string_view text, std::string& error);

} // namespace softcard
