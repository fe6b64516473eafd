#pragma once

// One fault at work: takes the frames of a stream one by one and gives those that come of it.
// A filter is a chain of stages.

#include "faults/chance.h"
#include "faults/fault_spec.h"
#include "faults/snapshot_streams.h"
#include "wirekit/ethernet.h"

#include <memory>
#include <vector>

namespace faults {

struct Frame {
    uint64_t timestamp_ns = 0;
    wirekit::Bytes bytes;
    bool reader_lapped = false; // frames in front of it were lost to the card's reader
};
using Frames = std::vector<Frame>;

class Stage {
public:
    virtual ~Stage() = default;
    Stage(const Stage&) = delete;
    Stage& operator=(const Stage&) = delete;

    // Appends to `out` what comes of the frame.
    void take(Frame frame, Frames& out);
    // The stream is over: appends what is still held.
    virtual void finish(Frames& out);

protected:
    // Where a fault without a time begins.
    enum class Begin : uint8_t {
        kAtOnce,      // with the stream; for what happens to a snapshot round
        kAfterRounds, // after the first whole round of each feed, when a consumer is live
    };
    // The first victim is one of the first `choice` candidates, by chance; the others follow it.
    Stage(const FaultSpec& spec, Begin begin, Chance chance, uint64_t choice);

    // `parsed` and `segment` are the frame's; `parsed` points into it, also when it is moved.
    virtual void handle(Frame frame, const wirekit::ParsedFrame& parsed,
                        const SnapshotSegment& segment, Frames& out) = 0;

    // The frame is a candidate: whether it is a victim.
    bool hit();
    bool is_due() const { return due_; }
    const FaultSpec& spec() const { return spec_; }
    Chance& chance() { return chance_; }
    const SnapshotStreams& streams() const { return streams_; }

private:
    const FaultSpec spec_;
    const Begin begin_;
    Chance chance_;
    uint64_t pass_over_;
    uint32_t left_;
    bool due_ = false;
    bool started_ = false;
    uint64_t first_ns_ = 0;
    SnapshotStreams streams_;
};

// The stages of one fault: one, or two for a kind that shows on both channels.
using Stages = std::vector<std::unique_ptr<Stage>>;
void add_line_fault(const FaultSpec& spec, Chance chance, Stages& stages);
void add_tcp_fault(const FaultSpec& spec, Chance chance, Stages& stages);
void add_round_fault(const FaultSpec& spec, Chance chance, Stages& stages);
void add_payload_fault(const FaultSpec& spec, Chance chance, Stages& stages);
void add_card_fault(const FaultSpec& spec, Chance chance, Stages& stages);

} // namespace faults
