#include "tools/vorn/tap/tap_position.h"

#include "tools/vorn/exit_code.h"

#include <charconv>
#include <fmt/format.h>

#include <cstring>

namespace vorn_cli {

namespace {
constexpr char kBucket[] = "VORN_TAPS";
} // namespace

TapPosition::TapPosition(const NatsLink& link, const std::string& stream, const std::string& name,
                         int replicas)
    : key_(stream + "." + name) {
    natsStatus status =
        nats_make(store_, [&](kvStore** to) { return js_KeyValue(to, link.jetstream(), kBucket); });
    if (status == NATS_NOT_FOUND) {
        kvConfig config;
        kvConfig_Init(&config);
        config.Bucket = kBucket;
        config.Description = "how far the taps with a name have come";
        config.History = 1;
        config.Replicas = replicas;
        status = nats_make(
            store_, [&](kvStore** to) { return js_CreateKeyValue(to, link.jetstream(), &config); });
    }
    if (status != NATS_OK) {
        throw Failure(kFailed, fmt::format("cannot open the bucket {} for --durable: {}", kBucket,
                                           nats_text(status)));
    }
}

std::optional<uint64_t> TapPosition::read() const {
    NatsPtr<kvEntry> entry;
    const natsStatus status =
        nats_make(entry, [&](kvEntry** to) { return kvStore_Get(to, store_.get(), key_.c_str()); });
    if (status == NATS_NOT_FOUND) {
        return std::nullopt;
    }
    if (status != NATS_OK) {
        throw Failure(kFailed,
                      fmt::format("cannot read where {} was: {}", key_, nats_text(status)));
    }
    const char* const text = kvEntry_ValueString(entry.get());
    uint64_t sequence = 0;
    if (text == nullptr ||
        std::from_chars(text, text + std::strlen(text), sequence).ec != std::errc()) {
        return std::nullopt;
    }
    return sequence;
}

bool TapPosition::write(uint64_t sequence) {
    if (sequence == written_) {
        return true;
    }
    const bool fine = kvStore_PutString(nullptr, store_.get(), key_.c_str(),
                                        std::to_string(sequence).c_str()) == NATS_OK;
    written_ = fine ? sequence : written_;
    return fine;
}

} // namespace vorn_cli
