#ifndef PRICE_RULES_H
#define PRICE_RULES_H

// What both channels mean by a zero price, an empty level and an instrument without a checked book.

#include "ExanicMdTypes.h"

#include <cstdint>
#include <cstring>

inline constexpr double PRICE_EPSILON = 0.00001;

inline bool IsZeroPrice(double price) {
    return price > -PRICE_EPSILON && price < PRICE_EPSILON;
}

inline bool IsEmptyLevel(double price, int32_t vol) {
    return IsZeroPrice(price) && vol < 1;
}

// Trade-at-settlement instruments quote around zero and may look crossed: their books are exempt
// from both checks.
inline bool IsTradeAtSettlement(const instrument& record) {
    const char* instId = reinterpret_cast<const char*>(record.inst_id);
    return memmem(instId, strnlen(instId, sizeof(record.inst_id)), "TAS", 3) != nullptr;
}

#endif
