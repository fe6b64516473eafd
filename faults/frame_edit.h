#pragma once

// Changes to whole Ethernet frames that keep them well-formed: lengths and checksums follow. Only
// for frames that wirekit::parse_frame has found to be whole TCP or UDP.

#include "wirekit/ethernet.h"

namespace faults {

// Puts another payload behind the headers and repairs them. What stood behind the IP packet goes.
// `payload` must not point into the frame.
void set_payload(wirekit::Bytes& frame, std::span<const uint8_t> payload);

// Makes the IPv4 and the TCP or UDP checksum right; a UDP checksum that is absent stays so.
void repair_checksums(wirekit::Bytes& frame);

// The TCP header. Follow up with repair_checksums().
void set_tcp_flags(wirekit::Bytes& frame, uint8_t flags);
void add_to_tcp_seq(wirekit::Bytes& frame, uint32_t amount);
void add_to_tcp_ack(wirekit::Bytes& frame, uint32_t amount);

} // namespace faults
