#pragma once

// Makes a frame's TCP segment acceptable where a fuzzer could not: lengths, port, checksum.

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace fuzz {

struct TcpPlace {
    bool whole = false; // both fixed headers lie in the frame
    std::size_t ip = 14;
    std::size_t tcp = 0;
};
TcpPlace find_tcp(std::span<const uint8_t> frame);

// Nothing is done where there is no whole TCP header.
void repair_tcp(std::vector<uint8_t>& frame, bool length, bool port, bool checksum);

} // namespace fuzz
