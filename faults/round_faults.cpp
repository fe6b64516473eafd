// Faults of whole snapshot rounds: what the exchange puts into them, and when they arrive.

#include "faults/frame_edit.h"
#include "faults/stage.h"
#include "wirekit/mdqp.h"

#include <algorithm>
#include <deque>
#include <optional>
#include <utility>

namespace faults {

namespace {

using wirekit::Bytes;

// In each of COUNT rounds of one feed, the price of one bid is far beyond its limit.
class PriceCheck final : public Stage {
public:
    PriceCheck(const FaultSpec& spec, Chance chance)
        : Stage(spec, Begin::kAtOnce, chance, kChoice) {}

private:
    static constexpr uint64_t kChoice = 4;
    static constexpr uint16_t kFieldPriceDetail = 0x0103;
    static constexpr uint16_t kPriceDetailSize = 17;
    static constexpr std::size_t kDirectionOffset = 4;
    static constexpr std::size_t kPriceOffset = 5;
    static constexpr double kBeyondAllLimits = 1e12;

    void handle(Frame frame, const wirekit::ParsedFrame& parsed, const SnapshotSegment& segment,
                Frames& out) override {
        const bool of_stream = segment.of_round && (!stream_ || segment.stream == *stream_);
        round_is_struck_ = round_is_struck_ && !(of_stream && segment.starts_round);
        if (of_stream && !round_is_struck_) {
            const auto headers =
                static_cast<std::size_t>(parsed.payload.data() - frame.bytes.data());
            if (uint8_t* bid = find_bid(frame.bytes, headers, segment); bid != nullptr && hit()) {
                wirekit::put_le_f64(bid + kPriceOffset, kBeyondAllLimits);
                repair_checksums(frame.bytes);
                stream_ = segment.stream;
                round_is_struck_ = true;
            }
        }
        out.push_back(std::move(frame));
    }

    uint8_t* find_bid(Bytes& frame, std::size_t headers, const SnapshotSegment& segment) const {
        for (const SnapshotField& field : segment.fields) {
            if (field.id != kFieldPriceDetail || field.size != kPriceDetailSize) {
                continue;
            }
            uint8_t* const data = frame.data() + headers + field.at;
            if (data[kDirectionOffset] == '0' &&
                streams().has_ordered_book(segment.topic, wirekit::get_le32(data))) {
                return data;
            }
        }
        return nullptr;
    }

    std::optional<StreamKey> stream_;
    bool round_is_struck_ = false;
};

// Extra messages with a field of an unknown id. What follows in the connection moves on by their
// bytes, as if the exchange had sent them.
class UnknownFieldInRound final : public Stage {
public:
    UnknownFieldInRound(const FaultSpec& spec, Chance chance)
        : Stage(spec, Begin::kAtOnce, chance, 1) {}

private:
    static constexpr uint16_t kUnknownField = 0x7F01;
    static constexpr std::size_t kDataSize = 16;
    static constexpr std::size_t kMostConnections = 64;

    struct Shift {
        StreamKey stream; // from the exchange
        uint32_t bytes;
    };

    void handle(Frame frame, const wirekit::ParsedFrame& parsed, const SnapshotSegment& segment,
                Frames& out) override {
        if (parsed.kind != wirekit::ParsedFrame::Kind::kTcp) {
            out.push_back(std::move(frame));
            return;
        }
        shift(frame, parsed);
        // The last message of a round has nothing behind it.
        if (segment.of_round && segment.ends_message && !segment.ends_round && hit()) {
            const auto size = static_cast<uint32_t>(parsed.payload.size());
            Frame extra = frame;
            const Bytes message = unknown_message();
            set_payload(extra.bytes, message);
            add_to_tcp_seq(extra.bytes, size);
            repair_checksums(extra.bytes);
            grow_shift(segment.stream, static_cast<uint32_t>(message.size()));
            out.push_back(std::move(frame));
            out.push_back(std::move(extra));
            return;
        }
        out.push_back(std::move(frame));
    }

    static Bytes unknown_message() {
        const Bytes data(kDataSize);
        return wirekit::mdqp_message(wirekit::kFlagMore)
            .field(kUnknownField, kDataSize, data)
            .packet_no(0)
            .bytes();
    }

    void shift(Frame& frame, const wirekit::ParsedFrame& parsed) {
        if ((parsed.tcp_flags & wirekit::kTcpSyn) != 0) {
            std::erase_if(shifts_, [&](const Shift& shift) {
                return shift.stream == StreamKey{parsed.from, parsed.to} ||
                       shift.stream == StreamKey{parsed.to, parsed.from};
            });
            return;
        }
        for (const Shift& shift : shifts_) {
            if (shift.stream == StreamKey{parsed.from, parsed.to}) {
                add_to_tcp_seq(frame.bytes, shift.bytes);
            } else if (shift.stream == StreamKey{parsed.to, parsed.from}) {
                add_to_tcp_ack(frame.bytes, shift.bytes);
            } else {
                continue;
            }
            if (parsed.checksum_ok) { // one that was wrong stays wrong
                repair_checksums(frame.bytes);
            }
        }
    }

    void grow_shift(const StreamKey& stream, uint32_t bytes) {
        const auto known =
            std::find_if(shifts_.begin(), shifts_.end(),
                         [&stream](const Shift& shift) { return shift.stream == stream; });
        if (known != shifts_.end()) {
            known->bytes += bytes;
            return;
        }
        if (shifts_.size() == kMostConnections) {
            shifts_.erase(shifts_.begin());
        }
        shifts_.push_back({stream, bytes});
    }

    std::vector<Shift> shifts_;
};

// COUNT rounds of each connection arrive late, and in order: everything of the connection that
// follows waits behind them.
class LateSnapshot final : public Stage {
public:
    LateSnapshot(const FaultSpec& spec, Chance chance) : Stage(spec, Begin::kAtOnce, chance, 1) {}

    void finish(Frames& out) override {
        for (Waiting& each : waiting_) {
            each.frame.timestamp_ns = each.due_ns;
            out.push_back(std::move(each.frame));
        }
        waiting_.clear();
    }

private:
    static constexpr uint64_t kDelayNs = 100'000'000;
    static constexpr std::size_t kMostWaiting = 65536; // frames
    static constexpr std::size_t kMostConnections = 64;

    struct Waiting {
        uint64_t due_ns;
        Frame frame;
    };
    struct Connection {
        StreamKey stream; // from the exchange
        uint32_t rounds_left;
        bool delayed;     // a late round is passing
        uint64_t free_ns; // when what waits is out
    };

    void handle(Frame frame, const wirekit::ParsedFrame& parsed, const SnapshotSegment& segment,
                Frames& out) override {
        release(frame.timestamp_ns, out);
        Connection* const connection = connection_of(parsed, segment);
        if (connection == nullptr) {
            out.push_back(std::move(frame));
            return;
        }
        if (segment.of_round && segment.starts_round) {
            connection->delayed = is_due() && connection->rounds_left > 0;
        }
        const uint64_t now_ns = frame.timestamp_ns;
        if (!connection->delayed && connection->free_ns <= now_ns) {
            out.push_back(std::move(frame));
            return;
        }
        connection->free_ns =
            std::max(connection->free_ns, now_ns + (connection->delayed ? kDelayNs : 0));
        wait(connection->free_ns, std::move(frame));
        if (connection->delayed && segment.of_round && segment.ends_round) {
            connection->delayed = false;
            --connection->rounds_left;
        }
        if (waiting_.size() > kMostWaiting) {
            release(waiting_.front().due_ns, out);
        }
    }

    Connection* connection_of(const wirekit::ParsedFrame& parsed, const SnapshotSegment& segment) {
        if (parsed.kind != wirekit::ParsedFrame::Kind::kTcp) {
            return nullptr;
        }
        const auto found = std::find_if(connections_.begin(), connections_.end(), [&](auto& each) {
            return each.stream == StreamKey{parsed.from, parsed.to} ||
                   each.stream == StreamKey{parsed.to, parsed.from};
        });
        if (found != connections_.end()) {
            return &*found;
        }
        if (!segment.of_round || connections_.size() == kMostConnections) {
            return nullptr;
        }
        connections_.push_back({segment.stream, spec().count, false, 0});
        return &connections_.back();
    }

    void wait(uint64_t due_ns, Frame frame) {
        const auto behind =
            std::upper_bound(waiting_.begin(), waiting_.end(), due_ns,
                             [](uint64_t due, const Waiting& each) { return due < each.due_ns; });
        waiting_.insert(behind, {due_ns, std::move(frame)});
    }

    void release(uint64_t now_ns, Frames& out) {
        while (!waiting_.empty() && waiting_.front().due_ns <= now_ns) {
            waiting_.front().frame.timestamp_ns = waiting_.front().due_ns;
            out.push_back(std::move(waiting_.front().frame));
            waiting_.pop_front();
        }
    }

    std::vector<Connection> connections_;
    std::deque<Waiting> waiting_; // by the time they are due
};

} // namespace

void add_round_fault(const FaultSpec& spec, Chance chance, Stages& stages) {
    switch (spec.kind) {
    case Kind::kPriceCheck:
        stages.push_back(std::make_unique<PriceCheck>(spec, chance));
        break;
    case Kind::kUnknownField:
        stages.push_back(std::make_unique<UnknownFieldInRound>(spec, chance));
        break;
    default:
        stages.push_back(std::make_unique<LateSnapshot>(spec, chance));
        break;
    }
}

} // namespace faults
