#include "exchange_sim/snapshot_publisher.h"

#include <algorithm>

namespace exchange_sim {

namespace {

constexpr std::size_t kSnapshotDepth = 5; // levels a side
// A round does not outrun the line: what one instrument needs of it, generously.
constexpr uint64_t kMinNsPerInstrument = 6'000;
constexpr uint64_t kGapBetweenRoundsNs = 200'000;
// Shares of a round's time for a dictionary entry and for an instrument's book.
constexpr uint64_t kDictionaryShare = 1;
constexpr uint64_t kBookShare = 3;
constexpr uint32_t kPushPerMille = 80; // messages that end their segment

std::string two_digits(uint32_t value) {
    return {static_cast<char>('0' + value / 10 % 10), static_cast<char>('0' + value % 10)};
}

// hh:mm:ss of a second of the day.
std::string time_of_day(uint32_t second) {
    return two_digits(second / 3600) + ":" + two_digits(second / 60 % 60) + ":" +
           two_digits(second % 60);
}

} // namespace

SnapshotPublisher::SnapshotPublisher(const Market& market, Exchange exchange,
                                     const SessionOptions& options, TcpStream& stream,
                                     const RoundSchedule& schedule, Rng rng)
    : market_(market), exchange_(exchange), options_(options), stream_(stream), schedule_(schedule),
      rng_(rng) {
    for (std::size_t index = 0; index < market.size(); ++index) {
        if (market.catalogue()[index].exchange == exchange) {
            members_.push_back(static_cast<uint32_t>(index));
        }
    }
    schedule_.length_ns = std::max(schedule_.length_ns, members_.size() * kMinNsPerInstrument);
    if (!members_.empty() && schedule_.rounds > 0) {
        next_ns_ = schedule_.first_ns;
    }
}

void SnapshotPublisher::step() {
    if (!in_round_) {
        begin_round();
    } else if (dictionary_done_ < members_.size()) {
        send_dictionary();
    } else {
        send_books();
    }
    schedule_next();
}

void SnapshotPublisher::wind_up(uint64_t now_ns) {
    winding_up_ = true;
    if (!in_round_) {
        next_ns_ = rounds_started_ > 0 || members_.empty() || schedule_.rounds == 0
                       ? UINT64_MAX
                       : std::max(next_ns_, now_ns);
    }
}

void SnapshotPublisher::begin_round() {
    if (stream_.wants_reconnect()) {
        stream_.close(next_ns_);
        stream_.connect(next_ns_ + kGapBetweenRoundsNs / 2);
    }
    in_round_ = true;
    round_start_ns_ = next_ns_;
    dictionary_done_ = 0;
    books_done_ = 0;
    ++rounds_started_;
    const uint16_t topic =
        exchange_ == Exchange::kShfe ? options_.shfe.topic_id : options_.ine.topic_id;
    message_.restart(wirekit::kFlagMore, ++request_id_);
    message_.snap(static_cast<int16_t>(topic), static_cast<int32_t>(rounds_started_));
    const std::size_t end = std::min<std::size_t>(members_.size(), 1 + rng_.below(4));
    while (dictionary_done_ < end) {
        add_dictionary_entry(market_.catalogue()[members_[dictionary_done_++]]);
    }
    finish_message();
    stream_.flush(next_ns_);
}

void SnapshotPublisher::send_dictionary() {
    // Messages of one entry up to several kilobytes.
    const uint32_t mixed = rng_.chance(60) ? 25 + rng_.below(40) : 1 + rng_.below(20);
    const uint32_t count = options_.message_instruments != 0 ? options_.message_instruments : mixed;
    const std::size_t end = std::min<std::size_t>(members_.size(), dictionary_done_ + count);
    message_.restart(wirekit::kFlagMore, ++request_id_);
    while (dictionary_done_ < end) {
        add_dictionary_entry(market_.catalogue()[members_[dictionary_done_++]]);
    }
    finish_message();
}

void SnapshotPublisher::send_books() {
    const uint32_t mixed = rng_.chance(60) ? 9 + rng_.below(24) : 1 + rng_.below(8);
    const uint32_t count = options_.message_instruments != 0 ? options_.message_instruments : mixed;
    const std::size_t end = std::min<std::size_t>(members_.size(), books_done_ + count);
    const bool last = end == members_.size();
    message_.restart(last ? wirekit::kFlagLast : wirekit::kFlagMore, ++request_id_);
    while (books_done_ < end) {
        const std::size_t index = members_[books_done_++];
        const ExpectedRecord& truth = market_.truth(index);
        const int32_t number = market_.catalogue()[index].number;
        add_values(index);
        add_book(index);
        message_.order_totals(number, truth.bid_totvol, truth.bid_totamount, truth.ask_totvol,
                              truth.ask_totamount);
    }
    finish_message();
    if (last) {
        stream_.flush(next_ns_);
        in_round_ = false;
        ++rounds_completed_;
    }
}

void SnapshotPublisher::finish_message() {
    message_.packet_no(market_.packet_no(exchange_));
    stream_.send(next_ns_, message_.bytes());
    if (rng_.chance(kPushPerMille)) {
        stream_.flush(next_ns_);
    }
}

void SnapshotPublisher::schedule_next() {
    if (in_round_) {
        const uint64_t done = dictionary_done_ * kDictionaryShare + books_done_ * kBookShare;
        const uint64_t all = members_.size() * (kDictionaryShare + kBookShare);
        next_ns_ = round_start_ns_ + schedule_.length_ns / all * done;
        return;
    }
    next_ns_ =
        winding_up_ || rounds_started_ >= schedule_.rounds
            ? UINT64_MAX
            : std::max(round_start_ns_ + schedule_.interval_ns, next_ns_ + kGapBetweenRoundsNs);
}

void SnapshotPublisher::add_dictionary_entry(const Instrument& instrument) {
    wirekit::InstInfo info;
    info.inst_id = instrument.id;
    info.underlying_inst_id = instrument.underlying_id;
    info.product_class = instrument.kind == InstrumentKind::kOption   ? '2'
                         : instrument.kind == InstrumentKind::kSpread ? '3'
                                                                      : '1';
    info.strike_price =
        instrument.kind == InstrumentKind::kOption ? instrument.strike_price : wirekit::kNoValue;
    info.options_type = instrument.option_type;
    info.volume_multiple = instrument.volume_multiple;
    info.price_tick = instrument.price_tick;
    info.codec_price = instrument.codec_unpublished ? wirekit::kNoValue : instrument.codec_price;
    info.inst_no = instrument.number;
    message_.inst(info);
}

void SnapshotPublisher::add_values(std::size_t index) {
    const Instrument& instrument = market_.catalogue()[index];
    const ExpectedRecord& truth = market_.truth(index);
    const bool traded = market_.has_traded(index);
    wirekit::DealInfo deal;
    deal.inst_no = instrument.number;
    deal.last_price = traded ? truth.last_px : wirekit::kNoValue;
    deal.volume = static_cast<int32_t>(truth.volume);
    deal.turnover = truth.turnover;
    deal.open_interest = truth.open_interest;
    deal.highest_price = traded ? truth.highest_price : wirekit::kNoValue;
    deal.lowest_price = traded ? truth.lowest_price : wirekit::kNoValue;
    deal.open_price =
        traded ? published_price(instrument, market_.open_ticks(index)) : wirekit::kNoValue;
    deal.close_price = wirekit::kNoValue;
    deal.settlement_price = wirekit::kNoValue;
    deal.upper_limit_price = published_price(instrument, instrument.upper_limit_ticks);
    deal.lower_limit_price = published_price(instrument, instrument.lower_limit_ticks);
    deal.pre_settlement_price = published_price(instrument, instrument.reference_ticks);
    deal.pre_close_price = deal.pre_settlement_price;
    deal.pre_open_interest = static_cast<double>(instrument.pre_open_interest);
    deal.pre_delta = wirekit::kNoValue;
    deal.curr_delta = wirekit::kNoValue;
    deal.action_day = std::to_string(options_.date);
    const int64_t second = truth.change_no == 0 ? options_.start_second
                                                : truth.update_time - session_midnight(options_);
    deal.update_time = time_of_day(static_cast<uint32_t>(second % 86400));
    deal.update_mill_sec = truth.update_milli_sec;
    deal.change_no = static_cast<int32_t>(truth.change_no);
    message_.deal(deal);
}

void SnapshotPublisher::add_book(std::size_t index) {
    const Instrument& instrument = market_.catalogue()[index];
    const OrderBook& book = market_.book(index);
    for (const Side side : {Side::kBid, Side::kAsk}) {
        const std::size_t depth = std::min(book.level_count(side), kSnapshotDepth);
        for (std::size_t i = 0; i < depth; ++i) {
            const BookLevel level = book.level(side, i);
            message_.price(instrument.number, side == Side::kBid ? '0' : '1',
                           published_price(instrument, level.price_ticks),
                           static_cast<int32_t>(level.volume));
        }
    }
}

} // namespace exchange_sim
