#pragma once

// The firmware's registers, as indexes of 32-bit words in the devkit window.
//
// Page 0 (words 0 to 1023) holds what is read when a frame is judged; page 1 (words 1024 to 2047)
// holds the filter tables' registers, where the order of the stores is the meaning.

#include <cstdint>

namespace softcard {

inline constexpr uint32_t kVersionWord = 1;
inline constexpr uint32_t kBuildWord = 2;
inline constexpr uint32_t kResetWord = 5;
inline constexpr uint32_t kSnapTimeWord = 12;

inline constexpr uint32_t kRawSwitchWord = 512;
inline constexpr uint32_t kDecodeSwitchWord = 513;
inline constexpr uint32_t kAllIneSwitchWord = 514;
inline constexpr uint32_t kAllShfeSwitchWord = 515;

inline constexpr uint32_t kShfeAddressWord = 1792;
inline constexpr uint32_t kShfeDataWord = 1793;
inline constexpr uint32_t kShfeReadAddressWord = 1794;
inline constexpr uint32_t kShfeReadDataWord = 1795;
inline constexpr uint32_t kIneAddressWord = 1796;
inline constexpr uint32_t kIneDataWord = 1797;
inline constexpr uint32_t kIneReadAddressWord = 1798;
inline constexpr uint32_t kIneReadDataWord = 1799;

inline constexpr uint32_t kWindowWords = 32768;
inline constexpr uint32_t kPageWords = 1024; // a 4096-byte page
inline constexpr uint32_t kFirstTrappedWord = kPageWords;
inline constexpr uint32_t kEndOfTrappedWords = 2 * kPageWords;

// What a program reads from the version registers: "softcard", as far as hexadecimal spells it.
inline constexpr uint32_t kVersionValue = 0x50F7CA2D;
inline constexpr uint32_t kBuildValue = 0x20260101;

enum class Exchange : uint8_t { kShfe = 0, kIne = 1 };
inline constexpr uint32_t kShfeEntries = 16384;
inline constexpr uint32_t kIneEntries = 4096;

// One multicast line: where its group (IPv4, host order) and its UDP port stand.
struct LineRegisters {
    Exchange exchange;
    uint32_t group_word;
    uint32_t port_word;
};
inline constexpr LineRegisters kLines[] = {
    {Exchange::kShfe, 16, 18}, // A
    {Exchange::kShfe, 20, 22}, // B
    {Exchange::kIne, 17, 19},  // A
    {Exchange::kIne, 21, 23},  // B
};

} // namespace softcard
