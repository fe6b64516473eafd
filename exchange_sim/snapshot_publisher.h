#pragma once

// One feed's snapshot rounds: the dictionary of all its instruments, then each instrument's values,
// book and order totals, as MDQP messages on the feed's TCP connection.
//
// What receivers rely on, round by round:
// - The first message has a segment of its own. It holds the SnapField that names the topic and at
//   least one dictionary entry, so it is long enough to be taken for the start of a round, and a
//   receiver that walks the whole segment finds nothing but fields of one message.
// - Every message but the last has flag 0x11, the last has 0x01 and ends its segment.
// - Every message ends with a PacketNoField, because receivers do not decode what begins in the
//   last eight bytes of a body.
// - All of an instrument's fields stand in one message and were taken at one moment, that of its
//   change number. Its price levels are consecutive, best first, at most five a side; a field of
//   another kind stands between those of two instruments, which tells receivers to start a new
//   book.
// Messages are of one instrument up to several dozen, unless the options give them all one size.
// A round takes its time while the market goes on: each instrument is as of its own change number.

#include "exchange_sim/market.h"
#include "exchange_sim/rng.h"
#include "exchange_sim/tcp_stream.h"
#include "wirekit/mdqp.h"

#include <vector>

namespace exchange_sim {

struct RoundSchedule {
    uint64_t first_ns = 0;    // absolute
    uint64_t interval_ns = 0; // from start to start
    uint64_t length_ns = 0;
    uint32_t rounds = 0; // at most
};

class SnapshotPublisher {
public:
    SnapshotPublisher(const Market& market, Exchange exchange, const SessionOptions& options,
                      TcpStream& stream, const RoundSchedule& schedule, Rng rng);

    // When step() is due next, UINT64_MAX when never.
    uint64_t next_time() const { return next_ns_; }
    void step();

    // From now on no round starts, except that there will have been one.
    void wind_up(uint64_t now_ns);

    uint32_t rounds_completed() const { return rounds_completed_; }

private:
    void begin_round();
    void send_dictionary();
    void send_books();
    void finish_message();
    void add_dictionary_entry(const Instrument& instrument);
    void add_values(std::size_t index);
    void add_book(std::size_t index);
    void schedule_next();

    const Market& market_;
    Exchange exchange_;
    const SessionOptions& options_;
    TcpStream& stream_;
    RoundSchedule schedule_;
    Rng rng_;
    std::vector<uint32_t> members_; // indices into the catalogue
    wirekit::MdqpMessageBuilder message_;

    uint64_t next_ns_ = UINT64_MAX;
    uint64_t round_start_ns_ = 0;
    bool in_round_ = false;
    bool winding_up_ = false;
    std::size_t dictionary_done_ = 0; // members whose dictionary entry was sent in this round
    std::size_t books_done_ = 0;
    uint32_t rounds_started_ = 0;
    uint32_t rounds_completed_ = 0;
    int32_t request_id_ = 0;
};

} // namespace exchange_sim
