#include "tools/vorn/tap/tap_output.h"

#include "tools/vorn/bus_view/feed_json.h"
#include "tools/vorn/bus_view/feed_state.h"
#include "tools/vorn/exit_code.h"
#include "tools/vorn/feed/feed_text.h"
#include "tools/vorn/messages.h"
#include "tools/vorn/record/csv_row.h"
#include "tools/vorn/terminal.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <ctime>
#include <unistd.h>
#include <utility>

namespace vorn_cli {

namespace {

std::string time_text(uint64_t time_ns) {
    const auto seconds = static_cast<std::time_t>(time_ns / 1'000'000'000);
    std::tm parts{};
    ::localtime_r(&seconds, &parts);
    return fmt::format("{:02}:{:02}:{:02}.{:06}", parts.tm_hour, parts.tm_min, parts.tm_sec,
                       time_ns % 1'000'000'000 / 1000);
}

std::string event_line(const Incoming& incoming) {
    const vorn_md_event_t& event = incoming.message.event;
    std::string text = fmt::format("{} event {} of {}", time_text(incoming.message.receive_time_ns),
                                   event_kind_name(event.type), incoming.stamp.source);
    switch (event.type) {
    case VORN_MD_EVENT_PHASE:
        return text + ": " + feed_phase_name(event.phase);
    case VORN_MD_EVENT_GAP:
        return text + fmt::format(": {}, {} instead of {}", instrument_text(event.inst_id),
                                  event.received, event.expected);
    case VORN_MD_EVENT_ROUND:
        return text + fmt::format(": {}, {} instruments", feed_name(event.feed), event.count);
    default:
        return text + fmt::format(": {}", event.count);
    }
}

RecordTarget row_target(const std::string& path, bool force) {
    RecordTarget target;
    target.path = path;
    target.force = force;
    target.head = std::string(csv_header());
    return target;
}

} // namespace

std::string heard_line(const Incoming& incoming) {
    if (incoming.message.is_event) {
        return event_line(incoming);
    }
    const Outgoing& message = incoming.message;
    const instrument& r = message.record;
    return fmt::format(
        "{} {} {} #{}{} {} x {} | {} x {} last {} volume {}", time_text(message.receive_time_ns),
        message.slot < SHFE_MAX_INST_CNT ? "shfe" : "ine", instrument_text(r.inst_id), r.change_no,
        (message.flags & kPayloadValue) != 0 ? " (value)" : "", r.bid_vol[0], r.bid_px[0],
        r.ask_px[0], r.ask_vol[0], r.last_px, r.volume);
}

void TapLines::put(const Heard& heard) {
    if (!heard.binary) { // as it came, if it is what it says
        if (json_) {
            out_.line(printable(heard.payload));
        } else {
            out_.line(fmt::format("{} {}", printable(heard.subject), printable(heard.payload)));
        }
        return;
    }
    if (json_) {
        out_.json(payload_json(heard.binary->message, heard.binary->stamp));
    } else {
        out_.line(heard_line(*heard.binary));
    }
}

TapRows::TapRows(const std::string& path, bool force) : files_(row_target(path, force)) {
    files_.on_trouble([](const std::string& trouble) {
        write_message(printable("vorn tap: " + trouble + " (what is lost is counted)"));
    });
}

void TapRows::put(const Incoming& incoming) {
    if (incoming.message.is_event || (incoming.message.flags & kPayloadValue) != 0) {
        return;
    }
    append_csv_row(files_.begin_record(incoming.message.receive_time_ns), incoming.message.record);
    files_.end_record();
    files_.flush_if_due();
}

void TapRows::close() {
    files_.close();
    if (files_.unnamed()) {
        throw Failure(kFailed, files_.trouble());
    }
    if (files_.lost() != 0) {
        throw Failure(kDiffer, fmt::format("{} rows were lost on the disk: {}",
                                           grouped(files_.lost()), files_.trouble()));
    }
}

} // namespace vorn_cli
