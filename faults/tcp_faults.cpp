// Faults of the snapshot connections' mirror: what happens to single segments between the exchange
// and a card that only listens. What the card misses is not sent again, because the exchange's
// client has it.

#include "faults/frame_edit.h"
#include "faults/stage.h"

#include <algorithm>
#include <optional>
#include <utility>

namespace faults {

namespace {

constexpr uint64_t kChoice = 4;

// A stage whose victims are segments of a round behind its first one.
class SegmentStage : public Stage {
protected:
    SegmentStage(const FaultSpec& spec, Chance chance)
        : Stage(spec, Begin::kAtOnce, chance, kChoice) {}

    virtual void strike(Frame frame, const wirekit::ParsedFrame& parsed, Frames& out) = 0;

private:
    void handle(Frame frame, const wirekit::ParsedFrame& parsed, const SnapshotSegment& segment,
                Frames& out) override {
        if (segment.of_round && !segment.starts_round && hit()) {
            strike(std::move(frame), parsed, out);
        } else {
            out.push_back(std::move(frame));
        }
    }
};

class TcpLoss final : public SegmentStage {
public:
    TcpLoss(const FaultSpec& spec, Chance chance) : SegmentStage(spec, chance) {}

private:
    void strike(Frame, const wirekit::ParsedFrame&, Frames&) override {}
};

class TcpDuplicate final : public SegmentStage {
public:
    TcpDuplicate(const FaultSpec& spec, Chance chance) : SegmentStage(spec, chance) {}

private:
    void strike(Frame frame, const wirekit::ParsedFrame&, Frames& out) override {
        out.push_back(frame);
        out.push_back(std::move(frame));
    }
};

class BadChecksum final : public SegmentStage {
public:
    BadChecksum(const FaultSpec& spec, Chance chance) : SegmentStage(spec, chance) {}

private:
    void strike(Frame frame, const wirekit::ParsedFrame& parsed, Frames& out) override {
        const auto payload = static_cast<std::size_t>(parsed.payload.data() - frame.bytes.data());
        const uint64_t bit = chance().below(parsed.payload.size() * 8);
        frame.bytes[payload + bit / 8] ^= static_cast<uint8_t>(1u << bit % 8);
        out.push_back(std::move(frame));
    }
};

class RstAck final : public SegmentStage {
public:
    RstAck(const FaultSpec& spec, Chance chance) : SegmentStage(spec, chance) {}

private:
    void strike(Frame frame, const wirekit::ParsedFrame&, Frames& out) override {
        Frame reset = frame;
        set_tcp_flags(reset.bytes, wirekit::kTcpRst | wirekit::kTcpAck);
        repair_checksums(reset.bytes);
        out.push_back(std::move(reset));
        out.push_back(std::move(frame));
    }
};

class TcpReorder final : public Stage {
public:
    TcpReorder(const FaultSpec& spec, Chance chance)
        : Stage(spec, Begin::kAtOnce, chance, kChoice) {}

    void finish(Frames& out) override {
        if (held_) {
            release(out);
        }
    }

private:
    struct Held {
        Frame frame;
        StreamKey stream;
        uint64_t overtaken_by; // segments still to come
    };
    static constexpr uint64_t kMostOvertaking = 3;

    void handle(Frame frame, const wirekit::ParsedFrame&, const SnapshotSegment& segment,
                Frames& out) override {
        if (!held_) {
            // Behind a round's last segment nothing comes for a long time.
            if (segment.of_round && !segment.starts_round && !segment.ends_round && hit()) {
                held_ = {std::move(frame), segment.stream, 1 + chance().below(kMostOvertaking)};
            } else {
                out.push_back(std::move(frame));
            }
            return;
        }
        const bool overtakes = segment.of_round && segment.stream == held_->stream;
        held_->frame.timestamp_ns = std::max(held_->frame.timestamp_ns, frame.timestamp_ns);
        out.push_back(std::move(frame));
        if (overtakes && (--held_->overtaken_by == 0 || segment.ends_round)) {
            release(out);
        }
    }

    void release(Frames& out) {
        out.push_back(std::move(held_->frame));
        held_.reset();
    }

    std::optional<Held> held_;
};

} // namespace

void add_tcp_fault(const FaultSpec& spec, Chance chance, Stages& stages) {
    switch (spec.kind) {
    case Kind::kTcpLoss:
        stages.push_back(std::make_unique<TcpLoss>(spec, chance));
        break;
    case Kind::kTcpDuplicate:
        stages.push_back(std::make_unique<TcpDuplicate>(spec, chance));
        break;
    case Kind::kBadChecksum:
        stages.push_back(std::make_unique<BadChecksum>(spec, chance));
        break;
    case Kind::kRstAck:
        stages.push_back(std::make_unique<RstAck>(spec, chance));
        break;
    default:
        stages.push_back(std::make_unique<TcpReorder>(spec, chance));
        break;
    }
}

} // namespace faults
