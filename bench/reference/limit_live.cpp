#include "bench/reference/limit_live.h"

#include <cstddef>
#include <cstring>

namespace bench {

namespace {

template <typename T>
inline T get(const char* at) {
    T value;
    std::memcpy(&value, at, sizeof(value));
    return value;
}

inline bool is_empty(double price, int32_t volume) {
    return volume < 1 && price > -0.00001 && price < 0.00001;
}

// Kept from becoming a call of memmove.
inline void move_level(double* prices, int32_t* volumes, int from, int to) {
    asm("" : "+r"(from));
    prices[to] = prices[from];
    volumes[to] = volumes[from];
}

inline void book_step(double* prices, int32_t* volumes, int& both, std::size_t shift, int level,
                      int event, double px, int32_t vol) {
    const int k = level - 1;
    if (__builtin_expect(event == 2, 1)) {
        prices[k] = px;
        volumes[k] = vol;
        return;
    }
    const int levels = both >> shift & 0xff;
    if (event == 1) {
        if (level <= levels && !is_empty(prices[k], volumes[k])) {
            for (int i = levels < 10 ? levels : 9; i > k; --i) {
                move_level(prices, volumes, i - 1, i);
            }
        }
        prices[k] = px;
        volumes[k] = vol;
        both += (levels < 10 && !(level == 5 && is_empty(px, vol)) ? 1 : 0) << shift;
    } else if (levels != 0) {
        for (int i = level; i < levels; ++i) {
            move_level(prices, volumes, i, i - 1);
        }
        both -= 1 << shift;
        prices[levels - 1] = 0.0;
        volumes[levels - 1] = 0;
    }
}

// Bids or asks without a branch, which could not be predicted.
template <typename T>
inline T* side_at(instrument& record, std::size_t bids, std::size_t step, std::size_t side) {
    return reinterpret_cast<T*>(reinterpret_cast<char*>(&record) + bids + step * side);
}

inline bool is_sane(const instrument& record) {
    const double* const bid = record.bid_px;
    const double* const ask = record.ask_px;
    return bid[0] > bid[1] && bid[1] > bid[2] && bid[2] > bid[3] && bid[3] > bid[4] &&
           ask[0] < ask[1] && ask[1] < ask[2] && ask[2] < ask[3] && ask[3] < ask[4] &&
           bid[0] < ask[0];
}

} // namespace

int32_t LimitLive::receive(uint32_t& slot) {
    const auto size =
        static_cast<uint32_t>(exanic_receive_frame(rx_, buffer_, RECV_BUF_SIZE, nullptr));
    if (size - 24 > RECV_BUF_SIZE - 24) {
        return 0;
    }
    const char* const packet = buffer_;
    const auto number = get<uint32_t>(packet + 14);
    const bool shfe = get<uint16_t>(packet) == kShfeTopic;
    if (number > (shfe ? 16383u : 4095u)) {
        return 0;
    }
    const uint32_t at = shfe ? number : LAST_SLOT - number;
    slot = at;
    (shfe ? market_.table.shfe_pktno : market_.table.ine_pktno) = get<int32_t>(packet + 8);
    instrument& record = market_.table.instmts[at];
    const auto change_no = get<uint32_t>(packet + 18);
    if (record.inst_id[0] == '\0' || change_no != record.change_no + 1) {
        return 0;
    }
    const auto time = get<uint32_t>(packet + 4);
    record.type = shfe ? 0 : 1;
    registers_[12] = time;
    record.update_time = time;
    record.update_milli_sec = get<uint16_t>(packet + 2);
    record.change_no = change_no;

    const double tick = market_.scale.priceTick[at];
    const double codec = market_.scale.codecPrice[at];
    const double multiple = market_.scale.volumeMulti[at];
    int levels = 5 << 16 | 5; // bids in the low half
    const char* cursor = packet + 24;
    const char* const end = packet + size;
    while (end - cursor >= 16) {
        if (get<uint16_t>(cursor) == 0x1001) {
            const int level = static_cast<uint8_t>(cursor[3]);
            const double px = get<int32_t>(cursor + 4) * tick + codec;
            const auto vol = get<int32_t>(cursor + 8);
            const int event = cursor[12];
            if (static_cast<uint32_t>(level - 1) > 9) {
                return 0;
            }
            const std::size_t side = static_cast<uint8_t>(cursor[2]);
            book_step(side_at<double>(record, offsetof(instrument, bid_px), 160, side),
                      side_at<int32_t>(record, offsetof(instrument, bid_vol), 40, side), levels,
                      16 * (side & 1), level, event, px, vol);
            cursor += 16;
        } else if (end - cursor >= 32) {
            const auto volume = get<int32_t>(cursor + 6);
            record.last_px = get<int32_t>(cursor + 2) * tick + codec;
            record.volume += static_cast<uint32_t>(volume);
            record.open_interest += static_cast<double>(get<int64_t>(cursor + 18));
            record.turnover +=
                (volume * codec + static_cast<double>(get<int64_t>(cursor + 10)) * tick) * multiple;
            cursor += 32;
        } else {
            return 0;
        }
    }
    return is_sane(record) ? 1 : 0;
}

} // namespace bench
