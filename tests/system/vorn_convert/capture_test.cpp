// Captures as research files: held against the truth, the recorder and themselves.

#include "convert_program.h"

#include "tools/session_report/recording.h"
#include "tools/vorn/verify/truth_match.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

using vorn_cli::ResearchRow;
using vorn_cli::RowEvent;
using vorn_convert::event_names;
using vorn_convert::inst_id_of;
using vorn_convert::ResearchFile;
using vorn_convert::same_bytes;
using vorn_session::contains;
using vorn_session::lines;

namespace {

class ConvertCapture : public vorn_convert::ConvertProgram {
protected:
    // The rows of a recorder over the same capture.
    std::string recorded(const std::string& capture) const {
        directory_.write("vorn.ini", "[config]\ndevice = pcap:" + name(capture) +
                                         "?eof=stop\ninsts = all\nshfe2ps = enabled\n"
                                         "ine2ps = enabled\nrecovery = enabled\n");
        const auto run = vorn({"record", "-q", "-f", "--config", "vorn.ini", "-o", "recorded.csv"});
        EXPECT_EQ(run.exit_status, 0) << run.err;
        return content("recorded.csv");
    }
};

// The lines that are no events, the header among them.
std::string without_events(const std::string& csv) {
    std::string result;
    for (std::size_t at = 0; at < csv.size();) {
        const std::size_t end = csv.find('\n', at) + 1;
        if (csv.find(',', at) != at + 3) {
            result += csv.substr(at, end - at);
        }
        at = end;
    }
    return result;
}

void to_two_decimals(ResearchRow& row) {
    for (const vorn_cli::RowColumn& column : vorn_cli::row_columns()) {
        if (column.type != vorn_cli::RowColumn::Type::kF64) {
            continue;
        }
        for (std::size_t i = 0; i < column.count; ++i) {
            char* const at = reinterpret_cast<char*>(&row) + column.offset + i * sizeof(double);
            double value = 0;
            std::memcpy(&value, at, sizeof(value));
            char text[64];
            std::snprintf(text, sizeof(text), "%.2f", value);
            value = std::strtod(text, nullptr);
            std::memcpy(at, &value, sizeof(value));
        }
    }
}

void expect_truth(const ResearchFile& file, const std::string& truth) {
    vorn_cli::TruthMatch match(truth);
    for (const ResearchRow& row : file.rows) {
        if (row.event == VORN_MD_EVENT_PHASE && row.phase == VORN_MD_PHASE_SNAPSHOT) {
            match.snapshot_begins();
        } else if (row.event == 0) {
            match.update(row.record, row.slot);
        }
    }
    match.finish(true);
    EXPECT_EQ(match.differences(), 0u);
    for (const auto& d : match.shown()) {
        ADD_FAILURE() << d.instrument << ' ' << d.change_no << ' ' << d.field << ": " << d.expected
                      << ", not " << d.got;
    }
    EXPECT_EQ(match.updates(), file.updates().size());
}

TEST_F(ConvertCapture, EveryRowIsTheTruth) {
    sim("s");
    const ResearchFile file = rows("s", {"s.pcap"});
    EXPECT_EQ(file.updates().size(), replay("s.pcap")["updates"]);
    EXPECT_GT(file.updates().size(), 2000u);
    expect_truth(file, name("s.truth"));
    EXPECT_EQ(event_names(file.events()), "phase phase round round phase phase phase");
}

TEST_F(ConvertCapture, RowsStandInOrderWithTheTimesOfTheirFrames) {
    sim("s");
    const ResearchFile file = rows("s", {"s.pcap"});
    uint64_t sequence = 0;
    uint64_t time_ns = 0;
    for (const ResearchRow& row : file.rows) {
        EXPECT_EQ(row.sequence, ++sequence);
        EXPECT_GE(row.receive_time_ns, time_ns);
        time_ns = row.receive_time_ns;
        if (row.event == 0) {
            EXPECT_EQ(row.flags, 0);
            // The exchange stamps a change before it is sent, by less than a second and a half.
            const uint64_t stamped = row.record.update_time * uint64_t{1'000'000'000} +
                                     row.record.update_milli_sec * uint64_t{1'000'000};
            EXPECT_LE(stamped, row.receive_time_ns);
            EXPECT_LT(row.receive_time_ns - stamped, 1'500'000'000u);
        } else {
            EXPECT_EQ(row.flags, vorn_cli::kRowEvent);
        }
    }
}

TEST_F(ConvertCapture, AGapIsThreeThingsInTheFile) {
    session_with_gap("g");
    const ResearchFile file = rows("g", {"g.pcap"});
    expect_truth(file, name("g.truth"));
    const auto events = file.events();
    EXPECT_TRUE(contains(event_names(events), "phase gap restart phase phase round"))
        << event_names(events);
    const auto gap = std::find_if(events.begin(), events.end(), [](const ResearchRow& row) {
        return row.event == VORN_MD_EVENT_GAP;
    });
    ASSERT_NE(gap, events.end());
    EXPECT_EQ(gap->received, gap->expected + 1) << "one change was taken out";
    EXPECT_EQ(gap->count, 1u);
    // The instrument's last row before it has the number before the gap.
    uint32_t last = 0;
    for (const ResearchRow& row : file.rows) {
        if (row.sequence >= gap->sequence) {
            break;
        }
        if (row.event == 0 && row.slot == gap->slot) {
            EXPECT_EQ(inst_id_of(row), inst_id_of(*gap));
            last = row.record.change_no;
        }
    }
    EXPECT_EQ(last + 1, gap->expected);
}

TEST_F(ConvertCapture, TheSameCaptureGivesTheSameBytes) {
    session_with_gap("g");
    for (const char* suffix : {".npy", ".csv"}) {
        convert({"g.pcap", "-o", std::string("a") + suffix});
        convert({"g.pcap", "-o", std::string("b") + suffix});
        EXPECT_EQ(content(std::string("a") + suffix), content(std::string("b") + suffix));
    }
}

TEST_F(ConvertCapture, CsvIsTheRecordersButForEvents) {
    session_with_gap("g");
    convert({"g.pcap", "-o", "g.csv"});
    const std::string csv = content("g.csv");
    EXPECT_EQ(without_events(csv), recorded("g.pcap"));
    const ResearchFile file = rows("g", {"g.pcap"});
    EXPECT_EQ(lines(csv), file.rows.size() + 1);
    EXPECT_EQ(convert({"g.pcap", "--format", "csv"}).out, csv);
}

// What a CSV of this program holds of a row comes back.
TEST_F(ConvertCapture, CsvGivesTheRowsBackToTwoDecimalsAndFiveLevels) {
    session_with_gap("g");
    const ResearchFile direct = rows("direct", {"g.pcap"});
    convert({"g.pcap", "-o", "g.csv"});
    const ResearchFile back = rows("back", {"g.csv"});
    ASSERT_EQ(back.rows.size(), direct.rows.size());
    for (std::size_t i = 0; i < back.rows.size(); ++i) {
        const ResearchRow& got = back.rows[i];
        ResearchRow want = direct.rows[i];
        want.flags |= vorn_cli::kRowFromCsv;
        want.receive_time_ns = got.receive_time_ns;
        if (want.event == 0) {
            want.slot = vorn_cli::kNoRowSlot;
            for (std::size_t level = 5; level < 10; ++level) {
                want.record.bid_px[level] = want.record.ask_px[level] = 0;
                want.record.bid_vol[level] = want.record.ask_vol[level] = 0;
            }
            to_two_decimals(want);
        } else {
            EXPECT_EQ(got.receive_time_ns / 1'000'000, direct.rows[i].receive_time_ns / 1'000'000);
        }
        ASSERT_TRUE(same_bytes(got, want)) << i;
    }
}

TEST_F(ConvertCapture, ASelectionIsAPartOfTheWhole) {
    sim("s", {"--seconds", "20", "--rate", "400"});
    const ResearchFile whole = rows("whole", {"s.pcap"});
    const uint64_t middle = whole.rows[whole.rows.size() / 2].receive_time_ns; // that of a row
    const std::string instrument = inst_id_of(whole.updates().front());
    const struct {
        std::vector<std::string> arguments;
        std::function<bool(const ResearchRow&)> wanted;
    } cases[] = {
        {{"--from", std::to_string(middle)},
         [&](const ResearchRow& row) { return row.receive_time_ns >= middle; }},
        {{"--to", std::to_string(middle)},
         [&](const ResearchRow& row) { return row.receive_time_ns < middle; }},
        {{"--from", "09:00:05", "--to", "09:00:10.5"},
         [&](const ResearchRow& row) {
             constexpr uint64_t kNine = 1'768'438'800'000'000'000;
             return row.receive_time_ns >= kNine + 5'000'000'000 &&
                    row.receive_time_ns < kNine + 10'500'000'000;
         }},
        {{"--from", "21:00", "--to", "09:00:05"}, // around midnight
         [&](const ResearchRow& row) { return row.receive_time_ns < 1'768'438'805'000'000'000; }},
        {{"--instruments", instrument.substr(0, 6)},
         [&](const ResearchRow& row) {
             return row.event != 0 || inst_id_of(row).substr(0, 6) == instrument.substr(0, 6);
         }},
        {{"--instruments", "all"}, [](const ResearchRow&) { return true; }},
        {{"--limit", "100"}, [&](const ResearchRow& row) { return row.sequence <= 100; }},
        {{"--limit", "10", "--instruments", "xx,"},
         [](const ResearchRow& row) { return row.event != 0; }},
    };
    for (const auto& row : cases) {
        std::vector<std::string> arguments = row.arguments;
        arguments.push_back("s.pcap");
        const ResearchFile part = rows("part", arguments);
        std::vector<ResearchRow> wanted;
        std::copy_if(whole.rows.begin(), whole.rows.end(), std::back_inserter(wanted), row.wanted);
        EXPECT_FALSE(wanted.empty()) << row.arguments[1];
        ASSERT_EQ(part.rows.size(), wanted.size()) << row.arguments[1];
        for (std::size_t i = 0; i < wanted.size(); ++i) {
            ASSERT_TRUE(same_bytes(part.rows[i], wanted[i])) << row.arguments[1] << ' ' << i;
        }
        // The same part of a research file.
        arguments.back() = "whole.npy";
        convert([&] {
            auto again = arguments;
            again.insert(again.end(), {"-f", "-o", "again.npy"});
            return again;
        }());
        EXPECT_EQ(content("again.npy"), content("part.npy"));
    }
}

TEST_F(ConvertCapture, JsonSaysWhatIsInTheFile) {
    session_with_gap("g");
    const auto run = vorn({"convert", "g.pcap", "-o", "g.npy", "--json"});
    EXPECT_EQ(run.exit_status, 0) << run.err;
    const auto report = nlohmann::json::parse(run.out);
    const ResearchFile file = read("g.npy");
    EXPECT_EQ(report["rows"], file.rows.size());
    EXPECT_EQ(report["updates"], file.updates().size());
    EXPECT_EQ(report["events"]["gap"], 1);
    EXPECT_EQ(report["events"]["restart"], 1);
    EXPECT_EQ(report["instruments"], 30);
    EXPECT_EQ(report["bytes"], content("g.npy").size());
    EXPECT_EQ(report["input_kind"], "capture");
    EXPECT_EQ(report["format"], "npy");
    EXPECT_EQ(report["first_time_ns"], file.rows.front().receive_time_ns);
    EXPECT_EQ(report["last_time_ns"], file.rows.back().receive_time_ns);
    const auto text = vorn({"convert", "g.pcap", "-f", "-o", "g.npy"});
    EXPECT_EQ(lines(text.err), 1u);
    EXPECT_TRUE(contains(text.err, "1 gap, 1 restart")) << text.err;
    EXPECT_EQ(text.out, "");
}

TEST_F(ConvertCapture, ACaptureThatGivesNoUpdateSaysSo) {
    sim("s");
    directory_.write("empty.pcap", content("s.pcap").substr(0, 24));
    const auto run = vorn({"convert", "empty.pcap", "-o", "e.npy"});
    EXPECT_EQ(run.exit_status, 0) << run.err;
    EXPECT_EQ(read("e.npy").updates().size(), 0u);
    EXPECT_TRUE(contains(run.err, "0 updates")) << run.err;
}

} // namespace
