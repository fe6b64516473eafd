// Message decoding and price check of the model.

#include "tests/unit/tcp/snapshot_model.h"

#include <cmath>
#include <cstring>
#include <limits>

namespace tcp_test {

namespace {

using Bytes = wirekit::Bytes;

constexpr const char* kParser = "_ParseMdqp";
constexpr double kLargest = std::numeric_limits<double>::max();

unsigned u16(const Bytes& memory, std::size_t at) {
    return memory.at(at) + memory.at(at + 1) * 256u;
}
int32_t i32(const Bytes& memory, std::size_t at) {
    return static_cast<int32_t>(u16(memory, at) + u16(memory, at + 2) * 65536u);
}
double f64(const Bytes& memory, std::size_t at) {
    uint64_t bits = 0;
    for (std::size_t i = 8; i-- > 0;) {
        bits = bits * 256 + memory.at(at + i);
    }
    double value = 0;
    std::memcpy(&value, &bits, sizeof(value));
    return value;
}
double value_or_zero(double value) {
    return value == kLargest ? 0.0 : value;
}

std::string text(const Bytes& memory, std::size_t at, std::size_t width) {
    std::string result;
    while (result.size() < width && memory.at(at + result.size()) != 0) {
        result.push_back(static_cast<char>(memory.at(at + result.size())));
    }
    return result;
}

bool is_shfe(int type) {
    return type == SnapshotModel::kShfe2ps || type == SnapshotModel::kShfe4ps;
}
bool is_ine(int type) {
    return type == SnapshotModel::kIne2ps || type == SnapshotModel::kIne4ps;
}

} // namespace

void SnapshotModel::message(Bytes& memory, std::size_t at, uint16_t port) {
    ++messages;
    const unsigned flag = memory.at(at);
    const unsigned length = u16(memory, at + 2);
    const int type = sessions[port].type;
    say('X', kParser, "MDQP flag: 0x%x, type_id: 0x%x, length: %u, requset_id: %d", flag,
        static_cast<unsigned>(static_cast<int8_t>(memory.at(at + 1))), length, i32(memory, at + 4));
    int previous = 0;
    for (std::size_t offset = 8; length > 8 && offset < length;) {
        const unsigned id = u16(memory, at + offset);
        const unsigned size = u16(memory, at + offset + 2);
        const std::size_t data = at + offset + 4;
        say('X', kParser, "field_id: 0x%x, field_size: %u", id, size);
        switch (id) {
        case 0x0101:
            inst_info(type, memory, data);
            break;
        case 0x0102:
            deal_info(type, memory, data);
            break;
        case 0x0103:
            price_detail(type, memory, data, previous);
            break;
        case 0x0104:
            order_totals(type, memory, data);
            break;
        case 0x1004:
            (is_shfe(type) ? shfe_packet_no : ine_packet_no) = i32(memory, data);
            say('X', kParser, "packet_no: %d", i32(memory, data));
            break;
        case 0x0031:
        case 0x0032:
        case 0x1001:
        case 0x1002:
        case 0x1003:
            break;
        default:
            say('E', kParser, "unknown fieldID: %02x", id);
            break;
        }
        previous = static_cast<int>(id);
        offset += size + 4u;
    }
    if (flag == 1) {
        end_of_feed(sessions[port]);
    }
}

void SnapshotModel::end_of_feed(Session& session) {
    switch (session.type) {
    case kShfe2ps:
        say('I', kParser, "shfe2ps init finished, total instruments:%d", shfe_count);
        finished |= 0x01;
        break;
    case kShfe4ps:
        say('I', kParser, "shfe4ps init finished, total instruments:%d", shfe_count);
        finished |= 0x02;
        break;
    case kIne2ps:
        say('I', kParser, "ine2ps init finished, total instruments:%d", ine_count);
        finished |= 0x04;
        break;
    case kIne4ps:
        say('I', kParser, "ine4ps init finished, total instruments:%d", ine_count);
        finished |= 0x08;
        break;
    default:
        break;
    }
    session.init = false;
}

bool SnapshotModel::accept_number(int type, int32_t number) {
    if (!is_shfe(type) && !is_ine(type)) {
        return false;
    }
    const int32_t highest = is_shfe(type) ? 16383 : 4095;
    bool& warn = is_shfe(type) ? warn_shfe_no : warn_ine_no;
    if (number <= highest) {
        return true;
    }
    if (warn) {
        say('W', "_ProtectInstNo", "instrument No [%d] exceed limit %d", number, highest);
        warn = false;
    }
    return false;
}

// False when the field is to be skipped.
bool SnapshotModel::slot_of(int type, int32_t number, int& slot) {
    if (!accept_number(type, number)) {
        return false;
    }
    const int64_t index = is_shfe(type) ? int64_t{number} : 20479 - int64_t{number};
    if (index < 0 || index > 20479) {
        return false;
    }
    slot = static_cast<int>(index);
    return true;
}

bool SnapshotModel::subscribed(int slot) const {
    const auto found = records.find(slot);
    return found != records.end() && found->second.inst_id[0] != 0 &&
           found->second.inst_id[0] != ' ';
}

bool SnapshotModel::wanted(const std::string& inst_id) const {
    if (settings_.recvall) {
        return true;
    }
    for (const std::string& entry : settings_.listen) {
        if ((entry.size() == 2 && entry == inst_id.substr(0, 2)) || entry == inst_id.substr(0, 6)) {
            return true;
        }
    }
    return false;
}

void SnapshotModel::inst_info(int type, const Bytes& memory, std::size_t at) {
    const std::string inst_id = text(memory, at, 31);
    const int32_t number = i32(memory, at + 108);
    const int32_t multiple = i32(memory, at + 72);
    const double tick = f64(memory, at + 92);
    const double codec = f64(memory, at + 100);
    say('X', kParser, "inst_id: %s, inst_no: %d, vol_multi: %d, price_tick: %lf, codec_price: %lf",
        inst_id.c_str(), number, multiple, tick, codec);
    if (!settings_.options && memory.at(at + 6) != 0) {
        say('X', kParser, "do not subscribe options, instrumentID: %s", inst_id.c_str());
        return;
    }
    int slot = 0;
    if (!slot_of(type, number, slot)) {
        return;
    }
    const bool shfe = is_shfe(type);
    int32_t& count = shfe ? shfe_count : ine_count;
    if (number >= count) {
        count = number + 1;
        bool& warn = shfe ? warn_shfe_80 : warn_ine_80;
        const int32_t threshold = shfe ? 12800 : 3200;
        if (count > threshold && warn) {
            say('W', kParser, "%s_inst_cnt is [%d] more than 80%% max cnt[%d]",
                shfe ? "shfe" : "ine", count, threshold);
            warn = false;
        }
    }
    if (wanted(inst_id)) {
        stores.emplace_back(shfe ? 1792 : 1796, static_cast<uint32_t>(number));
        stores.emplace_back(shfe ? 1793 : 1797, 1);
        auto& id = records[slot].inst_id;
        for (std::size_t i = 0; i < 15; ++i) {
            id[i] = i < inst_id.size() ? static_cast<uint8_t>(inst_id[i]) : 0;
        }
        say('D', kParser, "instrument [%s] subscribed, inst_no [%d]", inst_id.c_str(), number);
    }
    scales[slot] = {tick, value_or_zero(codec), multiple};
}

void SnapshotModel::deal_info(int type, const Bytes& memory, std::size_t at) {
    int slot = 0;
    if (!slot_of(type, i32(memory, at), slot) || !subscribed(slot)) {
        return;
    }
    say('X', kParser,
        "last_price: %lf, volume: %d, turnover: %lf, open_interest: %lf, change_no: %d, "
        "update_time: %s, update_mill_sec: %d",
        f64(memory, at + 4), i32(memory, at + 12), f64(memory, at + 16), f64(memory, at + 24),
        i32(memory, at + 150), text(memory, at + 137, 9).c_str(), i32(memory, at + 146));
    Record& record = records[slot];
    record.last_px = value_or_zero(f64(memory, at + 4));
    record.volume = static_cast<uint32_t>(i32(memory, at + 12));
    record.turnover = value_or_zero(f64(memory, at + 16));
    record.open_interest = f64(memory, at + 24);
    record.highest = value_or_zero(f64(memory, at + 32));
    record.lowest = value_or_zero(f64(memory, at + 40));
    record.milli_sec = static_cast<uint16_t>(u16(memory, at + 146));
    record.change_no = static_cast<uint32_t>(i32(memory, at + 150));
    limits[slot] = {value_or_zero(f64(memory, at + 72)), value_or_zero(f64(memory, at + 80))};
}

void SnapshotModel::price_detail(int type, Bytes& memory, std::size_t at, int previous_id) {
    int slot = 0;
    if (!slot_of(type, i32(memory, at), slot)) {
        return;
    }
    if (!subscribed(slot)) {
        say('X', kParser, "skip unsubscribed inst, instNo : %d", slot);
        return;
    }
    double price = f64(memory, at + 5);
    if (price == kLargest) {
        price = 0.0;
        for (std::size_t i = 0; i < 8; ++i) {
            memory.at(at + 5 + i) = 0;
        }
    }
    Record& record = records[slot];
    if (previous_id != 0x0103) {
        for (std::size_t i = 0; i < 5; ++i) {
            record.bid.px[i] = record.ask.px[i] = 0;
            record.bid.vol[i] = record.ask.vol[i] = 0;
        }
    }
    const uint8_t direction = memory.at(at + 4);
    if (direction != '0' && direction != '1') {
        return;
    }
    Side& side = direction == '0' ? record.bid : record.ask;
    std::size_t level = 0;
    for (; level < 5; ++level) {
        const bool empty = std::fabs(side.px[level]) < 1e-5 && side.vol[level] < 1;
        const bool takes =
            direction == '0' ? price + 1e-5 >= side.px[level] : side.px[level] >= price - 1e-5;
        if (empty || takes) {
            break;
        }
    }
    side.px[level] = price;
    side.vol[level] = i32(memory, at + 13);
}

void SnapshotModel::order_totals(int type, const Bytes& memory, std::size_t at) {
    int slot = 0;
    if (!slot_of(type, i32(memory, at), slot) || !subscribed(slot)) {
        return;
    }
    Record& record = records[slot];
    record.bid_totvol = i32(memory, at + 4);
    record.bid_totamount = f64(memory, at + 8);
    record.ask_totvol = i32(memory, at + 16);
    record.ask_totamount = f64(memory, at + 20);
}

int SnapshotModel::price_check() {
    for (int number = 0; number < shfe_count; ++number) {
        if (const int result = check_slot(number); result != 0) {
            return result;
        }
    }
    for (int number = 0; number < ine_count; ++number) {
        if (const int result = check_slot(20479 - number); result != 0) {
            return result;
        }
    }
    return 0;
}

int SnapshotModel::check_slot(int slot) {
    const auto found = records.find(slot);
    if (found == records.end()) {
        return 0; // ten empty levels
    }
    const Record& record = found->second;
    std::string inst_id;
    for (const uint8_t byte : record.inst_id) {
        if (byte == 0) {
            break;
        }
        inst_id.push_back(static_cast<char>(byte));
    }
    if (inst_id.find("TAS") != std::string::npos) {
        return 0;
    }
    const bool spread = inst_id.find('-') != std::string::npos;
    std::array<double, 10> px{};
    std::array<int32_t, 10> vol{};
    for (std::size_t i = 0; i < 5; ++i) {
        px[i] = record.ask.px[4 - i];
        vol[i] = record.ask.vol[4 - i];
        px[5 + i] = record.bid.px[i];
        vol[5 + i] = record.bid.vol[i];
    }
    const Limits own = limits.count(slot) != 0 ? limits.at(slot) : Limits{};
    const int result = check_prices(px, vol, spread ? kLargest : own.upper,
                                    spread ? -kLargest : own.lower, spread);
    if (result == 0) {
        return 0;
    }
    constexpr const char* kFunction = "ShfeInstPriceCheck";
    say('E', kFunction, "inst_id [%s]upper[%8lf]lower[%8lf]", inst_id.c_str(), own.upper,
        own.lower);
    const char* const names[10] = {"ask5", "ask4", "ask3", "ask2", "ask1",
                                   "bid1", "bid2", "bid3", "bid4", "bid5"};
    for (std::size_t i = 0; i < 10; ++i) {
        say('E', kFunction, "%s px[%8lf]vol[%d]", names[i], px[i], vol[i]);
    }
    return settings_.shield ? 0 : result;
}

int SnapshotModel::check_prices(const std::array<double, 10>& px,
                                const std::array<int32_t, 10>& vol, double upper, double lower,
                                bool spread) {
    constexpr const char* kFunction = "CheckPrice";
    double previous = kLargest;
    for (std::size_t i = 0; i < 10; ++i) {
        const double p = px[i];
        const int32_t v = vol[i];
        const int index = static_cast<int>(i);
        const bool zero = p > -0.00001 && p < 0.00001;
        if (!spread && (zero ? v > 0 : v < 1)) {
            say('W', kFunction, "Price and Volume mismatch at index %d: price=%lf, vol=%d", index,
                p, v);
            return -3;
        }
        if (zero && v <= 0) {
            continue;
        }
        if (p < lower - 0.00001 || p > upper + 0.00001) {
            say('W', kFunction,
                "(price > up) or (price < lower), price is %lf, up is %lf, lower is %lf, index is "
                ":%d",
                p, upper, lower, index);
            return -1;
        }
        if (previous <= p) {
            say('W', kFunction, "The price is abnormal, price index is :%d ", index);
            return -2;
        }
        previous = p;
    }
    return 0;
}

} // namespace tcp_test
