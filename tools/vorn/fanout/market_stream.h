#pragma once

// The JetStream stream that holds what `vorn fanout` publishes: subjects md.>, one for all labels.

#include "tools/vorn/fanout/nats_link.h"

#include <cstdint>
#include <functional>
#include <string>
#include <unordered_map>

namespace vorn_cli {

struct StreamOptions {
    std::string name = "VORN";
    int replicas = 1;
    bool memory = false;
    uint64_t window_ns = 120'000'000'000;     // in which a second message of an id is dropped
    uint64_t max_age_ns = 86'400'000'000'000; // what is older is removed; 0: nothing is
    uint64_t max_bytes = uint64_t{4} << 30;   // the oldest are removed; 0: none are
};

struct StreamFacts {
    uint64_t window_ns = 0;
    int replicas = 0;
    uint64_t messages = 0;
    uint64_t last_sequence = 0;
    std::string leader; // of a cluster
    bool created = false;
};

// Nothing is thrown for a server that does not answer now; `trouble` then says what it is.
bool stream_facts(jsCtx* jetstream, const std::string& name, StreamFacts& facts,
                  std::string& trouble);

// Of the newest message whose subject is matched; 0 when there is none.
bool last_sequence(jsCtx* jetstream, const std::string& name, const std::string& subject,
                   uint64_t& sequence, std::string& trouble);

// The stream, made when it is not there; one that is there is left as it is. Tries until `deadline`
// (vorn_bus::clock_ns of CLOCK_MONOTONIC), because a cluster that has just begun has no leader yet.
// Throws Failure.
StreamFacts open_stream(jsCtx* jetstream, const StreamOptions& options, uint64_t deadline_ns,
                        const std::function<bool()>& running);

// The newest message of each subject that is about an instrument.
struct Mark {
    std::string label;
    uint32_t change_no = 0;
    bool is_value = false;
    uint64_t stream_sequence = 0;
};
using Marks = std::unordered_map<std::string, Mark>;

// Reads them. False, with the reason in `trouble`, when they could not be read to the end.
bool read_marks(jsCtx* jetstream, const std::string& name, Marks& marks, std::string& trouble);

} // namespace vorn_cli
