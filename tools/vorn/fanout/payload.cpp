#include "tools/vorn/fanout/payload.h"

#include "bus/bus_layout.h"
#include "tools/vorn/bus_view/feed_json.h"
#include "tools/vorn/bus_view/feed_state.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <bit>
#include <cstring>

namespace vorn_cli {

namespace {

static_assert(std::endian::native == std::endian::little, "payloads are copied as they are");

void put_name(char (&to)[kStampSize], const std::string& name) {
    std::memcpy(to, name.data(), std::min(name.size(), kStampSize - 1));
}

std::string name_of(const char (&from)[kStampSize]) {
    return {from, strnlen(from, kStampSize)};
}

nlohmann::json event_json(const vorn_md_event_t& event) {
    nlohmann::json object = {{"type", "event"},
                             {"kind", event_kind_name(event.type)},
                             {"phase", feed_phase_name(event.phase)},
                             {"count", event.count}};
    if (event.type == VORN_MD_EVENT_PHASE) {
        object["previous_phase"] = feed_phase_name(event.previous_phase);
    } else if (event.type == VORN_MD_EVENT_ROUND) {
        object["feed"] = feed_name(event.feed);
    } else if (event.type == VORN_MD_EVENT_GAP) {
        object["slot"] = event.slot;
        object["inst_id"] = instrument_text(event.inst_id);
        object["expected"] = event.expected;
        object["received"] = event.received;
    }
    return object;
}

} // namespace

bool is_stamp_name(std::string_view name) {
    return !name.empty() && name.size() < kStampSize &&
           std::all_of(name.begin(), name.end(), [](char c) {
               return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                      c == '_' || c == '-';
           });
}

const char* event_kind_name(uint32_t type) {
    switch (type) {
    case VORN_MD_EVENT_PHASE:
        return "phase";
    case VORN_MD_EVENT_GAP:
        return "gap";
    case VORN_MD_EVENT_RESTART:
        return "restart";
    case VORN_MD_EVENT_ROUND:
        return "round";
    case VORN_MD_EVENT_OVERFLOW:
        return "overflow";
    case kEventOpened:
        return "opened";
    case kEventClosed:
        return "closed";
    case kEventDead:
        return "dead";
    case kEventDropped:
        return "dropped";
    default:
        return "other";
    }
}

nlohmann::json payload_json(const Outgoing& message, const Stamp& stamp) {
    nlohmann::json object;
    if (message.is_event) {
        object = event_json(message.event);
        object["time_ns"] = message.receive_time_ns;
    } else {
        object = to_json(InstrumentState{message.slot, message.sequence, message.receive_time_ns,
                                         message.record});
        object["type"] = (message.flags & kPayloadValue) != 0 ? "value" : "update";
        object["replay"] = (message.flags & kPayloadReplay) != 0;
    }
    object["version"] = kPayloadVersion;
    object["sequence"] = message.sequence;
    object["generation"] = message.generation;
    object["source"] = stamp.source;
    object["label"] = stamp.label;
    return object;
}

std::string encode_payload(const Outgoing& message, const Stamp& stamp, PayloadFormat format) {
    if (format == PayloadFormat::kJson) {
        return payload_json(message, stamp)
            .dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
    }
    PayloadHead head{};
    std::memcpy(head.magic, kPayloadMagic, sizeof(head.magic));
    head.version = kPayloadVersion;
    head.kind = message.is_event ? kEventPayload : kUpdatePayload;
    head.flags = message.flags;
    head.slot = message.slot;
    head.receive_time_ns = message.receive_time_ns;
    head.sequence = message.sequence;
    head.generation = message.generation;
    put_name(head.source, stamp.source);
    put_name(head.label, stamp.label);

    std::string bytes(message.is_event ? kEventPayloadSize : kUpdatePayloadSize, '\0');
    std::memcpy(bytes.data(), &head, sizeof(head));
    if (message.is_event) {
        std::memcpy(bytes.data() + sizeof(head), &message.event, sizeof(message.event));
    } else {
        std::memcpy(bytes.data() + sizeof(head), &message.record, sizeof(message.record));
    }
    return bytes;
}

std::optional<Incoming> decode_payload(std::string_view bytes) {
    PayloadHead head;
    if (bytes.size() < sizeof(head)) {
        return std::nullopt;
    }
    std::memcpy(&head, bytes.data(), sizeof(head));
    const bool update = head.kind == kUpdatePayload && bytes.size() == kUpdatePayloadSize;
    const bool event = head.kind == kEventPayload && bytes.size() == kEventPayloadSize;
    if (std::memcmp(head.magic, kPayloadMagic, sizeof(head.magic)) != 0 ||
        head.version != kPayloadVersion || (!update && !event) ||
        (update && head.slot >= INSTRUMENT_SLOT_CNT)) {
        return std::nullopt;
    }
    Incoming incoming;
    Outgoing& message = incoming.message;
    message.flags = head.flags;
    message.slot = head.slot;
    message.receive_time_ns = head.receive_time_ns;
    message.sequence = head.sequence;
    message.generation = head.generation;
    message.is_event = event;
    if (event) {
        std::memcpy(&message.event, bytes.data() + sizeof(head), sizeof(message.event));
    } else {
        std::memcpy(&message.record, bytes.data() + sizeof(head), sizeof(message.record));
    }
    incoming.stamp = {name_of(head.source), name_of(head.label)};
    return incoming;
}

} // namespace vorn_cli
