#include "faults/fault_filter.h"

#include "faults/stage.h"

#include <algorithm>
#include <utility>

namespace faults {

namespace {

void add_fault(const FaultSpec& spec, Chance chance, Stages& stages) {
    switch (spec.kind) {
    case Kind::kGap:
    case Kind::kDuplicate:
    case Kind::kReorder:
    case Kind::kLineALoss:
    case Kind::kLineBLoss:
        add_line_fault(spec, chance, stages);
        break;
    case Kind::kBadChecksum:
    case Kind::kTcpLoss:
    case Kind::kTcpReorder:
    case Kind::kTcpDuplicate:
    case Kind::kRstAck:
        add_tcp_fault(spec, chance, stages);
        break;
    case Kind::kPriceCheck:
    case Kind::kLateSnapshot:
        add_round_fault(spec, chance, stages);
        break;
    case Kind::kUnknownField: // in a round and in a change
        add_round_fault(spec, chance, stages);
        add_payload_fault(spec, chance, stages);
        break;
    case Kind::kTruncate:
    case Kind::kBadBook:
    case Kind::kWrongTopic:
    case Kind::kBigNumber:
        add_payload_fault(spec, chance, stages);
        break;
    case Kind::kOverflow:
        add_card_fault(spec, chance, stages);
        break;
    }
}

} // namespace

struct FaultFilter::Chain {
    Source source;
    Stages stages;
    std::deque<Frame> ready;
    Frame current; // what `next` gave last
    uint64_t latest_ns = 0;
    bool over = false;

    // Lets the stages from `from` on have a frame.
    void pass(Frame frame, std::size_t from) {
        if (from == stages.size()) {
            ready.push_back(std::move(frame));
            return;
        }
        Frames out;
        stages[from]->take(std::move(frame), out);
        for (Frame& each : out) {
            pass(std::move(each), from + 1);
        }
    }

    void finish() {
        for (std::size_t i = 0; i < stages.size(); ++i) {
            Frames out;
            stages[i]->finish(out);
            for (Frame& each : out) {
                pass(std::move(each), i + 1);
            }
        }
    }

    bool pull() {
        FilteredFrame frame;
        if (!source(frame)) {
            return false;
        }
        pass({frame.timestamp_ns, {frame.bytes.begin(), frame.bytes.end()}, frame.reader_lapped},
             0);
        return true;
    }
};

FaultFilter::FaultFilter(Source source, const std::vector<FaultSpec>& faults, uint64_t seed)
    : chain_(std::make_unique<Chain>()) {
    chain_->source = std::move(source);
    // What the card's reader loses comes last, so that no other fault loses the mark of it.
    for (const bool in_the_card : {false, true}) {
        for (std::size_t i = 0; i < faults.size(); ++i) {
            if (fits_into_a_capture(faults[i].kind) != in_the_card) {
                add_fault(faults[i], Chance(seed, i), chain_->stages);
            }
        }
    }
}

FaultFilter::~FaultFilter() = default;

bool FaultFilter::next(FilteredFrame& frame) {
    Chain& chain = *chain_;
    while (chain.ready.empty() && !chain.over) {
        if (!chain.pull()) {
            chain.over = true;
            chain.finish();
        }
    }
    if (chain.ready.empty()) {
        return false;
    }
    chain.current = std::move(chain.ready.front());
    chain.ready.pop_front();
    chain.latest_ns = std::max(chain.latest_ns, chain.current.timestamp_ns);
    frame = {chain.latest_ns, chain.current.bytes, chain.current.reader_lapped};
    return true;
}

} // namespace faults
