#include "softcard/registers/store_decoder.h"

#include <array>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace softcard {
namespace {

using Code = std::vector<uint8_t>;

// Every saved register holds a value of its own, so that a mixed-up one shows.
std::array<greg_t, NGREG> saved_registers() {
    std::array<greg_t, NGREG> saved{};
    for (std::size_t i = 0; i < saved.size(); ++i) {
        saved[i] = static_cast<greg_t>(0x1111222200000000 + 0x10000 * i);
    }
    return saved;
}

struct StoreCase {
    const char* name;
    Code code;
    int base;       // saved register, or -1
    int index;      // saved register, or -1
    int scale;      // shift
    int64_t offset; // added to base and index
    int source;     // saved register stored, or -1 for the immediate
    uint64_t immediate;
    uint8_t width;
};

void PrintTo(const StoreCase& row, std::ostream* out) {
    *out << row.name;
}

// clang-format off
const StoreCase kStores[] = {
    // name              instruction bytes                            base     index    scale offset  source   immediate width
    {"Plain",            {0x89, 0x07},                                REG_RDI, -1,      0, 0,         REG_RAX, 0, 4},
    {"OffsetByte",       {0x89, 0x70, 0x10},                          REG_RAX, -1,      0, 0x10,      REG_RSI, 0, 4},
    {"NegativeByte",     {0x89, 0x48, 0xFC},                          REG_RAX, -1,      0, -4,        REG_RCX, 0, 4},
    {"OffsetWord",       {0x89, 0x97, 0x00, 0x1C, 0x00, 0x00},        REG_RDI, -1,      0, 0x1C00,    REG_RDX, 0, 4},
    {"Immediate",        {0xC7, 0x07, 0x01, 0x00, 0x00, 0x00},        REG_RDI, -1,      0, 0,         -1,      1, 4},
    {"ImmediateOffset",  {0xC7, 0x87, 0x04, 0x1C, 0, 0, 0xFE, 0xFF, 0xFF, 0xFF}, REG_RDI, -1, 0, 0x1C04, -1, 0xFFFFFFFE, 4},
    {"Scaled",           {0x89, 0x14, 0x8F},                          REG_RDI, REG_RCX, 2, 0,         REG_RDX, 0, 4},
    {"ScaledOffset",     {0x89, 0x94, 0xCF, 0x00, 0x10, 0, 0},        REG_RDI, REG_RCX, 3, 0x1000,    REG_RDX, 0, 4},
    {"ScaledNoBase",     {0x89, 0x04, 0x8D, 0x78, 0x56, 0x34, 0x12},  -1,      REG_RCX, 2, 0x12345678, REG_RAX, 0, 4},
    {"StackPointer",     {0x89, 0x04, 0x24},                          REG_RSP, -1,      0, 0,         REG_RAX, 0, 4},
    {"AbsoluteInSib",    {0x89, 0x04, 0x25, 0x00, 0x10, 0, 0},        -1,      -1,      0, 0x1000,    REG_RAX, 0, 4},
    {"FramePointer",     {0x89, 0x45, 0x00},                          REG_RBP, -1,      0, 0,         REG_RAX, 0, 4},
    {"HighSource",       {0x44, 0x89, 0x0F},                          REG_RDI, -1,      0, 0,         REG_R9,  0, 4},
    {"HighBase",         {0x41, 0x89, 0x0B},                          REG_R11, -1,      0, 0,         REG_RCX, 0, 4},
    {"R12NeedsSib",      {0x41, 0x89, 0x0C, 0x24},                    REG_R12, -1,      0, 0,         REG_RCX, 0, 4},
    {"R13NeedsOffset",   {0x41, 0x89, 0x4D, 0x00},                    REG_R13, -1,      0, 0,         REG_RCX, 0, 4},
    {"R12AsIndex",       {0x42, 0x89, 0x0C, 0xA7},                    REG_RDI, REG_R12, 2, 0,         REG_RCX, 0, 4},
    {"AllHigh",          {0x47, 0x89, 0x7C, 0xB5, 0x08},              REG_R13, REG_R14, 2, 8,         REG_R15, 0, 4},
    {"EmptyRex",         {0x40, 0x89, 0x07},                          REG_RDI, -1,      0, 0,         REG_RAX, 0, 4},
    {"PaddedPrefix",     {0x3E, 0x89, 0x07},                          REG_RDI, -1,      0, 0,         REG_RAX, 0, 4},
    {"Wide",             {0x48, 0x89, 0x07},                          REG_RDI, -1,      0, 0,         REG_RAX, 0, 8},
    {"WideImmediate",    {0x48, 0xC7, 0x07, 0xFF, 0xFF, 0xFF, 0xFF},  REG_RDI, -1,      0, 0,         -1,      0xFFFFFFFFFFFFFFFF, 8},
    {"RipRelative",      {0x89, 0x05, 0x00, 0x01, 0, 0},              REG_RIP, -1,      0, 0x106,     REG_RAX, 0, 4},
    {"RipImmediate",     {0xC7, 0x05, 0x00, 0x01, 0, 0, 5, 0, 0, 0},  REG_RIP, -1,      0, 0x10A,     -1,      5, 4},
};

struct OtherCase {
    const char* name;
    Code code;
};
const OtherCase kOthers[] = {
    {"Exchange",        {0x87, 0x07}},
    {"Byte",            {0x88, 0x07}},
    {"Half",            {0x66, 0x89, 0x07}},
    {"ToRegister",      {0x89, 0xC7}},
    {"Load",            {0x8B, 0x07}},
    {"Locked",          {0xF0, 0x89, 0x07}},
    {"Repeated",        {0xF3, 0xAB}},
    {"ThreadRelative",  {0x64, 0x89, 0x07}},
    {"ShortAddress",    {0x67, 0x89, 0x07}},
    {"NotTheMoveOfC7",  {0xC7, 0x0F, 0, 0, 0, 0}},
    {"Vector",          {0x0F, 0x29, 0x07}},
};
// clang-format on

void PrintTo(const OtherCase& row, std::ostream* out) {
    *out << row.name;
}

class DecodedStores : public testing::TestWithParam<StoreCase> {};

TEST_P(DecodedStores, GiveAddressValueAndLength) {
    const StoreCase& row = GetParam();
    const auto saved = saved_registers();
    const auto at = [&](int which) {
        return which < 0 ? 0 : static_cast<uint64_t>(saved[static_cast<std::size_t>(which)]);
    };
    const auto store = decode_store(row.code.data(), saved.data());
    ASSERT_TRUE(store.has_value());
    EXPECT_EQ(store->address,
              at(row.base) + (at(row.index) << row.scale) + static_cast<uint64_t>(row.offset));
    uint64_t value = row.source < 0 ? row.immediate : at(row.source);
    if (row.width == 4) {
        value &= 0xFFFFFFFF;
    }
    EXPECT_EQ(store->value, value);
    EXPECT_EQ(store->width, row.width);
    EXPECT_EQ(store->length, row.code.size());
}

INSTANTIATE_TEST_SUITE_P(Forms, DecodedStores, testing::ValuesIn(kStores),
                         [](const auto& row) { return std::string(row.param.name); });

class UndecodedInstructions : public testing::TestWithParam<OtherCase> {};

TEST_P(UndecodedInstructions, AreLeftToTheSingleStep) {
    const auto saved = saved_registers();
    Code code = GetParam().code;
    code.resize(16);
    EXPECT_FALSE(decode_store(code.data(), saved.data()).has_value());
}

INSTANTIATE_TEST_SUITE_P(Forms, UndecodedInstructions, testing::ValuesIn(kOthers),
                         [](const auto& row) { return std::string(row.param.name); });

} // namespace
} // namespace softcard
