#include "tools/vorn/info/change_tracker.h"

#include <algorithm>

namespace vorn_cli {

namespace {

constexpr std::size_t kRemembered = 256; // of an instrument's newest changes
constexpr std::size_t kNoGap = SIZE_MAX; // a hole whose gap is not kept

} // namespace

// Numbers that have not come so far, from the map's key to `last`.
struct ChangeTracker::Hole {
    uint32_t last = 0;
    std::size_t gap = kNoGap; // index into gaps_
    bool counted = true;      // as missing; not before the first number of a capture
};

struct ChangeTracker::Sequence {
    struct Seen {
        uint64_t first_ns = 0;
        uint32_t change_no = 0;
        uint8_t lines = 0; // bit for each that has brought it; 0 for an empty place
        Line first_line = Line::kA;
    };
    InstrumentTally tally;
    uint32_t newest = 0;
    std::map<uint32_t, Hole> holes; // by their first number
    std::unique_ptr<std::array<Seen, kRemembered>> seen;
};

ChangeTracker::ChangeTracker() {
    for (std::size_t i = 0; i < kSides; ++i) {
        sequences_[i].resize(kSideLimit[i]);
    }
}

ChangeTracker::~ChangeTracker() = default;

ChangeTracker::Sequence& ChangeTracker::sequence(Side side, uint32_t inst_no) {
    auto& slot = sequences_[static_cast<std::size_t>(side)].at(inst_no);
    if (slot == nullptr) {
        slot = std::make_unique<Sequence>();
    }
    return *slot;
}

InstrumentTally& ChangeTracker::instrument(Side side, uint32_t inst_no) {
    return sequence(side, inst_no).tally;
}

const InstrumentTally* ChangeTracker::find(Side side, uint32_t inst_no) const {
    const auto& slot = sequences_[static_cast<std::size_t>(side)].at(inst_no);
    return slot == nullptr ? nullptr : &slot->tally;
}

ChangeKind ChangeTracker::add(const Change& change) {
    Sequence& sequence = this->sequence(change.side, change.inst_no);
    InstrumentTally& tally = sequence.tally;
    SideTally& side = sides_[static_cast<std::size_t>(change.side)];
    ++side.arrivals;
    tally.last_ns = change.time_ns;
    ChangeKind kind = ChangeKind::kNext;
    const std::size_t place = change.change_no % kRemembered;
    if (sequence.seen == nullptr) {
        sequence.seen = std::make_unique<std::array<Sequence::Seen, kRemembered>>();
        tally.first_ns = change.time_ns;
        tally.min_change = change.change_no;
        tally.topic_id = change.topic_id;
        kind = ChangeKind::kFirst;
    }
    Sequence::Seen& seen = (*sequence.seen)[place];
    if (kind != ChangeKind::kFirst && change.change_no <= sequence.newest) {
        if (seen.lines != 0 && seen.change_no == change.change_no) {
            add_duplicate(sequence, change, place);
            return ChangeKind::kDuplicate;
        }
        kind = ChangeKind::kLate;
        ++tally.late;
        ++side.late;
        if (!is_new(sequence, change.change_no, change.side)) {
            return kind;
        }
    } else {
        // No overflow: the number is above the newest, or the first.
        if (kind != ChangeKind::kFirst && change.change_no != sequence.newest + 1) {
            kind = ChangeKind::kGap;
            open_gap(sequence, change);
        }
        sequence.newest = change.change_no;
    }
    tally.min_change = std::min(tally.min_change, change.change_no);
    tally.max_change = sequence.newest;
    ++tally.changes;
    ++side.changes;
    ++side.only[static_cast<std::size_t>(change.line)];
    seen = {change.time_ns, change.change_no,
            static_cast<uint8_t>(1u << static_cast<unsigned>(change.line)), change.line};
    return kind;
}

void ChangeTracker::add_duplicate(Sequence& sequence, const Change& change, std::size_t place) {
    SideTally& side = sides_[static_cast<std::size_t>(change.side)];
    Sequence::Seen& seen = (*sequence.seen)[place];
    ++sequence.tally.duplicates;
    ++side.duplicates;
    const auto line = static_cast<uint8_t>(1u << static_cast<unsigned>(change.line));
    if ((seen.lines & line) != 0) {
        ++side.repeated;
        return;
    }
    if ((seen.lines & (seen.lines - 1)) == 0) { // its second line
        --side.only[static_cast<std::size_t>(seen.first_line)];
        ++side.both;
        if (change.line != Line::kOther && seen.first_line != Line::kOther) {
            // Stamps may step back, where captures were merged.
            const uint64_t lead_ns =
                change.time_ns > seen.first_ns ? change.time_ns - seen.first_ns : 0;
            (seen.first_line == Line::kA ? side.a_first : side.b_first).add(lead_ns);
        }
    }
    seen.lines |= line;
}

void ChangeTracker::open_gap(Sequence& sequence, const Change& change) {
    SideTally& side = sides_[static_cast<std::size_t>(change.side)];
    const uint32_t first = sequence.newest + 1;
    const uint64_t missing = change.change_no - first;
    ++sequence.tally.gaps;
    ++side.gaps;
    sequence.tally.missing += missing;
    side.missing += missing;
    std::size_t gap = kNoGap;
    if (gaps_.size() < kMaxGapsKept) {
        gap = gaps_.size();
        gaps_.push_back({change.side, change.inst_no, first, change.change_no - 1, missing,
                         change.frame, change.time_ns});
    }
    keep_hole(sequence, first, {change.change_no - 1, gap, true});
}

// Where too many are open already, what would have been known of this one is not: its numbers count
// as missing for good.
void ChangeTracker::keep_hole(Sequence& sequence, uint32_t first, const Hole& hole) {
    if (first <= hole.last && holes_ < kMaxGapsKept) {
        ++holes_;
        sequence.holes.emplace(first, hole);
    }
}

// Whether a late number comes for the first time.
bool ChangeTracker::is_new(Sequence& sequence, uint32_t number, Side side) {
    if (number < sequence.tally.min_change) {
        if (number + 1 < sequence.tally.min_change) {
            keep_hole(sequence, number + 1, {sequence.tally.min_change - 1, kNoGap, false});
        }
        return true;
    }
    auto at = sequence.holes.upper_bound(number);
    if (at == sequence.holes.begin() || (--at)->second.last < number) {
        return false;
    }
    const uint32_t first = at->first;
    const Hole hole = at->second;
    sequence.holes.erase(at);
    --holes_;
    if (hole.counted) {
        --sequence.tally.missing;
        --sides_[static_cast<std::size_t>(side)].missing;
    }
    if (hole.gap != kNoGap) {
        --gaps_[hole.gap].missing;
    }
    if (number > first) {
        keep_hole(sequence, first, {number - 1, hole.gap, hole.counted});
    }
    if (number < hole.last) {
        keep_hole(sequence, number + 1, hole);
    }
    return true;
}

} // namespace vorn_cli
