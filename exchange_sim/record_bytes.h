#pragma once

// The expected record in the layout in which consumers read it: 336 bytes, little-endian, each
// member at the offset that the layout gives it. Written by offset, without the feed's headers, so
// that two readings of the layout can be held against each other.

#include "exchange_sim/truth.h"

#include <cstdint>
#include <span>

namespace exchange_sim {

inline constexpr std::size_t kRecordSize = 336;
using RecordBytes = std::array<uint8_t, kRecordSize>;

RecordBytes record_bytes(const ExpectedRecord& record);

// A member of the layout, for reports.
struct RecordField {
    enum class Type : uint8_t { kText, kU16, kU32, kI32, kF64 };
    const char* name; // as consumers know it, "bid_px" and so on
    Type type;
    uint16_t offset;
    uint16_t count; // elements of an array, 1 otherwise; bytes for kText
};
std::span<const RecordField> record_fields();
std::size_t field_width(RecordField::Type type); // bytes of one element

} // namespace exchange_sim
