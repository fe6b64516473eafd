#include "tools/vorn/fanout/sender.h"

#include "bus/bus_process.h"
#include "tools/vorn/fanout/subjects.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

namespace vorn_cli {

namespace {

constexpr uint64_t kFirstPauseNs = 20'000'000; // before a message is sent again; doubled each time
constexpr uint64_t kLongestPauseNs = 1'000'000'000;
constexpr uint64_t kMarksPauseNs = 250'000'000;
constexpr int kAcksAtOnce = 4096; // so that the bus is looked at in between

uint64_t monotonic_ns() {
    return vorn_bus::clock_ns(CLOCK_MONOTONIC);
}
uint64_t realtime_ns() {
    return vorn_bus::clock_ns(CLOCK_REALTIME);
}

} // namespace

Sender::Sender(const NatsLink& link, SenderOptions options, Lanes& lanes)
    : link_(link), options_(std::move(options)), lanes_(lanes), inbox_(link.connection()),
      over_ns_(kLanes) {}

void Sender::work(int64_t wait_ms) {
    take_acks(wait_ms);
    const uint64_t now = monotonic_ns();
    take_overdue(now);
    if (!link_.connected()) {
        trouble_ = "no connection";
        return;
    }
    read_marks_if_due(now);
    send_what_may_go(now);
}

void Sender::take_acks(int64_t wait_ms) {
    Ack ack;
    for (int taken = 0; taken < kAcksAtOnce && inbox_.next(ack, taken == 0 ? wait_ms : 0);
         ++taken) {
        take(ack);
    }
}

void Sender::take(const Ack& ack) {
    if (ack.lane >= kLanes || !lanes_.is_under_way(ack.lane)) {
        return; // of an attempt that was given up, and the message is over or waits
    }
    const Lanes::Entry& entry = lanes_.front(ack.lane);
    if (entry.number != ack.number) {
        return;
    }
    const uint64_t now = monotonic_ns();
    switch (ack.result) {
    case AckResult::kStored: // by whichever attempt
    case AckResult::kDuplicate:
    case AckResult::kSuperseded:
        ++(ack.result == AckResult::kStored      ? counts_.stored
           : ack.result == AckResult::kDuplicate ? counts_.duplicates
                                                 : counts_.superseded);
        trouble_.clear();
        over_ns_[ack.lane] = now;
        lanes_.done(ack.lane);
        break;
    case AckResult::kNobodyThere:
    case AckResult::kRefused:
        if (entry.attempt == ack.attempt) {
            trouble_ = ack.result == AckResult::kRefused
                           ? ack.reason
                           : fmt::format("no server has the stream {} now", options_.stream);
            ++counts_.refusals;
            retry(ack.lane, now);
        }
        break;
    }
}

void Sender::retry(uint32_t lane, uint64_t now_ns) {
    const uint32_t doublings = std::min<uint32_t>(lanes_.front(lane).attempt - 1, 10);
    lanes_.later(lane, now_ns + std::min(kFirstPauseNs << doublings, kLongestPauseNs));
}

void Sender::take_overdue(uint64_t now_ns) {
    while (!deadlines_.empty() && deadlines_.front().due_ns <= now_ns) {
        const Deadline late = deadlines_.front();
        deadlines_.pop_front();
        if (lanes_.is_under_way(late.lane) && lanes_.front(late.lane).number == late.number &&
            lanes_.front(late.lane).attempt == late.attempt) {
            trouble_ = "acknowledgements do not come";
            lanes_.later(late.lane, now_ns);
        }
    }
}

void Sender::read_marks_if_due(uint64_t now_ns) {
    const bool first = marks_time_ns_ == 0;
    if ((!first && !lanes_.has_aside()) || now_ns < next_marks_ns_) {
        return;
    }
    const uint64_t time_ns = realtime_ns();
    std::string reason;
    ++counts_.mark_reads;
    if (read_marks(link_.jetstream(), options_.stream, marks_, reason)) {
        marks_time_ns_ = time_ns;
        marks_monotonic_ns_ = now_ns;
        lanes_.release();
    } else {
        trouble_ = "cannot ask what the stream has: " + reason;
    }
    next_marks_ns_ = monotonic_ns() + kMarksPauseNs;
}

void Sender::send_what_may_go(uint64_t now_ns) {
    if (marks_time_ns_ == 0) {
        return;
    }
    while (lanes_.under_way() < options_.under_way) {
        const uint32_t lane = lanes_.next(now_ns);
        if (lane == kLanes) {
            return;
        }
        send(lane, now_ns);
    }
}

const Mark* Sender::mark_of(const Outgoing& message) const {
    const auto found = message.is_event ? marks_.end() : marks_.find(subject_of(message));
    return found == marks_.end() ? nullptr : &found->second;
}

Sender::Verdict Sender::judge(uint32_t lane, const Mark* mark) const {
    const Lanes::Entry& entry = lanes_.front(lane);
    const Outgoing& message = entry.message;
    if (message.is_event) {
        return Verdict::kSend;
    }
    const bool value = (message.flags & kPayloadValue) != 0;
    if (mark != nullptr && mark->label == options_.stamp.label) {
        const uint32_t change_no = message.record.change_no;
        // A value was put there only because its update was not, which may therefore follow.
        const bool there =
            mark->is_value && !value ? change_no < mark->change_no : change_no <= mark->change_no;
        if (there) {
            return Verdict::kThere;
        }
    }
    if (value) { // its condition is the place of what this lane has sent last
        return marks_monotonic_ns_ > std::max(entry.queued_ns, over_ns_[lane])
                   ? Verdict::kSend
                   : Verdict::kReadMarks;
    }
    const uint64_t relied_on = std::max(message.receive_time_ns, marks_time_ns_);
    const uint64_t now = realtime_ns();
    return now > relied_on && now - relied_on > options_.window_ns / 2 ? Verdict::kReadMarks
                                                                       : Verdict::kSend;
}

void Sender::send(uint32_t lane, uint64_t now_ns) {
    Lanes::Entry& entry = lanes_.front(lane);
    switch (judge(lane, mark_of(entry.message))) {
    case Verdict::kThere:
        ++counts_.known;
        lanes_.done(lane);
        return;
    case Verdict::kReadMarks:
        lanes_.aside(lane);
        return;
    case Verdict::kSend:
        break;
    }
    ++entry.attempt;
    ++counts_.attempts;
    counts_.retries += entry.attempt > 1;
    if (put_on_wire(entry, lane)) {
        deadlines_.push_back({now_ns + options_.ack_wait_ns, lane, entry.number, entry.attempt});
    } else {
        retry(lane, now_ns);
    }
}

bool Sender::put_on_wire(const Lanes::Entry& entry, uint32_t lane) {
    const std::string subject = subject_of(entry.message);
    const std::string payload = encode_payload(entry.message, options_.stamp, options_.format);
    NatsPtr<natsMsg> message;
    natsStatus status = nats_make(message, [&](natsMsg** to) {
        return natsMsg_Create(to, subject.c_str(),
                              inbox_.reply_subject(lane, entry.number, entry.attempt).c_str(),
                              payload.data(), static_cast<int>(payload.size()));
    });
    const auto header = [&](const char* name, const std::string& value) {
        status = status == NATS_OK ? natsMsgHeader_Set(message.get(), name, value.c_str()) : status;
    };
    header("Nats-Msg-Id", message_id_of(entry.message, options_.stamp));
    header("Nats-Expected-Stream", options_.stream);
    if ((entry.message.flags & kPayloadValue) != 0) {
        const Mark* const mark = mark_of(entry.message);
        header("Nats-Expected-Last-Subject-Sequence",
               std::to_string(mark != nullptr ? mark->stream_sequence : 0));
    }
    status =
        status == NATS_OK ? natsConnection_PublishMsg(link_.connection(), message.get()) : status;
    if (status != NATS_OK) {
        trouble_ = nats_text(status);
    }
    return status == NATS_OK;
}

} // namespace vorn_cli
