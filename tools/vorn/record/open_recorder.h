#pragma once

// A recorder from what the user asks for.

#include "tools/vorn/check/effective_config.h"
#include "tools/vorn/record/recorder.h"

#include <memory>
#include <string>
#include <vector>

namespace vorn_cli {

struct RecorderRequest {
    std::string output; // its suffix chooses the kind
    bool force = false;
    uint64_t rotate_bytes = 0; // 0: no rotation
    uint64_t rotate_ns = 0;
    uint64_t ring_bytes = 0; // 0: the default
    bool write_through = false;
    EffectiveConfig config;
};

// ".pcap", ".csv"
const std::vector<std::string>& recording_suffixes();

// Opens the first file. Throws Failure.
std::unique_ptr<Recorder> open_recorder(const RecorderRequest& request);

// "4096", "64K", "500M", "1G" in bytes; "90s", "15m", "1h" in nanoseconds; 0 for an empty text.
// Throws Failure(kUsage) naming the option.
uint64_t parse_size(const char* option, const std::string& text);
uint64_t parse_duration(const char* option, const std::string& text);

// For counts with a loss: what was lost and why.
std::string loss_text(const RecorderCounts& counts);

} // namespace vorn_cli
