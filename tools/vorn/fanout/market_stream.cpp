#include "tools/vorn/fanout/market_stream.h"

#include "bus/bus_process.h"
#include "tools/vorn/exit_code.h"
#include "tools/vorn/fanout/subjects.h"

#include <fmt/format.h>

#include <chrono>
#include <thread>

namespace vorn_cli {

namespace {

constexpr int64_t kMarkWaitMs = 2000; // between two messages of the marks
constexpr auto kRetryPause = std::chrono::milliseconds(200);

StreamFacts facts_of(const jsStreamInfo& info) {
    StreamFacts facts;
    facts.window_ns = static_cast<uint64_t>(info.Config->Duplicates);
    facts.replicas = static_cast<int>(info.Config->Replicas);
    facts.messages = info.State.Msgs;
    facts.last_sequence = info.State.LastSeq;
    if (info.Cluster != nullptr && info.Cluster->Leader != nullptr) {
        facts.leader = info.Cluster->Leader;
    }
    return facts;
}

natsStatus add_stream(jsCtx* jetstream, const StreamOptions& options, StreamFacts& facts,
                      jsErrCode& code) {
    jsStreamConfig config;
    jsStreamConfig_Init(&config);
    const char* subjects[] = {kAllSubjects};
    config.Name = options.name.c_str();
    config.Description = "updates and events of vorn fanout";
    config.Subjects = subjects;
    config.SubjectsLen = 1;
    config.Storage = options.memory ? js_MemoryStorage : js_FileStorage;
    config.Replicas = options.replicas;
    config.Duplicates = static_cast<int64_t>(options.window_ns);
    config.MaxAge = static_cast<int64_t>(options.max_age_ns);
    config.MaxBytes = options.max_bytes == 0 ? -1 : static_cast<int64_t>(options.max_bytes);
    config.AllowDirect = true;
    NatsPtr<jsStreamInfo> info;
    const natsStatus status = nats_make(info, [&](jsStreamInfo** to) {
        return js_AddStream(to, jetstream, &config, nullptr, &code);
    });
    if (status == NATS_OK) {
        facts = facts_of(*info);
        facts.created = true;
    }
    return status;
}

// Answers that another try does not change.
bool is_final(jsErrCode code) {
    return code == JSInsufficientResourcesErr || code == JSNotEnabledErr ||
           code == JSNotEnabledForAccountErr || code == JSStreamSubjectOverlapErr ||
           code == JSStreamInvalidConfig || code == JSStorageResourcesExceededErr ||
           code == JSMemoryResourcesExceededErr || code == JSStreamReplicasNotSupportedErr ||
           code == JSAccountResourcesExceededErr || code == JSStreamStoreFailedErr;
}

} // namespace

bool stream_facts(jsCtx* jetstream, const std::string& name, StreamFacts& facts,
                  std::string& trouble) {
    NatsPtr<jsStreamInfo> info;
    const natsStatus status = nats_make(info, [&](jsStreamInfo** to) {
        return js_GetStreamInfo(to, jetstream, name.c_str(), nullptr, nullptr);
    });
    if (status != NATS_OK) {
        trouble = status == NATS_NOT_FOUND ? fmt::format("there is no stream {}", name)
                                           : nats_text(status);
        return false;
    }
    facts = facts_of(*info);
    return true;
}

StreamFacts open_stream(jsCtx* jetstream, const StreamOptions& options, uint64_t deadline_ns,
                        const std::function<bool()>& running) {
    for (;;) {
        StreamFacts facts;
        std::string trouble;
        if (stream_facts(jetstream, options.name, facts, trouble)) {
            return facts;
        }
        jsErrCode code{};
        const natsStatus status = add_stream(jetstream, options, facts, code);
        if (status == NATS_OK) {
            return facts;
        }
        trouble = nats_text(status);
        if (is_final(code)) {
            throw Failure(kFailed,
                          fmt::format("the stream {} cannot be made: {}", options.name, trouble));
        }
        if (!running()) {
            return facts;
        }
        if (vorn_bus::clock_ns(CLOCK_MONOTONIC) >= deadline_ns) {
            throw Failure(kTimedOut,
                          fmt::format("the stream {} cannot be made: {} (does the server run with "
                                      "JetStream, nats-server -js, and enough servers for {} "
                                      "replicas?)",
                                      options.name, trouble, options.replicas));
        }
        std::this_thread::sleep_for(kRetryPause);
    }
}

bool last_sequence(jsCtx* jetstream, const std::string& name, const std::string& subject,
                   uint64_t& sequence, std::string& trouble) {
    NatsPtr<natsMsg> message;
    const natsStatus status = nats_make(message, [&](natsMsg** to) {
        return js_GetLastMsg(to, jetstream, name.c_str(), subject.c_str(), nullptr, nullptr);
    });
    if (status != NATS_OK && status != NATS_NOT_FOUND) {
        trouble = nats_text(status);
        return false;
    }
    sequence = status == NATS_OK ? natsMsg_GetSequence(message.get()) : 0;
    return true;
}

bool read_marks(jsCtx* jetstream, const std::string& name, Marks& marks, std::string& trouble) {
    marks.clear();
    StreamFacts facts;
    if (!stream_facts(jetstream, name, facts, trouble)) {
        return false;
    }
    if (facts.messages == 0) {
        return true;
    }
    jsSubOptions options;
    jsSubOptions_Init(&options);
    options.Stream = name.c_str();
    options.Config.DeliverPolicy = js_DeliverLastPerSubject;
    options.Config.AckPolicy = js_AckNone;
    options.Config.HeadersOnly = true;
    options.Config.MemoryStorage = true;
    options.Config.Replicas = 1;
    NatsPtr<natsSubscription> subscription;
    natsStatus status = nats_make(subscription, [&](natsSubscription** to) {
        return js_SubscribeSync(to, jetstream, kAllSubjects, nullptr, &options, nullptr);
    });
    // The newest message of all is the newest of its subject, and so the last of these. (Each also
    // tells how many are to come, but not always truly.)
    uint64_t expected = 1;
    for (bool end = false; status == NATS_OK && !end;) {
        NatsPtr<natsMsg> message;
        status = nats_make(message, [&](natsMsg** to) {
            return natsSubscription_NextMsg(to, subscription.get(), kMarkWaitMs);
        });
        NatsPtr<jsMsgMetaData> meta;
        if (status != NATS_OK || (status = nats_make(meta, [&](jsMsgMetaData** to) {
                                      return natsMsg_GetMetaData(to, message.get());
                                  })) != NATS_OK) {
            break;
        }
        if (meta->Sequence.Consumer != expected++) {
            trouble = "messages were lost on the way";
            return false;
        }
        end = meta->Sequence.Stream >= facts.last_sequence;
        const char* id = nullptr;
        if (natsMsgHeader_Get(message.get(), "Nats-Msg-Id", &id) != NATS_OK) {
            continue;
        }
        if (const auto parsed = parse_update_id(id)) {
            marks[natsMsg_GetSubject(message.get())] = {parsed->label, parsed->change_no,
                                                        parsed->is_value, meta->Sequence.Stream};
        }
    }
    if (status != NATS_OK) {
        trouble = nats_text(status);
    }
    return status == NATS_OK;
}

} // namespace vorn_cli
