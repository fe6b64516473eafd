#include "faults/stage.h"

#include <utility>

namespace faults {

Stage::Stage(const FaultSpec& spec, Begin begin, Chance chance, uint64_t choice)
    : spec_(spec), begin_(begin), chance_(chance), pass_over_(chance_.below(choice)),
      left_(spec.count) {}

void Stage::take(Frame frame, Frames& out) {
    if (!std::exchange(started_, true)) {
        first_ns_ = frame.timestamp_ns;
    }
    // Judged by what came before the frame: the one that ends a round is not behind it.
    due_ = due_ ||
           (spec_.at_ns ? frame.timestamp_ns - first_ns_ >= *spec_.at_ns
                        : begin_ == Begin::kAtOnce || streams_.every_stream_completed_a_round());
    const wirekit::ParsedFrame parsed = wirekit::parse_frame(frame.bytes);
    const SnapshotSegment& segment = streams_.see(parsed);
    handle(std::move(frame), parsed, segment, out);
}

void Stage::finish(Frames&) {}

bool Stage::hit() {
    if (!due_ || left_ == 0) {
        return false;
    }
    if (pass_over_ > 0) {
        --pass_over_;
        return false;
    }
    --left_;
    return true;
}

} // namespace faults
