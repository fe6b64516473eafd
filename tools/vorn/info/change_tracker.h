#pragma once

// The change numbers of every instrument, from both multicast lines merged as the feed merges them:
// whichever line brings a number first counts.
//
// Memory is bounded by the instruments that there can be (20480, about 4 KiB for each one that has
// changes) and by kMaxGapsKept.

#include "tools/vorn/info/capture_names.h"
#include "tools/vorn/info/lead_histogram.h"

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace vorn_cli {

inline constexpr uint32_t kSideLimit[kSides] = {16384, 4096}; // instrument numbers from 0
inline constexpr std::size_t kMaxGapsKept = 100'000;

// Which line a datagram came on. A group that the configuration does not name is neither A nor B.
enum class Line : uint8_t { kA = 0, kB = 1, kOther = 2 };
inline constexpr std::size_t kLines = 3;

// What a change is to those before it.
enum class ChangeKind {
    kFirst,     // of its instrument
    kNext,      // the number that was due
    kGap,       // numbers before it had not come
    kDuplicate, // came before, among the last 256 of its instrument
    kLate,      // older than the newest, and not among those
};

struct Change {
    Side side = Side::kShfe;
    uint32_t inst_no = 0; // below kSideLimit
    uint32_t change_no = 0;
    int topic_id = 0;
    Line line = Line::kA;
    uint64_t time_ns = 0;
    uint64_t frame = 0; // from 1
};

struct Gap {
    Side side = Side::kShfe;
    uint32_t inst_no = 0;
    uint32_t first = 0; // numbers that had not come
    uint32_t last = 0;
    uint64_t missing = 0; // of these, how many never came
    uint64_t frame = 0;   // that showed the gap
    uint64_t time_ns = 0;
};

struct InstrumentTally {
    // From the dictionary; empty as long as none has come.
    std::string inst_id;
    char product_class = 0;
    // Values of the newest snapshot.
    bool in_snapshot = false;
    int32_t snapshot_change_no = 0;
    // Of the multicast lines.
    int topic_id = -1;
    uint64_t changes = 0; // different numbers
    uint64_t duplicates = 0;
    uint64_t late = 0;
    uint64_t gaps = 0;
    uint64_t missing = 0; // numbers that never came
    uint32_t min_change = 0;
    uint32_t max_change = 0;
    uint64_t first_ns = 0;
    uint64_t last_ns = 0;

    bool changed() const { return changes != 0; }
};

struct SideTally {
    uint64_t arrivals = 0; // on all lines
    uint64_t changes = 0;  // different numbers
    uint64_t duplicates = 0;
    uint64_t late = 0;
    uint64_t gaps = 0;
    uint64_t missing = 0;
    // How the different ones came: on A only, on B only, on another line only, on more than one.
    std::array<uint64_t, kLines> only{};
    uint64_t both = 0;
    // Of those on A and B: how far the line that was first was ahead.
    LeadHistogram a_first;
    LeadHistogram b_first;
    uint64_t repeated = 0; // duplicates on the line that had brought the number already
};

class ChangeTracker {
public:
    ChangeTracker();
    ~ChangeTracker();
    ChangeTracker(const ChangeTracker&) = delete;
    ChangeTracker& operator=(const ChangeTracker&) = delete;

    ChangeKind add(const Change& change);
    // Creates it when there is none; the number is below kSideLimit.
    InstrumentTally& instrument(Side side, uint32_t inst_no);
    // Null when nothing has named it.
    const InstrumentTally* find(Side side, uint32_t inst_no) const;
    const SideTally& side(Side side) const { return sides_[static_cast<std::size_t>(side)]; }
    // In the order in which they showed; at most kMaxGapsKept.
    const std::vector<Gap>& gaps() const { return gaps_; }

private:
    struct Sequence;
    struct Hole;
    Sequence& sequence(Side side, uint32_t inst_no);
    void open_gap(Sequence& sequence, const Change& change);
    bool is_new(Sequence& sequence, uint32_t number, Side side);
    void keep_hole(Sequence& sequence, uint32_t first, const Hole& hole);
    void add_duplicate(Sequence& sequence, const Change& change, std::size_t place);

    std::array<std::vector<std::unique_ptr<Sequence>>, kSides> sequences_;
    std::array<SideTally, kSides> sides_;
    std::vector<Gap> gaps_;
    std::size_t holes_ = 0;
};

} // namespace vorn_cli
