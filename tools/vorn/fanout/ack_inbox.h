#pragma once

// Where JetStream's acknowledgements arrive. One thread.

#include "tools/vorn/fanout/nats_link.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace vorn_cli {

enum class AckResult : uint8_t {
    kStored,
    kDuplicate,   // the stream had a message of this id
    kSuperseded,  // a value, and something newer of its subject came first
    kNobodyThere, // no server has the stream now
    kRefused,     // `reason` says why
};

struct Ack {
    uint32_t lane = 0;
    uint64_t number = 0; // of the message, as Lanes counts them
    uint32_t attempt = 0;
    AckResult result = AckResult::kStored;
    std::string reason;
};

// What an acknowledgement says.
AckResult parse_ack(std::string_view text, std::string& reason);

class AckInbox {
public:
    // Throws Failure.
    explicit AckInbox(natsConnection* connection);
    // Where an attempt's acknowledgement is to go.
    std::string reply_subject(uint32_t lane, uint64_t number, uint32_t attempt) const;

    // The next one, if it comes within so many milliseconds; 0: if it is there.
    bool next(Ack& ack, int64_t wait_ms);

private:
    std::string prefix_;
    NatsPtr<natsSubscription> subscription_;
};

} // namespace vorn_cli
