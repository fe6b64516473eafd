#ifndef CHECKSUM_H
#define CHECKSUM_H

// The internet checksum's sum, in memory order: a one's-complement sum is the same in either byte
// order but for the order of its own bytes, and all ones reads alike both ways.

#include "WireRead.h"

#include <emmintrin.h>

#include <cstddef>
#include <cstdint>

// Adds 16-bit words by 32 bits at a time into 64-bit lanes, which no frame can overflow. An odd
// last byte counts as a word with a zero behind it.
inline uint64_t SumWords(const char* data, size_t size) {
    const __m128i zero = _mm_setzero_si128();
    __m128i lanes[4] = {zero, zero, zero, zero};
    for (; size >= 32; size -= 32, data += 32) {
        const __m128i first = _mm_loadu_si128(reinterpret_cast<const __m128i*>(data));
        const __m128i second = _mm_loadu_si128(reinterpret_cast<const __m128i*>(data + 16));
        lanes[0] = _mm_add_epi64(lanes[0], _mm_unpacklo_epi32(first, zero));
        lanes[1] = _mm_add_epi64(lanes[1], _mm_unpackhi_epi32(first, zero));
        lanes[2] = _mm_add_epi64(lanes[2], _mm_unpacklo_epi32(second, zero));
        lanes[3] = _mm_add_epi64(lanes[3], _mm_unpackhi_epi32(second, zero));
    }
    const __m128i all =
        _mm_add_epi64(_mm_add_epi64(lanes[0], lanes[1]), _mm_add_epi64(lanes[2], lanes[3]));
    uint64_t sum = static_cast<uint64_t>(_mm_cvtsi128_si64(all)) +
                   static_cast<uint64_t>(_mm_cvtsi128_si64(_mm_unpackhi_epi64(all, all)));
    for (; size >= 4; size -= 4, data += 4) {
        sum += ReadRecord<uint32_t>(data);
    }
    if (size >= 2) {
        sum += ReadRecord<uint16_t>(data);
        size -= 2;
        data += 2;
    }
    if (size != 0) {
        sum += static_cast<uint8_t>(*data);
    }
    return sum;
}

// 0xFFFF when the words that were summed, their checksum among them, are undamaged.
inline uint16_t FoldSum(uint64_t sum) {
    while (sum >> 16 != 0) {
        sum = (sum & 0xFFFF) + (sum >> 16);
    }
    return static_cast<uint16_t>(sum);
}

#endif
