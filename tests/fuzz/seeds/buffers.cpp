// Decode buffers: every field and book event on every kind of record; and runs of the cache.

#include "seeds.h"
#include "wirekit/mirp.h"

#include <initializer_list>
#include <string>

namespace seeds {
namespace {

Bytes fields_of(const wirekit::DecodeBufferBuilder& buffer) {
    return slice(buffer.bytes(), 24);
}

} // namespace

void put_buffers() {
    using wirekit::Side;
    const auto save = [](const std::string& name, const Bytes& entries) {
        put("decode", name, Bytes{0} + entries);
        put("decode", name + "-logged", Bytes{0x30} + entries);
        put("decode", name + "-no-options", Bytes{0x31} + entries);
    };
    const auto on_all = [&](const std::string& name, const Bytes& fields) {
        Bytes all;
        for (uint8_t i = 0; i < 12; ++i) {
            wirekit::append(all, entry(i, fields));
        }
        save(name, all);
    };
    const auto buffer = [] { return wirekit::decode_buffer(); };
    on_all("deal", fields_of(buffer().deal(3, 4, 5, -6).deal(1, 1, 1, 1).highest(9).lowest(-9)));
    on_all(
        "totals",
        fields_of(buffer().bid_totals(1, 2).ask_totals(-3, -4).bid_totals(1, 2).ask_totals(1, 1)));
    on_all("extremes", fields_of(buffer()
                                     .deal(INT32_MAX, INT32_MIN, INT64_MIN, INT64_MAX)
                                     .highest(INT32_MIN)
                                     .lowest(INT32_MAX)
                                     .bid_totals(INT32_MAX, INT64_MAX)
                                     .ask_totals(INT32_MAX, INT64_MIN)
                                     .highest(1)
                                     .lowest(1)));
    on_all("all-then-bad", fields_of(buffer()
                                         .deal(3, 4, 5, 6)
                                         .bid_totals(1, 2)
                                         .ask_totals(3, 4)
                                         .highest(1)
                                         .lowest(2)
                                         .update(Side::kBid, 1, 1000, 5)
                                         .update(Side::kAsk, 1, -1000, 5)));
    for (const Side side : {Side::kBid, Side::kAsk}) {
        const std::string tag = side == Side::kBid ? "bid-" : "ask-";
        const int32_t sign = side == Side::kBid ? -1 : 1;
        for (uint8_t level = 0; level <= 11; ++level) {
            const std::string at = tag + std::to_string(level);
            on_all("insert-" + at, fields_of(buffer().insert(side, level, sign * level, 3)));
            on_all("update-" + at, fields_of(buffer().update(side, level, sign * level, 3)));
            on_all("erase-" + at, fields_of(buffer().erase(side, level)));
            on_all("empty-" + at,
                   fields_of(buffer().update(side, level, 0, 0).insert(side, level, 0, 0)));
        }
        auto deep = buffer();
        for (uint8_t level = 1; level <= 10; ++level) {
            deep.insert(side, level, sign * level, level);
        }
        on_all("deep-" + tag, fields_of(deep));
        auto none = buffer();
        for (int i = 0; i < 7; ++i) {
            none.erase(side, 1);
        }
        on_all("none-" + tag, fields_of(none));
        on_all("bad-" + tag, fields_of(buffer().update(side, 2, -sign * 900, 3)));
        on_all("bad-fifth-" + tag, fields_of(buffer().update(side, 5, -sign * 900, 3)));
    }
    on_all("crossed", fields_of(buffer().insert(Side::kBid, 1, 900, 3)));
    on_all("event", fields_of(buffer().price_change(0, 1, 1, 1, 0).price_change(1, 1, 1, 1, 9)));
    on_all("entry-type", fields_of(buffer().price_change(2, 1, 1, 1, 1)));
    on_all("unknown-field", fields_of(buffer().raw(Bytes(8, 0x77))));
    on_all("padding", fields_of(buffer().highest(1).raw(Bytes(2, 0))));
    for (const uint8_t id : std::initializer_list<uint8_t>{0x01, 0x02, 0x11, 0x12, 0x19, 0x1A}) {
        on_all("cut-" + std::to_string(id), Bytes{id, 0x10, 0, 0, 0});
    }
    Bytes kinds;
    for (int kind = 0; kind < 256; ++kind) {
        if ((kind & 15) < 12 && (kind & 0x30) != 0x30) {
            kinds = kinds + entry(static_cast<uint8_t>(kind), fields_of(buffer().highest(kind)));
        }
        if (kind % 48 == 47) {
            save("kinds-" + std::to_string(kind), kinds);
            kinds.clear();
        }
    }
    const auto raw = [&](const std::string& name, const Bytes& bytes) {
        save("raw-" + name,
             raw_entry(15, bytes) + raw_entry(15 | 64, bytes) + raw_entry(15, bytes));
    };
    raw("good", buffer().topic(1000).change_no(8).highest(1).bytes());
    raw("topic", buffer().topic(77).bytes());
    raw("ine-4ps", buffer().topic(5101).change_no(8).bytes());
    raw("4ps", buffer().topic(1101).change_no(8).bytes());
    raw("shfe-beyond", buffer().topic(1000).instrument(16384).bytes());
    raw("shfe-last", buffer().topic(1000).instrument(16383).bytes());
    raw("ine-beyond", buffer().topic(5000).instrument(4096).bytes());
    raw("ine-last", buffer().topic(5000).instrument(4095).change_no(8).bytes());
    raw("unused", buffer().topic(1000).instrument(100).bytes());
    raw("short", Bytes(23, 0));
    raw("none", {});
    raw("largest", buffer().topic(1000).change_no(8).raw(Bytes(2024, 0x11)).bytes());
    raw("too-large", Bytes(2049, 1));
}

void put_cache_runs() {
    const Bytes buffer = wirekit::decode_buffer().topic(1000).change_no(8).highest(1).bytes();
    const Bytes receive = raw_entry(0, buffer);
    const Bytes process{3};
    const auto jump = [](uint8_t bits, uint16_t number) {
        return Bytes{static_cast<uint8_t>(6 | bits), static_cast<uint8_t>(number),
                     static_cast<uint8_t>(number >> 8)};
    };
    const auto save = [](const std::string& name, const Bytes& operations) {
        for (const uint8_t control : std::initializer_list<uint8_t>{0x00, 0x30, 0x40, 0x80, 0xB0}) {
            put("cache", name + "-" + std::to_string(control), Bytes{control} + operations);
        }
    };
    save("one", receive + process);
    save("three", receive + receive + receive + process + process + process + process);
    save("replay-again", receive + receive + Bytes{5} + process + receive + process);
    save("wrap", jump(8, 4112) + receive + receive + raw_entry(0, Bytes(2048, 1)) +
                     raw_entry(0, Bytes(2048, 1)) + receive + process);
    save("taken-at-end", jump(8 | 16, 7) + jump(16 | 32 | 8 | 64, 7) + process);
    save("entry-beyond", raw_entry(0, Bytes(64, 0xFF)) + jump(16 | 32 | 64, 0) + process + receive +
                             Bytes{5} + Bytes{6 | 16 | 32 | 64 | 8, 8, 0} + process);
    save("statuses", Bytes{2, 10, 18, 26, 34, 42, 50, 58} + process);
    save("forget",
         receive + Bytes{7} + process + receive + Bytes{15} + Bytes{47} + Bytes{23} + process);
    save("clear", receive + Bytes{23} + receive + process);
    save("short", raw_entry(0, Bytes(23, 1)) + raw_entry(0, Bytes(2049, 1)) + process);
}

} // namespace seeds
