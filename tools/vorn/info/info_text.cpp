// The report as text. What did not happen is left out.

#include "tools/vorn/feed/feed_text.h"
#include "tools/vorn/info/info_report.h"
#include "tools/vorn/terminal.h"

#include <fmt/format.h>

namespace vorn_cli {

namespace {

using Lines = std::vector<std::string>;

// "2 retransmissions, 1 hole": what is not zero, each with its name in the plural.
class Remarks {
public:
    Remarks& add(uint64_t count, const char* plural) {
        if (count != 0) {
            text_ += fmt::format("{}{} {}", text_.empty() ? "" : ", ", grouped(count), plural);
        }
        return *this;
    }
    // As a line of its own, indented; nothing when there are none.
    void put(Lines& lines, const char* indent = "    ") const {
        if (!text_.empty()) {
            lines.push_back(indent + text_);
        }
    }

private:
    std::string text_;
};

double seconds_of(uint64_t first_ns, uint64_t last_ns) {
    return last_ns > first_ns ? static_cast<double>(last_ns - first_ns) / 1e9 : 0.0;
}

std::string time_of_day(uint64_t timestamp_ns) {
    return exchange_time(timestamp_ns).substr(11, 12); // "09:00:00.000"
}

void put_file(Lines& lines, const CaptureFacts& facts, const CaptureTally& capture) {
    const CaptureFormat& format = facts.format;
    lines.push_back(fmt::format(
        "{}: {}, stamps in {}, {} bytes", printable(facts.file), format.name,
        format.resolution == "other" ? "another unit" : format.resolution, grouped(format.bytes)));
    if (capture.frames == 0) {
        lines.emplace_back("no frames");
        return;
    }
    lines.push_back(fmt::format("{} frames, {} bytes on the wire", grouped(capture.frames),
                                grouped(capture.bytes)));
    lines.push_back(fmt::format("from {} (UTC+8)", exchange_time(capture.first_ns)));
    lines.push_back(fmt::format("to   {}, {:.3f} s", exchange_time(capture.last_ns),
                                seconds_of(capture.first_ns, capture.last_ns)));
    Remarks()
        .add(capture.cut, "frames cut short by the snapshot length")
        .add(capture.stamps_back, "stamps earlier than the one before")
        .put(lines, "");
    Remarks()
        .add(capture.other_tcp, "segments of other TCP connections")
        .add(capture.other_udp, "other UDP datagrams")
        .add(capture.other, "frames that are neither, or damaged")
        .put(lines, "");
}

void put_round(Lines& lines, const Round& round) {
    std::string notes = round.complete ? "" : ", not completed";
    notes += round.whole ? "" : ", with holes";
    lines.push_back(fmt::format("    round {} of topic {}: {} to {}, {} messages, {} instruments "
                                "listed, {} with values{}",
                                round.snap_no, round.topic_id, time_of_day(round.first_ns),
                                time_of_day(round.last_ns), grouped(round.messages),
                                grouped(round.listed), grouped(round.instruments), notes));
}

void put_session(Lines& lines, const SessionTally& session) {
    lines.push_back(fmt::format(
        "  {} to {}: {} segments, {} with {} bytes of data, {} messages, {} "
        "rounds completed",
        endpoint_text(session.server), endpoint_text(session.client), grouped(session.segments),
        grouped(session.data_segments), grouped(session.bytes), grouped(session.messages),
        grouped(session.rounds_complete)));
    Remarks()
        .add(session.syn, "SYN")
        .add(session.fin, "FIN")
        .add(session.rst, "RST")
        .add(session.retransmissions, "retransmissions")
        .add(session.out_of_order, "out of order")
        .add(session.holes, "holes")
        .add(session.bad_checksums, "bad checksums")
        .add(session.cut, "cut short")
        .put(lines);
    constexpr std::size_t kShownRounds = 20;
    for (std::size_t i = 0; i < session.rounds.size() && i < kShownRounds; ++i) {
        put_round(lines, session.rounds[i]);
    }
    if (session.rounds_begun > kShownRounds) {
        lines.push_back(
            fmt::format("    and {} rounds more", grouped(session.rounds_begun - kShownRounds)));
    }
}

void put_line(Lines& lines, const LineTally& line) {
    const std::string name =
        line.name == nullptr ? "not configured" : line.name->feed + " " + line.name->line;
    const double seconds = seconds_of(line.first_ns, line.last_ns);
    lines.push_back(fmt::format(
        "  {:<20} {:<14} {:>12} datagrams {:>14} bytes {:>10} a second", endpoint_text(line.group),
        name, grouped(line.datagrams), grouped(line.bytes),
        seconds > 0 ? grouped(static_cast<uint64_t>(static_cast<double>(line.datagrams) / seconds))
                    : "-"));
    Remarks()
        .add(line.too_short, "too short for a decode buffer")
        .add(line.not_incremental, "of another kind")
        .add(line.other_topic, "with a topic of no feed")
        .add(line.out_of_range, "with an instrument number out of range")
        .add(line.bad_checksums, "bad checksums")
        .add(line.cut, "cut short")
        .put(lines);
}

void put_lead(Lines& lines, char line, const LeadHistogram& lead) {
    if (lead.count() != 0) {
        lines.push_back(
            fmt::format("    {} first {:>14} times, by {} ns in the median, {} ns at p99, "
                        "{} ns at most",
                        line, grouped(lead.count()), grouped(lead.quantile_ns(0.5)),
                        grouped(lead.quantile_ns(0.99)), grouped(lead.max_ns())));
    }
}

void put_side(Lines& lines, const CaptureTallies& tallies, Side side) {
    const InstrumentCounts counts = count_instruments(tallies, side);
    if (counts.all == 0) {
        return;
    }
    const SideTally& tally = tallies.changes().side(side);
    lines.push_back(fmt::format("{}: {} instruments ({} futures, {} options, {} other, {} without "
                                "a name), {} with changes",
                                side_name(side), grouped(counts.all), grouped(counts.futures),
                                grouped(counts.options), grouped(counts.other),
                                grouped(counts.all - counts.listed), grouped(counts.changed)));
    lines.push_back(fmt::format(
        "  {} changes: {} on both lines, {} only on A, {} only on B{}", grouped(tally.changes),
        grouped(tally.both), grouped(tally.only[0]), grouped(tally.only[1]),
        tally.only[2] == 0 ? std::string()
                           : ", " + grouped(tally.only[2]) + " only on other groups"));
    put_lead(lines, 'A', tally.a_first);
    put_lead(lines, 'B', tally.b_first);
    lines.push_back(fmt::format("  {} gaps, {} changes missing on every line", grouped(tally.gaps),
                                grouped(tally.missing)));
    Remarks()
        .add(tally.repeated, "repeated on their own line")
        .add(tally.late, "later than a newer one")
        .put(lines, "  ");
}

} // namespace

Lines summary_lines(const CaptureFacts& facts, const CaptureTallies& tallies) {
    Lines lines;
    const CaptureTally& capture = tallies.capture();
    put_file(lines, facts, capture);
    if (!tallies.sessions().sessions().empty()) {
        lines.insert(lines.end(), {"", "snapshot sessions"});
        for (const SessionTally& session : tallies.sessions().sessions()) {
            put_session(lines, session);
        }
        Remarks()
            .add(tallies.sessions().not_kept(), "segments of further sessions, not looked at")
            .put(lines, "  ");
    }
    if (!tallies.lines().empty()) {
        lines.insert(lines.end(), {"", "multicast lines"});
        for (const LineTally& line : tallies.lines()) {
            put_line(lines, line);
        }
        std::string topics;
        for (const auto& [topic_id, datagrams] : capture.topics) {
            const TopicName* const name = tallies.names().topic(topic_id);
            topics += fmt::format("{} {} ({}, {} datagrams)", topics.empty() ? "" : ",", topic_id,
                                  name == nullptr ? "of no feed" : name->feed, grouped(datagrams));
        }
        lines.push_back("  topics" + topics);
    }
    for (const Side side : {Side::kShfe, Side::kIne}) {
        Lines of_side;
        put_side(of_side, tallies, side);
        if (!of_side.empty()) {
            lines.emplace_back();
            lines.insert(lines.end(), of_side.begin(), of_side.end());
        }
    }
    return lines;
}

std::string instrument_heading() {
    return fmt::format("{:<5}{:>6}  {:<20} {:<8}{:>11}{:>11}{:>11}{:>11}{:>6}{:>9}{:>6}", "",
                       "number", "instrument", "product", "first", "last", "changes", "duplicate",
                       "gaps", "missing", "late");
}

std::string instrument_line(Side side, uint32_t inst_no, const InstrumentTally& instrument) {
    const auto number = [&](uint32_t value) {
        return instrument.changed() ? std::to_string(value) : std::string("-");
    };
    return fmt::format("{:<5}{:>6}  {:<20} {:<8}{:>11}{:>11}{:>11}{:>11}{:>6}{:>9}{:>6}",
                       side_name(side), inst_no, printable(instrument.inst_id),
                       product_name(instrument), number(instrument.min_change),
                       number(instrument.max_change), instrument.changes, instrument.duplicates,
                       instrument.gaps, instrument.missing, instrument.late);
}

std::string gap_line(const Gap& gap, const CaptureTallies& tallies) {
    const InstrumentTally* const instrument = tallies.changes().find(gap.side, gap.inst_no);
    const std::string name = instrument == nullptr || instrument->inst_id.empty()
                                 ? std::to_string(gap.inst_no)
                                 : printable(instrument->inst_id);
    return fmt::format("gap  {} {}: {} to {} had not come at {} (frame {}), {} never came",
                       side_name(gap.side), name, gap.first, gap.last, exchange_time(gap.time_ns),
                       gap.frame, gap.missing);
}

} // namespace vorn_cli
