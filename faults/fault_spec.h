#pragma once

// Faults as users write them: KIND[@TIME][:COUNT], several joined by '+'.
//
//   gap                 one change lost on both lines
//   gap@2.5:3           three changes, from 2.5 seconds after the first frame on
//   line-a-loss:500+tcp-loss

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace faults {

enum class Kind : uint8_t {
    kGap,
    kDuplicate,
    kReorder,
    kLineALoss,
    kLineBLoss,
    kOverflow,
    kBadChecksum,
    kTruncate,
    kTcpLoss,
    kTcpReorder,
    kTcpDuplicate,
    kRstAck,
    kBadBook,
    kPriceCheck,
    kWrongTopic,
    kUnknownField,
    kBigNumber,
    kLateSnapshot,
};

struct FaultSpec {
    Kind kind = Kind::kGap;
    // Nanoseconds after the first frame; without it, where the kind has its effect (README.md).
    std::optional<uint64_t> at_ns;
    uint32_t count = 1; // at least 1

    bool operator==(const FaultSpec&) const = default;
};

struct KindInfo {
    Kind kind;
    const char* name;
    const char* summary; // one line for a help text
};
std::span<const KindInfo> all_kinds();
const char* name_of(Kind kind);
// False for what happens in the card and not on the wire.
bool fits_into_a_capture(Kind kind);

// Appends what `text` asks for to `faults`. False with a one-line reason in `error`, which says
// what would work.
bool parse_faults(std::string_view text, std::vector<FaultSpec>& faults, std::string& error);

} // namespace faults
