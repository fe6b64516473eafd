// Faults of the multicast lines: what a switch, a cable or the exchange does to datagrams.

#include "faults/changes.h"
#include "faults/stage.h"

#include <algorithm>
#include <map>
#include <utility>

namespace faults {

namespace {

constexpr uint64_t kChoice = 16;

// A stage that deals with changes. `is_first` tells the first copy of a change from later ones.
class ChangeStage : public Stage {
protected:
    ChangeStage(const FaultSpec& spec, Chance chance)
        : Stage(spec, Begin::kAfterRounds, chance, kChoice) {}

    virtual void handle_change(Frame frame, const Change& change, bool is_first,
                               const wirekit::Endpoint& destination, Frames& out) = 0;

private:
    void handle(Frame frame, const wirekit::ParsedFrame& parsed, const SnapshotSegment&,
                Frames& out) final {
        if (const auto change = change_of(parsed)) {
            handle_change(std::move(frame), *change, copies_.is_first(*change), parsed.to, out);
        } else {
            out.push_back(std::move(frame));
        }
    }

    ChangeCopies copies_;
};

class Gap final : public ChangeStage {
public:
    Gap(const FaultSpec& spec, Chance chance) : ChangeStage(spec, chance) {}

private:
    void handle_change(Frame frame, const Change& change, bool is_first, const wirekit::Endpoint&,
                       Frames& out) override {
        if (is_first && hit()) {
            lost_.mark(change);
        }
        if (!lost_.is_marked(change)) {
            out.push_back(std::move(frame));
        }
    }

    ChangeCopies lost_;
};

class Duplicate final : public ChangeStage {
public:
    Duplicate(const FaultSpec& spec, Chance chance) : ChangeStage(spec, chance) {}

private:
    void handle_change(Frame frame, const Change&, bool, const wirekit::Endpoint&,
                       Frames& out) override {
        if (hit()) {
            out.push_back(frame);
        }
        out.push_back(std::move(frame));
    }
};

// Every copy of the victim waits for the first copy of the change that follows it.
class Reorder final : public ChangeStage {
public:
    Reorder(const FaultSpec& spec, Chance chance) : ChangeStage(spec, chance) {}

    void finish(Frames& out) override {
        for (auto& [instrument, held] : held_) {
            release(held, 0, out);
        }
        held_.clear();
    }

private:
    struct Held {
        uint32_t change_no;
        Frames copies;
    };
    static constexpr std::size_t kMostCopies = 8;
    static constexpr std::size_t kMostHeld = 20480;

    void handle_change(Frame frame, const Change& change, bool is_first, const wirekit::Endpoint&,
                       Frames& out) override {
        const auto waiting = held_.find(change.instrument_key());
        if (waiting != held_.end()) {
            Held& held = waiting->second;
            if (change.change_no == held.change_no && held.copies.size() < kMostCopies) {
                held.copies.push_back(std::move(frame));
                return;
            }
            const uint64_t now_ns = frame.timestamp_ns;
            out.push_back(std::move(frame));
            if (change.change_no > held.change_no) {
                release(held, now_ns, out);
                held_.erase(waiting);
            }
        } else if (is_first && held_.size() < kMostHeld && hit()) {
            Held& held = held_[change.instrument_key()];
            held.change_no = change.change_no;
            held.copies.push_back(std::move(frame));
        } else {
            out.push_back(std::move(frame));
        }
    }

    static void release(Held& held, uint64_t now_ns, Frames& out) {
        for (Frame& copy : held.copies) {
            copy.timestamp_ns = std::max(copy.timestamp_ns, now_ns);
            out.push_back(std::move(copy));
        }
    }

    std::map<uint64_t, Held> held_; // by instrument
};

class LineLoss final : public ChangeStage {
public:
    LineLoss(const FaultSpec& spec, Chance chance, Lines::Name line)
        : ChangeStage(spec, chance), line_(line) {}

private:
    void handle_change(Frame frame, const Change& change, bool is_first,
                       const wirekit::Endpoint& destination, Frames& out) override {
        if (lines_.see(change, destination, is_first) != line_ || !hit()) {
            out.push_back(std::move(frame));
        }
    }

    const Lines::Name line_;
    Lines lines_;
};

} // namespace

void add_line_fault(const FaultSpec& spec, Chance chance, Stages& stages) {
    switch (spec.kind) {
    case Kind::kGap:
        stages.push_back(std::make_unique<Gap>(spec, chance));
        break;
    case Kind::kDuplicate:
        stages.push_back(std::make_unique<Duplicate>(spec, chance));
        break;
    case Kind::kReorder:
        stages.push_back(std::make_unique<Reorder>(spec, chance));
        break;
    default:
        stages.push_back(std::make_unique<LineLoss>(
            spec, chance, spec.kind == Kind::kLineALoss ? Lines::Name::kA : Lines::Name::kB));
        break;
    }
}

} // namespace faults
