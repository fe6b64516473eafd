#include "tools/vorn/capture/snapshot_stream.h"

#include "tools/vorn/capture/mdqp_walk.h"

namespace vorn_cli {

namespace {

// Then what is missing counts as lost.
constexpr std::size_t kMaxAhead = 500;
constexpr std::size_t kMaxAheadBytes = std::size_t{1} << 20;

} // namespace

void SnapshotStream::restart() {
    started_ = false;
    pending_.clear();
    ahead_.clear();
    ahead_bytes_ = 0;
}

SnapshotStream::Arrival SnapshotStream::add(uint32_t seq, std::span<const uint8_t> payload,
                                            const OnMessage& on_message) {
    if (!started_) {
        started_ = true;
        next_seq_ = (uint64_t{1} << 32) + seq; // one wrap up, so that none is below zero
    }
    const auto distance = static_cast<int32_t>(seq - static_cast<uint32_t>(next_seq_));
    const uint64_t at = next_seq_ + static_cast<uint64_t>(static_cast<int64_t>(distance));
    const uint64_t end = at + payload.size();
    if (end <= next_seq_) {
        return Arrival::kOld;
    }
    if (at <= next_seq_ && ahead_.empty()) { // nearly always: nothing to keep
        const uint64_t known = next_seq_ - at;
        next_seq_ = end;
        take_payload(payload.subspan(known), on_message);
        return Arrival::kNext;
    }
    const auto held = ahead_.find(at);
    if (held != ahead_.end() && held->second.size() >= payload.size()) {
        return Arrival::kOld;
    }
    const Arrival arrival = at <= next_seq_ ? Arrival::kNext : Arrival::kAhead;
    wirekit::Bytes& slot = ahead_[at];
    ahead_bytes_ += payload.size() - slot.size();
    slot.assign(payload.begin(), payload.end());
    drain(on_message);
    return arrival;
}

// Takes what is next in sequence. When too much waits for something that does not come, goes on
// behind the hole, at the begin of a message.
void SnapshotStream::drain(const OnMessage& on_message) {
    while (!ahead_.empty()) {
        const auto first = ahead_.begin();
        const uint64_t seq = first->first;
        if (seq > next_seq_) {
            if (ahead_.size() <= kMaxAhead && ahead_bytes_ <= kMaxAheadBytes) {
                return;
            }
            ++holes_;
            pending_.clear();
            next_seq_ = seq;
        }
        const wirekit::Bytes payload = std::move(first->second);
        ahead_bytes_ -= payload.size();
        ahead_.erase(first);
        const uint64_t known = next_seq_ - seq; // bytes that have come before
        if (known < payload.size()) {
            next_seq_ = seq + payload.size();
            take_payload(std::span(payload).subspan(known), on_message);
        }
    }
}

void SnapshotStream::take_payload(std::span<const uint8_t> payload, const OnMessage& on_message) {
    if (pending_.empty() && !mdqp::begins_message(payload)) {
        return; // behind a hole, or not a snapshot
    }
    wirekit::append(pending_, payload);
    std::span<const uint8_t> left = pending_;
    while (left.size() >= mdqp::kMessageHeader && mdqp::begins_message(left)) {
        const std::size_t size = mdqp::kMessageHeader + wirekit::get_le16(&left[2]);
        if (left.size() < size) {
            break;
        }
        on_message(left.first(size));
        left = left.subspan(size);
    }
    const bool lost = !left.empty() && !mdqp::begins_message(left);
    pending_ = lost ? wirekit::Bytes() : wirekit::Bytes(left.begin(), left.end());
}

} // namespace vorn_cli
