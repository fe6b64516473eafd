#pragma once

// An instrument as the exchange keeps it: sends changes and snapshots of itself and knows the row
// that a recorder must write. All money is in whole hundredths, so that nothing here shares the
// feed's arithmetic in doubles.

#include "capture_writer.h"
#include "wirekit/mdqp.h"
#include "wirekit/mirp.h"

#include <array>
#include <cstdint>
#include <string>
#include <vector>

namespace recorder {

using wirekit::Side;

struct Terms {
    const Feed* feed = &kShfe;
    int32_t number = 0; // the exchange's instrument number
    std::string id;
    int32_t multiple = 5;            // units of one lot
    int64_t tick_cents = 1000;       // price step
    int64_t codec_cents = 70'000'00; // price from which ticks are counted
};

struct Level {
    int32_t ticks;
    int32_t lots;
};

class Contract {
public:
    // Opens with five levels a side around the codec price and a past of trades.
    explicit Contract(Terms terms);

    // Each call is one change with a number of its own.
    Change deal(int32_t ticks, int32_t lots);
    Change totals(Side side, int32_t lots, int64_t ticks_lots);
    Change insert(Side side, uint8_t level, Level entry);
    Change update(Side side, uint8_t level, Level entry);
    Change erase(Side side, uint8_t level);
    // Carries nothing but its number and the time.
    Change bare();
    // Everything at once: a trade, both totals and the best level of both sides.
    Change burst();
    // The kinds above in turn, the same on every run.
    Change next();
    // A change that is never sent: its number is used up.
    void lose_one();
    // A change whose book is crossed: a receiver takes it for damaged. The contract itself is
    // unchanged but for the number.
    Change crossed();
    // The row that stands once the header alone was taken in: for messages that are not changes.
    Change not_a_change() const;

    const Terms& terms() const { return terms_; }
    uint32_t change_no() const { return change_no_; }
    // Levels of a side as the exchange has them, best first; free to be changed before a snapshot.
    std::vector<Level>& side(Side side) { return book_[static_cast<std::size_t>(side)]; }
    // Daily limits, a hundred ticks either way unless set.
    void set_limits_cents(int64_t lower, int64_t upper);
    int64_t price_cents(int32_t ticks) const;

    // Messages of a snapshot round; both end with a field that no receiver looks at.
    Bytes dictionary(uint8_t flag = wirekit::kFlagMore) const;
    Bytes values(uint8_t flag = wirekit::kFlagMore) const;

    std::string row() const;

private:
    wirekit::DecodeBufferBuilder begin();
    Change finish(const wirekit::DecodeBufferBuilder& builder) const;
    void trade(wirekit::DecodeBufferBuilder& builder, int32_t ticks, int32_t lots);
    void add_totals(wirekit::DecodeBufferBuilder& builder, Side side, int32_t lots,
                    int64_t ticks_lots);
    int64_t amount_cents(int64_t lots, int64_t ticks_lots) const;

    struct Totals {
        int32_t lots;
        int64_t cents;
    };

    Terms terms_;
    uint32_t change_no_ = 0;
    int32_t turns_ = 0; // of next()
    uint32_t time_ = 0;
    uint16_t millisec_ = 0;
    int32_t last_ticks_ = 0;
    int32_t high_ticks_ = 2;
    int32_t low_ticks_ = -2;
    int32_t volume_ = 100;
    int64_t turnover_cents_ = 0;
    int64_t open_interest_ = 5000;
    int64_t lower_limit_cents_ = 0;
    int64_t upper_limit_cents_ = 0;
    std::array<std::vector<Level>, 2> book_;
    std::array<Totals, 2> totals_;
};

// The messages of one snapshot round of a feed, in stream order: what begins it, the dictionary,
// the values. The last one ends the round.
std::vector<Bytes> round_messages(const Feed& feed, const std::vector<const Contract*>& contracts,
                                  int32_t snap_no = 1);

} // namespace recorder
