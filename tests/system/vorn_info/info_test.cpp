// `vorn info` as a program: its output, options and exit status.

#include "info_program.h"

#include <algorithm>
#include <sys/stat.h>

using nlohmann::json;

namespace {

class Info : public vorn_info::InfoProgram {};

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

TEST_F(Info, TellsWhatTheSimulatorPutIn) {
    write(session());
    const json manifest =
        json::parse(support::read_file(directory_.path() / "session.manifest.json"));
    const json object = summary();
    EXPECT_EQ(object["type"], "summary");
    EXPECT_EQ(object["format"], "pcap");
    EXPECT_EQ(object["resolution"], "ns");
    EXPECT_EQ(object["frames"], manifest["frames"]);
    EXPECT_EQ(object["line_datagrams"], manifest["datagrams"]);
    EXPECT_EQ(object["snapshot_segments"], manifest["tcp_segments"]);
    EXPECT_EQ(object["first_ns"], manifest["first_ns"]);
    EXPECT_EQ(object["last_ns"], manifest["last_ns"]);
    EXPECT_EQ(object["first"], "2026-01-15 09:00:00.000000000");
    EXPECT_EQ(object["shfe"]["changes"].get<uint64_t>() + object["ine"]["changes"].get<uint64_t>(),
              manifest["changes"].get<uint64_t>());
    EXPECT_EQ(object["shfe"]["instruments"]["listed"], 24);
    EXPECT_EQ(object["ine"]["instruments"]["listed"], 6);
    EXPECT_EQ(object["sessions"].size(), 2u);
    EXPECT_EQ(object["sessions"][0]["rounds_complete"], manifest["shfe_rounds"]);
    EXPECT_EQ(object["sessions"][1]["rounds_complete"], manifest["ine_rounds"]);
    EXPECT_EQ(object["lines"].size(), 4u);
    for (const char* none : {"cut", "stamps_back", "other", "other_tcp", "other_udp"}) {
        EXPECT_EQ(object[none], 0) << none;
    }
    EXPECT_EQ(object["damage"], nullptr);
}

TEST_F(Info, OneLineOnlyHasItsChangesOnOneLine) {
    write(session({"--set", "lines=b"}));
    const json object = summary();
    for (const char* side : {"shfe", "ine"}) {
        EXPECT_EQ(object[side]["only_b"], object[side]["changes"]);
        EXPECT_EQ(object[side]["both_lines"], 0);
        EXPECT_EQ(object[side]["gaps"], 0);
    }
}

// It reports and does not judge.
TEST_F(Info, AGapIsReportedWithStatusZero) {
    auto capture = session();
    const std::size_t lost = capture.changes()[capture.changes().size() / 2];
    const auto key = capture.instrument(lost);
    const uint32_t number = capture.change_no(lost);
    for (const std::size_t frame : capture.copies(key, number)) {
        capture.drop(frame);
    }
    write(capture);
    const auto objects = info({"--gaps"});
    ASSERT_EQ(objects.size(), 2u);
    EXPECT_EQ(objects[1]["type"], "gap");
    EXPECT_EQ(objects[1]["exchange"], key.first == 0 ? "SHFE" : "INE");
    EXPECT_EQ(objects[1]["inst_no"], key.second);
    EXPECT_EQ(objects[1]["first"], number);
    EXPECT_EQ(objects[1]["last"], number);
    EXPECT_EQ(objects[1]["missing"], 1);
    const auto run = vorn({"info", "c.pcap", "--gaps"});
    EXPECT_EQ(run.exit_status, 0);
    EXPECT_EQ(run.err, "");
    EXPECT_TRUE(contains(run.out, "1 gaps, 1 changes missing on every line")) << run.out;
    EXPECT_TRUE(contains(run.out, objects[1]["inst_id"].get<std::string>() + ": ")) << run.out;
}

TEST_F(Info, InstrumentsHaveNamesAndRanges) {
    auto capture = session();
    write(capture);
    const auto objects = info({"--instruments"});
    ASSERT_EQ(objects.size(), 31u);
    const auto rounds = capture.first_rounds();
    for (std::size_t i = 1; i < objects.size(); ++i) {
        const json& one = objects[i];
        const vorn_session::InstrumentKey key(one["exchange"] == "INE" ? 1 : 0, one["inst_no"]);
        EXPECT_EQ(one["inst_id"], rounds.at(key).record.inst_id.data());
        uint32_t most = 0;
        for (const std::size_t frame : capture.changes()) {
            most =
                capture.instrument(frame) == key ? std::max(most, capture.change_no(frame)) : most;
        }
        EXPECT_EQ(one["min_change"], 1);
        EXPECT_EQ(one["max_change"], most);
        EXPECT_EQ(one["changes"], most);
        EXPECT_EQ(one["duplicates"], most);
    }
    const auto run = vorn({"info", "c.pcap", "-v"});
    EXPECT_TRUE(contains(run.out, objects[1]["inst_id"].get<std::string>())) << run.out;
}

TEST_F(Info, AnUnfinishedFileIsReadToItsEndWithAWarning) {
    const std::string bytes = session().bytes();
    directory_.write("c.pcap", bytes.substr(0, bytes.size() - 5));
    const json object = summary();
    EXPECT_TRUE(object["damage"].is_string());
    EXPECT_GT(object["frames"], 1000);
    const auto run = vorn({"info", "c.pcap"});
    EXPECT_EQ(run.exit_status, 0);
    EXPECT_EQ(std::count(run.err.begin(), run.err.end(), '\n'), 1) << run.err;
    EXPECT_TRUE(contains(run.err, "unfinished or damaged behind frame")) << run.err;
}

TEST_F(Info, WhatCannotBeReadAtAllIsAFailure) {
    directory_.write("text", "no capture at all, and long enough for a header");
    directory_.write("c.pcap", session().bytes().substr(0, 30));
    for (const char* file : {"absent.pcap", "text", "c.pcap", "."}) {
        const auto run = vorn({"info", file});
        EXPECT_EQ(run.exit_status, 1) << file;
        EXPECT_EQ(run.out, "") << file;
        EXPECT_EQ(std::count(run.err.begin(), run.err.end(), '\n'), 1) << run.err;
        EXPECT_TRUE(contains(run.err, file)) << run.err;
    }
}

TEST_F(Info, ACaptureWithoutFramesIsFine) {
    directory_.write("c.pcap", session().bytes().substr(0, 24));
    EXPECT_EQ(summary()["frames"], 0);
    const auto run = vorn({"info", "c.pcap"});
    EXPECT_EQ(run.exit_status, 0);
    EXPECT_TRUE(contains(run.out, "no frames")) << run.out;
}

TEST_F(Info, AConfigurationNamesLinesTopicsAndPorts) {
    write(session({"--set", "shfe2ps_topic_id=77", "--set", "shfe2ps_ip_a=239.9.9.9:999"}));
    EXPECT_EQ(summary()["shfe"]["changes"], 0);
    directory_.write("vorn.ini", "[config]\nshfe2ps_topic_id = 77\nshfe2ps_ip_a = 239.9.9.9:999\n");
    const json object = info({"--config", "vorn.ini"}).at(0);
    EXPECT_GT(object["shfe"]["changes"], 100);
    EXPECT_EQ(object["lines"][0]["group"], "239.9.9.9:999");
    EXPECT_EQ(object["lines"][0]["feed"], "shfe2ps");
    const auto run = vorn({"info", "c.pcap", "--config", "absent.ini"});
    EXPECT_EQ(run.exit_status, 2);
    EXPECT_TRUE(contains(run.err, "absent.ini")) << run.err;
}

} // namespace
