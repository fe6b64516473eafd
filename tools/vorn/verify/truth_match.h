#pragma once

// Holds every update of the feed against the truth of the session, record for record.

#include "ExanicMdTypes.h"
#include "exchange_sim/truth_file.h"

#include <cstdint>
#include <deque>
#include <string>
#include <vector>

namespace vorn_cli {

struct Difference {
    std::string instrument;
    uint32_t change_no = 0;
    std::string field; // "bid_px[3]"
    std::string expected;
    std::string got;
};

class TruthMatch {
public:
    // Throws std::runtime_error with a text for the user.
    explicit TruthMatch(const std::string& truth_path);

    // A snapshot begins: the levels that it does not carry are unknown again.
    void snapshot_begins();
    // One update, as the callback sees it.
    void update(const instrument& record, uint32_t slot);
    // After the run: every instrument that was updated must stand where the exchange left it, and
    // with `all_subscribed` every instrument that changed must have been updated (a session ends
    // with a change of each).
    void finish(bool all_subscribed);

    uint64_t updates() const { return updates_; }
    uint64_t differences() const { return difference_count_; }
    const std::vector<Difference>& shown() const { return shown_; } // the first few
    std::size_t instruments() const { return truth_.instruments().size(); }
    std::size_t updated() const;

private:
    struct State {
        // Truth read ahead, not claimed by an update yet; lines of two feeds may be a little apart.
        std::deque<exchange_sim::RecordBytes> ahead;
        bool seen = false;
        bool live = false;        // updated since the last snapshot: every change comes from now on
        bool bids_stated = false; // levels 6 to 10 are known since the last snapshot
        bool asks_stated = false;
        exchange_sim::RecordBytes last{};
    };

    const exchange_sim::RecordBytes* expect(State& state, uint32_t change_no);
    void compare(State& state, std::size_t index, const exchange_sim::RecordBytes& expected,
                 const exchange_sim::RecordBytes& got);
    void differ(std::size_t index, uint32_t change_no, std::string field, std::string expected,
                std::string got);

    exchange_sim::TruthReader truth_;
    std::vector<int32_t> index_of_slot_; // -1: no instrument of the session
    std::vector<State> states_;
    uint64_t updates_ = 0;
    uint64_t difference_count_ = 0;
    std::vector<Difference> shown_;
};

} // namespace vorn_cli
