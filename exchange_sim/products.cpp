#include "exchange_sim/products.h"

namespace exchange_sim {

namespace {

constexpr Exchange kS = Exchange::kShfe;
constexpr Exchange kI = Exchange::kIne;
constexpr uint16_t kAll = 0xFFF;
constexpr uint16_t kEven = 0xAAA;
constexpr uint16_t kRubber = 0x7FD; // no February, no December

// clang-format off
constexpr Product kProducts[] = {
    //    code  lot   tick    price        limit carry months  ahead option strike step activity
    {kS, "cu",    5, 10000, 101'500'000,  90,   6, kAll,    12, 2000, 1'000'000,  620},
    {kS, "al",    5,  5000,  24'200'000,  80,  12, kAll,    12, 1000,   200'000,  520},
    {kS, "zn",    5,  5000,  23'900'000,  80,   9, kAll,    12, 1000,   200'000,  380},
    {kS, "pb",    5,  5000,  17'300'000,  80,   7, kAll,    12, 1000,   100'000,  160},
    {kS, "ni",    1, 10000, 138'000'000, 100,  14, kAll,    12, 2000, 2'000'000,  640},
    {kS, "sn",    1, 10000, 376'000'000, 100,  -4, kAll,    12, 2000, 5'000'000,  540},
    {kS, "au", 1000,    20,   1'012'000, 140,  21, kEven,   12,   20,     8'000,  880},
    {kS, "ag",   15,  1000,  20'900'000, 170,   5, kAll,    12,  500,   100'000, 1000},
    {kS, "rb",   10,  1000,   3'150'000,  70,  13, kAll,    12,  500,    50'000,  960},
    {kS, "wr",   10,  1000,   3'420'000,  90,  10, kAll,    12,    0,         0,    4},
    {kS, "hc",   10,  1000,   3'310'000,  70,   8, kAll,    12,    0,         0,  500},
    {kS, "ss",    5,  5000,  13'900'000,  80,  11, kAll,    12,    0,         0,  360},
    {kS, "fu",   10,  1000,   2'480'000, 110, -15, kAll,    12,    0,         0,  560},
    {kS, "bu",   10,  1000,   3'160'000,  90,   4, kAll,    24,    0,         0,  420},
    {kS, "ru",   10,  5000,  16'050'000,  80,  16, kRubber, 12, 1000,   250'000,  480},
    {kS, "br",    5,  5000,  11'900'000, 100,   6, kAll,    12, 1000,   200'000,  380},
    {kS, "sp",   10,  2000,   5'480'000,  80,   9, kAll,    12,    0,         0,  330},
    {kS, "ao",   20,  1000,   2'790'000,  90,  18, kAll,    12,  500,    50'000,  540},
    {kS, "ad",   10,  5000,  22'600'000,  80,  10, kAll,    12,    0,         0,   90},
    {kS, "op",   40,  2000,   4'180'000,  80,   7, kAll,    12,    0,         0,   60},
    {kI, "sc", 1000,   100,     441'000, 100, -12, kAll,    20,   50,     5'000,  760},
    {kI, "lu",   10,  1000,   3'090'000, 110,  -9, kAll,    12,    0,         0,  260},
    {kI, "nr",   10,  5000,  12'950'000,  90,   8, kAll,    12,    0,         0,  310},
    {kI, "bc",    5, 10000,  90'100'000,  90,   5, kAll,    12,    0,         0,  150},
    {kI, "ec",   50,   100,   1'660'000, 180, -90, kEven,   12,    0,         0,  420},
};
// clang-format on

} // namespace

std::span<const Product> products() {
    return kProducts;
}

} // namespace exchange_sim
