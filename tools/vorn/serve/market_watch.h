#pragma once

// What the server knows of the market: one thread follows the bus and keeps what a page that opens
// now wants to see of the past. Everything else is read from the table at the moment it is asked
// for.
//
// All that is kept has a bound, so that neither a long day nor many instruments make it grow:
// events, trades of each instrument, and a line of prices for the instruments that moved first.

#include "tools/vorn/bus_view/feed_view.h"
#include "tools/vorn/serve/instrument_list.h"

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace vorn_cli {

struct Trade {
    uint64_t id = 0; // 1 for the first trade that was seen, then one more each
    uint64_t time_ns = 0;
    double price = 0;
    uint64_t volume = 0; // lots
    // 'b' at the best ask of before or above it, 's' at the best bid or below, '-' between them.
    char side = '-';
};

// The best prices at a moment; not a number for what is not there.
struct PriceSample {
    uint64_t time_ns = 0;
    double last = 0;
    double bid = 0;
    double ask = 0;
};

// The trades that updates tell of: the traded volume grows from one record to the next.
class TradeSpotter {
public:
    TradeSpotter();
    // Without a record to compare with there is no trade.
    std::optional<Trade> note(uint32_t slot, const instrument& record, uint64_t time_ns);
    void forget(uint32_t slot) { before_[slot].known = false; }
    void forget_all(); // records were missed: the next one of each has nothing to be compared with

private:
    struct Before {
        bool known = false;
        uint32_t volume = 0;
        double bid = 0;
        double ask = 0;
    };
    std::vector<Before> before_;
};

class MarketWatch final : private FeedListener {
public:
    static constexpr std::size_t kTrades = 40;
    static constexpr std::size_t kSamples = 600;       // one a second
    static constexpr std::size_t kSampledSlots = 2048; // 40 MB of samples at most

    // Begins at once. Throws BusError when the name cannot be one.
    explicit MarketWatch(const FeedViewOptions& options);
    ~MarketWatch() override;

    // All of these from any thread.
    FeedStatus status() const;
    const FeedViewOptions& options() const { return options_; }
    // The newest `most` events behind that id, oldest first.
    std::vector<FeedEvent> events(uint64_t after, std::size_t most) const;
    // Not older than a second; none before the bus was first read.
    std::shared_ptr<const InstrumentList> instruments() const;
    // Read now.
    std::optional<InstrumentState> instrument_at(uint32_t slot) const;
    // Another one than before means another record; 0 without a bus.
    uint64_t sequence(uint32_t slot) const;
    std::vector<Trade> trades(uint32_t slot, uint64_t after) const;
    std::vector<PriceSample> samples(uint32_t slot) const;
    // Of the bus, so that who keeps slots knows when they mean something else.
    uint64_t openings() const { return openings_; }

private:
    struct Past {
        std::deque<Trade> trades;
        std::deque<PriceSample> samples;
        bool moved = false; // since the last sample; of the watching thread
    };

    void watch();
    void list_instruments(const FeedView& view);
    void take_samples(const FeedView& view);
    Past& past_of(uint32_t slot);

    void on_open(const vorn_bus::BusReader& reader) override;
    void on_update(const vorn_bus::RingRecord& record, uint64_t time_ns) override;
    void on_event(const FeedEvent& event) override;
    void on_lost(uint64_t records) override;

    const FeedViewOptions options_;
    TradeSpotter spotter_; // of the watching thread, as the next two
    uint64_t last_trade_ = 0;
    std::vector<uint32_t> moved_; // slots whose Past has moved

    mutable std::mutex mutex_; // of all below
    std::condition_variable over_;
    bool stopping_ = false;
    FeedStatus status_;
    std::deque<FeedEvent> events_;
    std::shared_ptr<const InstrumentList> list_;
    std::shared_ptr<const vorn_bus::BusReader> reader_; // null without a bus
    std::vector<std::unique_ptr<Past>> past_;           // by slot
    std::size_t sampled_ = 0;                           // slots that have samples

    std::atomic<uint64_t> openings_{0};
    std::thread thread_;
};

} // namespace vorn_cli
