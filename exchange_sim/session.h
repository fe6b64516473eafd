#pragma once

// A trading session as it appears on the wire: one Ethernet frame at a time, in the order of their
// time stamps, made while it is asked for. No thread, no wall clock; memory does not grow with the
// length of the session. The same options give the same bytes.
//
//   Session session(options);
//   for (WireFrame frame; session.next(frame);) { ... }
//
// On the wire are, for each feed, a TCP connection with the snapshot rounds and two multicast lines
// with the changes, each change as one datagram a line that carries exactly one decode buffer. The
// session begins with the handshakes and a stretch of changes before the first round; it ends with
// a closing sweep of one change for each instrument, which restates levels 6 to 10 of its book.

#include "exchange_sim/instruments.h"
#include "exchange_sim/order_book.h"
#include "exchange_sim/truth.h"

#include <functional>
#include <memory>
#include <optional>
#include <span>

namespace exchange_sim {

struct WireFrame {
    uint64_t timestamp_ns = 0;      // since the Unix epoch, simulated
    std::span<const uint8_t> bytes; // whole Ethernet frame, valid until the next call of next()
};

struct SessionCounters {
    uint64_t changes = 0; // with those of the closing sweep
    uint64_t trades = 0;
    uint64_t traded_volume = 0;
    uint64_t datagrams = 0;    // frames of the multicast lines
    uint64_t tcp_segments = 0; // frames of the snapshot connections, both directions
    uint32_t shfe_rounds = 0;  // completed
    uint32_t ine_rounds = 0;
};

class Session {
public:
    // Throws std::invalid_argument with the text of check_session_options().
    explicit Session(const SessionOptions& options);
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    // False once the session is over, and then always.
    bool next(WireFrame& frame);

    const SessionOptions& options() const;
    const std::vector<Instrument>& instruments() const; // the catalogue; its indices are used below
    std::optional<std::size_t> find(Exchange exchange, uint32_t number) const;

    // As of the last change made, which may be some microseconds ahead of the last frame returned.
    const ExpectedRecord& truth(std::size_t index) const;
    const ExactAmounts& exact(std::size_t index) const;
    const OrderBook& book(std::size_t index) const;
    uint32_t change_count(std::size_t index) const { return truth(index).change_no; }
    SessionCounters counters() const;

    // Called after each change, in the order of the changes, with its instrument and the record
    // that it leaves.
    using ChangeObserver = std::function<void(std::size_t index, const ExpectedRecord& record)>;
    void on_change(ChangeObserver observer);

private:
    class Impl;
    std::unique_ptr<Impl> impl_;
};

} // namespace exchange_sim
