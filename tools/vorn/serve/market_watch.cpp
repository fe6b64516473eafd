#include "tools/vorn/serve/market_watch.h"

#include <chrono>
#include <csignal>
#include <limits>

namespace vorn_cli {

namespace {

constexpr std::chrono::milliseconds kPollInterval{20};
constexpr uint64_t kListIntervalNs = 500'000'000;
constexpr uint64_t kSampleIntervalNs = 1'000'000'000;

double or_nothing(double price, int32_t volume) {
    return volume > 0 ? price : std::numeric_limits<double>::quiet_NaN();
}

} // namespace

TradeSpotter::TradeSpotter() : before_(INSTRUMENT_SLOT_CNT) {}

void TradeSpotter::forget_all() {
    for (Before& before : before_) {
        before.known = false;
    }
}

std::optional<Trade> TradeSpotter::note(uint32_t slot, const instrument& record, uint64_t time_ns) {
    Before& before = before_[slot];
    std::optional<Trade> trade;
    if (before.known && record.volume > before.volume) {
        trade = Trade{0, time_ns, record.last_px, record.volume - before.volume, '-'};
        if (before.ask > 0 && record.last_px >= before.ask) {
            trade->side = 'b';
        } else if (before.bid > 0 && record.last_px <= before.bid) {
            trade->side = 's';
        }
    }
    before = {true, record.volume, record.bid_vol[0] > 0 ? record.bid_px[0] : 0,
              record.ask_vol[0] > 0 ? record.ask_px[0] : 0};
    return trade;
}

MarketWatch::MarketWatch(const FeedViewOptions& options)
    : options_(options), past_(INSTRUMENT_SLOT_CNT) {
    vorn_bus::bus_path(options.bus);
    // Signals are for the thread that waits for them.
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, &before);
    thread_ = std::thread([this] { watch(); });
    ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

MarketWatch::~MarketWatch() {
    {
        const std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    over_.notify_all();
    thread_.join();
}

void MarketWatch::watch() {
    FeedView view(options_);
    uint64_t listed_ns = 0;
    uint64_t sampled_ns = 0;
    for (;;) {
        const uint64_t now_ns = vorn_bus::clock_ns(CLOCK_MONOTONIC);
        view.poll(this, now_ns);
        if (now_ns - listed_ns >= kListIntervalNs) {
            listed_ns = now_ns;
            list_instruments(view);
        }
        if (now_ns - sampled_ns >= kSampleIntervalNs) {
            sampled_ns = now_ns;
            take_samples(view);
        }
        std::unique_lock lock(mutex_);
        status_ = view.status();
        if (status_.state == FeedState::kAbsent) {
            reader_.reset();
        }
        if (over_.wait_for(lock, kPollInterval, [this] { return stopping_; })) {
            return;
        }
    }
}

void MarketWatch::list_instruments(const FeedView& view) {
    std::vector<ListedInstrument> listed;
    for (const InstrumentState& state : view.instruments()) {
        listed.push_back({state, view.updates_in_window(state.slot)});
    }
    auto list = std::make_shared<const InstrumentList>(std::move(listed));
    const std::lock_guard lock(mutex_);
    list_ = std::move(list);
}

void MarketWatch::take_samples(const FeedView& view) {
    const uint64_t time_ns = vorn_bus::clock_ns(CLOCK_REALTIME);
    for (const uint32_t slot : moved_) {
        const auto state = view.instrument_at(slot);
        const std::lock_guard lock(mutex_);
        Past& past = past_of(slot);
        past.moved = false;
        if (!state || (past.samples.empty() && sampled_ >= kSampledSlots)) {
            continue;
        }
        sampled_ += past.samples.empty() ? 1 : 0;
        const instrument& record = state->record;
        past.samples.push_back({time_ns, or_nothing(record.last_px, record.volume > 0),
                                or_nothing(record.bid_px[0], record.bid_vol[0]),
                                or_nothing(record.ask_px[0], record.ask_vol[0])});
        if (past.samples.size() > kSamples) {
            past.samples.pop_front();
        }
    }
    moved_.clear();
}

MarketWatch::Past& MarketWatch::past_of(uint32_t slot) {
    if (!past_[slot]) {
        past_[slot] = std::make_unique<Past>();
    }
    return *past_[slot];
}

void MarketWatch::on_open(const vorn_bus::BusReader& reader) {
    // A mapping of its own: this one may be read by many threads after the view has let go of its.
    std::shared_ptr<const vorn_bus::BusReader> own;
    try {
        own = std::make_shared<const vorn_bus::BusReader>(options_.bus);
    } catch (const vorn_bus::BusError&) {
        // It has gone again; the view finds out by itself.
    }
    spotter_.forget_all();
    moved_.clear();
    const std::lock_guard lock(mutex_);
    reader_ = std::move(own);
    list_.reset();
    for (auto& past : past_) {
        past.reset(); // a slot may be another instrument now
    }
    sampled_ = 0;
    ++openings_;
    (void)reader;
}

void MarketWatch::on_update(const vorn_bus::RingRecord& record, uint64_t time_ns) {
    const auto trade = spotter_.note(record.slot, record.record, time_ns);
    // Only this thread makes and removes a past, so that it may look without the lock.
    Past* past = past_[record.slot].get();
    if (past != nullptr && past->moved && !trade) {
        return;
    }
    const std::lock_guard lock(mutex_);
    past = &past_of(record.slot);
    if (!past->moved) {
        past->moved = true;
        moved_.push_back(record.slot);
    }
    if (trade && (record.flags & vorn_bus::kFlagReplay) == 0) {
        past->trades.push_back(*trade);
        past->trades.back().id = ++last_trade_;
        if (past->trades.size() > kTrades) {
            past->trades.pop_front();
        }
    }
}

void MarketWatch::on_event(const FeedEvent& event) {
    if (event.kind == FeedEventKind::kRestart) {
        spotter_.forget_all(); // the snapshot brings volume that was traded without being seen
    }
    const std::lock_guard lock(mutex_);
    events_.push_back(event);
    while (events_.size() > options_.events) {
        events_.pop_front();
    }
}

void MarketWatch::on_lost(uint64_t) {
    spotter_.forget_all();
}

FeedStatus MarketWatch::status() const {
    const std::lock_guard lock(mutex_);
    return status_;
}

std::vector<FeedEvent> MarketWatch::events(uint64_t after, std::size_t most) const {
    const std::lock_guard lock(mutex_);
    std::vector<FeedEvent> found;
    std::size_t first = events_.size() > most ? events_.size() - most : 0;
    for (; first < events_.size(); ++first) {
        if (events_[first].id > after) {
            found.push_back(events_[first]);
        }
    }
    return found;
}

std::shared_ptr<const InstrumentList> MarketWatch::instruments() const {
    const std::lock_guard lock(mutex_);
    return list_;
}

std::optional<InstrumentState> MarketWatch::instrument_at(uint32_t slot) const {
    std::shared_ptr<const vorn_bus::BusReader> reader;
    int64_t offset = 0;
    {
        const std::lock_guard lock(mutex_);
        reader = reader_;
        offset = status_.realtime_offset_ns;
    }
    vorn_bus::Slot entry;
    if (!reader || reader->read_slot(slot, entry) != vorn_bus::SlotResult::kFilled ||
        entry.record.inst_id[0] == 0) {
        return std::nullopt;
    }
    return InstrumentState{slot, entry.sequence,
                           entry.receive_time_ns + static_cast<uint64_t>(offset), entry.record};
}

uint64_t MarketWatch::sequence(uint32_t slot) const {
    std::shared_ptr<const vorn_bus::BusReader> reader;
    {
        const std::lock_guard lock(mutex_);
        reader = reader_;
    }
    return reader ? reader->slot_sequence(slot) : 0;
}

std::vector<Trade> MarketWatch::trades(uint32_t slot, uint64_t after) const {
    std::vector<Trade> found;
    const std::lock_guard lock(mutex_);
    if (slot < past_.size() && past_[slot]) {
        for (const Trade& trade : past_[slot]->trades) {
            if (trade.id > after) {
                found.push_back(trade);
            }
        }
    }
    return found;
}

std::vector<PriceSample> MarketWatch::samples(uint32_t slot) const {
    const std::lock_guard lock(mutex_);
    if (slot >= past_.size() || !past_[slot]) {
        return {};
    }
    const auto& samples = past_[slot]->samples;
    return {samples.begin(), samples.end()};
}

} // namespace vorn_cli
