// What happens in the card itself.

#include "faults/stage.h"

#include <utility>

namespace faults {

namespace {

// Whoever reads the card was too slow: COUNT frames of both paths are gone, and the readers are
// told at the next one.
class Overflow final : public Stage {
public:
    Overflow(const FaultSpec& spec, Chance chance)
        : Stage(spec, Begin::kAfterRounds, chance, kChoice) {}

private:
    static constexpr uint64_t kChoice = 16;

    void handle(Frame frame, const wirekit::ParsedFrame&, const SnapshotSegment&,
                Frames& out) override {
        if (hit()) {
            lapped_ = true;
            return;
        }
        frame.reader_lapped = std::exchange(lapped_, false) || frame.reader_lapped;
        out.push_back(std::move(frame));
    }

    bool lapped_ = false;
};

} // namespace

void add_card_fault(const FaultSpec& spec, Chance chance, Stages& stages) {
    stages.push_back(std::make_unique<Overflow>(spec, chance));
}

} // namespace faults
