#pragma once

// Messages of the snapshot stream (MDQP) as the tools read them: a header of 8 bytes (flag, type,
// body length, request id), then fields with a header of 4 bytes (id, size). Little-endian.

#include "wirekit/bytes.h"

namespace vorn_cli::mdqp {

inline constexpr std::size_t kMessageHeader = 8;
inline constexpr std::size_t kFieldHeader = 4;
inline constexpr uint8_t kFlagLast = 0x01;
inline constexpr uint8_t kFlagMoreBit = 0x10;
inline constexpr uint8_t kTypeSnapshot = 0x32;

inline constexpr uint16_t kFieldInstInfo = 0x0101;
inline constexpr std::size_t kInstInfoSize = 112;
inline constexpr std::size_t kIdentifierWidth = 31;
inline constexpr std::size_t kProductClassAt = 62;
inline constexpr std::size_t kInstNoAt = 108;
inline constexpr uint16_t kFieldDealInfo = 0x0102;
inline constexpr std::size_t kDealInfoSize = 154;
inline constexpr std::size_t kChangeNoAt = 150;
inline constexpr uint16_t kFieldSnap = 0x1001;
inline constexpr std::size_t kSnapSize = 6;

// Whether `bytes` can be the begin of a snapshot message: flag 1, or 0x11 when more follow, and the
// type, as far as they are there. No bytes are none.
inline bool begins_message(std::span<const uint8_t> bytes) {
    return !bytes.empty() && (bytes[0] & ~kFlagMoreBit) == kFlagLast &&
           (bytes.size() < 2 || bytes[1] == kTypeSnapshot);
}

// Calls `on_field(id, data)` for every field of a whole message; stops at one that its message
// cuts off.
template <typename OnField>
void for_each_field(std::span<const uint8_t> message, const OnField& on_field) {
    std::span<const uint8_t> left = message.subspan(kMessageHeader);
    while (left.size() >= kFieldHeader) {
        const uint16_t field_id = wirekit::get_le16(&left[0]);
        const std::size_t size = wirekit::get_le16(&left[2]);
        left = left.subspan(kFieldHeader);
        if (left.size() < size) {
            return;
        }
        on_field(field_id, left.first(size));
        left = left.subspan(size);
    }
}

// The identifier of an InstInfo field.
inline std::string_view identifier(std::span<const uint8_t> inst_info) {
    const std::string_view text(reinterpret_cast<const char*>(inst_info.data()), kIdentifierWidth);
    return text.substr(0, text.find('\0'));
}

} // namespace vorn_cli::mdqp
