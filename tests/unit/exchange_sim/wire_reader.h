#pragma once

// Takes a session's frames apart again: decode buffers by feed and line, and the rounds of each
// snapshot connection with the segments that their messages came in.

#include "exchange_sim/session.h"
#include "wirekit/ethernet.h"
#include "wirekit/mdqp.h"

#include <gtest/gtest.h>
#include <vector>

namespace exchange_sim::testing {

struct Message {
    wirekit::Bytes bytes;
    std::size_t first_segment = 0; // index within the connection
    std::size_t last_segment = 0;
    bool starts_segment = false;
    bool ends_segment = false;
};

// The server's byte stream of one connection, cut into messages.
class StreamReader {
public:
    void segment(const wirekit::ParsedFrame& frame) {
        if ((frame.tcp_flags & wirekit::kTcpSyn) != 0) {
            ASSERT_TRUE(pending_.empty()) << "a connection ends between two messages";
            next_seq_ = frame.tcp_seq + 1;
            return;
        }
        if (frame.payload.empty()) {
            return;
        }
        ASSERT_EQ(frame.tcp_seq, next_seq_);
        next_seq_ += static_cast<uint32_t>(frame.payload.size());
        largest_ = std::max(largest_, frame.payload.size());
        const std::size_t segment = segments_++;
        for (std::size_t i = 0; i < frame.payload.size(); ++i) {
            if (pending_.empty()) {
                current_.first_segment = segment;
                current_.starts_segment = i == 0;
            }
            pending_.push_back(frame.payload[i]);
            if (pending_.size() >= 8 &&
                pending_.size() == wirekit::get_le16(&pending_[2]) + std::size_t{8}) {
                current_.bytes = std::move(pending_);
                current_.last_segment = segment;
                current_.ends_segment = i + 1 == frame.payload.size();
                messages.push_back(std::move(current_));
                pending_ = {};
                current_ = {};
            }
        }
    }

    std::vector<Message> messages;
    std::size_t segments() const { return segments_; }
    std::size_t largest_payload() const { return largest_; }
    bool whole() const { return pending_.empty(); }

private:
    wirekit::Bytes pending_;
    Message current_;
    uint32_t next_seq_ = 0;
    std::size_t segments_ = 0;
    std::size_t largest_ = 0;
};

// What a frame is to a receiver of the feed.
struct Received {
    enum class Kind { kOther, kChange, kSnapshot };
    Kind kind = Kind::kOther;
    Exchange exchange = Exchange::kShfe;
    bool line_a = false;
    wirekit::ParsedFrame frame;
};

inline Received receive(const SessionOptions& options, const WireFrame& wire) {
    Received received;
    received.frame = wirekit::parse_frame(wire.bytes);
    const auto& to = received.frame.to;
    for (const Exchange exchange : {Exchange::kShfe, Exchange::kIne}) {
        const FeedAddress& feed = exchange == Exchange::kShfe ? options.shfe : options.ine;
        if (received.frame.kind == wirekit::ParsedFrame::Kind::kUdp &&
            (to == feed.line_a || to == feed.line_b)) {
            received.kind = Received::Kind::kChange;
            received.exchange = exchange;
            received.line_a = to == feed.line_a;
        } else if (received.frame.kind == wirekit::ParsedFrame::Kind::kTcp &&
                   received.frame.from.port == options.snapshot_port &&
                   to.port == feed.client_port) {
            received.kind = Received::Kind::kSnapshot;
            received.exchange = exchange;
        }
    }
    return received;
}

// The rounds of a connection: from a message with a SnapField to one with the last flag.
inline std::vector<std::vector<Message>> rounds_of(const StreamReader& stream) {
    std::vector<std::vector<Message>> rounds(1);
    for (const Message& message : stream.messages) {
        rounds.back().push_back(message);
        if (message.bytes[0] == wirekit::kFlagLast) {
            rounds.emplace_back();
        }
    }
    EXPECT_TRUE(rounds.back().empty()) << "a round stops short";
    rounds.pop_back();
    return rounds;
}

} // namespace exchange_sim::testing
