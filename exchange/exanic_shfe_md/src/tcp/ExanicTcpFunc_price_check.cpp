// The check of a finished snapshot, before incremental data is built on it. Worker thread.

#include "tcp/ExanicTcpFunc.h"

#include "CommonLog.h"
#include "PriceRules.h"

#include <cstring>
#include <limits>

namespace {

constexpr char LOG_FILE_TAG[] = "ExanicTcpFunc";
constexpr double MAX_PRICE = std::numeric_limits<double>::max();
constexpr int CHECKED_LEVELS = BID_PX_LEVEL + ASK_PX_LEVEL;

enum CheckResult : int32_t {
    CHECK_PASSED = 0,
    CHECK_OUT_OF_LIMITS = -1,
    CHECK_NOT_FALLING = -2,
    CHECK_MISMATCH = -3
};

} // namespace

// Covers both exchanges. Unused slots are all zeros and pass.
int32_t CExanicTcpFunc::ShfePriceCheck() {
    for (int32_t i = 0; i < m_pShareMem->shfe_inst_cnt; ++i) {
        const int32_t result = ShfeInstPriceCheck(m_pShareMem->instmts[i], inter_infos[i]);
        if (result != CHECK_PASSED) {
            return result;
        }
    }
    for (int32_t i = 0; i < m_pShareMem->ine_inst_cnt; ++i) {
        const int32_t slot = LAST_SLOT - i;
        const int32_t result = ShfeInstPriceCheck(m_pShareMem->instmts[slot], inter_infos[slot]);
        if (result != CHECK_PASSED) {
            return result;
        }
    }
    return CHECK_PASSED;
}

int32_t CExanicTcpFunc::ShfeInstPriceCheck(instrument instmts, inter_info limits) {
    const char* instId = reinterpret_cast<const char*>(instmts.inst_id);
    const size_t idSize = strnlen(instId, sizeof(instmts.inst_id));
    if (IsTradeAtSettlement(instmts)) {
        return CHECK_PASSED;
    }
    const bool isSpread = memchr(instId, '-', idSize) != nullptr;

    // From the fifth ask down to the fifth bid, so that falling prices cover both sides and the
    // touch between them.
    std::vector<double> prices;
    std::vector<int32_t> volumes;
    prices.reserve(CHECKED_LEVELS);
    volumes.reserve(CHECKED_LEVELS);
    for (int i = ASK_PX_LEVEL - 1; i >= 0; --i) {
        prices.push_back(instmts.ask_px[i]);
        volumes.push_back(instmts.ask_vol[i]);
    }
    for (int i = 0; i < BID_PX_LEVEL; ++i) {
        prices.push_back(instmts.bid_px[i]);
        volumes.push_back(instmts.bid_vol[i]);
    }
    const double upper = isSpread ? MAX_PRICE : limits.upper_limit_price;
    const double lower = isSpread ? -MAX_PRICE : limits.lower_limit_price;
    const int32_t result = CheckPrice(prices, volumes, upper, lower, isSpread);
    if (result == CHECK_PASSED) {
        return CHECK_PASSED;
    }

    MD_LOG(LOG_ERROR, "inst_id [%.16s]upper[%8lf]lower[%8lf]", instId, limits.upper_limit_price,
           limits.lower_limit_price);
    for (int i = 0; i < CHECKED_LEVELS; ++i) {
        const bool isAsk = i < ASK_PX_LEVEL;
        const int level = isAsk ? ASK_PX_LEVEL - i : i - ASK_PX_LEVEL + 1;
        MD_LOG(LOG_ERROR, "%s%d px[%8lf]vol[%d]", isAsk ? "ask" : "bid", level,
               prices[static_cast<size_t>(i)], volumes[static_cast<size_t>(i)]);
    }
    return m_refConfigData.shield_price_check ? int32_t{CHECK_PASSED} : result;
}

int32_t CExanicTcpFunc::CheckPrice(const std::vector<double>& _price,
                                   const std::vector<int32_t>& _vol, double upper, double lower,
                                   bool isSpread) {
    double previous = MAX_PRICE;
    for (size_t i = 0; i < _price.size(); ++i) {
        const int index = static_cast<int>(i);
        const double price = _price[i];
        const int32_t vol = _vol[i];
        const bool hasPrice = !IsZeroPrice(price);
        const bool hasVolume = vol >= 1;
        if (!hasPrice && !hasVolume) {
            continue; // an empty level takes no part in the order
        }
        if (hasPrice != hasVolume && !isSpread) {
            MD_LOG(LOG_WARNING, "Price and Volume mismatch at index %d: price=%lf, vol=%d", index,
                   price, vol);
            return CHECK_MISMATCH;
        }
        if (price < lower - PRICE_EPSILON || price > upper + PRICE_EPSILON) {
            MD_LOG(LOG_WARNING,
                   "(price > up) or (price < lower), price is %lf, up is %lf, lower is %lf, "
                   "index is :%d",
                   price, upper, lower, index);
            return CHECK_OUT_OF_LIMITS;
        }
        if (previous <= price) {
            MD_LOG(LOG_WARNING, "The price is abnormal, price index is :%d ", index);
            return CHECK_NOT_FALLING;
        }
        previous = price;
    }
    return CHECK_PASSED;
}
