#pragma once

// Writing and reading integers by byte offset. MDQP messages and decode buffers are little-endian,
// the Ethernet, IPv4, TCP and UDP headers around them are big-endian. Nothing here knows a record
// by its C++ layout: every writer names the offset it writes to, so that a record declared
// elsewhere and the bytes made here can disagree only visibly.

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <string_view>
#include <vector>

namespace wirekit {

using Bytes = std::vector<uint8_t>;

// Little-endian stores and loads. The caller owns at least sizeof(value) bytes at `at`.
inline void put_le16(uint8_t* at, uint16_t value) {
    at[0] = static_cast<uint8_t>(value);
    at[1] = static_cast<uint8_t>(value >> 8);
}
inline void put_le32(uint8_t* at, uint32_t value) {
    put_le16(at, static_cast<uint16_t>(value));
    put_le16(at + 2, static_cast<uint16_t>(value >> 16));
}
inline void put_le64(uint8_t* at, uint64_t value) {
    put_le32(at, static_cast<uint32_t>(value));
    put_le32(at + 4, static_cast<uint32_t>(value >> 32));
}
inline void put_le_f64(uint8_t* at, double value) {
    put_le64(at, std::bit_cast<uint64_t>(value));
}

inline uint16_t get_le16(const uint8_t* at) {
    return static_cast<uint16_t>(at[0] | at[1] << 8);
}
inline uint32_t get_le32(const uint8_t* at) {
    return get_le16(at) | static_cast<uint32_t>(get_le16(at + 2)) << 16;
}
inline uint64_t get_le64(const uint8_t* at) {
    return get_le32(at) | static_cast<uint64_t>(get_le32(at + 4)) << 32;
}
inline double get_le_f64(const uint8_t* at) {
    return std::bit_cast<double>(get_le64(at));
}

// Big-endian (network order) stores and loads.
inline void put_be16(uint8_t* at, uint16_t value) {
    at[0] = static_cast<uint8_t>(value >> 8);
    at[1] = static_cast<uint8_t>(value);
}
inline void put_be32(uint8_t* at, uint32_t value) {
    put_be16(at, static_cast<uint16_t>(value >> 16));
    put_be16(at + 2, static_cast<uint16_t>(value));
}
inline uint16_t get_be16(const uint8_t* at) {
    return static_cast<uint16_t>(at[0] << 8 | at[1]);
}
inline uint32_t get_be32(const uint8_t* at) {
    return static_cast<uint32_t>(get_be16(at)) << 16 | get_be16(at + 2);
}

// Copies `text` into a field of `width` bytes and fills the rest with zeros; a longer text is cut
// so that the last byte stays zero.
inline void put_text(uint8_t* at, std::size_t width, std::string_view text) {
    std::memset(at, 0, width);
    std::memcpy(at, text.data(), text.size() < width ? text.size() : width - 1);
}

inline void append(Bytes& to, std::span<const uint8_t> bytes) {
    to.insert(to.end(), bytes.begin(), bytes.end());
}

} // namespace wirekit
