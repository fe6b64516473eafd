#include "tools/vorn/info/info_report.h"

#include <ctime>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace vorn_cli {

namespace {

using nlohmann::json;

constexpr uint64_t kSecond = 1'000'000'000;
constexpr int64_t kExchangeOffset = int64_t{8} * 3600; // UTC+8, all year

json lead_json(const LeadHistogram& lead) {
    json object = {{"count", lead.count()}};
    if (lead.count() != 0) {
        object["median_ns"] = lead.quantile_ns(0.5);
        object["p99_ns"] = lead.quantile_ns(0.99);
        object["max_ns"] = lead.max_ns();
    }
    return object;
}

void put_times(json& object, uint64_t first_ns, uint64_t last_ns) {
    object["first_ns"] = first_ns;
    object["last_ns"] = last_ns;
    object["first"] = exchange_time(first_ns);
    object["last"] = exchange_time(last_ns);
}

json round_json(const Round& round) {
    json object = {
        {"topic", round.topic_id}, {"snap_no", round.snap_no},         {"messages", round.messages},
        {"listed", round.listed},  {"instruments", round.instruments}, {"complete", round.complete},
        {"whole", round.whole}};
    put_times(object, round.first_ns, round.last_ns);
    return object;
}

json session_json(const SessionTally& session) {
    json rounds = json::array();
    for (const Round& round : session.rounds) {
        rounds.push_back(round_json(round));
    }
    json object = {{"server", endpoint_text(session.server)},
                   {"client", endpoint_text(session.client)},
                   {"segments", session.segments},
                   {"data_segments", session.data_segments},
                   {"bytes", session.bytes},
                   {"retransmissions", session.retransmissions},
                   {"out_of_order", session.out_of_order},
                   {"holes", session.holes},
                   {"bad_checksums", session.bad_checksums},
                   {"cut", session.cut},
                   {"syn", session.syn},
                   {"fin", session.fin},
                   {"rst", session.rst},
                   {"messages", session.messages},
                   {"rounds_begun", session.rounds_begun},
                   {"rounds_complete", session.rounds_complete},
                   {"rounds", rounds}};
    put_times(object, session.first_ns, session.last_ns);
    return object;
}

json line_json(const LineTally& line) {
    json object = {{"group", endpoint_text(line.group)},
                   {"feed", nullptr},
                   {"line", nullptr},
                   {"datagrams", line.datagrams},
                   {"bytes", line.bytes},
                   {"changes", line.changes},
                   {"too_short", line.too_short},
                   {"not_incremental", line.not_incremental},
                   {"other_topic", line.other_topic},
                   {"out_of_range", line.out_of_range},
                   {"bad_checksums", line.bad_checksums},
                   {"cut", line.cut}};
    if (line.name != nullptr) {
        object["feed"] = line.name->feed;
        object["line"] = std::string(1, line.name->line);
    }
    put_times(object, line.first_ns, line.last_ns);
    return object;
}

json side_json(const CaptureTallies& tallies, Side side) {
    const InstrumentCounts counts = count_instruments(tallies, side);
    const SideTally& tally = tallies.changes().side(side);
    return {{"instruments",
             {{"all", counts.all},
              {"listed", counts.listed},
              {"changed", counts.changed},
              {"futures", counts.futures},
              {"options", counts.options},
              {"other", counts.other}}},
            {"arrivals", tally.arrivals},
            {"changes", tally.changes},
            {"duplicates", tally.duplicates},
            {"repeated", tally.repeated},
            {"late", tally.late},
            {"gaps", tally.gaps},
            {"missing", tally.missing},
            {"both_lines", tally.both},
            {"only_a", tally.only[0]},
            {"only_b", tally.only[1]},
            {"only_other", tally.only[2]},
            {"a_first", lead_json(tally.a_first)},
            {"b_first", lead_json(tally.b_first)}};
}

json topics_json(const CaptureTallies& tallies) {
    json topics = json::array();
    for (const auto& [topic_id, datagrams] : tallies.capture().topics) {
        json object = {{"topic", topic_id}, {"datagrams", datagrams}, {"feed", nullptr}};
        if (const TopicName* const name = tallies.names().topic(topic_id)) {
            object["feed"] = name->feed;
        }
        topics.push_back(object);
    }
    return topics;
}

} // namespace

std::string exchange_time(uint64_t timestamp_ns) {
    const auto seconds = static_cast<std::time_t>(timestamp_ns / kSecond) +
                         static_cast<std::time_t>(kExchangeOffset);
    std::tm parts{};
    ::gmtime_r(&seconds, &parts);
    return fmt::format("{:04}-{:02}-{:02} {:02}:{:02}:{:02}.{:09}", parts.tm_year + 1900,
                       parts.tm_mon + 1, parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec,
                       timestamp_ns % kSecond);
}

std::string product_name(const InstrumentTally& instrument) {
    if (instrument.inst_id.empty()) {
        return "";
    }
    return instrument.product_class == '1'   ? "futures"
           : instrument.product_class == '2' ? "options"
                                             : "other";
}

void for_each_instrument(
    const CaptureTallies& tallies,
    const std::function<void(Side, uint32_t, const InstrumentTally&)>& on_instrument) {
    for (const Side side : {Side::kShfe, Side::kIne}) {
        for (uint32_t number = 0; number < kSideLimit[static_cast<std::size_t>(side)]; ++number) {
            if (const InstrumentTally* const found = tallies.changes().find(side, number)) {
                on_instrument(side, number, *found);
            }
        }
    }
}

InstrumentCounts count_instruments(const CaptureTallies& tallies, Side side) {
    InstrumentCounts counts;
    for_each_instrument(tallies, [&](Side of, uint32_t, const InstrumentTally& instrument) {
        if (of != side) {
            return;
        }
        const std::string product = product_name(instrument);
        ++counts.all;
        counts.listed += product.empty() ? 0 : 1;
        counts.changed += instrument.changed() ? 1 : 0;
        counts.futures += product == "futures" ? 1 : 0;
        counts.options += product == "options" ? 1 : 0;
        counts.other += product == "other" ? 1 : 0;
    });
    return counts;
}

json summary_json(const CaptureFacts& facts, const CaptureTallies& tallies) {
    const CaptureTally& capture = tallies.capture();
    json object = {
        {"type", "summary"},
        {"file", facts.file},
        {"format", facts.format.name},
        {"resolution", facts.format.resolution},
        {"byte_order", facts.format.big_endian ? "big" : "little"},
        {"snaplen", facts.format.snaplen},
        {"file_bytes", facts.format.bytes},
        {"damage", nullptr},
        {"interrupted", facts.interrupted},
        {"frames", capture.frames},
        {"bytes", capture.bytes},
        {"cut", capture.cut},
        {"stamps_back", capture.stamps_back},
        {"snapshot_segments", capture.snapshot_segments},
        {"line_datagrams", capture.line_datagrams},
        {"other_tcp", capture.other_tcp},
        {"other_udp", capture.other_udp},
        {"other", capture.other},
        {"topics", topics_json(tallies)},
        {"shfe", side_json(tallies, Side::kShfe)},
        {"ine", side_json(tallies, Side::kIne)},
        {"sessions_not_kept", tallies.sessions().not_kept()},
    };
    if (!facts.damage.empty()) {
        object["damage"] = facts.damage;
    }
    if (capture.frames != 0) {
        put_times(object, capture.first_ns, capture.last_ns);
    }
    json& sessions = object["sessions"] = json::array();
    for (const SessionTally& session : tallies.sessions().sessions()) {
        sessions.push_back(session_json(session));
    }
    json& lines = object["lines"] = json::array();
    for (const LineTally& line : tallies.lines()) {
        lines.push_back(line_json(line));
    }
    return object;
}

json instrument_json(Side side, uint32_t inst_no, const InstrumentTally& instrument) {
    json object = {{"type", "instrument"},
                   {"exchange", side_name(side)},
                   {"inst_no", inst_no},
                   {"inst_id", nullptr},
                   {"product", nullptr},
                   {"topic", nullptr},
                   {"snapshot_change", nullptr},
                   {"changes", instrument.changes},
                   {"duplicates", instrument.duplicates},
                   {"late", instrument.late},
                   {"gaps", instrument.gaps},
                   {"missing", instrument.missing}};
    if (!instrument.inst_id.empty()) {
        object["inst_id"] = instrument.inst_id;
        object["product"] = product_name(instrument);
    }
    if (instrument.in_snapshot) {
        object["snapshot_change"] = instrument.snapshot_change_no;
    }
    if (instrument.changed()) {
        object["topic"] = instrument.topic_id;
        object["min_change"] = instrument.min_change;
        object["max_change"] = instrument.max_change;
        put_times(object, instrument.first_ns, instrument.last_ns);
    }
    return object;
}

json gap_json(const Gap& gap, const CaptureTallies& tallies) {
    json object = {{"type", "gap"},          {"exchange", side_name(gap.side)},
                   {"inst_no", gap.inst_no}, {"inst_id", nullptr},
                   {"first", gap.first},     {"last", gap.last},
                   {"missing", gap.missing}, {"frame", gap.frame},
                   {"time_ns", gap.time_ns}, {"time", exchange_time(gap.time_ns)}};
    const InstrumentTally* const instrument = tallies.changes().find(gap.side, gap.inst_no);
    if (instrument != nullptr && !instrument->inst_id.empty()) {
        object["inst_id"] = instrument->inst_id;
    }
    return object;
}

} // namespace vorn_cli
