#include "mirp_model.h"

#include <bit>
#include <cstdarg>
#include <cstdio>
#include <string_view>

namespace mirp_model {

namespace {

constexpr double kEpsilon = 0.00001;

uint64_t little_endian(const uint8_t* at, int bytes) {
    uint64_t value = 0;
    for (int i = bytes - 1; i >= 0; --i) {
        value = value << 8 | at[i];
    }
    return value;
}
uint16_t u16(const uint8_t* at) {
    return static_cast<uint16_t>(little_endian(at, 2));
}
uint32_t u32(const uint8_t* at) {
    return static_cast<uint32_t>(little_endian(at, 4));
}
int32_t i32(const uint8_t* at) {
    return static_cast<int32_t>(u32(at));
}
int64_t i64(const uint8_t* at) {
    return static_cast<int64_t>(little_endian(at, 8));
}

void put(RecordImage& image, std::size_t at, uint64_t value, std::size_t bytes) {
    for (std::size_t i = 0; i < bytes; ++i) {
        image[at + i] = static_cast<uint8_t>(value >> (8 * i));
    }
}
void put(RecordImage& image, std::size_t at, double value) {
    put(image, at, std::bit_cast<uint64_t>(value), 8);
}
void put(RecordImage& image, std::size_t at, int32_t value) {
    put(image, at, static_cast<uint32_t>(value), 4);
}

double price_of(const Scaling& scaling, int32_t offset) {
    const double ticks = static_cast<double>(offset);
    const double distance = ticks * scaling.tick;
    return distance + scaling.codec_price;
}

double amount_change(const Scaling& scaling, int32_t volume_change, int64_t amount_offset) {
    const double base = static_cast<double>(volume_change) * scaling.codec_price;
    const double above = static_cast<double>(amount_offset) * scaling.tick;
    const double sum = base + above;
    return sum * static_cast<double>(scaling.volume_multiple);
}

// Adds modulo 2^32 and keeps the sign of the target's type.
int32_t wrapping_sum(int32_t a, int32_t b) {
    return static_cast<int32_t>(static_cast<uint32_t>(a) + static_cast<uint32_t>(b));
}

bool is_empty(const Entry& entry) {
    return entry.price > -kEpsilon && entry.price < kEpsilon && entry.volume < 1;
}

// The identifier up to its first NUL, at most its sixteen bytes.
std::string id_text(const Record& record) {
    std::string text;
    for (const uint8_t byte : record.id) {
        if (byte == 0) {
            break;
        }
        text += static_cast<char>(byte);
    }
    return text;
}

} // namespace

RecordImage record_image(const Record& record) {
    RecordImage image{};
    for (std::size_t i = 0; i < record.id.size(); ++i) {
        image[i] = record.id[i];
    }
    put(image, 16, record.last_price);
    put(image, 24, record.volume, 4);
    put(image, 28, record.update_time, 4);
    put(image, 32, record.update_millisec, 2);
    put(image, 34, record.exchange_type, 2);
    put(image, 36, record.change_no, 4);
    put(image, 40, record.turnover);
    put(image, 48, record.open_interest);
    put(image, 56, record.bid_total_volume);
    put(image, 60, record.ask_total_volume);
    put(image, 64, record.bid_total_amount);
    put(image, 72, record.ask_total_amount);
    put(image, 80, record.highest_price);
    put(image, 88, record.lowest_price);
    for (std::size_t i = 0; i < kDepth; ++i) {
        put(image, 96 + 8 * i, record.bid[i].price);
        put(image, 176 + 4 * i, record.bid[i].volume);
        put(image, 216 + 4 * i, record.ask[i].volume);
        put(image, 256 + 8 * i, record.ask[i].price);
    }
    return image;
}

Model::Model(const Settings& settings) : settings_(settings) {}

void Model::line(char level, const char* format, ...) {
    if (!keep_log) {
        return;
    }
    char text[4096];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    log.push_back(std::string(1, level) + " ExanicUdpFunc _ParseMirp " + text);
}

int32_t Model::parse(const uint8_t* packet, uint32_t len) {
    if (len < 24) {
        took(Path::kShort);
        line('E', "packet length too small: %u", len);
        return -1;
    }
    const uint16_t topic = u16(packet + 0);
    const uint16_t snap_millisec = u16(packet + 2);
    const uint32_t snap_time = u32(packet + 4);
    const int32_t packet_no = i32(packet + 8);
    const uint16_t header_field = u16(packet + 12);
    const uint32_t number = u32(packet + 14);
    const uint32_t change_no = u32(packet + 18);
    line('X', "topicID: 0x%x, snapMillisec: %u, snapTime: %u, packetNo: %u", topic, snap_millisec,
         snap_time, static_cast<uint32_t>(packet_no));
    line('X', "fieldID: 0x%x, instrumentNo: %u, changeNo: %u", header_field, number, change_no);

    uint16_t exchange_type = 0;
    const int32_t topic_value = topic; // 0 to 65535: a negative setting can equal none of them
    if (topic_value == settings_.shfe_2ps_topic || topic_value == settings_.shfe_4ps_topic) {
        if (number > 16383) {
            took(Path::kOutOfRange);
            if (warn_shfe_) {
                line('W', "shfe InstNo [%d] is out of range [%d]", static_cast<int32_t>(number),
                     16383);
                warn_shfe_ = false;
            }
            return 0;
        }
        slot = number;
        shfe_packet_no = packet_no;
        exchange_type = 0;
    } else if (topic_value == settings_.ine_2ps_topic || topic_value == settings_.ine_4ps_topic) {
        if (number > 4095) {
            took(Path::kOutOfRange);
            if (warn_ine_) {
                line('W', "ine InstNo [%d] is out of range [%d]", static_cast<int32_t>(number),
                     4095);
                warn_ine_ = false;
            }
            return 0;
        }
        slot = 20479 - number;
        ine_packet_no = packet_no;
        exchange_type = 1;
    } else {
        took(Path::kUnknownTopic);
        line('E', "unsupported topicID: 0x%x", topic);
        return -1;
    }

    Record& record = records[slot];
    const std::string id = id_text(record);
    line('X', "snap instrumentID: %s, changeNo: %d", id.c_str(),
         static_cast<int32_t>(record.change_no));

    if (record.id[0] == 0) {
        took(Path::kUnsubscribed);
        line('X', "unsubscribed instrument");
        if (record.id[6] != 0) {
            line('X', "do not handle options, instrumentID: %s", id.c_str());
        }
        return 0;
    }
    if (settings_.options == 0 && record.id[6] != 0) {
        took(Path::kOption);
        line('X', "do not handle options, instrumentID: %s", id.c_str());
        return 0;
    }

    record.exchange_type = exchange_type;
    snap_time_register = snap_time;
    ++snap_time_stores;
    if (header_field != 3) {
        took(Path::kOtherField);
        return 1;
    }

    const Record saved = record;
    const uint32_t expected = record.change_no + 1; // modulo 2^32
    if (change_no != expected) {
        if (change_no <= record.change_no) {
            took(Path::kStale);
            return 0;
        }
        took(Path::kGap);
        line('E',
             "discontinuous changeNo: %u, expected changeNo: %d, instrumentID: %s, "
             "instrumentNo: %d, instrumentNo: %d",
             change_no, static_cast<int32_t>(expected), id.c_str(), static_cast<int32_t>(number),
             static_cast<int32_t>(slot));
        return -1;
    }
    record.update_time = snap_time;
    record.update_millisec = snap_millisec;
    record.change_no = change_no;

    apply_fields(record, scalings[slot], packet, len);

    if (!book_is_good(record)) {
        record = saved;
        return 0;
    }
    took(Path::kApplied);
    return 1;
}

void Model::apply_fields(Record& record, const Scaling& scaling, const uint8_t* packet,
                         uint32_t len) {
    int bid_depth = 5;
    int ask_depth = 5;
    uint32_t at = 24;
    uint32_t remaining = len - 24;
    while (remaining >= 3) {
        const uint8_t* const field = packet + at;
        const uint16_t id = u16(field);
        line('X', "fieldID: 0x%x", id);
        uint32_t size = 0;
        if (id == 0x1002 && remaining >= 32) {
            took(Path::kDeal);
            const int32_t volume_change = i32(field + 6);
            const int64_t turnover_offset = i64(field + 10);
            record.last_price = price_of(scaling, i32(field + 2));
            record.volume = record.volume + static_cast<uint32_t>(volume_change);
            record.open_interest = record.open_interest + static_cast<double>(i64(field + 18));
            record.turnover =
                record.turnover + amount_change(scaling, volume_change, turnover_offset);
            size = 32;
        } else if (id == 0x1019 && remaining >= 16) {
            took(Path::kBidTotals);
            const int32_t change = i32(field + 2);
            record.bid_total_volume = wrapping_sum(record.bid_total_volume, change);
            record.bid_total_amount =
                record.bid_total_amount + amount_change(scaling, change, i64(field + 6));
            size = 16;
        } else if (id == 0x101A && remaining >= 16) {
            took(Path::kAskTotals);
            const int32_t change = i32(field + 2);
            record.ask_total_volume = wrapping_sum(record.ask_total_volume, change);
            record.ask_total_amount =
                record.ask_total_amount + amount_change(scaling, change, i64(field + 6));
            size = 16;
        } else if (id == 0x1011 && remaining >= 8) {
            took(Path::kHighest);
            record.highest_price = price_of(scaling, i32(field + 2));
            size = 8;
        } else if (id == 0x1012 && remaining >= 8) {
            took(Path::kLowest);
            record.lowest_price = price_of(scaling, i32(field + 2));
            size = 8;
        } else if (id == 0x1001 && remaining >= 16) {
            apply_price_change(record, scaling, field, bid_depth, ask_depth);
            size = 16;
        } else {
            took(Path::kAbnormalField);
            line('E', "abnormal process fieldID: 0x%x length: %u", id, remaining);
            return;
        }
        at += size;
        remaining -= size;
    }
}

void Model::apply_price_change(Record& record, const Scaling& scaling, const uint8_t* field,
                               int& bid_depth, int& ask_depth) {
    const uint8_t entry_type = field[2];
    const uint8_t level = field[3];
    const double price = price_of(scaling, i32(field + 4));
    const int32_t volume = i32(field + 8); // modulo 2^32
    const uint8_t event_type = field[12];

    if (level < 1 || level > 10) {
        took(Path::kBadLevel);
        line('E', "invalid priceLevel: %u, instrumentID: %s", level, id_text(record).c_str());
        return;
    }
    if (event_type != 1 && event_type != 2 && event_type != 3) {
        took(Path::kBadEvent);
        line('E', "unkonwn event type: %u", event_type);
        return;
    }
    if (entry_type != 0 && entry_type != 1) {
        took(Path::kBadEntryType);
        line('E', "unkonwn md entry type: %u", entry_type);
        return;
    }
    BookSide& side = entry_type == 0 ? record.bid : record.ask;
    int& depth = entry_type == 0 ? bid_depth : ask_depth;
    const auto entry = [&side](int index) -> Entry& {
        return side.at(static_cast<std::size_t>(index));
    };
    const int k = level - 1;

    if (event_type == 1) {
        if (!is_empty(entry(k)) && level <= depth) {
            took(depth == 10 ? Path::kInsertAtFullDepth : Path::kInsertShifting);
            for (int to = depth; to >= k + 1; --to) {
                if (to < kDepth) { // there is no eleventh entry
                    entry(to) = entry(to - 1);
                }
            }
        } else {
            took(Path::kInsertInPlace);
        }
        entry(k) = Entry{price, volume};
        if (level == 5 && is_empty(entry(4))) {
            took(Path::kInsertKeepingDepth);
        } else if (depth < 10) {
            ++depth;
        }
    } else if (event_type == 2) {
        took(Path::kUpdate);
        entry(k) = Entry{price, volume};
    } else {
        took(level > depth ? Path::kDeleteBeyondDepth : Path::kDelete);
        if (level < depth) {
            for (int from = k + 1; from <= depth - 1; ++from) {
                entry(from - 1) = entry(from);
            }
        }
        if (depth != 0) {
            --depth;
            entry(depth) = Entry{0.0, 0};
        } else {
            took(Path::kDeleteAtDepthZero);
        }
    }
}

bool Model::book_is_good(const Record& record) {
    const std::string id = id_text(record);
    if (id.find("TAS") != std::string::npos) {
        took(Path::kUncheckedTas);
        return true;
    }
    for (std::size_t i = 0; i <= 3; ++i) {
        const Entry& here = record.bid[i];
        const Entry& next = record.bid[i + 1];
        if (!is_empty(here) && !is_empty(next) && next.price >= here.price) {
            took(Path::kBadBid);
            line('X', "bad mirp bid: bid[%d]=%.2f <= bid[%d]=%.2f, inst=%s, restore",
                 static_cast<int>(i), here.price, static_cast<int>(i + 1), next.price, id.c_str());
            return false;
        }
    }
    for (std::size_t i = 0; i <= 3; ++i) {
        const Entry& here = record.ask[i];
        const Entry& next = record.ask[i + 1];
        if (!is_empty(here) && !is_empty(next) && here.price >= next.price) {
            took(Path::kBadAsk);
            line('X', "bad mirp ask: ask[%d]=%.2f >= ask[%d]=%.2f, inst=%s, restore",
                 static_cast<int>(i), here.price, static_cast<int>(i + 1), next.price, id.c_str());
            return false;
        }
    }
    if (is_empty(record.ask[0]) || is_empty(record.bid[0])) {
        return true;
    }
    if (record.bid[0].price >= record.ask[0].price) {
        took(Path::kCrossed);
        line('X', "bad mirp crossed: bid1=%.2f >= ask1=%.2f, inst=%s, restore", record.bid[0].price,
             record.ask[0].price, id.c_str());
        return false;
    }
    return true;
}

} // namespace mirp_model
