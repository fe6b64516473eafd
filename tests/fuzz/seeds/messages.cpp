// MDQP messages: every field, every feed, numbers and books at and beyond their limits.

#include "seeds.h"
#include "wirekit/mdqp.h"

#include <initializer_list>
#include <string>

namespace seeds {

using wirekit::mdqp_message;

void put_messages() {
    const auto save = [](const std::string& name, uint8_t shape, const Bytes& bytes,
                         uint8_t control = 0) {
        put("mdqp", name, Bytes{control, shape} + bytes);
        put("mdqp", name + "-logged", Bytes{static_cast<uint8_t>(control | 0x30), shape} + bytes);
    };
    for (uint8_t type = 0; type < 5; ++type) {
        const std::string tag = "-type-" + std::to_string(type);
        save("round" + tag, type, round(1000));
        save("round-list" + tag, type, round(1000), 0x04);
        save("round-no-options" + tag, type, round(1000), 0x02);
        save("round-all-feeds" + tag, static_cast<uint8_t>(type | 0x20), round(1000), 0x40);
        for (const int32_t inst :
             {-1, 0, 3199, 3200, 4095, 4096, 12799, 12800, 16383, 16384, INT32_MAX, INT32_MIN}) {
            save("number-" + std::to_string(inst) + tag, type,
                 Bytes(mdqp_message()
                           .inst({.inst_id = "cu2603", .inst_no = inst})
                           .inst({.inst_id = "cu2604", .inst_no = inst})
                           .deal({.inst_no = inst, .last_price = 1})
                           .price(inst, '0', 1, 1)
                           .order_totals(inst, 1, 1, 1, 1)
                           .packet_no(1)
                           .bytes()));
        }
    }
    const auto book = [&](const std::string& name, auto fill, uint8_t shape = 0x30,
                          uint8_t control = 0) {
        auto message = mdqp_message();
        for (const int32_t inst : {1, 2, 3, 4}) {
            message.deal({.inst_no = inst, .upper_limit_price = 110, .lower_limit_price = 90});
            fill(message, inst);
        }
        save(name, shape, Bytes(message.packet_no(1).bytes()), control);
        save(name + "-kept", shape, Bytes(message.bytes()), static_cast<uint8_t>(control | 8));
        save(name + "-real", shape, Bytes(message.bytes()), static_cast<uint8_t>(control | 128));
        save(name + "-real-ine", static_cast<uint8_t>(shape | 1), Bytes(message.bytes()),
             static_cast<uint8_t>(control | 128));
    };
    using Message = wirekit::MdqpMessageBuilder;
    book("good", [](Message& m, int32_t i) {
        m.price(i, '0', 100, 1).price(i, '0', 99, 1).price(i, '1', 101, 1).price(i, '1', 102, 1);
    });
    book("crossed", [](Message& m, int32_t i) { m.price(i, '0', 102, 1).price(i, '1', 101, 1); });
    book("above", [](Message& m, int32_t i) { m.price(i, '1', 200, 1); });
    book("below", [](Message& m, int32_t i) { m.price(i, '0', 20, 1); });
    book("no-volume", [](Message& m, int32_t i) { m.price(i, '0', 100, 0); });
    book("no-price", [](Message& m, int32_t i) { m.price(i, '0', 0, 9); });
    book("spread-zero", [](Message& m, int32_t i) {
        if (i == 4) {
            m.price(i, '0', 0, 9).price(i, '1', 1e9, 9);
        }
    });
    book("any-order", [](Message& m, int32_t i) {
        m.price(i, '0', 99, 1).price(i, '0', 100, 1).price(i, '1', 105, 1).price(i, '1', 101, 1);
    });
    book("seven-levels", [](Message& m, int32_t i) {
        for (int k = 0; k < 7; ++k) {
            m.price(i, '0', 100 - k, 1).price(i, '1', 101 + k, 1);
        }
    });
    book("no-value", [](Message& m, int32_t i) {
        m.price(i, '0', wirekit::kNoValue, 1).price(i, '1', wirekit::kNoValue, 0);
    });
    book("no-side", [](Message& m, int32_t i) { m.price(i, '7', 100, 1); });
    save("not-subscribed", 0,
         Bytes(mdqp_message()
                   .price(9, '0', 1, 1)
                   .deal({.inst_no = 9})
                   .order_totals(9, 1, 1, 1, 1)
                   .packet_no(1)
                   .bytes()));
    save("skipped-fields", 0,
         Bytes(mdqp_message()
                   .snap(1, 1)
                   .field(0x31, 2, Bytes(2, 0))
                   .field(0x32, 2, Bytes(2, 0))
                   .field(0x1002, 1, Bytes(1, 0))
                   .field(0x1003, 1, Bytes(1, 0))
                   .field(0x7777, 4, Bytes(4, 0))
                   .packet_no(3)
                   .packet_no(4)
                   .packet_no(1)
                   .bytes()));
    save("cut", 8, slice(round(1000), 0, 300));
    save("cut-field", 8, slice(round(1000), 0, 45));
    save("runs-on", 0,
         Bytes(mdqp_message()
                   .field(0x101, 0, {})
                   .field(0x102, 0, {})
                   .field(0x103, 0, {})
                   .field(0x104, 0, {})
                   .length(20)
                   .bytes()));
    save("short-body", 0, Bytes(mdqp_message().length(8).raw(Bytes(8, 1)).bytes()));
    save("full-id", 0,
         Bytes(mdqp_message()
                   .inst({.inst_id = "SPD cu2603-cu2604xxxxxxxxxxxxx", .inst_no = 8})
                   .packet_no(1)
                   .bytes()));
    for (const uint8_t type : std::initializer_list<uint8_t>{0, 1}) {
        auto many = mdqp_message();
        for (const int32_t inst : {3200, 3201, 3202, 12800, 12801, 12802}) {
            many.inst({.inst_id = "cu2603", .inst_no = inst});
        }
        save("many-" + std::to_string(type), type, Bytes(many.packet_no(1).bytes()));
    }
    save("blank-id", 0,
         Bytes(mdqp_message()
                   .inst({.inst_id = "  ", .inst_no = 8})
                   .price(8, '0', 1, 1)
                   .packet_no(1)
                   .bytes()));
    save("listed", 0,
         Bytes(mdqp_message()
                   .inst({.inst_id = "sc2603", .inst_no = 1})
                   .inst({.inst_id = "au2606C10", .inst_no = 2})
                   .inst({.inst_id = "au2607", .inst_no = 3})
                   .inst({.inst_id = "c", .inst_no = 4})
                   .packet_no(1)
                   .bytes()),
         4);
}

} // namespace seeds
