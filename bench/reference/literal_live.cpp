#include "bench/reference/literal_live.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace bench {

namespace {

constexpr int kError = 1;
constexpr int kDebug = 8;
constexpr int kDebugEx = 16;

template <typename T>
T get(const char* at) {
    T value;
    std::memcpy(&value, at, sizeof(value));
    return value;
}

bool is_empty(double price, int32_t volume) {
    return price > -0.00001 && price < 0.00001 && volume < 1;
}

} // namespace

void LiteralLog::write(int level, const char* format, ...) {
    char embedded[2048];
    std::snprintf(embedded, sizeof(embedded), "[%s:%d][%s]%s", "ExanicUdpFunc", __LINE__,
                  "_ParseMirp", format);
    char message[4096];
    va_list arguments;
    va_start(arguments, format);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    std::vsnprintf(message, sizeof(message), embedded, arguments);
#pragma GCC diagnostic pop
    va_end(arguments);
    const std::lock_guard lock(mutex_);
    if ((mask & level) != 0) {
        ++written;
        std::fputs(message, stderr);
    }
}

int32_t LiteralLive::receive(uint32_t& slot) {
    const auto size =
        static_cast<uint32_t>(exanic_receive_frame(rx_, buffer_, RECV_BUF_SIZE, nullptr));
    if (size == 0) {
        return 0;
    }
    if (size >= 24 && size <= RECV_BUF_SIZE) {
        log_.write(kDebugEx, "receive decode length: %u", size);
        return parse(buffer_, size, slot);
    }
    log_.write(kDebug, "receive abnormal decode length: %u", size);
    return 0;
}

double LiteralLive::price(uint32_t slot, int32_t offset) const {
    return offset * market_.scale.priceTick[slot] + market_.scale.codecPrice[slot];
}

double LiteralLive::amount(uint32_t slot, int32_t volume, int64_t offset) const {
    return (volume * market_.scale.codecPrice[slot] +
            static_cast<double>(offset) * market_.scale.priceTick[slot]) *
           market_.scale.volumeMulti[slot];
}

int32_t LiteralLive::parse(char* packet, uint32_t len, uint32_t& slot) {
    if (len < 24) {
        log_.write(kError, "packet length too small: %u", len);
        return -1;
    }
    const auto topic = get<uint16_t>(packet);
    const auto millisec = get<uint16_t>(packet + 2);
    const auto time = get<uint32_t>(packet + 4);
    const auto packet_no = get<int32_t>(packet + 8);
    const auto field_id = get<uint16_t>(packet + 12);
    const auto number = get<uint32_t>(packet + 14);
    const auto change_no = get<uint32_t>(packet + 18);
    log_.write(kDebugEx, "topicID: 0x%x, snapMillisec: %u, snapTime: %u, packetNo: %u", topic,
               millisec, time, static_cast<uint32_t>(packet_no));
    log_.write(kDebugEx, "fieldID: 0x%x, instrumentNo: %u, changeNo: %u", field_id, number,
               change_no);
    uint16_t type = 0;
    if (topic == kShfeTopic || topic == 1101) {
        if (number > 16383) {
            return 0;
        }
        slot = number;
        market_.table.shfe_pktno = packet_no;
    } else if (topic == kIneTopic || topic == 5101) {
        if (number > 4095) {
            return 0;
        }
        slot = LAST_SLOT - number;
        market_.table.ine_pktno = packet_no;
        type = 1;
    } else {
        log_.write(kError, "unsupported topicID: 0x%x", topic);
        return -1;
    }
    instrument& record = market_.table.instmts[slot];
    log_.write(kDebugEx, "snap instrumentID: %s, changeNo: %d",
               reinterpret_cast<const char*>(record.inst_id), static_cast<int>(record.change_no));
    if (record.inst_id[0] == '\0') {
        log_.write(kDebugEx, "unsubscribed instrument");
        return 0;
    }
    record.type = type;
    registers_[12] = time;
    if (field_id != 3) {
        return 1;
    }
    const instrument saved = record;
    const uint32_t expected = record.change_no + 1;
    if (change_no != expected) {
        if (change_no <= record.change_no) {
            return 0;
        }
        log_.write(kError, "discontinuous changeNo: %u, expected changeNo: %d", change_no,
                   static_cast<int>(expected));
        return -1;
    }
    record.update_time = time;
    record.update_milli_sec = millisec;
    record.change_no = change_no;
    int bid_levels = BID_PX_LEVEL;
    int ask_levels = ASK_PX_LEVEL;
    uint32_t remaining = len - 24;
    const char* cursor = packet + 24;
    while (remaining >= 3) {
        const auto id = get<int16_t>(cursor);
        log_.write(kDebugEx, "fieldID: 0x%x", static_cast<unsigned>(id));
        uint32_t size = 0;
        if (id == 0x1002 && remaining >= 32) {
            const auto volume = get<int32_t>(cursor + 6);
            record.last_px = price(slot, get<int32_t>(cursor + 2));
            record.volume += static_cast<uint32_t>(volume);
            record.open_interest += static_cast<double>(get<int64_t>(cursor + 18));
            record.turnover += amount(slot, volume, get<int64_t>(cursor + 10));
            size = 32;
        } else if (id == 0x1019 && remaining >= 16) {
            const auto volume = get<int32_t>(cursor + 2);
            record.bid_totvol += volume;
            record.bid_totamount += amount(slot, volume, get<int64_t>(cursor + 6));
            size = 16;
        } else if (id == 0x101A && remaining >= 16) {
            const auto volume = get<int32_t>(cursor + 2);
            record.ask_totvol += volume;
            record.ask_totamount += amount(slot, volume, get<int64_t>(cursor + 6));
            size = 16;
        } else if (id == 0x1011 && remaining >= 8) {
            record.highest_price = price(slot, get<int32_t>(cursor + 2));
            size = 8;
        } else if (id == 0x1012 && remaining >= 8) {
            record.lowest_price = price(slot, get<int32_t>(cursor + 2));
            size = 8;
        } else if (id == 0x1001 && remaining >= 16) {
            book_step(record, cursor, slot, bid_levels, ask_levels);
            size = 16;
        } else {
            log_.write(kError, "abnormal process fieldID: 0x%x length: %u",
                       static_cast<unsigned>(id), remaining);
            break;
        }
        cursor += size;
        remaining -= size;
    }
    if (!book_is_sane(record)) {
        record = saved;
        return 0;
    }
    return 1;
}

void LiteralLive::book_step(instrument& record, const char* field, uint32_t slot, int& bid_levels,
                            int& ask_levels) {
    const int level = static_cast<uint8_t>(field[3]);
    const int event = static_cast<uint8_t>(field[12]);
    const int side = static_cast<uint8_t>(field[2]);
    if (level < 1 || level > 10 || side > 1) {
        log_.write(kError, "invalid priceLevel: %d", level);
        return;
    }
    const int k = level - 1;
    const double px = price(slot, get<int32_t>(field + 4));
    const auto vol = get<int32_t>(field + 8);
    double* const prices = side == 0 ? record.bid_px : record.ask_px;
    int32_t* const volumes = side == 0 ? record.bid_vol : record.ask_vol;
    int& levels = side == 0 ? bid_levels : ask_levels;
    if (event == 1) {
        if (!is_empty(prices[k], volumes[k]) && level <= levels) {
            for (int i = levels < 10 ? levels : 9; i > k; --i) {
                prices[i] = prices[i - 1];
                volumes[i] = volumes[i - 1];
            }
        }
        prices[k] = px;
        volumes[k] = vol;
        if (levels < 10 && !(level == 5 && is_empty(prices[4], volumes[4]))) {
            ++levels;
        }
    } else if (event == 2) {
        prices[k] = px;
        volumes[k] = vol;
    } else if (event == 3) {
        for (int i = k; i < levels - 1; ++i) {
            prices[i] = prices[i + 1];
            volumes[i] = volumes[i + 1];
        }
        if (levels != 0) {
            --levels;
            prices[levels] = 0.0;
            volumes[levels] = 0;
        }
    } else {
        log_.write(kError, "unkonwn event type: %d", event);
    }
}

bool LiteralLive::book_is_sane(const instrument& record) {
    if (std::strstr(reinterpret_cast<const char*>(record.inst_id), "TAS") != nullptr) {
        return true;
    }
    for (int i = 0; i < 4; ++i) {
        if (!is_empty(record.bid_px[i], record.bid_vol[i]) &&
            !is_empty(record.bid_px[i + 1], record.bid_vol[i + 1]) &&
            record.bid_px[i + 1] >= record.bid_px[i]) {
            log_.write(kDebugEx, "bad mirp bid");
            return false;
        }
    }
    for (int i = 0; i < 4; ++i) {
        if (!is_empty(record.ask_px[i], record.ask_vol[i]) &&
            !is_empty(record.ask_px[i + 1], record.ask_vol[i + 1]) &&
            record.ask_px[i] >= record.ask_px[i + 1]) {
            log_.write(kDebugEx, "bad mirp ask");
            return false;
        }
    }
    if (is_empty(record.ask_px[0], record.ask_vol[0]) ||
        is_empty(record.bid_px[0], record.bid_vol[0])) {
        return true;
    }
    if (record.bid_px[0] >= record.ask_px[0]) {
        log_.write(kDebugEx, "bad mirp crossed");
        return false;
    }
    return true;
}

} // namespace bench
