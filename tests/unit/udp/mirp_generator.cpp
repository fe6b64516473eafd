#include "mirp_generator.h"

#include <algorithm>
#include <bit>
#include <limits>

namespace mirp_model {

namespace {

// The one quiet NaN that the processor makes by itself. With a single pattern about, the result of
// an operation on two of them does not depend on which operand came first.
const double kNan = std::bit_cast<double>(uint64_t{0xFFF8000000000000});
constexpr double kInfinity = std::numeric_limits<double>::infinity();

constexpr const char* kIds[] = {
    "cu2609",
    "al2612",
    "sc2609",
    "a",
    "ru",
    "cuTAS",
    "scTAS1",
    "TAS609",
    "nrTAS2",
    "cu2609C5",
    "sc2609P40000",
    "cu2609TAS",
    "cu2609C50000abc",
    "bc2701",
    "lu2611",
    "fu260",
    "ag2612",
    "zn2609",
    "",
    "",
    "ec2610",
    "ss2612TAS",
    "sp2611",
    "cuTas9",
    "cu2609C500000000",
    "sc2609P4000TASxx",
};
constexpr uint32_t kShfeNumbers[] = {0,    1,     2,     17,    18,  4095, 4096,
                                     8191, 12800, 16382, 16383, 300, 301};
constexpr uint32_t kIneNumbers[] = {0, 1, 2, 17, 18, 300, 2047, 3200, 3201, 4093, 4094, 4095, 301};

} // namespace

Generator::Generator(uint64_t seed) : random_(seed) {
    settings_ = {1000, 1101, 5000, 5101, static_cast<int8_t>(one_in(3) ? 0 : 1)};
    if (one_in(4)) {
        settings_.shfe_4ps_topic = -1101; // matches nothing
        settings_.ine_2ps_topic = INT16_MIN;
    }
    if (one_in(4)) {
        settings_.ine_4ps_topic = settings_.shfe_2ps_topic; // SHFE's first
        settings_.shfe_4ps_topic = 0;
    }
    for (const char* id : kIds) {
        ids_.emplace_back(id);
    }
    std::shuffle(ids_.begin(), ids_.end(), random_);
    for (const uint32_t number : kShfeNumbers) {
        instruments_.push_back({false, number, number});
    }
    for (const uint32_t number : kIneNumbers) {
        instruments_.push_back({true, number, 20479 - number});
    }
}

Scaling Generator::scaling() {
    const double ticks[] = {1.0,  1.0,      0.5,  0.2,  0.05, 0.01,  0.02, 5.0,
                            10.0, 0.000009, 1e-5, 3e-6, 1e-7, -0.05, 0.0,  1e300};
    const double codecs[] = {0.0,   0.0,     100.0, 71230.0, 391.35, 5123.4,
                             -50.0, 0.00001, 1e15,  0.1,     0.0,    kNan};
    const int32_t multiples[] = {1, 5, 10, 1000, 0, -3, INT32_MAX, 100};
    Scaling scaling{pick(ticks), pick(codecs), pick(multiples)};
    if (one_in(40)) {
        scaling.tick = kInfinity; // times an offset of zero: not a number
    }
    return scaling;
}

BookSide Generator::book_side(bool ask) {
    BookSide side{};
    const bool wild = one_in(4);
    double price = ask ? 2.0 : -2.0;
    for (Entry& entry : side) {
        price += (ask ? 1.0 : -1.0) * (1.0 + below(4));
        entry = {price, static_cast<int32_t>(1 + below(500))};
        if (one_in(8)) {
            entry = {};
        }
        if (wild) {
            const double prices[] = {0.0,   -0.0, 0.00001, -0.00001,  0.0000099, -0.0000099,
                                     price, kNan, -price,  kInfinity, 5.0,       -kInfinity};
            const int32_t volumes[] = {0, 1, -1, INT32_MIN, INT32_MAX, 7};
            entry = {pick(prices), pick(volumes)};
        }
    }
    if (one_in(6)) {
        std::fill(side.begin() + below(10), side.end(), Entry{});
    }
    return side;
}

Record Generator::record(const Instrument& instrument) {
    const auto index = static_cast<std::size_t>(
        std::find_if(instruments_.begin(), instruments_.end(),
                     [&](const Instrument& other) { return other.slot == instrument.slot; }) -
        instruments_.begin());
    Record record;
    std::copy(ids_[index].begin(), ids_[index].end(), record.id.begin());
    if (ids_[index].empty() && one_in(2)) {
        record.id[6] = 'C'; // unsubscribed, yet it looks like an option
    }
    const auto number = [&] { return (static_cast<double>(below(2000001)) - 1e6) * 0.05; };
    const uint32_t edges[] = {0, 1, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF};
    const auto count = [&] { return one_in(3) ? pick(edges) : below(100000); };
    record.last_price = number();
    record.volume = count();
    record.update_time = count();
    record.update_millisec = static_cast<uint16_t>(bits());
    record.exchange_type = static_cast<uint16_t>(below(4));
    const uint32_t change_nos[] = {0, 1000, 0x7FFFFFF0, 0xFFFFFFF0};
    record.change_no = pick(change_nos);
    record.turnover = number() * 1000.0;
    record.open_interest = number();
    record.bid_total_volume = static_cast<int32_t>(count());
    record.ask_total_volume = static_cast<int32_t>(count());
    record.bid_total_amount = number() * 1000.0;
    record.ask_total_amount = one_in(20) ? kNan : number();
    record.highest_price = number();
    record.lowest_price = number();
    record.bid = book_side(false);
    record.ask = book_side(true);
    return record;
}

uint16_t Generator::topic(const Instrument& instrument) {
    const int16_t shfe[] = {settings_.shfe_2ps_topic, settings_.shfe_4ps_topic};
    const int16_t ine[] = {settings_.ine_2ps_topic, settings_.ine_4ps_topic};
    if (one_in(60)) {
        return static_cast<uint16_t>(one_in(2) ? bits() : below(6000));
    }
    return static_cast<uint16_t>(instrument.ine ? pick(ine) : pick(shfe));
}

uint32_t Generator::change_no(Model& model, const Instrument& instrument) {
    const uint32_t stored = model.records[instrument.slot].change_no;
    const uint32_t odd[] = {stored,     stored - 1, stored + 2, stored + 3,         0,
                            0xFFFFFFFF, 1,          0x80000000, stored ^ 0x80000000};
    return one_in(12) ? pick(odd) : stored + 1;
}

int32_t Generator::price_ticks(bool ask, int level) {
    const int32_t odd[] = {0, 1, -1, INT32_MAX, INT32_MIN, 100, -100};
    if (one_in(12)) {
        return pick(odd);
    }
    // Mostly in order with the neighbours, so that most books pass.
    const int32_t distance = 3 * level + static_cast<int32_t>(below(4));
    return ask ? distance : -distance;
}

uint32_t Generator::volume() {
    const uint32_t odd[] = {0, 1, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF};
    return one_in(6) ? pick(odd) : 1 + below(1000);
}

int64_t Generator::amount_offset() {
    const int64_t odd[] = {0, INT64_MAX, INT64_MIN, (int64_t{1} << 53) + 1, -1};
    return one_in(10) ? pick(odd) : static_cast<int64_t>(below(2000000)) - 1000000;
}

void Generator::add_price_change(wirekit::DecodeBufferBuilder& builder) {
    const bool ask = one_in(2);
    const auto level = 1 + below(one_in(3) ? 10 : 5);
    const auto event = one_in(3) ? 3 : 1 + below(2);
    const bool empty = one_in(12);
    builder.price_change(ask ? 1 : 0, static_cast<uint8_t>(level),
                         empty ? 0 : price_ticks(ask, static_cast<int>(level)),
                         empty ? 0 : volume(), static_cast<uint8_t>(event));
}

// Values at and beyond their limits.
void Generator::add_odd_price_change(wirekit::DecodeBufferBuilder& builder) {
    const uint8_t entries[] = {0, 1, 0, 1, 2, 255};
    const uint8_t levels[] = {0, 1, 2, 4, 5, 6, 9, 10, 11, 255};
    const uint8_t events[] = {0, 1, 1, 2, 3, 3, 4, 255};
    builder.price_change(pick(entries), pick(levels), price_ticks(one_in(2), 1), volume(),
                         pick(events));
}

void Generator::add_field(wirekit::DecodeBufferBuilder& builder) {
    const auto change = [&] {
        const int32_t odd[] = {INT32_MAX, INT32_MIN, -1};
        return one_in(10) ? pick(odd) : static_cast<int32_t>(below(2001)) - 1000;
    };
    switch (below(12)) {
    case 0:
        builder.deal(price_ticks(one_in(2), 1), change(), amount_offset(), amount_offset());
        break;
    case 1:
        builder.bid_totals(change(), amount_offset());
        break;
    case 2:
        builder.ask_totals(change(), amount_offset());
        break;
    case 3:
        builder.highest(price_ticks(true, 9));
        break;
    case 4:
        builder.lowest(price_ticks(false, 9));
        break;
    case 5:
        one_in(3) ? add_odd_price_change(builder) : add_price_change(builder);
        break;
    default:
        add_price_change(builder);
    }
}

void Generator::add_noise(wirekit::DecodeBufferBuilder& builder) {
    wirekit::Bytes noise(below(40));
    for (uint8_t& byte : noise) {
        byte = static_cast<uint8_t>(bits());
    }
    const uint16_t ids[] = {0x1001, 0x1002, 0x1011, 0x1012, 0x1019, 0x101A, 0x1003, 3, 0x9001};
    if (noise.size() >= 2) {
        wirekit::put_le16(noise.data(), pick(ids));
    }
    builder.raw(noise);
}

wirekit::Bytes Generator::message(Model& model) {
    const Instrument& instrument = any_instrument();
    auto builder = wirekit::decode_buffer()
                       .topic(topic(instrument))
                       .time(static_cast<uint32_t>(bits()), static_cast<uint16_t>(bits()))
                       .packet_no(static_cast<int32_t>(bits()))
                       .instrument(instrument.number)
                       .change_no(change_no(model, instrument));
    if (one_in(80)) {
        const uint32_t numbers[] = {4096, 16384, 20479, 20480, 0x80000000, 0xFFFFFFFF, 19, 5000};
        builder.instrument(pick(numbers));
    }
    if (one_in(40)) {
        builder.field_id(static_cast<uint16_t>(one_in(2) ? below(8) : bits()));
    }
    const uint32_t fields = one_in(50) ? 120 : below(one_in(4) ? 24 : 6);
    for (uint32_t i = 0; i < fields; ++i) {
        add_field(builder);
    }
    if (one_in(8)) {
        add_noise(builder);
        if (one_in(2)) {
            add_field(builder);
        }
    }
    wirekit::Bytes bytes = builder.bytes();
    if (one_in(20) && bytes.size() > 24) { // damaged behind the header
        for (uint32_t i = 0; i <= below(4); ++i) {
            bytes[24 + below(bytes.size() - 24)] = static_cast<uint8_t>(bits());
        }
    }
    if (one_in(20)) { // cut anywhere
        bytes.resize(below(bytes.size() + 1));
    }
    if (one_in(60)) { // noise from the first byte on, of the right topic at times
        bytes.assign(below(200), 0);
        for (uint8_t& byte : bytes) {
            byte = static_cast<uint8_t>(bits());
        }
        if (bytes.size() >= 2 && one_in(2)) {
            wirekit::put_le16(bytes.data(), 1000);
        }
    }
    return bytes;
}

} // namespace mirp_model
