#include "exchange_sim/session.h"

#include "exchange_sim/arrivals.h"
#include "exchange_sim/frame_queue.h"
#include "exchange_sim/market.h"
#include "exchange_sim/order_flow.h"
#include "exchange_sim/snapshot_publisher.h"
#include "exchange_sim/tcp_stream.h"

#include <algorithm>
#include <stdexcept>

namespace exchange_sim {

namespace {

constexpr uint64_t kSecond = 1'000'000'000;
constexpr uint64_t kMillisecond = 1'000'000;

// Hosts of the simulated network. Each line has a source of its own.
constexpr uint32_t kShfeServerIp = 0xAC140B0B; // 172.20.11.11
constexpr uint32_t kIneServerIp = 0xAC140B0C;
constexpr uint32_t kClientIp = 0xAC141502;    // 172.20.21.2
constexpr uint32_t kLineASource = 0xAC140C0B; // SHFE; INE is the next address
constexpr uint32_t kLineBSource = 0xAC140D0B;
constexpr uint16_t kLineSourcePort = 30000;

// Streams of chance, apart from the catalogue's.
enum : uint64_t { kArrivalStream = 2, kFlowStream, kLineStream, kSnapshotStream, kTcpStream };

constexpr uint64_t kMarketOpensAfterNs = kMillisecond;
constexpr uint64_t kIneRoundOffsetNs = 300'000; // INE's rounds start that much later
constexpr uint64_t kSweepAfterNs = kMillisecond;
constexpr uint64_t kCloseAfterNs = kMillisecond;
constexpr uint64_t kEndlessLengthNs = 10 * kSecond; // what an endless session's rounds go by

uint64_t expected_length_ns(const SessionOptions& options) {
    uint64_t length = UINT64_MAX;
    if (options.changes > 0) {
        // In this order a session of any length stays within 64 bits.
        length = options.changes / options.rate * kSecond +
                 options.changes % options.rate * kSecond / options.rate;
    }
    if (options.seconds_ns > 0) {
        length = std::min(length, options.seconds_ns);
    }
    return length == UINT64_MAX ? kEndlessLengthNs : length;
}

RoundSchedule round_schedule(const SessionOptions& options, uint64_t start_ns) {
    const uint64_t length = expected_length_ns(options);
    const auto choose = [](uint64_t given, uint64_t automatic) {
        return given > 0 ? given : std::max(automatic, kMillisecond);
    };
    RoundSchedule schedule;
    schedule.first_ns = start_ns + choose(options.first_round_ns, length / 20);
    schedule.interval_ns = choose(options.round_interval_ns, length / 5);
    schedule.length_ns = choose(options.round_length_ns, length / 100);
    schedule.rounds = options.rounds;
    return schedule;
}

const SessionOptions& checked(const SessionOptions& options) {
    const std::string error = check_session_options(options);
    if (!error.empty()) {
        throw std::invalid_argument(error);
    }
    return options;
}

// One multicast line of one feed: a FIFO with a delay that varies.
struct Line {
    bool enabled = false;
    wirekit::Endpoint from;
    wirekit::Endpoint to;
    uint64_t free_ns = 0; // no frame leaves before its predecessor is out
    uint16_t ip_id = 0;

    void send(FrameQueue& frames, uint64_t time_ns, std::span<const uint8_t> payload) {
        const uint64_t leaves_ns = std::max(time_ns, free_ns);
        wirekit::Bytes& frame = frames.add(leaves_ns);
        wirekit::write_udp_frame(frame, from, to, ++ip_id, payload);
        free_ns = leaves_ns + frame.size() * 8 / 10; // 10 Gbit/s
    }
};

} // namespace

class Session::Impl {
public:
    explicit Impl(const SessionOptions& options)
        : options_(checked(options)),
          start_ns_(static_cast<uint64_t>(session_midnight(options_) + options_.start_second) *
                    kSecond),
          market_(make_catalogue(options_), options_),
          arrivals_(market_.catalogue(), start_ns_ + kMarketOpensAfterNs, options_.rate,
                    Rng(options_.seed, kArrivalStream)),
          flow_(market_, Rng(options_.seed, kFlowStream)), line_rng_(options_.seed, kLineStream) {
        flow_.open(market_);
        market_.open();
        index_numbers();
        now_ns_ = start_ns_;
        if (options_.feeds != Feeds::kIne) {
            add_feed(Exchange::kShfe, options_.shfe, kShfeServerIp, start_ns_);
        }
        if (options_.feeds != Feeds::kShfe) {
            add_feed(Exchange::kIne, options_.ine, kIneServerIp, start_ns_ + kIneRoundOffsetNs);
        }
    }

    bool next(WireFrame& frame) {
        while (frames_.empty() || frames_.next_time() > next_event_time()) {
            if (!step()) {
                break;
            }
        }
        if (frames_.empty()) {
            return false;
        }
        frame.bytes = frames_.pop(frame.timestamp_ns);
        return true;
    }

    std::optional<std::size_t> find(Exchange exchange, uint32_t number) const {
        const auto& numbers = by_number_[static_cast<std::size_t>(exchange)];
        if (number >= numbers.size() || numbers[number] == kNoInstrument) {
            return std::nullopt;
        }
        return numbers[number];
    }

    SessionCounters counters() const {
        SessionCounters counters;
        counters.changes = market_.counters().changes;
        counters.trades = market_.counters().trades;
        counters.traded_volume = market_.counters().traded_volume;
        counters.datagrams = datagrams_;
        for (const auto& feed : feeds_) {
            counters.tcp_segments += feed->stream.segments();
            (feed->exchange == Exchange::kShfe ? counters.shfe_rounds : counters.ine_rounds) =
                feed->publisher.rounds_completed();
        }
        return counters;
    }

    const SessionOptions& options() const { return options_; }
    const Market& market() const { return market_; }
    void on_change(ChangeObserver observer) { observer_ = std::move(observer); }

private:
    enum class Phase : uint8_t {
        kTrading,   // orders arrive, rounds come and go
        kWindingUp, // the market is closed, rounds under way are completed
        kSweeping,  // one last change for each instrument
        kOver
    };
    static constexpr uint32_t kNoInstrument = UINT32_MAX;

    struct Feed {
        Feed(Impl& session, Exchange feed_exchange, const FeedAddress& address, uint32_t server_ip,
             const RoundSchedule& schedule)
            : exchange(feed_exchange),
              stream(session.frames_, {server_ip, session.options_.snapshot_port},
                     {kClientIp, address.client_port},
                     Rng(session.options_.seed, kTcpStream + 16 * (1 + exchange_number()))),
              publisher(
                  session.market_, feed_exchange, session.options_, stream, schedule,
                  Rng(session.options_.seed, kSnapshotStream + 16 * (1 + exchange_number()))) {
            const auto number = static_cast<uint32_t>(feed_exchange);
            lines[0] = {session.options_.lines != Lines::kB,
                        {kLineASource + number, kLineSourcePort},
                        address.line_a};
            lines[1] = {session.options_.lines != Lines::kA,
                        {kLineBSource + number, kLineSourcePort},
                        address.line_b};
        }
        uint64_t exchange_number() const { return static_cast<uint64_t>(exchange); }

        Exchange exchange;
        TcpStream stream;
        SnapshotPublisher publisher;
        std::array<Line, 2> lines;
    };

    void add_feed(Exchange exchange, const FeedAddress& address, uint32_t server_ip,
                  uint64_t rounds_from_ns) {
        auto feed = std::make_unique<Feed>(*this, exchange, address, server_ip,
                                           round_schedule(options_, rounds_from_ns));
        feed->stream.connect(start_ns_);
        feed_of_[static_cast<std::size_t>(exchange)] = feed.get();
        feeds_.push_back(std::move(feed));
    }

    void index_numbers() {
        for (std::size_t index = 0; index < market_.size(); ++index) {
            const Instrument& instrument = market_.catalogue()[index];
            auto& numbers = by_number_[static_cast<std::size_t>(instrument.exchange)];
            numbers.resize(instrument.number, kNoInstrument);
            numbers.push_back(static_cast<uint32_t>(index));
        }
    }

    Feed* next_publisher() const {
        Feed* earliest = nullptr;
        for (const auto& feed : feeds_) {
            if (feed->publisher.next_time() != UINT64_MAX &&
                (earliest == nullptr ||
                 feed->publisher.next_time() < earliest->publisher.next_time())) {
                earliest = feed.get();
            }
        }
        return earliest;
    }

    // No frame made later is earlier than this.
    uint64_t next_event_time() const {
        switch (phase_) {
        case Phase::kTrading: {
            const Feed* const feed = next_publisher();
            return feed == nullptr ? arrivals_.next_time()
                                   : std::min(arrivals_.next_time(), feed->publisher.next_time());
        }
        case Phase::kWindingUp: {
            const Feed* const feed = next_publisher();
            return feed == nullptr ? now_ns_ : feed->publisher.next_time();
        }
        case Phase::kSweeping:
            return sweep_ns_;
        case Phase::kOver:
            break;
        }
        return UINT64_MAX;
    }

    // Lets the next thing happen; false when nothing is left.
    bool step() {
        switch (phase_) {
        case Phase::kTrading:
            trade();
            return true;
        case Phase::kWindingUp:
            wind_up();
            return true;
        case Phase::kSweeping:
            sweep();
            return true;
        case Phase::kOver:
            break;
        }
        return false;
    }

    void trade() {
        const bool sated = options_.changes > 0 && market_.counters().changes >= options_.changes;
        const bool late =
            options_.seconds_ns > 0 && arrivals_.next_time() >= start_ns_ + options_.seconds_ns;
        Feed* const feed = next_publisher();
        if (sated || late) {
            for (const auto& each : feeds_) {
                each->publisher.wind_up(now_ns_);
            }
            phase_ = Phase::kWindingUp;
        } else if (feed != nullptr && feed->publisher.next_time() < arrivals_.next_time()) {
            now_ns_ = feed->publisher.next_time();
            feed->publisher.step();
        } else {
            const Arrival arrival = arrivals_.pop();
            now_ns_ = arrival.time_ns;
            const OrderRequest request = flow_.next(arrival.instrument, arrival.is_first);
            if (market_.apply(arrival.instrument, request, now_ns_, buffer_)) {
                publish(arrival.instrument);
            }
        }
    }

    void wind_up() {
        if (Feed* const feed = next_publisher()) {
            now_ns_ = feed->publisher.next_time();
            feed->publisher.step();
        } else {
            phase_ = Phase::kSweeping;
            sweep_ns_ = now_ns_ + kSweepAfterNs;
        }
    }

    void sweep() {
        now_ns_ = sweep_ns_;
        market_.restate(swept_, now_ns_, buffer_);
        publish(swept_);
        sweep_ns_ += kSecond / options_.rate;
        if (++swept_ == market_.size()) {
            for (const auto& feed : feeds_) {
                feed->stream.close(now_ns_ + kCloseAfterNs);
            }
            phase_ = Phase::kOver;
        }
    }

    // Sends what stands in buffer_ on the lines of the instrument's feed. Line B is some
    // microseconds behind line A, now and then before it.
    void publish(std::size_t index) {
        const auto exchange = static_cast<std::size_t>(market_.catalogue()[index].exchange);
        Feed& feed = *feed_of_[exchange];
        const uint64_t delay_a = 4'000 + line_rng_.below(1'500);
        const uint64_t delay_b =
            line_rng_.chance(80) ? 2'500 + line_rng_.below(1'500) : 6'000 + line_rng_.below(6'000);
        const uint64_t delays[] = {delay_a, delay_b};
        for (std::size_t i = 0; i < feed.lines.size(); ++i) {
            if (feed.lines[i].enabled) {
                // NOLINTNEXTLINE(clang-analyzer-core.UndefinedBinaryOperatorResult): two of both
                feed.lines[i].send(frames_, now_ns_ + delays[i], buffer_.bytes());
                ++datagrams_;
            }
        }
        if (observer_) {
            observer_(index, market_.truth(index));
        }
    }

    SessionOptions options_;
    uint64_t start_ns_;
    uint64_t now_ns_ = 0; // the last thing that happened
    Phase phase_ = Phase::kTrading;
    FrameQueue frames_;
    Market market_;
    Arrivals arrivals_;
    OrderFlow flow_;
    Rng line_rng_;
    std::vector<std::unique_ptr<Feed>> feeds_;
    std::array<Feed*, 2> feed_of_{};
    std::array<std::vector<uint32_t>, 2> by_number_; // catalogue index, or kNoInstrument
    wirekit::DecodeBufferBuilder buffer_;
    std::size_t swept_ = 0; // instruments
    uint64_t sweep_ns_ = 0;
    uint64_t datagrams_ = 0;
    ChangeObserver observer_;
};

Session::Session(const SessionOptions& options) : impl_(std::make_unique<Impl>(options)) {}
Session::~Session() = default;

bool Session::next(WireFrame& frame) {
    return impl_->next(frame);
}
const SessionOptions& Session::options() const {
    return impl_->options();
}
const std::vector<Instrument>& Session::instruments() const {
    return impl_->market().catalogue();
}
std::optional<std::size_t> Session::find(Exchange exchange, uint32_t number) const {
    return impl_->find(exchange, number);
}
const ExpectedRecord& Session::truth(std::size_t index) const {
    return impl_->market().truth(index);
}
const ExactAmounts& Session::exact(std::size_t index) const {
    return impl_->market().exact(index);
}
const OrderBook& Session::book(std::size_t index) const {
    return impl_->market().book(index);
}
SessionCounters Session::counters() const {
    return impl_->counters();
}
void Session::on_change(ChangeObserver observer) {
    impl_->on_change(std::move(observer));
}

} // namespace exchange_sim
