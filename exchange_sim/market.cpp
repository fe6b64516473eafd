#include "exchange_sim/market.h"

#include <algorithm>

namespace exchange_sim {

namespace {

constexpr uint64_t kSecond = 1'000'000'000;
constexpr uint64_t kMillisecond = 1'000'000;

} // namespace

Market::Market(std::vector<Instrument> catalogue, const SessionOptions& options)
    : catalogue_(std::move(catalogue)), topic_{options.shfe.topic_id, options.ine.topic_id} {
    states_.reserve(catalogue_.size());
    truths_.resize(catalogue_.size());
    for (std::size_t index = 0; index < catalogue_.size(); ++index) {
        const Instrument& instrument = catalogue_[index];
        State& state = states_.emplace_back(pool_);
        state.last_ticks = instrument.reference_ticks;
        state.open_interest = instrument.pre_open_interest;
        ExpectedRecord& truth = truths_[index];
        std::copy_n(instrument.id.begin(), std::min(instrument.id.size(), truth.inst_id.size() - 1),
                    truth.inst_id.begin());
        truth.type = static_cast<uint16_t>(instrument.exchange);
        truth.open_interest = static_cast<double>(state.open_interest);
    }
}

void Market::open_with(std::size_t index, Side side, int32_t price_ticks, uint32_t volume) {
    const Instrument& instrument = catalogue_[index];
    if (price_ticks >= instrument.lower_limit_ticks &&
        price_ticks <= instrument.upper_limit_ticks && volume > 0) {
        states_[index].book.place(side, price_ticks, volume);
    }
}

void Market::open() {
    for (std::size_t index = 0; index < catalogue_.size(); ++index) {
        const Instrument& instrument = catalogue_[index];
        State& state = states_[index];
        ExpectedRecord& truth = truths_[index];
        for (const Side side : {Side::kBid, Side::kAsk}) {
            state.totals[side_index(side)] = state.book.totals(side);
            state.views[side_index(side)] = view_of(state.book, side);
            store_view(index, side);
        }
        const auto [bid, ask] = state.totals;
        truth.bid_totvol = static_cast<int32_t>(bid.volume);
        truth.ask_totvol = static_cast<int32_t>(ask.volume);
        truth.bid_totamount = published_amount(instrument, bid.volume, bid.ticks_volume);
        truth.ask_totamount = published_amount(instrument, ask.volume, ask.ticks_volume);
        state.exact.bid_totamount_milli =
            exact_amount_milli(instrument, bid.volume, bid.ticks_volume);
        state.exact.ask_totamount_milli =
            exact_amount_milli(instrument, ask.volume, ask.ticks_volume);
    }
}

bool Market::apply(std::size_t index, const OrderRequest& request, uint64_t time_ns,
                   wirekit::DecodeBufferBuilder& buffer) {
    const Instrument& instrument = catalogue_[index];
    State& state = states_[index];
    Execution execution;
    Side touched = request.side;
    switch (request.kind) {
    case OrderRequest::Kind::kNone:
        return false;
    case OrderRequest::Kind::kCancel:
        touched = state.book.order(request.order).side;
        state.book.cancel(request.order);
        break;
    case OrderRequest::Kind::kPlace:
    case OrderRequest::Kind::kFillAndKill:
        if (request.volume == 0 || request.price_ticks < instrument.lower_limit_ticks ||
            request.price_ticks > instrument.upper_limit_ticks) {
            ++counters_.refused;
            return false;
        }
        if (request.kind == OrderRequest::Kind::kPlace) {
            execution = state.book.place(request.side, request.price_ticks, request.volume);
        } else {
            execution = state.book.fill_and_kill(request.side, request.price_ticks, request.volume);
            if (execution.volume == 0) {
                return false; // killed without a trade: the book is as it was
            }
        }
        break;
    }

    begin_change(index, time_ns, buffer);
    if (execution.volume > 0) {
        publish_trade(index, request, execution, buffer);
        publish_book(index, opposite(touched), buffer);
    }
    publish_book(index, touched, buffer);
    publish_totals(index, Side::kBid, buffer);
    publish_totals(index, Side::kAsk, buffer);
    return true;
}

void Market::restate(std::size_t index, uint64_t time_ns, wirekit::DecodeBufferBuilder& buffer) {
    begin_change(index, time_ns, buffer);
    for (const Side side : {Side::kBid, Side::kAsk}) {
        restate_side(buffer, side, states_[index].views[side_index(side)]);
    }
    buffer.bid_totals(0, 0); // nothing changed; a change carries at least one field
}

void Market::begin_change(std::size_t index, uint64_t time_ns,
                          wirekit::DecodeBufferBuilder& buffer) {
    const Instrument& instrument = catalogue_[index];
    const auto exchange = static_cast<std::size_t>(instrument.exchange);
    ExpectedRecord& truth = truths_[index];
    ++truth.change_no;
    truth.update_time = static_cast<uint32_t>(time_ns / kSecond);
    truth.update_milli_sec = static_cast<uint16_t>(time_ns % kSecond / kMillisecond);
    ++counters_.changes;
    buffer.clear();
    buffer.topic(topic_[exchange])
        .time(truth.update_time, truth.update_milli_sec)
        .packet_no(++packet_no_[exchange])
        .instrument(instrument.number)
        .change_no(truth.change_no);
}

void Market::publish_trade(std::size_t index, const OrderRequest& request,
                           const Execution& execution, wirekit::DecodeBufferBuilder& buffer) {
    const Instrument& instrument = catalogue_[index];
    State& state = states_[index];
    ExpectedRecord& truth = truths_[index];
    counters_.trades += execution.trades;
    counters_.traded_volume += execution.volume;

    // Open interest counts each contract once: a trade of two opening sides adds its volume, one of
    // two closing sides takes it away, anything else hands positions on.
    const int64_t opened = static_cast<int64_t>(execution.volume) * request.open_per_mille / 1000;
    const int64_t closed = static_cast<int64_t>(execution.volume) * request.close_per_mille / 1000;
    const int64_t interest_change = std::max(opened - closed, -state.open_interest);

    state.last_ticks = execution.last_ticks;
    state.open_interest += interest_change;
    truth.last_px = published_price(instrument, state.last_ticks);
    truth.volume += execution.volume;
    truth.turnover += published_amount(instrument, execution.volume, execution.ticks_volume);
    truth.open_interest += static_cast<double>(interest_change);
    state.exact.turnover_milli +=
        exact_amount_milli(instrument, execution.volume, execution.ticks_volume);
    buffer.deal(state.last_ticks, static_cast<int32_t>(execution.volume), execution.ticks_volume,
                interest_change);

    const auto [low, high] = std::minmax(execution.first_ticks, execution.last_ticks);
    if (!state.has_traded || high > state.high_ticks) {
        state.high_ticks = high;
        truth.highest_price = published_price(instrument, high);
        buffer.highest(high);
    }
    if (!state.has_traded || low < state.low_ticks) {
        state.low_ticks = low;
        truth.lowest_price = published_price(instrument, low);
        buffer.lowest(low);
    }
    if (!state.has_traded) {
        state.open_ticks = execution.first_ticks;
        state.has_traded = true;
    }
}

void Market::publish_book(std::size_t index, Side side, wirekit::DecodeBufferBuilder& buffer) {
    State& state = states_[index];
    const SideView before = state.views[side_index(side)];
    SideView& now = state.views[side_index(side)];
    now = view_of(state.book, side);
    if (publish_side(buffer, side, before, now) > 0) {
        store_view(index, side);
    }
}

void Market::publish_totals(std::size_t index, Side side, wirekit::DecodeBufferBuilder& buffer) {
    const Instrument& instrument = catalogue_[index];
    State& state = states_[index];
    ExpectedRecord& truth = truths_[index];
    const SideTotals now = state.book.totals(side);
    const SideTotals before = state.totals[side_index(side)];
    if (now == before) {
        return;
    }
    state.totals[side_index(side)] = now;
    const int64_t volume_change = now.volume - before.volume;
    const int64_t ticks_change = now.ticks_volume - before.ticks_volume;
    const double amount = published_amount(instrument, volume_change, ticks_change);
    const int64_t exact = exact_amount_milli(instrument, volume_change, ticks_change);
    if (side == Side::kBid) {
        truth.bid_totvol += static_cast<int32_t>(volume_change);
        truth.bid_totamount += amount;
        state.exact.bid_totamount_milli += exact;
        buffer.bid_totals(static_cast<int32_t>(volume_change), ticks_change);
    } else {
        truth.ask_totvol += static_cast<int32_t>(volume_change);
        truth.ask_totamount += amount;
        state.exact.ask_totamount_milli += exact;
        buffer.ask_totals(static_cast<int32_t>(volume_change), ticks_change);
    }
}

// Copies the published view of a side into the record.
void Market::store_view(std::size_t index, Side side) {
    const Instrument& instrument = catalogue_[index];
    const SideView& view = states_[index].views[side_index(side)];
    ExpectedRecord& truth = truths_[index];
    auto& prices = side == Side::kBid ? truth.bid_px : truth.ask_px;
    auto& volumes = side == Side::kBid ? truth.bid_vol : truth.ask_vol;
    const auto size = static_cast<std::size_t>(view.size);
    for (std::size_t depth = 0; depth < size; ++depth) {
        prices[depth] = published_price(instrument, view.levels[depth].price_ticks);
        volumes[depth] = static_cast<int32_t>(view.levels[depth].volume);
    }
    std::fill(prices.begin() + view.size, prices.end(), 0.0);
    std::fill(volumes.begin() + view.size, volumes.end(), 0);
}

} // namespace exchange_sim
