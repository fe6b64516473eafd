#pragma once

// Reads one x86-64 store instruction: what it stores where, and how long it is. Knows the moves
// that a compiler makes of an assignment through a volatile 32-bit pointer, in all their addressing
// forms, and their 64-bit twins. Called from a signal handler: no lock, no allocation.

#include <cstdint>
#include <optional>
#include <ucontext.h>

namespace softcard {

struct DecodedStore {
    uint64_t address = 0;
    uint64_t value = 0;
    uint8_t width = 0;  // 4 or 8 bytes
    uint8_t length = 0; // of the instruction, in bytes
};

// `code` is the instruction, `registers` what they held before it (REG_RIP is the instruction's own
// address). Reads no byte behind the instruction.
std::optional<DecodedStore> decode_store(const uint8_t* code, const greg_t* registers);

} // namespace softcard
