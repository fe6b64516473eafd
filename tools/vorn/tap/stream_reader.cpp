#include "tools/vorn/tap/stream_reader.h"

#include "bus/bus_process.h"
#include "tools/vorn/fanout/market_stream.h"

#include <chrono>
#include <thread>
#include <utility>

namespace vorn_cli {

namespace {

constexpr uint64_t kReopenPauseNs = 200'000'000;
constexpr int64_t kHeartbeatNs = 1'000'000'000; // of a server that has nothing to send
constexpr uint64_t kSilenceNs = 4'000'000'000;  // after which it is asked anew
constexpr int64_t kForgetNs = 30'000'000'000;   // then it forgets a reader that has gone
constexpr int64_t kAskMs = 2000;                // for an answer

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

StreamReader::~StreamReader() {
    if (subscription_ && link_.connected()) {
        jsOptions options;
        jsOptions_Init(&options);
        options.Wait = kAskMs;
        js_DeleteConsumer(link_.jetstream(), stream_.c_str(), consumer_.c_str(), &options, nullptr);
    }
}

void StreamReader::give_up(const std::string& why) {
    trouble_ = why;
    subscription_.reset();
    next_open_ns_ = vorn_bus::clock_ns(CLOCK_MONOTONIC) + kReopenPauseNs;
}

bool StreamReader::open() {
    std::string trouble;
    StreamFacts facts;
    if (!stream_facts(link_.jetstream(), stream_, facts, trouble) ||
        (!opened_ && !last_sequence(link_.jetstream(), stream_, subject_, then_last_, trouble))) {
        give_up(trouble);
        return false;
    }
    if (facts.last_sequence < position_) { // another stream of that name
        position_ = 0;
    } else if (!opened_ && !resumed_ && from_ == ReadFrom::kNow) {
        position_ = facts.last_sequence;
    }
    if (!opened_) {
        caught_up_ = then_last_ <= position_;
        past_last_ = past_last_ || caught_up_;
    }
    if (!add_consumer(trouble)) {
        give_up(trouble);
        return false;
    }
    reopened_ += opened_;
    opened_ = true;
    expected_ = 1;
    heard_ns_ = vorn_bus::clock_ns(CLOCK_MONOTONIC);
    trouble_.clear();
    return true;
}

bool StreamReader::add_consumer(std::string& trouble) {
    natsInbox* inbox = nullptr;
    natsStatus status = natsInbox_Create(&inbox);
    const std::string subject = status == NATS_OK ? inbox : "";
    natsInbox_Destroy(inbox);
    if (status == NATS_OK) {
        status = nats_make(subscription_, [&](natsSubscription** to) {
            return natsConnection_SubscribeSync(to, link_.connection(), subject.c_str());
        });
    }
    if (status == NATS_OK) { // the server's flow control bounds what waits here
        status = natsSubscription_SetPendingLimits(subscription_.get(), -1, -1);
    }
    jsConsumerConfig config;
    jsConsumerConfig_Init(&config);
    config.DeliverSubject = subject.c_str();
    config.FilterSubject = subject_.c_str();
    config.AckPolicy = js_AckNone;
    config.FlowControl = true;
    config.Heartbeat = kHeartbeatNs;
    config.InactiveThreshold = kForgetNs;
    config.MemoryStorage = true;
    config.Replicas = 1;
    if (past_last_) {
        config.DeliverPolicy = js_DeliverByStartSequence;
        config.OptStartSeq = position_ + 1;
    } else {
        config.DeliverPolicy = js_DeliverLastPerSubject;
    }
    jsOptions options;
    jsOptions_Init(&options);
    options.Wait = kAskMs;
    jsConsumerInfo* info = nullptr;
    if (status == NATS_OK) {
        status =
            js_AddConsumer(&info, link_.jetstream(), stream_.c_str(), &config, &options, nullptr);
    }
    if (status != NATS_OK) {
        trouble = nats_text(status);
        return false;
    }
    consumer_ = info->Name;
    jsConsumerInfo_Destroy(info);
    return true;
}

// Whether it is one of the server's own, which are answered if it asks for that.
bool StreamReader::is_status(natsMsg* message) const {
    const char* value = nullptr;
    if (natsMsgHeader_Get(message, "Status", &value) != NATS_OK) {
        return false;
    }
    const char* answer = natsMsg_GetReply(message);
    if (natsMsgHeader_Get(message, "Nats-Consumer-Stalled", &value) == NATS_OK) {
        answer = value;
    }
    if (answer != nullptr) {
        natsConnection_Publish(link_.connection(), answer, nullptr, 0);
    }
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
    while (subscription_) {
        const natsStatus status = nats_make(message.bytes, [&](natsMsg** to) {
            return natsSubscription_NextMsg(to, subscription_.get(), wait_ms);
        });
        if (status == NATS_OK) {
            heard_ns_ = vorn_bus::clock_ns(CLOCK_MONOTONIC);
            if (!is_status(message.bytes.get()) && take(message)) {
                return true;
            }
            continue;
        }
        if (status != NATS_TIMEOUT) {
            give_up(nats_text(status));
        } else if (vorn_bus::clock_ns(CLOCK_MONOTONIC) - heard_ns_ > kSilenceNs) {
            give_up("the server is silent; it is asked anew");
        }
        return false;
    }
    return false;
}

// False when the message is not the next one.
bool StreamReader::take(StreamMessage& message) {
    NatsPtr<jsMsgMetaData> meta;
    const natsStatus status = nats_make(
        meta, [&](jsMsgMetaData** to) { return natsMsg_GetMetaData(to, message.bytes.get()); });
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
        return false; // handed out before the server was asked anew
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

} // namespace vorn_cli
