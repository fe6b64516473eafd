#pragma once

// A capture's bytes: classic pcap, Ethernet, time stamps in nanoseconds, in the byte order of the
// machine. Appended to a block by hand, because a recording must know where each record ends when
// the disk takes only a part of them.

#include <cstdint>
#include <span>
#include <string>

namespace vorn_cli {

std::string pcap_file_head();
void append_pcap_record(std::string& block, uint64_t time_ns, std::span<const char> frame);

} // namespace vorn_cli
