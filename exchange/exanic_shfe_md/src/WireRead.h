#ifndef WIRE_READ_H
#define WIRE_READ_H

// Reading wire records out of byte buffers. The caller has checked, or owns zeroed memory behind
// the data so, that sizeof(Record) bytes may be read.

#include <cstdint>
#include <cstring>

template <typename Record>
inline Record ReadRecord(const void* at) {
    Record record;
    std::memcpy(&record, at, sizeof(record)); // compiles to plain loads
    return record;
}

// Network byte order (IPv4 and TCP headers).
inline uint16_t ReadBe16(const void* at) {
    return __builtin_bswap16(ReadRecord<uint16_t>(at));
}
inline uint32_t ReadBe32(const void* at) {
    return __builtin_bswap32(ReadRecord<uint32_t>(at));
}

#endif
