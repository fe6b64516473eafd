#pragma once

// How far a tap with a name has come, kept by the servers themselves (a key-value bucket), so that
// it goes on there after a restart, on whichever host.

#include "tools/vorn/fanout/nats_link.h"

#include <cstdint>
#include <optional>
#include <string>

namespace vorn_cli {

class TapPosition {
public:
    // Makes the bucket when it is not there. Throws Failure.
    TapPosition(const NatsLink& link, const std::string& stream, const std::string& name,
                int replicas);

    std::optional<uint64_t> read() const; // throws Failure when it cannot be asked for
    bool write(uint64_t sequence);        // false: not now; try again

private:
    NatsPtr<kvStore> store_;
    std::string key_;
    uint64_t written_ = 0;
};

} // namespace vorn_cli
