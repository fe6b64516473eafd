#include "market_script.h"

#include "tests/unit/feed/snapshot_frames.h"
#include "wirekit/mirp.h"

#include <algorithm>
#include <sched.h>
#include <utility>

namespace evidence {
namespace {

using wirekit::Bytes;

constexpr uint16_t kShfeTopic = 1000;
constexpr uint16_t kIneTopic = 5000;
constexpr uint32_t kRebarNumber = 3;
constexpr uint32_t kCrudeNumber = 0;
constexpr uint32_t kRebarChangeNo = 7; // in the snapshot
constexpr uint32_t kCrudeChangeNo = 41;

// An identifier without a NUL: the longest that the wire can carry.
SnapshotInstrument long_named() {
    SnapshotInstrument copper = rebar();
    copper.info.inst_id = "cu2601C123456789";
    copper.info.underlying_inst_id = "cu";
    copper.info.inst_no = 17;
    copper.deal.inst_no = 17;
    return copper;
}

Bytes change(uint16_t topic, uint32_t number, uint32_t change_no, uint32_t volume) {
    return wirekit::decode_buffer()
        .topic(topic)
        .instrument(number)
        .change_no(change_no)
        .time(90000 + change_no)
        .update(wirekit::Side::kBid, 1, topic == kShfeTopic ? 9 : 20, volume)
        .deal(topic == kShfeTopic ? 10 : 21, 1, 5, 2)
        .bytes();
}
Bytes rebar_change(uint32_t change_no) {
    return change(kShfeTopic, kRebarNumber, change_no, change_no);
}
Bytes crude_change(uint32_t change_no) {
    return change(kIneTopic, kCrudeNumber, change_no, change_no);
}

// Both exchanges' rounds, a frame of each in turn, two of them early.
std::vector<Bytes> round_of(uint32_t number, bool good) {
    SnapshotInstrument rb = rebar();
    SnapshotInstrument sc = crude();
    SnapshotInstrument cu = long_named();
    if (!good) {
        for (SnapshotInstrument* each : {&rb, &sc, &cu}) {
            each->deal.change_no = static_cast<int32_t>(kRejectedChangeNo);
            std::swap(each->bids, each->asks); // a crossed book
        }
    }
    std::vector<Bytes> shfe = snapshot_frames(kShfe, {rb, cu}, number);
    const std::vector<Bytes> ine = snapshot_frames(kIne, {sc}, number);
    std::swap(shfe[1], shfe[2]);
    std::vector<Bytes> frames;
    for (std::size_t i = 0; i < std::max(shfe.size(), ine.size()); ++i) {
        if (i < shfe.size()) {
            frames.push_back(shfe[i]);
        }
        if (i < ine.size()) {
            frames.push_back(ine[i]);
        }
    }
    return frames;
}

Cycle plain() {
    Cycle cycle;
    cycle.cached = {rebar_change(kRebarChangeNo), rebar_change(kRebarChangeNo + 1),
                    crude_change(kCrudeChangeNo + 1)};
    // A second round, for what gets lost in the first.
    cycle.snapshot = round_of(0, true);
    for (const Bytes& frame : round_of(1, true)) {
        cycle.snapshot.push_back(frame);
    }
    for (uint32_t i = 2; i < 5; ++i) {
        cycle.after.push_back(rebar_change(kRebarChangeNo + i));
        cycle.after.push_back(crude_change(kCrudeChangeNo + i));
    }
    return cycle;
}

} // namespace

Cycle gap_cycle() {
    Cycle cycle = plain();
    cycle.after.push_back(rebar_change(kRebarChangeNo + 9));
    return cycle;
}

Cycle quiet_cycle() {
    return plain();
}

Cycle replay_gap_cycle() {
    Cycle cycle = plain();
    cycle.cached.push_back(crude_change(kCrudeChangeNo + 9));
    cycle.after.clear();
    return cycle;
}

Cycle rejected_then_quiet_cycle() {
    Cycle cycle = plain();
    std::vector<Bytes> frames = round_of(2, false);
    frames.insert(frames.end(), cycle.snapshot.begin(), cycle.snapshot.end());
    cycle.snapshot = std::move(frames);
    return cycle;
}

std::string configuration(const std::string& more) {
    cpu_set_t usable;
    ::sched_getaffinity(0, sizeof usable, &usable);
    int cpu = CPU_SETSIZE - 1; // the last one: other tests take the first
    while (!CPU_ISSET(cpu, &usable)) {
        --cpu;
    }
    return "[config]\ndevice = exanic0\ninsts = all\nshfe2ps = enabled\nine2ps = enabled\ncpucore "
           "= " +
           std::to_string(cpu) + "\n" + more;
}

} // namespace evidence
