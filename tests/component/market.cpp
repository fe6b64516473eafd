#include "tests/component/market.h"

#include "wirekit/ethernet.h"

#include <algorithm>
#include <random>

namespace component_test {

namespace {

void write(wirekit::MdqpMessageBuilder& message, const Instrument& from) {
    message.inst(from.info).deal(from.deal);
    const int32_t no = from.info.inst_no;
    for (const Quote& quote : from.bids) {
        message.price(no, DIRECTION_BUY, quote.px, quote.vol);
    }
    for (const Quote& quote : from.asks) {
        message.price(no, DIRECTION_SELL, quote.px, quote.vol);
    }
    message.order_totals(no, from.bid_totvol, from.bid_totamount, from.ask_totvol,
                         from.ask_totamount);
}

} // namespace

Market::Market(uint32_t seed, int count, int32_t step, const std::string& product) {
    std::mt19937 random(seed);
    const auto below = [&](uint32_t limit) { return static_cast<int32_t>(random() % limit); };
    for (int i = 0; i < count; ++i) {
        Instrument next;
        const int32_t no = i * step;
        const double tick = 0.5 * (1 + below(4));
        const double middle = 1000.0 + below(50000);
        next.info = {.inst_id = product + std::to_string(2601 + i % 99),
                     .volume_multiple = 5 + below(100),
                     .price_tick = tick,
                     .codec_price = i % 7 == 0 ? wirekit::kNoValue : middle,
                     .inst_no = no};
        next.deal = {.inst_no = no,
                     .last_price = i % 5 == 0 ? wirekit::kNoValue : middle,
                     .volume = below(100000),
                     .turnover = 1e6 + below(1000000),
                     .open_interest = 1.0 * below(1000000),
                     .highest_price = i % 6 == 0 ? wirekit::kNoValue : middle + 20 * tick,
                     .lowest_price = middle - 20 * tick,
                     .upper_limit_price = middle + 100 * tick,
                     .lower_limit_price = middle - 100 * tick,
                     .action_day = "20260818",
                     .update_time = "09:30:00",
                     .update_mill_sec = 500 * below(2),
                     .change_no = 1 + below(1000)};
        const int32_t depth = below(6);
        for (int32_t level = 0; level < depth; ++level) {
            next.bids.push_back({middle - (level + 1) * tick, 1 + below(99)});
            next.asks.push_back({middle + (level + 1) * tick, 1 + below(99)});
        }
        next.bid_totvol = below(1000);
        next.ask_totvol = below(1000);
        next.bid_totamount = 1.25 * below(100000);
        next.ask_totamount = 1.25 * below(100000);
        instruments_.push_back(next);
    }
}

std::vector<Bytes> Market::snapshot(int16_t topic) const {
    const Bytes filler(40, 0x55);
    std::vector<Bytes> messages;
    messages.push_back(
        wirekit::mdqp_message().snap(topic, 1).field(0x1002, 40, filler).packet_no(0).bytes());
    for (std::size_t i = 0; i < instruments_.size();) {
        auto message = wirekit::mdqp_message();
        const std::size_t end = std::min(instruments_.size(), i + (i % 10 == 0 ? 10u : 1u));
        for (; i < end; ++i) {
            write(message, instruments_[i]);
        }
        messages.push_back(message.packet_no(static_cast<int32_t>(i)).bytes());
    }
    messages.push_back(
        wirekit::mdqp_message(wirekit::kFlagLast).packet_no(99).packet_no(1).bytes());
    return messages;
}

instrument Market::record_of(const Instrument& from) {
    const auto value = [](double sent) { return sent == wirekit::kNoValue ? 0.0 : sent; };
    instrument record{};
    wirekit::put_text(record.inst_id, sizeof(record.inst_id), from.info.inst_id);
    record.last_px = value(from.deal.last_price);
    record.volume = static_cast<uint32_t>(from.deal.volume);
    record.update_milli_sec = static_cast<uint16_t>(from.deal.update_mill_sec);
    record.change_no = static_cast<uint32_t>(from.deal.change_no);
    record.turnover = from.deal.turnover;
    record.open_interest = from.deal.open_interest;
    record.highest_price = value(from.deal.highest_price);
    record.lowest_price = value(from.deal.lowest_price);
    record.bid_totvol = from.bid_totvol;
    record.ask_totvol = from.ask_totvol;
    record.bid_totamount = from.bid_totamount;
    record.ask_totamount = from.ask_totamount;
    for (std::size_t i = 0; i < from.bids.size(); ++i) {
        record.bid_px[i] = from.bids[i].px;
        record.bid_vol[i] = from.bids[i].vol;
        record.ask_px[i] = from.asks[i].px;
        record.ask_vol[i] = from.asks[i].vol;
    }
    return record;
}

int slot_of(bool ine, int32_t number) {
    return ine ? LAST_SLOT - number : number;
}

std::vector<Bytes> rough_delivery(uint32_t seed, const std::vector<Bytes>& messages,
                                  uint32_t first_seq, uint16_t src_port, uint16_t dst_port) {
    std::mt19937 random(seed);
    const auto one_in = [&](uint32_t count) { return random() % count == 0; };
    const auto frame = [&](uint32_t seq, const Bytes& payload) {
        return wirekit::tcp_segment()
            .from(0x0A010101, src_port)
            .to(0x0A010102, dst_port)
            .seq(seq)
            .payload(payload);
    };
    // The first message has a segment of its own, the rest is cut as it comes.
    std::vector<Bytes> segments = {messages.front()};
    Bytes rest;
    for (std::size_t i = 1; i < messages.size(); ++i) {
        wirekit::append(rest, messages[i]);
    }
    for (std::size_t at = 0; at < rest.size();) {
        const std::size_t size =
            std::min<std::size_t>(rest.size() - at, one_in(4) ? 2 + random() % 1400 : 1460);
        segments.emplace_back(rest.begin() + static_cast<std::ptrdiff_t>(at),
                              rest.begin() + static_cast<std::ptrdiff_t>(at + size));
        at += size;
    }
    std::vector<Bytes> sent;
    std::vector<Bytes> again;
    uint32_t seq = first_seq;
    for (std::size_t i = 0; i < segments.size(); ++i) {
        const auto segment = frame(seq, segments[i]);
        seq += static_cast<uint32_t>(segments[i].size());
        again.push_back(segment.bytes());
        if (i > 0 && one_in(15)) {
            continue; // lost
        }
        sent.push_back(segment.bytes());
        if (one_in(15)) {
            sent.push_back(segment.bytes()); // repeated
        }
        if (one_in(20)) {
            sent.push_back(frame(seq, segments[i]).bad_checksum().bytes());
        }
    }
    for (std::size_t i = 1; i + 3 < sent.size(); ++i) {
        if (one_in(8)) {
            std::swap(sent[i], sent[i + random() % 3]); // reordered
        }
    }
    sent.insert(sent.end(), again.begin(), again.end());
    return sent;
}

} // namespace component_test
