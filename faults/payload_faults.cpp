// Faults of what a decode buffer says. A change that is damaged is damaged on both lines, as when
// the exchange made it so; a datagram that is added comes on one line, in front of a true one.

#include "faults/changes.h"
#include "faults/frame_edit.h"
#include "faults/stage.h"
#include "wirekit/mirp.h"

#include <utility>

namespace faults {

namespace {

using wirekit::Bytes;

constexpr uint64_t kChoice = 16;
constexpr std::size_t kHeaderSize = 24;
constexpr std::size_t kTopicOffset = 0;
constexpr std::size_t kInstrumentOffset = 14;

Bytes payload_of(const wirekit::ParsedFrame& parsed) {
    return {parsed.payload.begin(), parsed.payload.end()};
}

// The victims' payloads are replaced, in every copy.
class DamagedChange : public Stage {
protected:
    DamagedChange(const FaultSpec& spec, Chance chance)
        : Stage(spec, Begin::kAfterRounds, chance, kChoice) {}

    virtual bool may_strike(const Change&) const { return true; }
    virtual void damage(Bytes& payload) = 0;

private:
    void handle(Frame frame, const wirekit::ParsedFrame& parsed, const SnapshotSegment&,
                Frames& out) override {
        if (const auto change = change_of(parsed)) {
            if (copies_.is_first(*change) && may_strike(*change) && hit()) {
                struck_.mark(*change);
            }
            if (struck_.is_marked(*change)) {
                Bytes payload = payload_of(parsed);
                damage(payload);
                set_payload(frame.bytes, payload);
            }
        }
        out.push_back(std::move(frame));
    }

    ChangeCopies copies_;
    ChangeCopies struck_;
};

// Ends inside the header, behind the instrument: the card's filter lets it pass.
class Truncate final : public DamagedChange {
public:
    Truncate(const FaultSpec& spec, Chance chance) : DamagedChange(spec, chance) {
        size_ = kSmallest + this->chance().below(kHeaderSize - kSmallest);
    }

private:
    static constexpr std::size_t kSmallest = 18;

    void damage(Bytes& payload) override { payload.resize(size_); }

    std::size_t size_;
};

// The best bid ends up above everything and the best ask below.
class BadBook final : public DamagedChange {
public:
    BadBook(const FaultSpec& spec, Chance chance) : DamagedChange(spec, chance) {}

private:
    static constexpr int32_t kFarTicks = 1'000'000'000;

    bool may_strike(const Change& change) const override {
        return streams().has_ordered_book(change.topic, change.instrument);
    }
    void damage(Bytes& payload) override {
        auto fields = wirekit::decode_buffer();
        fields.update(wirekit::Side::kBid, 1, kFarTicks, 1);
        fields.update(wirekit::Side::kAsk, 1, -kFarTicks, 1);
        wirekit::append(payload, std::span(fields.bytes()).subspan(kHeaderSize));
    }
};

// Behind the true fields: a book change of an unknown side, one of an unknown kind, and a field of
// an unknown id.
class UnknownFieldInChange final : public DamagedChange {
public:
    UnknownFieldInChange(const FaultSpec& spec, Chance chance) : DamagedChange(spec, chance) {}

private:
    static constexpr uint8_t kUnknownEntry = 7;
    static constexpr uint8_t kUnknownEvent = 9;
    static constexpr uint8_t kUpdate = 2;
    static constexpr uint16_t kUnknownField = 0x7F01;

    void damage(Bytes& payload) override {
        uint8_t field[16] = {};
        wirekit::put_le16(field, kUnknownField);
        auto fields = wirekit::decode_buffer();
        fields.price_change(kUnknownEntry, 1, 1, 1, kUpdate);
        fields.price_change(0, 1, 1, 1, kUnknownEvent);
        fields.raw(field);
        wirekit::append(payload, std::span(fields.bytes()).subspan(kHeaderSize));
    }
};

// A copy of the first copy of a true change, with another address, goes ahead of it.
class ExtraDatagram : public Stage {
protected:
    ExtraDatagram(const FaultSpec& spec, Begin begin, Chance chance)
        : Stage(spec, begin, chance, kChoice) {}

    virtual bool may_strike() const { return true; }
    virtual void readdress(Bytes& payload) = 0;

private:
    void handle(Frame frame, const wirekit::ParsedFrame& parsed, const SnapshotSegment&,
                Frames& out) override {
        const auto change = change_of(parsed);
        if (change && copies_.is_first(*change) && may_strike() && hit()) {
            Bytes payload = payload_of(parsed);
            readdress(payload);
            Frame extra = frame;
            set_payload(extra.bytes, payload);
            out.push_back(std::move(extra));
        }
        out.push_back(std::move(frame));
    }

    ChangeCopies copies_;
};

class WrongTopic final : public ExtraDatagram {
public:
    WrongTopic(const FaultSpec& spec, Chance chance)
        : ExtraDatagram(spec, Begin::kAfterRounds, chance) {}

private:
    static constexpr uint16_t kNobodysTopic = 0x7FFF;

    void readdress(Bytes& payload) override {
        wirekit::put_le16(&payload[kTopicOffset], kNobodysTopic);
    }
};

// Without a time, while a round is under way: that is when a card passes every instrument.
class BigNumber final : public ExtraDatagram {
public:
    BigNumber(const FaultSpec& spec, Chance chance) : ExtraDatagram(spec, Begin::kAtOnce, chance) {}

private:
    static constexpr uint32_t kBeyondAllLimits = 20480;
    static constexpr uint64_t kSpread = 1000;

    bool may_strike() const override { return spec().at_ns || streams().in_round(); }
    void readdress(Bytes& payload) override {
        wirekit::put_le32(&payload[kInstrumentOffset],
                          kBeyondAllLimits + static_cast<uint32_t>(chance().below(kSpread)));
    }
};

} // namespace

void add_payload_fault(const FaultSpec& spec, Chance chance, Stages& stages) {
    switch (spec.kind) {
    case Kind::kTruncate:
        stages.push_back(std::make_unique<Truncate>(spec, chance));
        break;
    case Kind::kBadBook:
        stages.push_back(std::make_unique<BadBook>(spec, chance));
        break;
    case Kind::kUnknownField:
        stages.push_back(std::make_unique<UnknownFieldInChange>(spec, chance));
        break;
    case Kind::kWrongTopic:
        stages.push_back(std::make_unique<WrongTopic>(spec, chance));
        break;
    default:
        stages.push_back(std::make_unique<BigNumber>(spec, chance));
        break;
    }
}

} // namespace faults
