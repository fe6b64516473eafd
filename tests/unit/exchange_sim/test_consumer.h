#pragma once

// A consumer of the feed as the simulator's tests need one: written by offset, on its own, from
// what a consumer does with a decode buffer and a snapshot. It shares no code with the publisher.

#include "exchange_sim/truth.h"
#include "wirekit/bytes.h"

#include <cmath>
#include <map>
#include <span>
#include <string>
#include <vector>

namespace exchange_sim::testing {

using wirekit::get_le16;
using wirekit::get_le32;
using wirekit::get_le64;
using wirekit::get_le_f64;

inline int32_t get_i32(const uint8_t* at) {
    return static_cast<int32_t>(get_le32(at));
}
inline int64_t get_i64(const uint8_t* at) {
    return static_cast<int64_t>(get_le64(at));
}

constexpr double kMax = std::numeric_limits<double>::max();
inline double value_or_zero(double value) {
    return value == kMax ? 0.0 : value;
}

struct Scale {
    double tick = 0.0;
    double codec = 0.0;
    int32_t multiple = 0;
    double price(int32_t ticks) const { return static_cast<double>(ticks) * tick + codec; }
    double amount(int32_t volume, int64_t offset) const {
        return (static_cast<double>(volume) * codec + static_cast<double>(offset) * tick) *
               static_cast<double>(multiple);
    }
};

struct ConsumerSide {
    std::array<double, kDepth>& price;
    std::array<int32_t, kDepth>& volume;
    int counter = 5;

    bool empty(int index) const {
        const auto i = static_cast<std::size_t>(index);
        return std::fabs(price[i]) < 1e-5 && volume[i] < 1;
    }
    void set(int index, double new_price, int32_t new_volume) {
        if (index < kDepth) {
            price[static_cast<std::size_t>(index)] = new_price;
            volume[static_cast<std::size_t>(index)] = new_volume;
        }
    }
    void copy(int from, int to) {
        set(to, price[static_cast<std::size_t>(from)], volume[static_cast<std::size_t>(from)]);
    }
    void insert(int level, double new_price, int32_t new_volume) {
        const int index = level - 1;
        if (!empty(index) && level <= counter) {
            for (int i = counter; i > index; --i) {
                copy(i - 1, i);
            }
        }
        set(index, new_price, new_volume);
        if (!(level == 5 && empty(4)) && counter < 10) {
            ++counter;
        }
    }
    void erase(int level) {
        if (level < counter) {
            for (int i = level - 1; i < counter - 1; ++i) {
                copy(i + 1, i);
            }
        }
        if (counter > 0) {
            set(--counter, 0.0, 0);
        }
    }
};

// What is wrong with the first five levels, or empty. Instruments with TAS are never judged.
inline std::string book_fault(const ExpectedRecord& record) {
    if (std::string(record.inst_id.data()).find("TAS") != std::string::npos) {
        return {};
    }
    const auto in_use = [](double price, int32_t volume) {
        return std::fabs(price) >= 1e-5 || volume >= 1;
    };
    for (std::size_t i = 0; i < 4; ++i) {
        if (in_use(record.bid_px[i], record.bid_vol[i]) &&
            in_use(record.bid_px[i + 1], record.bid_vol[i + 1]) &&
            record.bid_px[i + 1] >= record.bid_px[i]) {
            return "bids out of order";
        }
        if (in_use(record.ask_px[i], record.ask_vol[i]) &&
            in_use(record.ask_px[i + 1], record.ask_vol[i + 1]) &&
            record.ask_px[i] >= record.ask_px[i + 1]) {
            return "asks out of order";
        }
    }
    if (in_use(record.bid_px[0], record.bid_vol[0]) &&
        in_use(record.ask_px[0], record.ask_vol[0]) && record.bid_px[0] >= record.ask_px[0]) {
        return "crossed";
    }
    return {};
}

enum class Applied { kYes, kStale, kGap, kUndone, kMalformed };

// Applies one decode buffer to the record.
inline Applied apply_decode_buffer(ExpectedRecord& record, const Scale& scale, uint16_t type,
                                   std::span<const uint8_t> bytes) {
    if (bytes.size() < 24 || get_le16(&bytes[12]) != 3) {
        return Applied::kMalformed;
    }
    const uint32_t change_no = get_le32(&bytes[18]);
    if (change_no != record.change_no + 1) {
        return change_no <= record.change_no ? Applied::kStale : Applied::kGap;
    }
    const ExpectedRecord saved = record;
    record.type = type;
    record.update_time = get_le32(&bytes[4]);
    record.update_milli_sec = get_le16(&bytes[2]);
    record.change_no = change_no;
    ConsumerSide sides[] = {{record.bid_px, record.bid_vol}, {record.ask_px, record.ask_vol}};
    std::size_t at = 24;
    while (at < bytes.size()) {
        const std::size_t left = bytes.size() - at;
        const uint16_t id = left >= 2 ? get_le16(&bytes[at]) : uint16_t{0};
        const std::size_t size = id == 0x1001                   ? 16
                                 : id == 0x1002                 ? 32
                                 : id == 0x1011 || id == 0x1012 ? 8
                                 : id == 0x1019 || id == 0x101A ? 16
                                                                : 0;
        if (size == 0 || size > left) {
            return Applied::kMalformed;
        }
        const uint8_t* const field = &bytes[at];
        if (id == 0x1001) {
            const uint8_t level = field[3];
            if (field[2] > 1 || level < 1 || level > 10) {
                return Applied::kMalformed;
            }
            ConsumerSide& side = sides[field[2]];
            const double price = scale.price(get_i32(field + 4));
            if (field[12] == 1) {
                side.insert(level, price, get_i32(field + 8));
            } else if (field[12] == 2) {
                side.set(level - 1, price, get_i32(field + 8));
            } else if (field[12] == 3) {
                side.erase(level);
            } else {
                return Applied::kMalformed;
            }
        } else if (id == 0x1002) {
            record.last_px = scale.price(get_i32(field + 2));
            record.volume += get_le32(field + 6);
            record.open_interest += static_cast<double>(get_i64(field + 18));
            record.turnover += scale.amount(get_i32(field + 6), get_i64(field + 10));
        } else if (id == 0x1011) {
            record.highest_price = scale.price(get_i32(field + 2));
        } else if (id == 0x1012) {
            record.lowest_price = scale.price(get_i32(field + 2));
        } else if (id == 0x1019) {
            record.bid_totvol += get_i32(field + 2);
            record.bid_totamount += scale.amount(get_i32(field + 2), get_i64(field + 6));
        } else {
            record.ask_totvol += get_i32(field + 2);
            record.ask_totamount += scale.amount(get_i32(field + 2), get_i64(field + 6));
        }
        at += size;
    }
    if (!book_fault(record).empty()) {
        record = saved;
        return Applied::kUndone;
    }
    return Applied::kYes;
}

// One instrument of a snapshot.
struct SnapshotEntry {
    ExpectedRecord record;
    Scale scale;
    double lower_limit = 0.0;
    double upper_limit = 0.0;
    int books = 0; // runs of price levels seen; one is right
};

using SnapshotTable = std::map<int32_t, SnapshotEntry>; // by instrument number

struct MdqpField {
    uint16_t id;
    std::span<const uint8_t> data;
};

// The fields that a receiver decodes: those that begin before the last eight bytes of the body.
// `trailing` gets what begins there.
inline std::vector<MdqpField> mdqp_fields(std::span<const uint8_t> message,
                                          std::vector<MdqpField>* trailing = nullptr) {
    std::vector<MdqpField> fields;
    const std::size_t length = get_le16(&message[2]);
    for (std::size_t at = 8; at + 4 <= message.size();) {
        const std::size_t size = get_le16(&message[at + 2]);
        const MdqpField field{get_le16(&message[at]), message.subspan(at + 4, size)};
        if (at < length) {
            fields.push_back(field);
        } else if (trailing != nullptr) {
            trailing->push_back(field);
        }
        at += 4 + size;
    }
    return fields;
}

// Applies one message of a round to the table.
inline void apply_mdqp_message(SnapshotTable& table, std::span<const uint8_t> message) {
    uint16_t previous = 0;
    for (const MdqpField& field : mdqp_fields(message)) {
        const uint8_t* const data = field.data.data();
        if (field.id == 0x0101) {
            SnapshotEntry& entry = table[get_i32(data + 108)];
            entry.record = {};
            for (std::size_t i = 0; i < 15 && data[i] != 0; ++i) {
                entry.record.inst_id[i] = static_cast<char>(data[i]);
            }
            entry.scale = {get_le_f64(data + 92), value_or_zero(get_le_f64(data + 100)),
                           get_i32(data + 72)};
            entry.books = 0;
        } else if (field.id == 0x0102) {
            SnapshotEntry& entry = table[get_i32(data)];
            entry.record.last_px = value_or_zero(get_le_f64(data + 4));
            entry.record.volume = get_le32(data + 12);
            entry.record.turnover = value_or_zero(get_le_f64(data + 16));
            entry.record.open_interest = get_le_f64(data + 24);
            entry.record.highest_price = value_or_zero(get_le_f64(data + 32));
            entry.record.lowest_price = value_or_zero(get_le_f64(data + 40));
            entry.upper_limit = get_le_f64(data + 72);
            entry.lower_limit = get_le_f64(data + 80);
            entry.record.update_milli_sec = get_le16(data + 146);
            entry.record.change_no = get_le32(data + 150);
        } else if (field.id == 0x0103) {
            SnapshotEntry& entry = table[get_i32(data)];
            ExpectedRecord& record = entry.record;
            if (previous != 0x0103) {
                ++entry.books;
                for (std::size_t i = 0; i < 5; ++i) {
                    record.bid_px[i] = record.ask_px[i] = 0.0;
                    record.bid_vol[i] = record.ask_vol[i] = 0;
                }
            }
            const bool bid = data[4] == '0';
            auto& prices = bid ? record.bid_px : record.ask_px;
            auto& volumes = bid ? record.bid_vol : record.ask_vol;
            const double price = get_le_f64(data + 5);
            std::size_t i = 0;
            while (i < 5 && !(std::fabs(prices[i]) < 1e-5 && volumes[i] < 1) &&
                   !(bid ? price + 1e-5 >= prices[i] : prices[i] >= price - 1e-5)) {
                ++i;
            }
            prices[i] = price;
            volumes[i] = get_i32(data + 13);
        } else if (field.id == 0x0104) {
            ExpectedRecord& record = table[get_i32(data)].record;
            record.bid_totvol = get_i32(data + 4);
            record.bid_totamount = get_le_f64(data + 8);
            record.ask_totvol = get_i32(data + 16);
            record.ask_totamount = get_le_f64(data + 20);
        }
        previous = field.id;
    }
}

} // namespace exchange_sim::testing
