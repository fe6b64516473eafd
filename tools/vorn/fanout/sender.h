#pragma once

// Sends what waits in lanes to JetStream, so that the stream has every message once and each lane's
// in order, whatever becomes of servers and publishers.
//
//   - Of a lane one message is under way. The next goes when the stream has acknowledged it, as new
//     or as a second one: then it is in the stream, whoever put it there.
//   - What is not acknowledged in time, or refused, is sent again under the same id.
//   - The stream knows ids for the length of its window only. So an id is relied on only while
//     nobody can have used it longer ago than half of that: since the update was received, or since
//     the newest change numbers of all instruments (the marks) were read off the stream. Beyond it
//     they are read again first, and what they say is there is not sent.
//   - A value, which is no update, is sent under the condition that its subject is still as the
//     marks had it, so that it never comes behind something newer.
//
// One thread.

#include "tools/vorn/fanout/ack_inbox.h"
#include "tools/vorn/fanout/lanes.h"
#include "tools/vorn/fanout/market_stream.h"
#include "tools/vorn/fanout/payload.h"

#include <cstdint>
#include <deque>
#include <string>
#include <vector>

namespace vorn_cli {

struct SenderOptions {
    Stamp stamp;
    PayloadFormat format = PayloadFormat::kBinary;
    std::string stream;
    uint64_t window_ns = 0;       // of the stream
    std::size_t under_way = 1024; // at most
    uint64_t ack_wait_ns = 2'000'000'000;
};

struct SenderCounts {
    uint64_t stored = 0;     // new to the stream
    uint64_t duplicates = 0; // the stream had them, by their id
    uint64_t known = 0;      // the stream had them, by the marks: not sent
    uint64_t superseded = 0; // values that something newer was faster than
    uint64_t attempts = 0;
    uint64_t retries = 0; // attempts beyond the first one of a message
    uint64_t refusals = 0;
    uint64_t mark_reads = 0;
    // All messages that are over.
    uint64_t over() const { return stored + duplicates + known + superseded; }
};

class Sender {
public:
    Sender(const NatsLink& link, SenderOptions options, Lanes& lanes);

    // Takes in acknowledgements and sends what may go. Waits for an acknowledgement for up to
    // `wait_ms`. Nothing is sent while there is no connection.
    void work(int64_t wait_ms);

    const SenderCounts& counts() const { return counts_; }
    // The last thing that did not go well; empty when all has gone well since.
    const std::string& trouble() const { return trouble_; }

private:
    struct Deadline {
        uint64_t due_ns;
        uint32_t lane;
        uint64_t number;
        uint32_t attempt;
    };
    enum class Verdict : uint8_t { kSend, kThere, kReadMarks };

    void take_acks(int64_t wait_ms);
    void take(const Ack& ack);
    void take_overdue(uint64_t now_ns);
    void send_what_may_go(uint64_t now_ns);
    void send(uint32_t lane, uint64_t now_ns);
    bool put_on_wire(const Lanes::Entry& entry, uint32_t lane);
    Verdict judge(uint32_t lane, const Mark* mark) const;
    const Mark* mark_of(const Outgoing& message) const;
    void read_marks_if_due(uint64_t now_ns);
    void retry(uint32_t lane, uint64_t now_ns);

    const NatsLink& link_;
    const SenderOptions options_;
    Lanes& lanes_;
    AckInbox inbox_;
    SenderCounts counts_;
    std::string trouble_;
    std::deque<Deadline> deadlines_; // of all attempts, in order
    std::vector<uint64_t> over_ns_;  // when a lane's last message was over
    Marks marks_;
    uint64_t marks_time_ns_ = 0;      // CLOCK_REALTIME before they were read; 0: never
    uint64_t marks_monotonic_ns_ = 0; // the same moment
    uint64_t next_marks_ns_ = 0;      // not before
};

} // namespace vorn_cli
