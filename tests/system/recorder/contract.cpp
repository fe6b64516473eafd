#include "contract.h"

#include <algorithm>

namespace recorder {

namespace {

constexpr std::size_t kPrintedLevels = 5;
constexpr uint32_t kFirstTime = 93000; // 09:30:00
constexpr std::size_t kKeptIdentifier = 15;

std::string money(int64_t cents) {
    const int64_t magnitude = cents < 0 ? -cents : cents;
    const int64_t rest = magnitude % 100;
    return (cents < 0 ? "-" : "") + std::to_string(magnitude / 100) + (rest < 10 ? ".0" : ".") +
           std::to_string(rest);
}

double as_double(int64_t cents) {
    return static_cast<double>(cents) / 100.0;
}

} // namespace

Contract::Contract(Terms terms) : terms_(std::move(terms)) {
    for (int32_t i = 0; i < 5; ++i) {
        side(Side::kBid).push_back({-1 - 2 * i, 10 + i});
        side(Side::kAsk).push_back({1 + 2 * i, 20 + i});
    }
    turnover_cents_ = amount_cents(volume_, 0);
    totals_ = {Totals{60, amount_cents(60, -300)}, Totals{110, amount_cents(110, 550)}};
    lower_limit_cents_ = price_cents(-100);
    upper_limit_cents_ = price_cents(100);
}

int64_t Contract::price_cents(int32_t ticks) const {
    return terms_.codec_cents + ticks * terms_.tick_cents;
}

int64_t Contract::amount_cents(int64_t lots, int64_t ticks_lots) const {
    return (lots * terms_.codec_cents + ticks_lots * terms_.tick_cents) * terms_.multiple;
}

void Contract::set_limits_cents(int64_t lower, int64_t upper) {
    lower_limit_cents_ = lower;
    upper_limit_cents_ = upper;
}

wirekit::DecodeBufferBuilder Contract::begin() {
    ++change_no_;
    time_ = kFirstTime + change_no_ / 4;
    millisec_ = static_cast<uint16_t>(change_no_ * 250 % 1000);
    wirekit::DecodeBufferBuilder builder;
    builder.topic(terms_.feed->topic_id)
        .time(time_, millisec_)
        .packet_no(static_cast<int32_t>(change_no_))
        .instrument(static_cast<uint32_t>(terms_.number))
        .change_no(change_no_);
    return builder;
}

Change Contract::finish(const wirekit::DecodeBufferBuilder& builder) const {
    return {terms_.feed, builder.bytes(), row()};
}

void Contract::trade(wirekit::DecodeBufferBuilder& builder, int32_t ticks, int32_t lots) {
    const int64_t ticks_lots = int64_t{ticks} * lots;
    builder.deal(ticks, lots, ticks_lots, lots / 2);
    last_ticks_ = ticks;
    volume_ += lots;
    turnover_cents_ += amount_cents(lots, ticks_lots);
    open_interest_ += lots / 2;
    if (ticks > high_ticks_) {
        high_ticks_ = ticks;
        builder.highest(ticks);
    }
    if (ticks < low_ticks_) {
        low_ticks_ = ticks;
        builder.lowest(ticks);
    }
}

void Contract::add_totals(wirekit::DecodeBufferBuilder& builder, Side side, int32_t lots,
                          int64_t ticks_lots) {
    Totals& totals = totals_[static_cast<std::size_t>(side)];
    totals.lots += lots;
    totals.cents += amount_cents(lots, ticks_lots);
    side == Side::kBid ? builder.bid_totals(lots, ticks_lots)
                       : builder.ask_totals(lots, ticks_lots);
}

Change Contract::deal(int32_t ticks, int32_t lots) {
    auto builder = begin();
    trade(builder, ticks, lots);
    return finish(builder);
}

Change Contract::totals(Side side, int32_t lots, int64_t ticks_lots) {
    auto builder = begin();
    add_totals(builder, side, lots, ticks_lots);
    return finish(builder);
}

Change Contract::insert(Side at, uint8_t level, Level entry) {
    auto builder = begin();
    builder.insert(at, level, entry.ticks, static_cast<uint32_t>(entry.lots));
    side(at).insert(side(at).begin() + level - 1, entry);
    return finish(builder);
}

Change Contract::update(Side at, uint8_t level, Level entry) {
    auto builder = begin();
    builder.update(at, level, entry.ticks, static_cast<uint32_t>(entry.lots));
    side(at)[level - 1u] = entry;
    return finish(builder);
}

// A deletion brings a deeper level into sight, which the exchange names in the same message.
Change Contract::erase(Side at, uint8_t level) {
    auto builder = begin();
    builder.erase(at, level);
    auto& levels = side(at);
    levels.erase(levels.begin() + level - 1);
    if (levels.size() >= kPrintedLevels) {
        const Level& fifth = levels[kPrintedLevels - 1];
        builder.insert(at, kPrintedLevels, fifth.ticks, static_cast<uint32_t>(fifth.lots));
    }
    return finish(builder);
}

Change Contract::bare() {
    return finish(begin());
}

Change Contract::burst() {
    auto builder = begin();
    trade(builder, last_ticks_ == 1 ? -1 : 1, 7);
    add_totals(builder, Side::kBid, 3, -3);
    add_totals(builder, Side::kAsk, -2, -2);
    for (const Side each : {Side::kBid, Side::kAsk}) {
        Level& best = side(each).front();
        best.lots = best.lots % 90 + 1;
        builder.update(each, 1, best.ticks, static_cast<uint32_t>(best.lots));
    }
    return finish(builder);
}

// The book opens with every second tick free, so a level can come and go between two others.
Change Contract::next() {
    const int32_t turn = turns_++;
    const int32_t lots = 1 + turn % 50;
    switch (turn % 8) {
    case 0:
        return deal(turn / 8 % 5 - 2, lots);
    case 1:
        return insert(Side::kBid, 3, {side(Side::kBid)[1].ticks - 1, lots});
    case 2:
        return update(Side::kAsk, 5, {side(Side::kAsk)[4].ticks, lots});
    case 3:
        return totals(Side::kBid, lots, int64_t{-4} * lots);
    case 4:
        return insert(Side::kAsk, 2, {side(Side::kAsk)[0].ticks + 1, lots});
    case 5:
        return erase(Side::kBid, 3);
    case 6:
        return erase(Side::kAsk, 2);
    default:
        return burst();
    }
}

void Contract::lose_one() {
    begin();
}

Change Contract::crossed() {
    auto builder = begin();
    builder.update(Side::kBid, 1, side(Side::kAsk).front().ticks + 1, 1);
    return finish(builder);
}

Change Contract::not_a_change() const {
    wirekit::DecodeBufferBuilder builder;
    builder.topic(terms_.feed->topic_id)
        .time(1, 1)
        .field_id(4)
        .instrument(static_cast<uint32_t>(terms_.number))
        .change_no(change_no_ + 1);
    return finish(builder);
}

Bytes Contract::dictionary(uint8_t flag) const {
    wirekit::InstInfo info;
    info.inst_id = terms_.id;
    info.volume_multiple = terms_.multiple;
    info.price_tick = as_double(terms_.tick_cents);
    info.codec_price = as_double(terms_.codec_cents);
    info.inst_no = terms_.number;
    return wirekit::MdqpMessageBuilder(flag).inst(info).packet_no(1).bytes();
}

Bytes Contract::values(uint8_t flag) const {
    wirekit::DealInfo deal;
    deal.inst_no = terms_.number;
    deal.last_price = as_double(price_cents(last_ticks_));
    deal.volume = volume_;
    deal.turnover = as_double(turnover_cents_);
    deal.open_interest = static_cast<double>(open_interest_);
    deal.highest_price = as_double(price_cents(high_ticks_));
    deal.lowest_price = as_double(price_cents(low_ticks_));
    deal.upper_limit_price = as_double(upper_limit_cents_);
    deal.lower_limit_price = as_double(lower_limit_cents_);
    deal.update_mill_sec = millisec_;
    deal.change_no = static_cast<int32_t>(change_no_);
    wirekit::MdqpMessageBuilder message(flag);
    message.deal(deal);
    for (const Side each : {Side::kBid, Side::kAsk}) {
        const auto& levels = book_[static_cast<std::size_t>(each)];
        for (std::size_t i = 0; i < std::min(levels.size(), kPrintedLevels); ++i) {
            message.price(terms_.number, each == Side::kBid ? '0' : '1',
                          as_double(price_cents(levels[i].ticks)), levels[i].lots);
        }
    }
    message.order_totals(terms_.number, totals_[0].lots, as_double(totals_[0].cents),
                         totals_[1].lots, as_double(totals_[1].cents));
    return message.packet_no(1).bytes();
}

std::string Contract::row() const {
    std::string text = std::to_string(terms_.feed->type) + "," +
                       terms_.id.substr(0, kKeptIdentifier) + "," + std::to_string(time_) + "," +
                       std::to_string(millisec_) + "," + std::to_string(change_no_) + "," +
                       money(price_cents(last_ticks_)) + "," + std::to_string(volume_) + "," +
                       money(turnover_cents_) + "," + money(open_interest_ * 100);
    for (const auto& levels : book_) {
        for (std::size_t i = 0; i < kPrintedLevels; ++i) {
            text += i < levels.size() ? "," + std::to_string(levels[i].lots) + "," +
                                            money(price_cents(levels[i].ticks))
                                      : ",0,0.00";
        }
    }
    for (const Totals& totals : totals_) {
        text += "," + std::to_string(totals.lots) + "," + money(totals.cents);
    }
    return text + "," + money(price_cents(high_ticks_)) + "," + money(price_cents(low_ticks_)) +
           "\n";
}

std::vector<Bytes> round_messages(const Feed& feed, const std::vector<const Contract*>& contracts,
                                  int32_t snap_no) {
    // The first segment of a round must be large enough to be taken for one; this one is of 50
    // bytes.
    std::vector<Bytes> messages{wirekit::mdqp_message()
                                    .snap(static_cast<int16_t>(feed.topic_id), snap_no)
                                    .field(0x0031, 20, Bytes(20))
                                    .packet_no(1)
                                    .bytes()};
    for (const Contract* contract : contracts) {
        messages.push_back(contract->dictionary());
    }
    for (const Contract* contract : contracts) {
        messages.push_back(contract->values());
    }
    messages.back()[0] = wirekit::kFlagLast;
    return messages;
}

} // namespace recorder
