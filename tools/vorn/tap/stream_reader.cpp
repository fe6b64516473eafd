#include "tools/vorn/tap/stream_reader.h"

#include "bus/bus_process.h"
#include "tools/vorn/fanout/market_stream.h"

#include <chrono>
#include <thread>
#include <utility>

namespace vorn_cli {

namespace {

constexpr uint64_t kReopenPauseNs = 200'000'000;
// Without anything from the server for two of these, it has forgotten this reader.
constexpr int64_t kHeartbeatNs = 2'000'000'000;
constexpr int64_t kForgetNs = 10'000'000'000; // then the server forgets a reader that has gone

} // namespace

StreamReader::StreamReader(const NatsLink& link, std::string stream, std::string subject,
                           ReadFrom from)
    : link_(link), stream_(std::move(stream)), subject_(std::move(subject)), from_(from),
      past_last_(from != ReadFrom::kLast) {}

void StreamReader::resume_behind(uint64_t sequence) {
    position_ = sequence;
    resumed_ = true;
    past_last_ = true;
}

void StreamReader::give_up(const std::string& why) {
    trouble_ = why;
    subscription_.reset();
    next_open_ns_ = vorn_bus::clock_ns(CLOCK_MONOTONIC) + kReopenPauseNs;
}

bool StreamReader::open() {
    StreamFacts facts;
    std::string trouble;
    if (!stream_facts(link_.jetstream(), stream_, facts, trouble)) {
        give_up(trouble);
        return false;
    }
    if (facts.last_sequence < position_) { // another stream of that name
        position_ = 0;
    } else if (!opened_ && !resumed_ && from_ == ReadFrom::kNow) {
        position_ = facts.last_sequence;
    }
    if (!opened_) {
        if (!last_sequence(link_.jetstream(), stream_, subject_, then_last_, trouble)) {
            give_up(trouble);
            return false;
        }
        caught_up_ = then_last_ <= position_;
        past_last_ = past_last_ || caught_up_;
    }
    jsSubOptions options;
    jsSubOptions_Init(&options);
    options.Stream = stream_.c_str();
    options.Config.AckPolicy = js_AckNone;
    options.Config.FlowControl = true;
    options.Config.Heartbeat = kHeartbeatNs;
    options.Config.InactiveThreshold = kForgetNs;
    options.Config.MemoryStorage = true;
    options.Config.Replicas = 1;
    if (!past_last_) {
        options.Config.DeliverPolicy = js_DeliverLastPerSubject;
    } else {
        options.Config.DeliverPolicy = js_DeliverByStartSequence;
        options.Config.OptStartSeq = position_ + 1;
    }
    const natsStatus status = nats_make(subscription_, [&](natsSubscription** to) {
        return js_SubscribeSync(to, link_.jetstream(), subject_.c_str(), nullptr, &options,
                                nullptr);
    });
    if (status != NATS_OK) {
        give_up(nats_text(status));
        return false;
    }
    // The server's flow control bounds what waits here.
    natsSubscription_SetPendingLimits(subscription_.get(), -1, -1);
    reopened_ += opened_;
    opened_ = true;
    expected_ = 1;
    trouble_.clear();
    return true;
}

bool StreamReader::next(StreamMessage& message, int64_t wait_ms) {
    if (!subscription_) {
        const uint64_t now = vorn_bus::clock_ns(CLOCK_MONOTONIC);
        if (now < next_open_ns_ || !link_.connected() || !open()) {
            std::this_thread::sleep_for(std::chrono::milliseconds(wait_ms));
            return false;
        }
    }
    for (;;) {
        natsStatus status = nats_make(message.bytes, [&](natsMsg** to) {
            return natsSubscription_NextMsg(to, subscription_.get(), wait_ms);
        });
        if (status == NATS_TIMEOUT) {
            return false;
        }
        NatsPtr<jsMsgMetaData> meta;
        if (status == NATS_OK) {
            status = nats_make(meta, [&](jsMsgMetaData** to) {
                return natsMsg_GetMetaData(to, message.bytes.get());
            });
        }
        if (status != NATS_OK) {
            give_up(nats_text(status));
            return false;
        }
        if (meta->Sequence.Consumer != expected_) {
            give_up("messages were lost on the way; they are asked for again");
            return false;
        }
        ++expected_;
        const uint64_t sequence = meta->Sequence.Stream;
        if (sequence >= then_last_) { // the newest of then is the last of those that were there
            caught_up_ = true;
            past_last_ = true;
        }
        if (sequence <= position_) {
            continue; // handed out before the server was asked anew
        }
        position_ = sequence;
        message.sequence = sequence;
        message.subject = natsMsg_GetSubject(message.bytes.get());
        message.payload = {natsMsg_GetData(message.bytes.get()),
                           static_cast<std::size_t>(natsMsg_GetDataLength(message.bytes.get()))};
        const char* id = nullptr;
        message.id = natsMsgHeader_Get(message.bytes.get(), "Nats-Msg-Id", &id) == NATS_OK
                         ? std::string_view(id)
                         : std::string_view();
        return true;
    }
}

} // namespace vorn_cli
