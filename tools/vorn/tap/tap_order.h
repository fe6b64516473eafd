#pragma once

// What of the stream goes out of a tap: each update once and each instrument's in order, whatever
// the publishers did. The stream is like that by itself; what is not is a publisher that has lost
// updates, or one that had the same label in another session.

#include "tools/vorn/fanout/subjects.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>

namespace vorn_cli {

enum class TapVerdict : uint8_t {
    kNewest,   // newer than anything of its instrument before
    kLate,     // an update that is new, but behind a value that a snapshot left
    kRepeated, // not to go out
};

class TapOrder {
public:
    TapVerdict judge(std::string_view subject, const UpdateId& id);
    bool is_new_event(std::string_view id);

    uint64_t updates() const { return updates_; } // that go out
    uint64_t values() const { return values_; }
    uint64_t repeated() const { return repeated_; } // updates and values that do not
    // Change numbers that were passed over: a gap at every publisher, or a label used twice.
    uint64_t missing() const { return missing_; }

private:
    struct Last {
        bool has_update = false;
        bool has_any = false;
        uint32_t update = 0; // change numbers
        uint32_t any = 0;
    };
    static constexpr std::size_t kEventIds = 65536; // that are remembered

    std::unordered_map<std::string, Last> last_; // by label and subject
    std::unordered_set<std::string> event_ids_;
    std::string key_;
    uint64_t updates_ = 0;
    uint64_t values_ = 0;
    uint64_t repeated_ = 0;
    uint64_t missing_ = 0;
};

} // namespace vorn_cli
