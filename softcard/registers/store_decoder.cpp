#include "softcard/registers/store_decoder.h"

#include <cstring>

namespace softcard {

namespace {

// The processor's numbering of its registers, as indexes of the saved ones.
constexpr int kSavedRegister[16] = {REG_RAX, REG_RCX, REG_RDX, REG_RBX, REG_RSP, REG_RBP,
                                    REG_RSI, REG_RDI, REG_R8,  REG_R9,  REG_R10, REG_R11,
                                    REG_R12, REG_R13, REG_R14, REG_R15};

constexpr uint8_t kMoveRegister = 0x89;  // mov r/m, r
constexpr uint8_t kMoveImmediate = 0xC7; // mov r/m, imm32

// Segment overrides without effect in 64-bit mode; assemblers use them as padding.
bool is_idle_prefix(uint8_t byte) {
    return byte == 0x2E || byte == 0x36 || byte == 0x3E || byte == 0x26;
}

int32_t read_int32(const uint8_t* at) {
    int32_t value;
    std::memcpy(&value, at, sizeof(value));
    return value;
}

struct Prefixes {
    bool wide = false; // REX.W
    unsigned reg = 0;  // REX.R, REX.X and REX.B: bit 3 of the three register fields
    unsigned index = 0;
    unsigned base = 0;
};

struct Operand {
    uint64_t address = 0;
    const uint8_t* end = nullptr; // first byte behind ModRM, SIB and displacement
    bool rip_relative = false;
};

// The memory operand whose ModRM byte is at `at`; mod is not 3.
Operand decode_operand(const uint8_t* at, const Prefixes& rex, const greg_t* registers) {
    const auto saved = [registers](unsigned number) {
        return static_cast<uint64_t>(registers[kSavedRegister[number]]);
    };
    const unsigned mod = *at >> 6;
    const unsigned rm = *at & 7;
    ++at;
    Operand operand;
    bool has_base = true;
    if (rm == 4) { // a SIB byte follows
        const unsigned scale = *at >> 6;
        const unsigned index = (*at >> 3 & 7) | rex.index;
        const unsigned base = *at & 7;
        ++at;
        if (index != 4) { // 4 says "no index"; REX.X makes it r12
            operand.address += saved(index) << scale;
        }
        has_base = !(base == 5 && mod == 0);
        if (has_base) {
            operand.address += saved(base | rex.base);
        }
    } else if (rm == 5 && mod == 0) {
        operand.rip_relative = true;
        has_base = false;
    } else {
        operand.address += saved(rm | rex.base);
    }
    if (mod == 1) {
        operand.address += static_cast<uint64_t>(static_cast<int64_t>(static_cast<int8_t>(*at)));
        at += 1;
    } else if (mod == 2 || !has_base) {
        operand.address += static_cast<uint64_t>(static_cast<int64_t>(read_int32(at)));
        at += 4;
    }
    operand.end = at;
    return operand;
}

} // namespace

std::optional<DecodedStore> decode_store(const uint8_t* code, const greg_t* registers) {
    const uint8_t* at = code;
    while (is_idle_prefix(*at)) {
        ++at;
    }
    Prefixes rex;
    if ((*at & 0xF0) == 0x40) {
        rex.wide = (*at & 8) != 0;
        rex.reg = (*at & 4u) << 1;
        rex.index = (*at & 2u) << 2;
        rex.base = (*at & 1u) << 3;
        ++at;
    }
    const uint8_t opcode = *at++;
    if (opcode != kMoveRegister && opcode != kMoveImmediate) {
        return std::nullopt;
    }
    const unsigned mod = *at >> 6;
    const unsigned reg = *at >> 3 & 7;
    if (mod == 3 || (opcode == kMoveImmediate && reg != 0)) {
        return std::nullopt;
    }
    Operand operand = decode_operand(at, rex, registers);

    DecodedStore store;
    store.width = rex.wide ? 8 : 4;
    if (opcode == kMoveImmediate) {
        store.value = static_cast<uint64_t>(static_cast<int64_t>(read_int32(operand.end)));
        operand.end += 4;
    } else {
        store.value = static_cast<uint64_t>(registers[kSavedRegister[reg | rex.reg]]);
    }
    store.length = static_cast<uint8_t>(operand.end - code);
    store.address = operand.address;
    if (operand.rip_relative) {
        store.address += static_cast<uint64_t>(registers[REG_RIP]) + store.length;
    }
    if (!rex.wide) {
        store.value &= 0xFFFFFFFF;
    }
    return store;
}

} // namespace softcard
