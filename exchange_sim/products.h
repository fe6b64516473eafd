#pragma once

// The products of both exchanges and what their contracts have in common. Money is in thousandths
// of the currency unit throughout, so that every price step is a whole number.

#include <cstdint>
#include <span>
#include <string_view>

namespace exchange_sim {

enum class Exchange : uint8_t { kShfe = 0, kIne = 1 };

// NOLINTNEXTLINE(clang-analyzer-optin.performance.Padding): in the order in which the table reads
struct Product {
    Exchange exchange;
    std::string_view code;
    int32_t volume_multiple;   // units of one lot
    int32_t tick_milli;        // price step of the futures
    int64_t price_milli;       // what a unit costs, roughly
    int32_t limit_per_mille;   // daily limit, either way from the settlement price
    int32_t carry_per_myriad;  // from one month to the next
    uint16_t months;           // bit 0 January to bit 11 December
    uint16_t listed_months;    // how far ahead contracts are listed
    int32_t option_tick_milli; // price step of the options, 0 when there are none
    int64_t strike_step_milli;
    uint32_t activity; // weight among the products
};

std::span<const Product> products();

} // namespace exchange_sim
