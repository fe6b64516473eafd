#pragma once

// What `vorn fanout` sends: one message an update or an event. docs/fanout.md has the layout with
// byte offsets for readers in other languages; a test holds the two together.
//
// Everything is little-endian. Times are nanoseconds since the Unix epoch, because CLOCK_MONOTONIC
// means nothing on another host.

#include "ExanicMdMonitor.h"
#include "ExanicMdTypes.h"

#include <nlohmann/json_fwd.hpp>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace vorn_cli {

inline constexpr char kPayloadMagic[4] = {'V', 'O', 'R', 'N'};
inline constexpr uint16_t kPayloadVersion = 1;
inline constexpr uint16_t kUpdatePayload = 1;
inline constexpr uint16_t kEventPayload = 2;
inline constexpr std::size_t kStampSize = 16; // of a name with its NUL

// Bits of PayloadHead::flags.
inline constexpr uint32_t kPayloadReplay = 1; // update of the cached changes behind a snapshot
inline constexpr uint32_t kPayloadValue = 2;  // not an update: the state as a snapshot left it

// Event types beyond those of ExanicMdMonitor.h: what a publisher sees of its bus, and of itself.
inline constexpr uint32_t kEventOpened = 101;  // a writer's bus; count: its generation
inline constexpr uint32_t kEventClosed = 102;  // the writer has ended in order
inline constexpr uint32_t kEventDead = 103;    // the writer has died
inline constexpr uint32_t kEventDropped = 104; // count: ring records lost by this publisher so far

struct PayloadHead {
    char magic[4];            //  0: kPayloadMagic
    uint16_t version;         //  4: kPayloadVersion
    uint16_t kind;            //  6: 1 update, 2 event
    uint32_t flags;           //  8: kPayload...
    uint32_t slot;            // 12: of the instrument; 0xffffffff: an event without one
    uint64_t receive_time_ns; // 16: when the publisher's feed had it
    uint64_t sequence;        // 24: number of the record in the ring of the publisher's bus
    uint64_t generation;      // 32: of that bus
    char source[kStampSize];  // 40: name of the publisher, NUL-terminated
    char label[kStampSize];   // 56: trading session, NUL-terminated
};
inline constexpr std::size_t kUpdatePayloadSize = sizeof(PayloadHead) + sizeof(instrument);
inline constexpr std::size_t kEventPayloadSize = sizeof(PayloadHead) + sizeof(vorn_md_event_t);

static_assert(sizeof(PayloadHead) == 72);
static_assert(offsetof(PayloadHead, kind) == 6 && offsetof(PayloadHead, slot) == 12);
static_assert(offsetof(PayloadHead, receive_time_ns) == 16);
static_assert(offsetof(PayloadHead, sequence) == 24 && offsetof(PayloadHead, generation) == 32);
static_assert(offsetof(PayloadHead, source) == 40 && offsetof(PayloadHead, label) == 56);
static_assert(kUpdatePayloadSize == 408 && kEventPayloadSize == 136);

// An update or an event on its way; the names of its publisher are the same for all.
struct Outgoing {
    uint64_t receive_time_ns = 0;
    uint64_t sequence = 0;
    uint64_t generation = 0;
    uint32_t flags = 0;
    uint32_t slot = 0;
    bool is_event = false;
    union {
        instrument record;
        vorn_md_event_t event; // its time since the Unix epoch
    };
    Outgoing() : record{} {}
};

// Names the publisher and the trading session; at most 15 letters, digits, '_' and '-'.
struct Stamp {
    std::string source;
    std::string label;
};
bool is_stamp_name(std::string_view name);

enum class PayloadFormat : uint8_t { kBinary, kJson };

std::string encode_payload(const Outgoing& message, const Stamp& stamp, PayloadFormat format);

struct Incoming {
    Outgoing message;
    Stamp stamp;
};
// From binary only; nothing when the bytes are not such a payload.
std::optional<Incoming> decode_payload(std::string_view bytes);

// "phase", "gap", "restart", "round", "overflow", "opened", "closed", "dead", "dropped"; "other"
// for a type that is not known.
const char* event_kind_name(uint32_t type);

nlohmann::json payload_json(const Outgoing& message, const Stamp& stamp);

} // namespace vorn_cli
